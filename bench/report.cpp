#include "report.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sched.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace merlow::bench {

namespace {

std::string number(double value)
{
    std::array<char, 32> text{};
    const int decimals = value < 10 ? 2 : value < 1000 ? 1 : 0;
    std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
    return text.data();
}

std::string ratioText(const Row& row)
{
    if (!row.ratio) {
        return "";
    }
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.3f (%.2f-%.2f)", row.ratio->median, row.ratio->low,
                  row.ratio->high);
    return text.data();
}

std::string targetText(const Row& row)
{
    if (!row.target) {
        return "";
    }
    return (row.target->atMost ? "<= " : ">= ") + number(row.target->limit);
}

std::array<std::string, 7> cells(const Row& row)
{
    if (!row.skipped.empty()) {
        return {row.what, "", "", "", "", targetText(row), "skipped: " + row.skipped};
    }
    return {row.what,
            row.floor ? number(*row.floor) : "",
            number(row.value),
            row.unit,
            ratioText(row),
            targetText(row),
            !row.target ? ""
            : row.met() ? "reached"
                        : "MISSED"};
}

/// As `nice` and `chrt` have set it.
std::string ownPriority()
{
    sched_param parameters{};
    const int policy = sched_getscheduler(0) & ~SCHED_RESET_ON_FORK;
    if ((policy == SCHED_FIFO || policy == SCHED_RR) && sched_getparam(0, &parameters) == 0) {
        return "real-time priority " + std::to_string(parameters.sched_priority);
    }
    return "niceness " + std::to_string(getpriority(PRIO_PROCESS, 0));
}

} // namespace

bool Row::met() const
{
    if (!target || !skipped.empty()) {
        return true;
    }
    const double reached = ratio ? ratio->median : value;
    return target->atMost ? reached <= target->limit : reached >= target->limit;
}

Machine Machine::describe()
{
    Machine machine;
    utsname name{};
    if (uname(&name) == 0) {
        machine.kernel = std::string(name.sysname) + " " + name.release + " " + name.machine;
    }
    machine.cpus = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
    getloadavg(&machine.load, 1);
    machine.priority = ownPriority();
    std::ifstream file("/proc/cpuinfo");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("model name", 0) == 0) {
            machine.processor = line.substr(line.find(':') + 2);
            break;
        }
    }
    return machine;
}

std::string table(const Machine& machine, const std::vector<Row>& rows)
{
    std::vector<std::array<std::string, 7>> lines{
        {"what", "floor", "value", "unit", "ratio (quartiles)", "target", ""}};
    for (const Row& row : rows) {
        lines.push_back(cells(row));
    }
    std::array<std::size_t, 7> widths{};
    for (const auto& line : lines) {
        for (std::size_t i = 0; i < widths.size(); ++i) {
            widths[i] = std::max(widths[i], line[i].size());
        }
    }
    std::string out = machine.kernel + ", " + std::to_string(machine.cpus) + " CPUs, " + machine.processor +
                      ", load at the start " + number(machine.load) + ", " + machine.priority + "\n\n";
    for (std::size_t l = 0; l < lines.size(); ++l) {
        std::string text = "|";
        std::string rule = "|";
        for (std::size_t i = 0; i < widths.size(); ++i) {
            const std::string fill(widths[i] - lines[l][i].size(), ' ');
            const bool toTheRight = i == 1 || i == 2;
            text += " " + (toTheRight ? fill + lines[l][i] : lines[l][i] + fill) + " |";
            rule += std::string(widths[i] + 1, '-') + (toTheRight ? ":|" : "-|");
        }
        out += text + "\n" + (l == 0 ? rule + "\n" : "");
    }
    return out;
}

std::string json(const Machine& machine, const std::vector<Row>& rows)
{
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const Row& row : rows) {
        nlohmann::ordered_json entry{{"id", row.id}, {"what", row.what}};
        if (!row.skipped.empty()) {
            entry["skipped"] = row.skipped;
            list.push_back(entry);
            continue;
        }
        entry["unit"] = row.unit;
        entry["value"] = row.value;
        if (row.floor) {
            entry["floor"] = *row.floor;
        }
        if (row.ratio) {
            entry["ratio"] = row.ratio->median;
            entry["ratioQuartiles"] = {row.ratio->low, row.ratio->high};
        }
        if (row.wallRatio) {
            entry["ratioByElapsedTime"] = *row.wallRatio;
        }
        if (row.worst) {
            entry["worst"] = *row.worst;
        }
        if (row.target) {
            entry["target"] = {{row.target->atMost ? "atMost" : "atLeast", row.target->limit}};
            entry["reached"] = row.met();
        }
        list.push_back(entry);
    }
    const nlohmann::ordered_json all{{"machine",
                                      {{"kernel", machine.kernel},
                                       {"processor", machine.processor},
                                       {"cpus", machine.cpus},
                                       {"load", machine.load},
                                       {"priority", machine.priority}}},
                                     {"rows", list}};
    return all.dump(2) + "\n";
}

} // namespace merlow::bench
