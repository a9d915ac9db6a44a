// scryctl: the trace levels of running processes.

#include "levelList.h"
#include "programOptions.h"
#include "scryctl.h"

#include <cstdlib>
#include <iostream>

namespace {

using namespace merlow::scryctl;

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

CLI::Option* addLevels(CLI::App* command, const std::string& name, std::optional<std::uint32_t>& levels,
                       const std::string& description)
{
    return command
        ->add_option_function<std::string>(
            name,
            [&levels, name](const std::string& text) {
                if (const std::string error = readLevels(text, levels); !error.empty()) {
                    throw CLI::ValidationError(name, error);
                }
            },
            description)
        ->type_name("LEVELS");
}

ExitStatus run(int argc, char** argv)
{
    CLI::App app("Shows and changes the trace levels of the running processes of a unit.", "scryctl");
    app.footer(footer);
    app.fallthrough();
    std::string runDir;
    merlow::base::addCommonOptions(app, runDir);

    bool json = false;
    CLI::App* const listCommand =
        app.add_subcommand("list", "Processes, their levels, their objects' levels");
    listCommand->add_flag("--json", json, "One JSON object a line");

    Changes changes;
    CLI::App* const setCommand = app.add_subcommand("set", "Changes levels of a process; others stay");
    setCommand->add_option("PROCESS", changes.process, "A process: NAME, NAME.PID or PID")->required();
    addLevels(setCommand, "--proc", changes.processLevels, "Levels of the process");
    auto* const objectLevels = addLevels(setCommand, "--obj", changes.objectLevels,
                                         "Levels of all its objects, those to come included");
    setCommand->add_option("--object", changes.object, "The one object that --obj is for")
        ->type_name("NAME")
        ->needs(objectLevels);
    setCommand
        ->add_option_function<std::string>(
            "--objects", [&changes](const std::string& word) { changes.objectsOn = word == "on"; },
            "Objects as a whole")
        ->check(CLI::IsMember({"on", "off"}))
        ->type_name("on|off");

    if (const auto status = merlow::base::parseCommandLine(app, argc, argv)) {
        return static_cast<ExitStatus>(*status);
    }
    if (*setCommand && !changes.processLevels && !changes.objectLevels && !changes.objectsOn) {
        std::cerr
            << "scryctl: set: one of --proc, --obj and --objects is required\nTry 'scryctl set --help'.\n";
        return ExitStatus::usage;
    }
    merlow::base::useRunDir(runDir);
    return *listCommand ? list(json, std::cout, std::cerr) : set(changes, std::cerr);
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
