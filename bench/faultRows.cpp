#include "rows.h"

#include "unit.h"

#include <sstream>

namespace merlow::bench {

namespace {

constexpr double kilobyte = 1024.0;
constexpr std::size_t manySubscribers = 20;
constexpr std::size_t manyEvents = 100000;
constexpr std::size_t warmUpEvents = 10000;
constexpr std::uint32_t stormRate = 10000;

Way following(Unit& unit, std::size_t subscribers)
{
    Way way;
    way.sharedProcesses = {&unit.board(), &unit.host()};
    way.processes.push_back(unit.start("fault-client", std::to_string(subscribers)));
    return way;
}

void follow(const Way& way, std::size_t events)
{
    way.processes.back().tell("trips " + std::to_string(events) + " 0");
    way.processes.back().hear(std::chrono::minutes(5));
}

/// Words of an answer as numbers.
std::vector<double> numbersOf(const std::string& text)
{
    std::istringstream words(text);
    std::vector<double> numbers;
    for (double number = 0; words >> number;) {
        numbers.push_back(number);
    }
    return numbers;
}

} // namespace

std::vector<Row> faultRows(const Setting& setting)
{
    std::vector<Row> rows;
    {
        Unit one(setting.runFolder + "/fault-one");
        Unit many(setting.runFolder + "/fault-many");
        const Way toOne = following(one, 1);
        const Way toMany = following(many, manySubscribers);
        const auto series = measure({&toOne, &toMany}, setting.effort);
        rows.push_back({.id = "fault-1",
                        .what = "fault event from the board to 1 subscriber",
                        .unit = "us",
                        .value = spreadOf(series[0].cpu).median / 1e3});
        rows.push_back(
            comparedRow("fault-20", "fault event to 20 subscribers, beside 1", series[0], series[1]));
    }
    Unit fresh(setting.runFolder + "/fault-fresh");
    Unit old(setting.runFolder + "/fault-old");
    const Way early = following(fresh, 1);
    const Way late = following(old, 1);
    follow(late, warmUpEvents);
    const double before = old.host().residentBytes();
    follow(late, manyEvents);
    const double after = old.host().residentBytes();
    // Short rounds, so that the early one stays early.
    const Effort effort{.rounds = setting.effort.rounds * 2, .roundNanoseconds = 1};
    const auto series = measure({&early, &late}, effort);
    rows.push_back(
        comparedRow("fault-late", "fault event, the 100,000th beside the 100th", series[0], series[1]));
    rows.back().target = {1.05, true};
    rows.push_back({.id = "fault-memory",
                    .what = "server's growth over 100,000 fault events",
                    .unit = "KiB",
                    .value = (after - before) / kilobyte,
                    .target = Target{0, true}});
    return rows;
}

std::vector<Row> stormRows(const Setting& setting)
{
    const auto seconds = setting.effort.stormSeconds;
    Unit unit(setting.runFolder + "/storm", true);
    const Process twenty = unit.start("storm-client", std::to_string(manySubscribers));
    const Process asleep = unit.start("storm-client", "1");
    const Process auditor = unit.start("audit-client", "");
    const double before = unit.host().residentBytes();
    auditor.tell("audit " + std::to_string(seconds));
    twenty.tell("storm " + std::to_string(seconds) + " " + std::to_string(stormRate));
    const auto limit = std::chrono::seconds(seconds * 3 + 30);
    const double audit = numbersOf(auditor.hear(limit)).at(0);
    const auto seen = numbersOf(twenty.hear(limit));
    const double after = unit.host().residentBytes();
    asleep.tell("drain");
    const auto kept = numbersOf(asleep.hear(limit));
    const double events = seen.at(0);

    const std::string storm = "storm of " + std::to_string(seconds) + " s: ";
    std::vector<Row> rows;
    rows.push_back({.id = "storm-rate",
                    .what = storm + "fault events that reach 20 subscribers",
                    .unit = "1/s",
                    .value = events / seen.at(3) * 1e9,
                    .target = Target{0.98 * stormRate, false}});
    rows.push_back({.id = "storm-lost",
                    .what = storm + "their indications lost or out of order",
                    .value = events * manySubscribers - seen.at(1) + seen.at(2),
                    .target = Target{0, true}});
    rows.push_back({.id = "storm-audit",
                    .what = storm + "answer to an audit, 99th percentile",
                    .unit = "ms",
                    .value = audit / 1e6,
                    .target = Target{10, true}});
    // What the mailbox library keeps for the one that sleeps, 64 MiB at most, and what its bookkeeping costs.
    rows.push_back({.id = "storm-memory",
                    .what = storm + "server's growth, one more subscriber asleep",
                    .unit = "MiB",
                    .value = (after - before) / (kilobyte * kilobyte),
                    .target = Target{128, true}});
    rows.push_back({.id = "storm-asleep",
                    .what = storm + "part of the indications kept for that one",
                    .value = kept.at(0) / events});
    rows.push_back({.id = "storm-asleep-order",
                    .what = storm + "of them out of order",
                    .value = kept.at(1),
                    .target = Target{0, true}});
    return rows;
}

} // namespace merlow::bench
