/// The trace library and the remote log in memory: everything that was written, and masks to set.
#pragma once

#include <cstdint>
#include <scryTrace.h>
#include <string>
#include <vector>

namespace support {

struct TraceLine {
    unsigned int level; ///< 17 and 18 for received and sent signals
    std::string text;
    std::uint32_t sigNo = 0;    ///< of a signal trace
    std::uint32_t receiver = 0; ///< of a sent-signal trace
};

struct RushlogLine {
    std::string category;
    std::string text;
};

/// Keeps what the traced code handed over. Every level is on until a test sets a mask, so that every text is
/// built. One thread only.
class Traces {
public:
    static Traces& instance();

    void reset();
    void clear();
    void setProcMask(std::uint32_t mask);
    void setObjMask(std::uint32_t mask);

    [[nodiscard]] const std::vector<TraceLine>& lines() const { return m_lines; }
    [[nodiscard]] const std::vector<RushlogLine>& rushlog() const { return m_rushlog; }
    [[nodiscard]] std::size_t count(unsigned int level, const std::string& text) const;
    [[nodiscard]] bool has(unsigned int level, const std::string& text) const
    {
        return count(level, text) > 0;
    }
    /// A line of that level contains `part`.
    [[nodiscard]] bool contains(unsigned int level, const std::string& part) const;
    /// All lines as "level: text" for a failing assertion.
    [[nodiscard]] std::string dump() const;

    void add(TraceLine line) { m_lines.push_back(std::move(line)); }
    void add(RushlogLine line) { m_rushlog.push_back(std::move(line)); }

private:
    std::vector<TraceLine> m_lines;
    std::vector<RushlogLine> m_rushlog;
};

} // namespace support
