// merlowd: the process that hosts the board controller server.

#include "host.h"

#include <CLI/CLI.hpp>
#include <cstdlib>

int main(int argc, char** argv)
{
    CLI::App app("Hosts the board controller server until SIGTERM or SIGINT.", "merlowd");
    std::string runDir;
    app.set_version_flag("--version", "merlowd " MERLOW_VERSION);
    app.add_option("--run-dir", runDir, "The unit's run-time folder (default: as MERLOW_RUN_DIR says)");
    app.footer(
        "Tells a service manager by NOTIFY_SOCKET when clients can connect.\n"
        "Exit status: 0 stopped by a signal, 1 the server did not start or ended by itself, 2 wrong usage.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    if (!runDir.empty()) {
        setenv("MERLOW_RUN_DIR", runDir.c_str(), 1);
    }
    return merlow::merlowd::Host().run();
}
