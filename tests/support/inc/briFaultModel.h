/// The coordination of the board's faults, written down plainly a second time: nothing is forgotten, nothing
/// shared with the product. What it tells the fault manager is what the product must tell it.
#pragma once

#include "faultCalls.h"

#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <vector>

namespace model {

struct FanInfo {
    std::optional<std::string> productNumber;
    std::optional<std::string> parentProductNumber;
    std::optional<int> slot;
};

/// What a bri::FaultInd carries.
struct Indication {
    std::optional<int> faultId;
    std::optional<std::uint32_t> faultCase;
    std::optional<FanInfo> fan;
};

class BriFaults {
public:
    explicit BriFaults(std::vector<FaultCall>& calls) : m_calls(calls) {}

    void setPowerDropSupervision(bool enabled) { m_powerDropSupervision = enabled; }
    void indicate(const Indication& indication);
    void cease(int faultId);

private:
    enum class State { pending, reported, ceaseCandidate, deleted };
    struct Entry {
        int briFaultId;
        std::uint32_t faultCase;
        std::uint16_t iwdFaultId;
        int priority;
        std::string description;
        State state;
        bool markedDelete;
    };

    void runFaultCoordination();
    void updateReportedFaults(const Entry& fault);
    void addReportedFault(const Entry& fault);
    void reportNotReportedFaults();
    void removeFaultsReadyToBeDeleted();

    std::vector<FaultCall>& m_calls;
    bool m_powerDropSupervision = false;
    std::list<Entry> m_active;
    std::list<Entry> m_reported;
};

} // namespace model
