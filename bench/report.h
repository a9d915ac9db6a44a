/// The table that people read and the JSON that programs read, from the same rows.
#pragma once

#include "measure.h"

#include <optional>
#include <string>
#include <vector>

namespace merlow::bench {

/// What a row must reach: its ratio if it has one, else its value. The limit itself counts as reached.
struct Target {
    double limit = 0;
    bool atMost = true;
};

/// One line of the table.
struct Row {
    std::string id;
    std::string what;
    std::string unit = {};
    std::optional<double> floor = {};
    double value = 0;
    std::optional<Spread> ratio = {};
    std::optional<double> wallRatio = {}; ///< the same by elapsed time
    std::optional<double> worst = {};     ///< the worst of all rounds
    std::optional<Target> target = {};
    std::string skipped = {}; ///< why there is no value

    bool met() const;
};

/// What the figures were measured on.
struct Machine {
    std::string kernel;
    std::string processor;
    int cpus = 0;
    double load = 0;      ///< average of the minute before; well above 0 is no machine to measure on
    std::string priority; ///< what this process and those that it starts run with
    static Machine describe();
};

std::string table(const Machine& machine, const std::vector<Row>& rows);
std::string json(const Machine& machine, const std::vector<Row>& rows);

} // namespace merlow::bench
