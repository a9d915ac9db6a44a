#include "rows.h"

#include "unit.h"

#include <stdexcept>

namespace merlow::bench {

namespace {

constexpr double millisecond = 1e6;

Row absoluteRow(const std::string& id, const std::string& what, const std::vector<double>& values,
                double limit)
{
    const Spread spread = spreadOf(values);
    return {.id = id,
            .what = what,
            .unit = "ms",
            .value = spread.median / millisecond,
            .worst = spread.worst / millisecond,
            .target = Target{limit, true}};
}

void arm(Process& watch, const std::string& order)
{
    if (const std::string word = watch.ask(order); word != "armed") {
        throw std::runtime_error("the watch said \"" + word + "\"");
    }
}

/// From before the host process is started until somebody else sees the public mailbox.
Row startRow(const Setting& setting, const std::string& runDir)
{
    const Process legacy = startLegacy(runDir);
    const Process board = startBoard(runDir);
    const Process swm = startSwm(runDir);
    Process watch = startWatch(runDir);
    std::vector<double> values;
    for (std::size_t i = 0; i < setting.effort.deaths; ++i) {
        arm(watch, std::string("locate ") + publicName);
        const double start = nowNanoseconds();
        const Process host = startHost(runDir);
        values.push_back(std::stod(watch.hear()) - start);
    }
    return absoluteRow("start", "start of the host process to published, neighbours up", values, 50);
}

/// From `kill -9` of the legacy server, which is started again at once, until the server that went
/// unpublished is published again.
Row republicationRow(const Setting& setting, const std::string& runDir)
{
    Unit unit(runDir);
    const Process session = unit.connect("pass");
    Process watch = startWatch(runDir);
    std::vector<double> values;
    for (std::size_t i = 0; i < setting.effort.deaths; ++i) {
        arm(watch, std::string("return ") + publicName);
        const double start = nowNanoseconds();
        unit.restartLegacy();
        values.push_back(std::stod(watch.hear()) - start);
    }
    return absoluteRow("republication", "legacy server killed and started again to published again", values,
                       100);
}

/// From `kill -9` of a process until a mailbox that monitors one of its mailboxes has the notice.
Row deathRow(const Setting& setting, const std::string& runDir)
{
    Process watch = startWatch(runDir);
    std::vector<double> values;
    for (std::size_t i = 0; i < setting.effort.deaths; ++i) {
        Process victim(Start{.arguments = {"mailbox-echo", "victim"}, .runDir = runDir});
        victim.untilReady();
        arm(watch, "loss victim");
        const double start = nowNanoseconds();
        victim.end();
        values.push_back(std::stod(watch.hear()) - start);
    }
    return absoluteRow("death", "kill -9 of a process to the notice of its death", values, 2);
}

} // namespace

std::vector<Row> lifeRows(const Setting& setting)
{
    std::vector<Row> rows;
    rows.push_back(startRow(setting, setting.runFolder + "/start"));
    rows.push_back(republicationRow(setting, setting.runFolder + "/return"));
    rows.push_back(deathRow(setting, setting.runFolder + "/death"));
    return rows;
}

} // namespace merlow::bench
