#include "brhd.h"
#include "host.h"
#include "programOptions.h"
#include "restartOrder.h"
#include "stateDir.h"
#include "stateFile.h"

#include <chrono>
#include <limits>
#include <random>
#include <utility>
#include <vector>

namespace {

std::int64_t systemTime()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

struct Options {
    std::string runDir;
    std::vector<std::uint32_t> briRevisions{1};
    std::vector<std::uint32_t> bmmiRevisions{1};
    std::size_t maxConnections = merlow::board::BrhServerConfig().maxConnections;
    unsigned clockSpeed = 1;
    std::string hwmonFolder = "/sys/class/hwmon";
    std::string ledFolder = "/sys/class/leds";
};

void addOptions(merlow::base::Syntax& app, Options& options)
{
    constexpr std::uint32_t most = std::numeric_limits<std::uint32_t>::max();
    app.addCommonOptions(options.runDir);
    app.addOption("--bri-revisions", options.briRevisions, "Protocol revisions that BriServer supports")
        .separatedBy(',')
        .range(1U, most, "REVISION")
        .showDefault();
    app.addOption("--bmmi-revisions", options.bmmiRevisions, "Protocol revisions that BmmiServer supports")
        .separatedBy(',')
        .range(1U, most, "REVISION")
        .showDefault();
    app.addOption("--max-connections", options.maxConnections, "Connections that each server accepts")
        .range(0U, most, "COUNT")
        .showDefault();
    app.addOption("--clock-speed", options.clockSpeed,
                  "How many times as fast as the system's clock the board does what takes time, for tests")
        .range(1U, 1000U)
        .showDefault();
    app.addOption("--hwmon", options.hwmonFolder, "Where the machine tells its temperatures").showDefault();
    app.addOption("--leds", options.ledFolder, "Where the machine has its LEDs").showDefault();
}

merlow::board::Brhd::Config configOf(const Options& options, merlow::board::LoadedBoard board)
{
    return {{{options.briRevisions.begin(), options.briRevisions.end()}, options.maxConnections},
            {{options.bmmiRevisions.begin(), options.bmmiRevisions.end()}, options.maxConnections},
            std::move(board),
            options.hwmonFolder,
            std::random_device()(),
            options.ledFolder};
}

} // namespace

int main(int argc, char** argv)
{
    merlow::base::Syntax app(
        "brhd",
        "The reference board's resource handler: the BRI and the BMMI server. Ends on SIGTERM and SIGINT.");
    Options options;
    addOptions(app, options);
    if (const auto status = app.parse(argc, argv)) {
        return *status;
    }
    merlow::base::useRunDir(options.runDir);
    auto board = merlow::board::loadBoardDescription();
    if (!board.error.empty()) {
        return merlow::board::failToStart("brhd", board.error);
    }
    merlow::board::Host host(options.clockSpeed);
    merlow::board::StateFile faults("brhd.state");
    merlow::board::StateFile restartOrder = merlow::board::givenRestartOrder();
    merlow::board::StateFile carriedOutRestart = merlow::board::carriedOutRestartOrder();
    merlow::board::Brhd brhd(
        configOf(options, std::move(board)), systemTime,
        {faults, restartOrder, carriedOutRestart, merlow::board::stateDirPath() + "/hardwareLog.db"}, host);
    return host.run(brhd);
}
