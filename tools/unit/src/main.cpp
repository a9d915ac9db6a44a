// unit: runs a whole unit in the foreground.

#include "unit.h"

#include <CLI/CLI.hpp>
#include <climits>
#include <cstdlib>
#include <unistd.h>

namespace {

std::string ownFolder()
{
    char path[PATH_MAX];
    const auto length = readlink("/proc/self/exe", path, sizeof(path));
    const std::string program(path, length > 0 ? static_cast<std::size_t>(length) : 0);
    return program.substr(0, program.find_last_of('/'));
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app("Runs a whole unit, neighbours and server, until Ctrl-C, or until COMMAND is done.", "unit");
    merlow::unit::Unit::Settings settings;
    std::string runDir;
    app.set_version_flag("--version", "unit " MERLOW_VERSION);
    app.add_option("--run-dir", runDir, "The run-time folder (default: as MERLOW_RUN_DIR says)");
    app.add_option("--log", settings.logFile, "A file for what the parts say");
    app.add_option("COMMAND", settings.command, "Behind --: what to run once the unit is up");
    app.footer(
        "Exit status: 0 all well, that of COMMAND, 1 the unit did not start or a part died, 2 wrong usage.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    if (!runDir.empty()) {
        setenv("MERLOW_RUN_DIR", runDir.c_str(), 1);
    }
    settings.programDir = ownFolder();
    return merlow::unit::Unit(settings).run();
}
