#include "boardDescription.h"
#include "diskFiles.h"
#include "host.h"
#include "programOptions.h"
#include "restartHandover.h"
#include "sqliteInventory.h"
#include "swaySwmPeers.h"
#include "swmd.h"

#include <iostream>
#include <vector>

namespace merlow::board {
namespace {

void say(const std::string& text)
{
    std::cerr << ("swmd: " + text + "\n"); // one write: other processes may say something too
}

using loadmodule::SoftwareId;

constexpr const char* none = "none";

struct Options {
    std::string runDir;
    std::uint32_t slots = 0;
    std::uint64_t moduleBytes = 0;
    std::string preinstalled;
    std::string running;
    std::vector<std::string> boot{"QXC2010008/3_R12A"};
    std::size_t maxConnections = SwmServerConfig().maxConnections;
    std::uint32_t blockSize = 0;
    std::size_t listPiece = SwmServerConfig().listPiece;
};

/// What the command line does not say, the board's description does.
Options optionsOf(const StoreDescription& store)
{
    Options options;
    options.slots = store.slots;
    options.moduleBytes = store.moduleBytes;
    options.preinstalled = store.preinstalled
                               ? toText(SoftwareId{store.preinstalled->number, store.preinstalled->revision})
                               : none;
    options.blockSize = store.blockBytes;
    return options;
}

std::string objectionToSoftware(const std::string& text)
{
    return text == none || loadmodule::softwareIdFrom(text)
               ? ""
               : "\"" + text + "\" is no NUMBER_REVISION of at most " +
                     std::to_string(loadmodule::maxIdSize) + " characters";
}

void addOptions(base::Syntax& app, Options& options)
{
    constexpr std::uint32_t maxSlots = 256;
    // A message socket takes frames of 256 KiB, and the smallest list piece still has to get through.
    constexpr std::uint32_t maxBlockSize = 262'000;
    constexpr std::uint32_t maxListPiece = 65'536;
    app.addCommonOptions(options.runDir);
    app.addOption("--slots", options.slots, "Load modules that the store holds")
        .range(std::uint32_t{0}, maxSlots, "COUNT")
        .showDefault();
    app.addOption("--module-bytes", options.moduleBytes, "Bytes of the largest load module that is taken")
        .range(std::uint64_t{1}, std::uint64_t{1} << 40U, "BYTES")
        .showDefault();
    app.addOption("--preinstalled", options.preinstalled, "The preinstalled module, or none")
        .check(objectionToSoftware)
        .showDefault();
    app.addOption("--running", options.running,
                  "What runs from now on; when left out what a restart order says, else what ran last")
        .check(objectionToSoftware);
    app.addOption("--boot", options.boot, "The boot software that clients are told of, or none")
        .separatedBy(',')
        .check(objectionToSoftware)
        .showDefault();
    app.addOption("--max-connections", options.maxConnections, "Connections that are accepted")
        .range(std::uint32_t{0}, std::uint32_t{256}, "COUNT")
        .showDefault();
    app.addOption("--block-size", options.blockSize, "Bytes of a block that clients are asked to keep to")
        .range(std::uint32_t{1}, maxBlockSize, "BYTES")
        .showDefault();
    app.addOption("--list-piece", options.listPiece, "Bytes of a piece of the component list")
        .range(std::uint32_t{1}, maxListPiece, "BYTES")
        .showDefault();
    app.footer(
        "Slots, sizes and the preinstalled module are those of the board description, MERLOW_BOARD_FILE, "
        "unless\nan option says otherwise. The store is in the folder MERLOW_STATE_DIR, else in the folder "
        "\"state\" of the\nrun-time folder.");
}

SwmServerConfig serverConfigOf(const Options& options)
{
    SwmServerConfig config;
    config.maxConnections = options.maxConnections;
    config.blockSize = static_cast<std::int32_t>(options.blockSize);
    config.listPiece = options.listPiece;
    for (const std::string& text : options.boot) {
        if (auto id = loadmodule::softwareIdFrom(text)) {
            config.bootSoftware.push_back(std::move(*id));
        }
    }
    return config;
}

/// The exit status.
int serve(const Options& options)
{
    Host host;
    DiskFiles files;
    if (const std::string error = files.open(); !error.empty()) {
        return failToStart("swmd", error);
    }
    SqliteInventory inventory;
    const std::string inventoryPath = files.place() + "/inventory.db";
    if (const std::string error = inventory.open(inventoryPath); !error.empty()) {
        return failToStart("swmd", "the inventory " + inventoryPath + " cannot be used: " + error);
    }
    StateFile given = givenRestartOrder();
    StateFile served = servedRestartOrder();
    RestartHandover handover(given, served);
    std::vector<std::string> said;
    const auto ordered = handover.begin(said);
    const auto running = options.running.empty() ? ordered : loadmodule::softwareIdFrom(options.running);
    SwStore store(
        {options.slots, loadmodule::softwareIdFrom(options.preinstalled), running, options.moduleBytes},
        files, inventory);
    const std::string error = store.open(said);
    if (error.empty()) {
        handover.settled(said);
    }
    for (const std::string& line : said) {
        say(line);
    }
    if (!error.empty()) {
        return failToStart("swmd", "the store " + files.place() + " cannot be used: " + error);
    }
    SwaySwmPeers peers(host);
    Swmd swmd(serverConfigOf(options), store, peers);
    if (const std::string objection = peers.serve(swmd.servedNames().front(), swmd.server());
        !objection.empty()) {
        return failToStart("swmd", objection);
    }
    return host.run(swmd);
}

} // namespace
} // namespace merlow::board

int main(int argc, char** argv)
{
    merlow::base::Syntax app(
        "swmd",
        "The reference board's software management server: stores load modules. Ends on SIGTERM and SIGINT.");
    const auto board = merlow::board::loadBoardDescription();
    auto options = merlow::board::optionsOf(board.description.store);
    merlow::board::addOptions(app, options);
    if (const auto status = app.parse(argc, argv)) {
        return *status;
    }
    merlow::base::useRunDir(options.runDir);
    if (!board.error.empty()) {
        return merlow::board::failToStart("swmd", board.error);
    }
    return merlow::board::serve(options);
}
