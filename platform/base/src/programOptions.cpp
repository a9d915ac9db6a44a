#include "programOptions.h"

#include <algorithm>
#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdlib>
#include <iostream>

namespace merlow::base {

namespace {

constexpr int wrongUsage = 2;

} // namespace

Option& Option::required()
{
    m_option->required();
    return *this;
}

Option& Option::check(const Objection& objection)
{
    m_option->check(objection);
    return *this;
}

template <class T> Option& Option::range(T lowest, T highest, const std::string& unit)
{
    m_option->check(CLI::Range(lowest, highest, unit));
    return *this;
}

template Option& Option::range(int, int, const std::string&);
template Option& Option::range(unsigned, unsigned, const std::string&);
template Option& Option::range(std::uint64_t, std::uint64_t, const std::string&);
template Option& Option::range(double, double, const std::string&);

Option& Option::oneOf(const std::vector<std::string>& words)
{
    m_option->check(CLI::IsMember(words));
    return *this;
}

Option& Option::existingFile()
{
    m_option->check(CLI::ExistingFile);
    return *this;
}

Option& Option::needs(const Option& other)
{
    m_option->needs(other.m_option);
    return *this;
}

Option& Option::separatedBy(char separator)
{
    m_option->delimiter(separator);
    return *this;
}

Option& Option::oneValueEach()
{
    m_option->allow_extra_args(false);
    return *this;
}

Option& Option::showDefault()
{
    m_option->capture_default_str();
    return *this;
}

Option& Option::valueName(const std::string& name)
{
    m_option->type_name(name);
    return *this;
}

bool Option::isGiven() const
{
    return m_option->count() != 0;
}

Syntax::Syntax(const std::string& program, const std::string& description)
    : m_own(std::make_unique<CLI::App>(description, program)), m_app(*m_own)
{
}

Syntax::Syntax(CLI::App& app) : m_app(app) {}

Syntax::~Syntax() = default;

template <class T> Option Syntax::addOption(const std::string& name, T& value, const std::string& help)
{
    return Option(m_app.add_option(name, value, help));
}

template Option Syntax::addOption(const std::string&, std::int16_t&, const std::string&);
template Option Syntax::addOption(const std::string&, std::uint16_t&, const std::string&);
template Option Syntax::addOption(const std::string&, int&, const std::string&);
template Option Syntax::addOption(const std::string&, unsigned&, const std::string&);
template Option Syntax::addOption(const std::string&, std::uint64_t&, const std::string&);
template Option Syntax::addOption(const std::string&, double&, const std::string&);
template Option Syntax::addOption(const std::string&, std::string&, const std::string&);
template Option Syntax::addOption(const std::string&, std::vector<std::string>&, const std::string&);
template Option Syntax::addOption(const std::string&, std::vector<unsigned>&, const std::string&);

Option Syntax::addFlag(const std::string& name, bool& value, const std::string& help)
{
    return Option(m_app.add_flag(name, value, help));
}

Option Syntax::addReader(const std::string& name, const Option::Objection& take, const std::string& help)
{
    const auto read = [name, take](const std::string& value) {
        if (const auto objection = take(value); !objection.empty()) {
            throw CLI::ValidationError(name, objection);
        }
    };
    return Option(m_app.add_option_function<std::string>(name, read, help));
}

void Syntax::addCommonOptions(std::string& runDir)
{
    m_app.add_option("--run-dir", runDir,
                     "The unit's run-time folder (default: MERLOW_RUN_DIR, else $XDG_RUNTIME_DIR/merlow, "
                     "else /run/merlow)");
    m_app.set_version_flag("--version", name() + " " MERLOW_VERSION);
}

Syntax& Syntax::addCommand(const std::string& name, const std::string& help)
{
    m_commands.push_back(std::unique_ptr<Syntax>(new Syntax(*m_app.add_subcommand(name, help))));
    return *m_commands.back();
}

void Syntax::requireCommand()
{
    m_app.require_subcommand(1);
}

void Syntax::allowOptionsBehindCommands()
{
    m_app.fallthrough();
}

void Syntax::footer(const std::string& text)
{
    m_app.footer(text);
}

void Syntax::onGiven(const std::function<std::string()>& objection)
{
    m_app.parse_complete_callback([objection] {
        if (const auto text = objection(); !text.empty()) {
            throw CLI::ValidationError(text);
        }
    });
}

const std::string& Syntax::name() const
{
    return m_app.get_name();
}

bool Syntax::isGiven() const
{
    return m_app.parsed();
}

bool Syntax::isGiven(const std::string& option) const
{
    return m_app.count(option) != 0;
}

const Syntax* Syntax::givenCommand() const
{
    const auto given =
        std::ranges::find_if(m_commands, [](const auto& command) { return command->isGiven(); });
    return given != m_commands.end() ? given->get() : nullptr;
}

std::optional<int> Syntax::parse(int argc, const char* const* argv)
{
    return parse(argc, argv, std::cout, std::cerr);
}

std::optional<int> Syntax::parse(int argc, const char* const* argv, std::ostream& out, std::ostream& err)
{
    m_app.require_subcommand(0, 1); // the library would call an unknown word a missing command
    std::string mistake;
    try {
        m_app.parse(argc, argv);
        if (m_commands.empty() || givenCommand() != nullptr) {
            return std::nullopt;
        }
        mistake = "a command is missing";
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            return finishOutput(name(), m_app.exit(error, out, err), out, err);
        }
        mistake = mistakeText(error);
    }
    const auto* const command = givenCommand();
    err << name() << ": " << mistake << "\nTry '" << name()
        << (command != nullptr ? " " + command->name() : "") << " --help'." << std::endl;
    return wrongUsage;
}

Syntax::Outcome Syntax::parseWords(std::vector<std::string> words)
{
    m_app.require_subcommand(0, 1);
    try {
        std::ranges::reverse(words); // as the library takes them
        m_app.parse(words);
    } catch (const CLI::CallForHelp&) {
        return {Outcome::Kind::help, givenCommand() != nullptr ? m_app.help() : ""};
    } catch (const CLI::ParseError& error) {
        return {Outcome::Kind::mistake, mistakeText(error)};
    }
    return {Outcome::Kind::good, ""};
}

/// Behind the name of the command that it is wrong for: "utc: TIME is required". No newline.
std::string Syntax::mistakeText(const std::exception& error) const
{
    const auto* const command = givenCommand();
    if (command != nullptr) {
        return command->name() + ": " + error.what();
    }
    if (!m_commands.empty()) { // the first word that is left over stands where a command should
        const auto words = m_app.remaining();
        const auto wrong =
            std::ranges::find_if(words, [](const std::string& word) { return !word.starts_with("-"); });
        if (wrong != words.end()) {
            return "there is no command \"" + *wrong + "\"";
        }
    }
    return error.what();
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

void useRunDir(const std::string& runDir)
{
    if (!runDir.empty()) {
        setenv("MERLOW_RUN_DIR", runDir.c_str(), 1);
    }
}

} // namespace merlow::base
