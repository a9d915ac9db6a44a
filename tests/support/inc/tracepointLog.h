/// The server's LTTng events in memory.
#pragma once

#include "merlowTracepoints.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace support {

/// Enables all events and keeps them while it lives. One at a time.
class TracepointLog : public MerlowTracepoints::Sink {
public:
    using Event = MerlowTracepoints::Event;
    struct Line {
        Event event;
        std::string text;
        std::uint32_t sigNo; ///< of a received or sent signal
        std::uint32_t pid;   ///< the receiver of a sent signal

        bool operator==(const Line&) const = default;
    };

    TracepointLog() { MerlowTracepoints::setSink(this); }
    ~TracepointLog() override { MerlowTracepoints::setSink(nullptr); }
    TracepointLog(const TracepointLog&) = delete;
    TracepointLog& operator=(const TracepointLog&) = delete;

    void onEvent(Event event, const MerlowTracepoints::Fields& fields) override
    {
        m_lines.push_back({event, fields.msg, fields.sigNo, fields.pid});
    }

    void clear() { m_lines.clear(); }
    [[nodiscard]] const std::vector<Line>& lines() const { return m_lines; }
    [[nodiscard]] std::size_t count(Event event, const std::string& text) const
    {
        return static_cast<std::size_t>(std::count_if(m_lines.begin(), m_lines.end(), [&](const Line& line) {
            return line.event == event && line.text == text;
        }));
    }
    /// All texts of one event, in order.
    [[nodiscard]] std::vector<std::string> texts(Event event) const
    {
        std::vector<std::string> texts;
        for (const Line& line : m_lines) {
            if (line.event == event) {
                texts.push_back(line.text);
            }
        }
        return texts;
    }

private:
    std::vector<Line> m_lines;
};

} // namespace support
