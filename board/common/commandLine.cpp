#include "commandLine.h"

#include <cstdlib>

namespace merlow::board {

void addCommonOptions(CLI::App& app, std::string& runDir)
{
    app.add_option("--run-dir", runDir,
                   "The unit's run-time folder (default: MERLOW_RUN_DIR, else $XDG_RUNTIME_DIR/merlow, "
                   "else /run/merlow)");
    app.set_version_flag("--version", app.get_name() + " " MERLOW_VERSION);
}

std::optional<int> parseCommandLine(CLI::App& app, int argc, const char* const* argv)
{
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    return std::nullopt;
}

void useRunDir(const std::string& runDir)
{
    if (!runDir.empty()) {
        setenv("MERLOW_RUN_DIR", runDir.c_str(), 1);
    }
}

} // namespace merlow::board
