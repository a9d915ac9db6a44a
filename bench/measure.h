/// Ways of exchanging messages, measured against each other in one run: the ways take turns, round by round,
/// so that whatever else the machine does meets all of them.
#pragma once

#include "process.h"

#include <cstddef>
#include <string>
#include <vector>

namespace merlow::bench {

/// How long to measure.
struct Effort {
    std::size_t rounds = 45;
    double roundNanoseconds = 60e6;
    std::size_t deaths = 15; ///< for what is measured by ending and starting processes, or by whole loads
    std::size_t stormSeconds = 5;
};

/// One way of exchanging messages: the processes that take part, of which the last is the client.
struct Way {
    std::vector<Process> processes;
    std::string verb = "trips";
    std::size_t size = 128;
    std::vector<const Process*> sharedProcesses = {}; ///< that take part and belong to another way
};

/// What one operation took in each round, in nanoseconds.
struct Series {
    std::vector<double> cpu; ///< CPU time of all processes that take part
    std::vector<double> wall;
};

/// Measures all ways, taking turns; the result has the order of `ways`.
std::vector<Series> measure(const std::vector<const Way*>& ways, const Effort& effort);

/// Median and quartiles.
struct Spread {
    double low = 0;
    double median = 0;
    double high = 0;
    double worst = 0;
};

Spread spreadOf(std::vector<double> values);

/// Round by round, then the spread: what one way takes, divided by what another takes.
Spread ratioOf(const std::vector<double>& numerator, const std::vector<double>& denominator);

} // namespace merlow::bench
