#include "rows.h"

#include "role.h"

namespace merlow::bench {

namespace {

constexpr std::size_t sizes[] = {128, 4096, 65536};

std::string sizeText(std::size_t size)
{
    return size < 1024 ? std::to_string(size) + " B" : std::to_string(size / 1024) + " KiB";
}

Way rawTrips()
{
    const SocketPair link;
    Way way;
    way.processes.emplace_back(Start{.arguments = {"raw-echo"}, .descriptors = {link.first.get()}})
        .untilReady();
    way.processes.emplace_back(Start{.arguments = {"raw-client"}, .descriptors = {link.second.get()}})
        .untilReady();
    return way;
}

Way rawStream(std::size_t size)
{
    const SocketPair link;
    Way way;
    way.verb = "stream";
    way.size = size;
    way.processes
        .emplace_back(Start{.arguments = {"raw-sink", std::to_string(streamBatch(size))},
                            .descriptors = {link.first.get()}})
        .untilReady();
    way.processes.emplace_back(Start{.arguments = {"raw-client"}, .descriptors = {link.second.get()}})
        .untilReady();
    return way;
}

Way mailboxTrips(const std::string& runDir)
{
    Way way;
    way.processes.emplace_back(Start{.arguments = {"mailbox-echo", "echo"}, .runDir = runDir}).untilReady();
    way.processes.emplace_back(Start{.arguments = {"mailbox-client", "echo"}, .runDir = runDir}).untilReady();
    return way;
}

Way mailboxStream(const std::string& runDir, std::size_t size)
{
    const std::string name = "sink-" + std::to_string(size);
    Way way;
    way.verb = "stream";
    way.size = size;
    way.processes
        .emplace_back(
            Start{.arguments = {"mailbox-sink", name, std::to_string(streamBatch(size))}, .runDir = runDir})
        .untilReady();
    way.processes.emplace_back(Start{.arguments = {"mailbox-client", name}, .runDir = runDir}).untilReady();
    return way;
}

} // namespace

Row comparedRow(const std::string& id, const std::string& what, const Series& floor, const Series& product)
{
    return {.id = id,
            .what = what,
            .unit = "us",
            .floor = spreadOf(floor.cpu).median / 1e3,
            .value = spreadOf(product.cpu).median / 1e3,
            .ratio = ratioOf(product.cpu, floor.cpu),
            .wallRatio = ratioOf(product.wall, floor.wall).median,
            .worst = spreadOf(product.cpu).worst / 1e3};
}

std::vector<Row> mailboxRows(const Setting& setting)
{
    const std::string runDir = setting.runFolder + "/mailbox";
    std::vector<Row> rows;

    Way raw = rawTrips();
    Way mailbox = mailboxTrips(runDir);
    for (const std::size_t size : sizes) {
        raw.size = mailbox.size = size;
        const auto series = measure({&raw, &mailbox}, setting.effort);
        Row row = comparedRow("mailbox-trip-" + std::to_string(size), "mailbox round trip, " + sizeText(size),
                              series[0], series[1]);
        if (size == 128) {
            row.target = {1.15, true};
        }
        rows.push_back(row);
    }

    // Of one-way messages it is the throughput that is compared: the floor's time by the mailbox's.
    for (const std::size_t size : sizes) {
        const Way rawWay = rawStream(size);
        const Way mailboxWay = mailboxStream(runDir, size);
        const auto series = measure({&rawWay, &mailboxWay}, setting.effort);
        Row row = comparedRow("mailbox-stream-" + std::to_string(size), "mailbox one-way, " + sizeText(size),
                              series[0], series[1]);
        row.ratio = ratioOf(series[0].cpu, series[1].cpu);
        row.wallRatio = ratioOf(series[0].wall, series[1].wall).median;
        if (size != 4096) {
            row.target = {0.85, false};
        }
        rows.push_back(row);
    }
    return rows;
}

} // namespace merlow::bench
