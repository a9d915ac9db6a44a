#include "rows.h"

#include "unit.h"

namespace merlow::bench {

namespace {

constexpr std::size_t manySessions = 45;
constexpr double megabyte = 1024.0 * 1024.0;

Way lastSession(Unit& unit, Process& backend, const std::string& service, std::size_t size)
{
    Way way;
    way.size = size;
    way.sharedProcesses = {&backend, &unit.host()};
    way.processes.push_back(unit.connect(service));
    return way;
}

} // namespace

std::vector<Row> sessionRows(const Setting& setting)
{
    Unit one(setting.runFolder + "/one");
    Unit many(setting.runFolder + "/many");
    Process empty(Start{.arguments = {"empty"}});
    empty.untilReady();

    std::vector<Process> others;
    while (others.size() < manySessions - 1) {
        others.push_back(many.connect("pass"));
    }
    std::vector<Row> rows;
    const auto compare = [&](const std::string& service, const std::string& what, std::size_t size,
                             Process& backendOfOne, Process& backendOfMany) {
        const Way alone = lastSession(one, backendOfOne, service, size);
        const Way crowded = lastSession(many, backendOfMany, service, size);
        const auto series = measure({&alone, &crowded}, setting.effort);
        rows.push_back(
            comparedRow("sessions-" + service, what + ", 45 sessions beside one", series[0], series[1]));
        rows.back().target = {1.05, true};
    };
    compare("pass", "pass-through", 128, one.legacy(), many.legacy());
    compare("utc", "translated request", 16, one.board(), many.board());

    const Process last = many.connect("pass");
    rows.push_back({.id = "memory",
                    .what = "server's memory with 45 sessions over an empty process",
                    .unit = "MiB",
                    .floor = empty.residentBytes() / megabyte,
                    .value = (many.host().residentBytes() - empty.residentBytes()) / megabyte,
                    .target = Target{10, true}});
    return rows;
}

} // namespace merlow::bench
