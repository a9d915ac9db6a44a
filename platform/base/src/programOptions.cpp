#include "programOptions.h"

#include <cstdlib>
#include <iostream>

namespace merlow::base {

namespace {

constexpr int wrongUsage = 2;

bool hasCommands(const CLI::App& app)
{
    return !app.get_subcommands([](const CLI::App*) { return true; }).empty();
}

/// The command that was given, null when there was none.
const CLI::App* givenCommand(const CLI::App& app)
{
    const auto given = app.get_subcommands();
    return given.empty() ? nullptr : given.front();
}

/// The first word that is left over, if it stands where a command should.
std::optional<std::string> wrongCommand(const CLI::App& app)
{
    if (hasCommands(app) && givenCommand(app) == nullptr) {
        for (const auto& word : app.remaining()) {
            if (!word.starts_with("-")) {
                return word;
            }
        }
    }
    return std::nullopt;
}

} // namespace

void addCommonOptions(CLI::App& app, std::string& runDir)
{
    app.add_option("--run-dir", runDir,
                   "The unit's run-time folder (default: MERLOW_RUN_DIR, else $XDG_RUNTIME_DIR/merlow, "
                   "else /run/merlow)");
    app.set_version_flag("--version", app.get_name() + " " MERLOW_VERSION);
}

int finishOutput(const std::string& program, int status)
{
    return finishOutput(program, status, std::cout, std::cerr);
}

int finishOutput(const std::string& program, int status, std::ostream& out, std::ostream& err)
{
    if (status == outputLost || out.flush()) { // what is lost has been told
        return status;
    }
    err << program + ": standard output cannot be written\n" << std::flush;
    return status == 0 ? outputLost : status;
}

std::optional<int> parseCommandLine(CLI::App& app, int argc, const char* const* argv)
{
    return parseCommandLine(app, argc, argv, std::cout, std::cerr);
}

std::optional<int> parseCommandLine(CLI::App& app, int argc, const char* const* argv, std::ostream& out,
                                    std::ostream& err)
{
    app.require_subcommand(0, 1); // the library would call an unknown word a missing command
    std::string mistake;
    try {
        app.parse(argc, argv);
        if (!hasCommands(app) || givenCommand(app) != nullptr) {
            return std::nullopt;
        }
        mistake = "a command is missing";
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            return finishOutput(app.get_name(), app.exit(error, out, err), out, err);
        }
        mistake = mistakeText(app, error);
    }
    const auto* const command = givenCommand(app);
    err << app.get_name() << ": " << mistake << "\nTry '" << app.get_name()
        << (command != nullptr ? " " + command->get_name() : "") << " --help'." << std::endl;
    return wrongUsage;
}

std::string mistakeText(const CLI::App& app, const CLI::ParseError& error)
{
    if (const auto word = wrongCommand(app)) {
        return "there is no command \"" + *word + "\"";
    }
    const auto* const command = givenCommand(app);
    return (command != nullptr ? command->get_name() + ": " : "") + error.what();
}

void useRunDir(const std::string& runDir)
{
    if (!runDir.empty()) {
        setenv("MERLOW_RUN_DIR", runDir.c_str(), 1);
    }
}

} // namespace merlow::base
