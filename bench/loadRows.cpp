#include "rows.h"

#include "role.h"
#include "unit.h"

namespace merlow::bench {

namespace {

constexpr std::size_t blockSize = 65536;
constexpr std::size_t usualWindow = 16; ///< of `bcictl load`
constexpr std::size_t windows[] = {1, 2, 4, 8, usualWindow, 32, 64};
constexpr double blocksPerMegabyte = 16;

/// Client, relay and a receiver that acknowledges each block. `anyCpu`: not on the measuring CPU alone.
Way rawLoad(bool anyCpu = false)
{
    const SocketPair near;
    const SocketPair far;
    Way way;
    way.size = blockSize;
    way.processes
        .emplace_back(
            Start{.arguments = {"raw-sink", "1"}, .descriptors = {far.second.get()}, .anyCpu = anyCpu})
        .untilReady();
    way.processes
        .emplace_back(Start{.arguments = {"raw-relay"},
                            .descriptors = {near.second.get(), far.first.get()},
                            .anyCpu = anyCpu})
        .untilReady();
    way.processes
        .emplace_back(Start{.arguments = {"raw-client"}, .descriptors = {near.first.get()}, .anyCpu = anyCpu})
        .untilReady();
    return way;
}

Way serverLoad(Unit& unit)
{
    Way way;
    way.size = blockSize;
    way.sharedProcesses = {&unit.swm(), &unit.host()};
    way.processes.push_back(unit.start("load-client", ""));
    return way;
}

double megabytesPerSecond(const std::vector<double>& nanosecondsPerBlock)
{
    return 1e9 / spreadOf(nanosecondsPerBlock).median / blocksPerMegabyte;
}

/// Throughputs.
Row loadRow(std::size_t window, const Series& floor, const Series& product)
{
    return {.id = "load-" + std::to_string(window),
            .what = "load in blocks of 64 KiB, " + std::to_string(window) + " under way",
            .unit = "MiB/s",
            .floor = megabytesPerSecond(floor.cpu),
            .value = megabytesPerSecond(product.cpu),
            .ratio = ratioOf(floor.cpu, product.cpu),
            .wallRatio = ratioOf(floor.wall, product.wall).median};
}

/// Nanoseconds of a block in a load of 256 MiB.
double wholeLoadPerBlock(const Process& loader)
{
    constexpr std::size_t blocks = 4096;
    const std::string verb = std::string(windowVerb) + std::to_string(usualWindow);
    return std::stod(loader.ask(verb + " " + std::to_string(blocks) + " " + std::to_string(blockSize))) /
           blocks;
}

/// Throughputs by elapsed time on all CPUs, load by load in turns with the relay.
Row wholeLoadRow(const Process& loader, std::size_t rounds)
{
    const Way relay = rawLoad(true);
    std::vector<double> floor;
    std::vector<double> product;
    for (std::size_t round = 0; round < rounds; ++round) {
        floor.push_back(wholeLoadPerBlock(relay.processes.back()));
        product.push_back(wholeLoadPerBlock(loader));
    }
    return {.id = "load-elapsed",
            .what = "load of 256 MiB, " + std::to_string(usualWindow) + " blocks under way, all CPUs",
            .unit = "MiB/s",
            .floor = megabytesPerSecond(floor),
            .value = megabytesPerSecond(product),
            .ratio = ratioOf(floor, product)};
}

double auditNanoseconds(Process& auditor, std::size_t seconds)
{
    auditor.tell("audit " + std::to_string(seconds));
    return std::stod(auditor.hear(std::chrono::seconds(seconds * 3 + 30)));
}

Row auditRow(const std::string& id, const std::string& what, double nanoseconds)
{
    return {.id = id, .what = what, .unit = "ms", .value = nanoseconds / 1e6};
}

} // namespace

std::vector<Row> loadRows(const Setting& setting)
{
    std::vector<Row> rows;
    {
        Unit unit(setting.runFolder + "/load");
        Way floor = rawLoad();
        Way product = serverLoad(unit);
        for (const std::size_t window : windows) {
            floor.verb = product.verb = std::string(windowVerb) + std::to_string(window);
            const auto series = measure({&floor, &product}, setting.effort);
            rows.push_back(loadRow(window, series[0], series[1]));
            if (window == usualWindow) {
                rows.back().target = {0.6, false};
            }
        }
    }
    Unit unit(setting.runFolder + "/load-audit", true);
    Process auditor = unit.start("audit-client", "");
    const Process loader = unit.start("load-client", "");
    rows.push_back(wholeLoadRow(loader, setting.effort.deaths));
    const auto seconds = setting.effort.stormSeconds;
    rows.push_back(auditRow("load-audit-idle", "answer to an audit, 99th percentile, nothing else going on",
                            auditNanoseconds(auditor, seconds)));
    // As long as the audits go on, one load after the other.
    const double end = nowNanoseconds() + static_cast<double>(seconds) * 1e9;
    auditor.tell("audit " + std::to_string(seconds));
    do {
        (void)wholeLoadPerBlock(loader);
    } while (nowNanoseconds() < end);
    rows.push_back(auditRow("load-audit", "answer to an audit, 99th percentile, while a load is going on",
                            std::stod(auditor.hear(std::chrono::seconds(seconds * 3 + 30)))));
    return rows;
}

} // namespace merlow::bench
