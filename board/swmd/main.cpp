#include "diskFiles.h"
#include "host.h"
#include "programOptions.h"
#include "sqliteInventory.h"
#include "swaySwmPeers.h"
#include "swmd.h"

#include <iostream>
#include <vector>

namespace merlow::board {
namespace {

using loadmodule::SoftwareId;

constexpr const char* none = "none";

struct Options {
    std::string runDir;
    std::uint32_t slots = SwStoreConfig().slots;
    std::string preinstalled = "QXR7041162/15_R91KT";
    std::string running;
    std::vector<std::string> boot{"QXC2010008/3_R12A"};
    std::size_t maxConnections = SwmServerConfig().maxConnections;
    std::int32_t blockSize = SwmServerConfig().blockSize;
    std::size_t listPiece = SwmServerConfig().listPiece;
};

std::string objectionToSoftware(const std::string& text)
{
    return text == none || loadmodule::softwareIdFrom(text)
               ? ""
               : "\"" + text + "\" is no NUMBER_REVISION of at most " +
                     std::to_string(loadmodule::maxIdSize) + " characters";
}

void addOptions(CLI::App& app, Options& options)
{
    constexpr std::uint32_t maxSlots = 256;
    // A message socket takes frames of 256 KiB, and the smallest list piece still has to get through.
    constexpr std::int32_t maxBlockSize = 262'000;
    constexpr std::uint32_t maxListPiece = 65'536;
    merlow::base::addCommonOptions(app, options.runDir);
    app.add_option("--slots", options.slots, "Load modules that the store holds")
        ->check(CLI::Range(std::uint32_t{0}, maxSlots, "COUNT"))
        ->capture_default_str();
    app.add_option("--preinstalled", options.preinstalled, "The preinstalled module, or none")
        ->check(objectionToSoftware)
        ->capture_default_str();
    app.add_option("--running", options.running, "What runs from now on; what ran last when left out")
        ->check(objectionToSoftware);
    app.add_option("--boot", options.boot, "The boot software that clients are told of, or none")
        ->delimiter(',')
        ->check(objectionToSoftware)
        ->capture_default_str();
    app.add_option("--max-connections", options.maxConnections, "Connections that are accepted")
        ->check(CLI::Range(std::uint32_t{0}, std::uint32_t{256}, "COUNT"))
        ->capture_default_str();
    app.add_option("--block-size", options.blockSize, "Bytes of a block that clients are asked to keep to")
        ->check(CLI::Range(std::int32_t{1}, maxBlockSize, "BYTES"))
        ->capture_default_str();
    app.add_option("--list-piece", options.listPiece, "Bytes of a piece of the component list")
        ->check(CLI::Range(std::uint32_t{1}, maxListPiece, "BYTES"))
        ->capture_default_str();
    app.footer(
        "The store is in the folder MERLOW_STATE_DIR, else in the folder \"state\" of the run-time folder.");
}

SwmServerConfig serverConfigOf(const Options& options)
{
    SwmServerConfig config;
    config.maxConnections = options.maxConnections;
    config.blockSize = options.blockSize;
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
    const auto fail = [](const std::string& text) {
        std::cerr << "swmd: " << text << std::endl;
        return 1;
    };
    Host host;
    DiskFiles files;
    if (const std::string error = files.open(); !error.empty()) {
        return fail(error);
    }
    SqliteInventory inventory;
    const std::string inventoryPath = files.place() + "/inventory.db";
    if (const std::string error = inventory.open(inventoryPath); !error.empty()) {
        return fail("the inventory " + inventoryPath + " cannot be used: " + error);
    }
    SwStore store({options.slots, loadmodule::softwareIdFrom(options.preinstalled),
                   loadmodule::softwareIdFrom(options.running)},
                  files, inventory);
    std::vector<std::string> said;
    const std::string error = store.open(said);
    for (const std::string& line : said) {
        std::cerr << "swmd: " << line << std::endl;
    }
    if (!error.empty()) {
        return fail("the store " + files.place() + " cannot be used: " + error);
    }
    SwaySwmPeers peers(host);
    Swmd swmd(serverConfigOf(options), store, peers);
    if (const std::string objection = peers.serve(swmd.servedNames().front(), swmd.server());
        !objection.empty()) {
        return fail(objection);
    }
    return host.run(swmd);
}

} // namespace
} // namespace merlow::board

int main(int argc, char** argv)
{
    CLI::App app("The reference board's software management server: stores load modules. Ends on SIGTERM and "
                 "SIGINT.",
                 "swmd");
    merlow::board::Options options;
    merlow::board::addOptions(app, options);
    if (const auto status = merlow::base::parseCommandLine(app, argc, argv)) {
        return *status;
    }
    merlow::base::useRunDir(options.runDir);
    return merlow::board::serve(options);
}
