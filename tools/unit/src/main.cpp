// unit: runs a whole unit in the foreground.

#include "programOptions.h"
#include "unit.h"

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
    merlow::base::Syntax app(
        "unit",
        "Runs a whole unit, neighbours and server, and keeps it up until Ctrl-C, or until COMMAND is done.");
    merlow::unit::Unit::Settings settings;
    std::string runDir;
    app.addCommonOptions(runDir);
    app.addOption("--log", settings.logFile, "A file for what the parts say");
    app.addOption("COMMAND", settings.command, "Behind --: what to run once the unit is up");
    app.footer("A part that ends is started again. Exit status: 0 all well, that of COMMAND, 1 the unit did "
               "not come up or "
               "did not end well, 2 wrong usage, 5 all well, but standard output cannot be written.");
    if (const auto status = app.parse(argc, argv)) {
        return *status;
    }
    merlow::base::useRunDir(runDir);
    settings.programDir = ownFolder();
    return merlow::base::finishOutput("unit", merlow::unit::Unit(settings).run());
}
