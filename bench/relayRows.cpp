#include "rows.h"

#include "unit.h"

#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <unistd.h>

namespace merlow::bench {

namespace {

constexpr std::size_t utcRequestSize = 16;

Way rawRelay()
{
    const SocketPair near;
    const SocketPair far;
    Way way;
    way.processes.emplace_back(Start{.arguments = {"raw-echo"}, .descriptors = {far.second.get()}})
        .untilReady();
    way.processes
        .emplace_back(Start{.arguments = {"raw-relay"}, .descriptors = {near.second.get(), far.first.get()}})
        .untilReady();
    way.processes.emplace_back(Start{.arguments = {"raw-client"}, .descriptors = {near.first.get()}})
        .untilReady();
    return way;
}

std::optional<std::string> findProgram(const std::string& name)
{
    const char* path = std::getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "");
    for (std::string folder; std::getline(folders, folder, ':');) {
        folder.append("/").append(name);
        if (access(folder.c_str(), X_OK) == 0) {
            return folder;
        }
    }
    return std::nullopt;
}

/// A broker that lets everybody do everything, and where it listens.
struct Bus {
    Process daemon;
    std::string socket;
};

Bus startBus(const std::string& program, const std::string& folder)
{
    const std::string socket = folder + "/bus";
    const std::string config = folder + "/bus.conf";
    std::ofstream(config) << "<busconfig><type>session</type><listen>unix:path=" << socket
                          << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                             "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
                             "<allow own=\"*\"/></policy></busconfig>\n";
    Bus bus{Process(Start{.arguments = {program, "--config-file=" + config, "--nofork", "--nosyslog",
                                        "--print-address=3"},
                          .foreign = true}),
            socket};
    bus.daemon.hear(); // its address, when it listens
    return bus;
}

/// The same three processes as the bare relay, each of them on the broker.
Way busRelay(const Bus& bus)
{
    Way way;
    way.sharedProcesses = {&bus.daemon};
    for (const char* role : {"bus-echo", "bus-relay", "bus-client"}) {
        way.processes.emplace_back(Start{.arguments = {role, bus.socket}}).untilReady();
    }
    return way;
}

Way serverWay(Unit& unit, Process& backend, const std::string& service, std::size_t size)
{
    Way way;
    way.size = size;
    way.sharedProcesses = {&backend, &unit.host()};
    way.processes.push_back(unit.connect(service));
    return way;
}

Row skippedRow(const std::string& id, const std::string& what, const std::string& why)
{
    return {.id = id, .what = what, .skipped = why};
}

} // namespace

std::vector<Row> relayRows(const Setting& setting)
{
    Unit unit(setting.runFolder + "/relay");
    Way raw = rawRelay();
    Way pass = serverWay(unit, unit.legacy(), "pass", 128);
    const Way utc = serverWay(unit, unit.board(), "utc", utcRequestSize);

    std::vector<const Way*> ways{&raw, &pass, &utc};
    std::optional<Bus> bus;
    std::optional<Way> overBus;
    if (const auto program = findProgram("dbus-daemon")) {
        bus.emplace(startBus(*program, setting.runFolder));
        overBus.emplace(busRelay(*bus));
        ways.push_back(&*overBus);
    }
    const auto series = measure(ways, setting.effort);

    std::vector<Row> rows;
    rows.push_back(
        comparedRow("pass-through", "signal to the legacy server and back, 128 B", series[0], series[1]));
    rows.back().target = {1.25, true};
    rows.push_back(comparedRow("translated", "request translated to BRI and back", series[0], series[2]));
    rows.back().target = {1.4, true};

    const std::string busWhat = "pass-through beside a relay over a D-Bus broker";
    if (overBus) {
        rows.push_back(comparedRow("pass-through-bus", busWhat, series[3], series[1]));
        rows.back().target = {0.5, true};
    } else {
        rows.push_back(skippedRow("pass-through-bus", busWhat, "there is no dbus-daemon"));
    }

    raw.size = pass.size = 65536;
    const auto large = measure({&raw, &pass}, setting.effort);
    rows.push_back(comparedRow("pass-through-65536", "signal to the legacy server and back, 64 KiB", large[0],
                               large[1]));
    return rows;
}

} // namespace merlow::bench
