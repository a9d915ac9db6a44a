#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace sim {

struct Fault {
    std::uint16_t id = 0;
    std::uint16_t faultCase = 0;
    std::string text;
    unsigned int sources = 1;
    bool isShown = false;
};

/// Which faults are active, and which of them are shown: a higher one hides lower ones, and of two that
/// exclude each other the first is shown.
class FaultLedger {
public:
    using Raised = std::function<void(const Fault&)>;
    using Ceased = std::function<void(const Fault&)>;

    void subscribe(Raised raised, Ceased ceased)
    {
        m_raised = std::move(raised);
        m_ceased = std::move(ceased);
    }
    void raise(bool fromBoard, std::uint16_t id, std::uint16_t faultCase, const std::string& text);
    void remove(std::uint16_t id);
    void clear() { m_groups.clear(); }

    [[nodiscard]] std::set<std::uint16_t> shown() const;
    /// Calls `each` for the shown ones, the highest first.
    void forEachShown(const std::function<void(const Fault&)>& each) const;

private:
    using Group = std::vector<Fault>;

    [[nodiscard]] Fault* find(std::uint16_t id);
    void show(Fault& fault);

    std::map<int, Group, std::greater<>> m_groups; ///< by priority
    Raised m_raised;
    Ceased m_ceased;
};

} // namespace sim
