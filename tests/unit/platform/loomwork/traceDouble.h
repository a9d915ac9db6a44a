/// Takes the place of the trace library's outputs, and keeps what was traced and logged.
#pragma once

#include <string>
#include <vector>

namespace traceDouble {

struct Trace {
    unsigned int level;
    std::string text;
};

/// What came since the last call. Any thread may add.
std::vector<Trace> takeTraces();
std::vector<std::string> takeLogLines();

constexpr unsigned int receivedSignal = 17; ///< level of a received-signal trace in the list

} // namespace traceDouble
