// scryctl: the trace levels of running processes.

#include "levelList.h"
#include "programOptions.h"
#include "scryctl.h"

#include <cstdlib>
#include <iostream>

namespace {

using namespace merlow::scryctl;
using merlow::base::Option;
using merlow::base::Syntax;

constexpr char footer[] =
    "LEVELS are numbers from 0 to 31 separated by commas, \"all\" or \"none\": 1 failures, 4 notable events, "
    "5 the flow of a handler, 6 life of objects, 13 each message, 17 received and 18 sent signals; 21 of a "
    "process is the switch for its objects.\n"
    "Exit status: 0 done, 1 no such process or object, 2 wrong usage, 5 standard output cannot be written.";

std::string readLevels(const std::string& text, std::optional<std::uint32_t>& levels)
{
    const auto list = merlow::trace::parseLevels(text);
    levels = list.mask;
    return list.malformed.empty()
               ? ""
               : "no levels: " + list.malformed + "; they are 0 to 31, separated by commas";
}

Option addLevels(Syntax& command, const std::string& name, std::optional<std::uint32_t>& levels,
                 const std::string& description)
{
    return command
        .addReader(
            name, [&levels](const std::string& text) { return readLevels(text, levels); }, description)
        .valueName("LEVELS");
}

ExitStatus run(int argc, char** argv)
{
    merlow::base::Syntax app("scryctl",
                             "Shows and changes the trace levels of the running processes of a unit.");
    app.footer(footer);
    app.allowOptionsBehindCommands();
    std::string runDir;
    app.addCommonOptions(runDir);

    bool json = false;
    Syntax& listCommand = app.addCommand("list", "Processes, their levels, their objects' levels");
    listCommand.addFlag("--json", json, "One JSON object a line");

    Changes changes;
    Syntax& setCommand = app.addCommand("set", "Changes levels of a process; others stay");
    setCommand.addOption("PROCESS", changes.process, "A process: NAME, NAME.PID or PID").required();
    addLevels(setCommand, "--proc", changes.processLevels, "Levels of the process");
    const auto objectLevels = addLevels(setCommand, "--obj", changes.objectLevels,
                                        "Levels of all its objects, those to come included");
    setCommand.addOption("--object", changes.object, "The one object that --obj is for")
        .valueName("NAME")
        .needs(objectLevels);
    setCommand
        .addReader(
            "--objects",
            [&changes](const std::string& word) {
                changes.objectsOn = word == "on";
                return std::string();
            },
            "Objects as a whole")
        .oneOf({"on", "off"})
        .valueName("on|off");

    if (const auto status = app.parse(argc, argv)) {
        return static_cast<ExitStatus>(*status);
    }
    if (setCommand.isGiven() && !changes.processLevels && !changes.objectLevels && !changes.objectsOn) {
        std::cerr
            << "scryctl: set: one of --proc, --obj and --objects is required\nTry 'scryctl set --help'.\n";
        return ExitStatus::usage;
    }
    merlow::base::useRunDir(runDir);
    return listCommand.isGiven() ? list(json, std::cout, std::cerr) : set(changes, std::cerr);
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return merlow::base::finishOutput("scryctl", static_cast<int>(run(argc, argv)));
    } catch (const std::exception& error) {
        std::cerr << "scryctl: " << error.what() << "\n";
        return static_cast<int>(ExitStatus::failed);
    }
}
