/// The command lines of all programs: what each takes, the options that all have, and how a mistake is told.
/// The parser behind it is a library of headers only, which cost more to compile than the programs do, so
/// only one source sees it.
#pragma once

#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace merlow::base {

/// One option, or an argument by its place. A handle: copies mean the same option, which lives as long as the
/// `Syntax` that made it.
class Option {
public:
    /// What is wrong with a value; empty when nothing is.
    using Objection = std::function<std::string(const std::string& value)>;

    explicit Option(CLI::Option* option) : m_option(option) {}

    Option& required();
    Option& check(const Objection& objection);
    /// `unit` is what help calls the value, in place of its type and range. For int, unsigned, std::uint64_t
    /// and double.
    template <class T> Option& range(T lowest, T highest, const std::string& unit = "");
    Option& oneOf(const std::vector<std::string>& words);
    Option& existingFile();
    /// Only together with `other`.
    Option& needs(const Option& other);
    /// Values in one word.
    Option& separatedBy(char separator);
    /// One value each time that it is given; a list takes all words that follow otherwise.
    Option& oneValueEach();
    /// Shows in help the value that the variable has now.
    Option& showDefault();
    /// What help calls the value, in place of its type.
    Option& valueName(const std::string& name);

    [[nodiscard]] bool isGiven() const;

private:
    CLI::Option* m_option;
};

/// What a program, or one of its commands, takes. The variables that options go to must outlive the parsing.
class Syntax {
public:
    /// What came of a line of words.
    struct Outcome {
        enum class Kind { good, help, mistake } kind;
        std::string text; ///< what is wrong, or the help of the command, empty for that of all
    };

    Syntax(const std::string& program, const std::string& description);
    ~Syntax();
    Syntax(const Syntax&) = delete;
    Syntax& operator=(const Syntax&) = delete;

    /// For flags (bool), numbers (std::int16_t, std::uint16_t, int, unsigned, std::uint64_t, double), texts,
    /// and lists of texts and of unsigned. `name` is "--name" or "-n,--name"; without dashes it is an
    /// argument.
    template <class T> Option addOption(const std::string& name, T& value, const std::string& help);
    Option addFlag(const std::string& name, bool& value, const std::string& help);
    /// `take` gets each value and keeps it, or objects.
    Option addReader(const std::string& name, const Option::Objection& take, const std::string& help);
    /// `--run-dir` and `--version`.
    void addCommonOptions(std::string& runDir);

    /// A command of this one; lives as long as this.
    Syntax& addCommand(const std::string& name, const std::string& help);
    /// One of the commands must be given. Programs need not ask for it.
    void requireCommand();
    /// Options may stand behind a command too.
    void allowOptionsBehindCommands();
    /// Stands below the options in help.
    void footer(const std::string& text);
    /// One call for a command, made when it was given and its values are in place; an objection is a mistake.
    void onGiven(const std::function<std::string()>& objection);

    [[nodiscard]] const std::string& name() const;
    [[nodiscard]] bool isGiven() const;
    [[nodiscard]] bool isGiven(const std::string& option) const;
    /// Null when none was given.
    [[nodiscard]] const Syntax* givenCommand() const;

    /// Parses the command line; a program that has commands must be given one. Gives the exit status when the
    /// program is to end with it: that of `finishOutput` after help and version, 2 and a message for a
    /// mistake.
    std::optional<int> parse(int argc, const char* const* argv);
    std::optional<int> parse(int argc, const char* const* argv, std::ostream& out, std::ostream& err);
    /// Parses the words of one line, which need not hold a command.
    Outcome parseWords(std::vector<std::string> words);

private:
    explicit Syntax(CLI::App& app);
    [[nodiscard]] std::string mistakeText(const std::exception& error) const;

    std::unique_ptr<CLI::App> m_own; ///< null for a command, whose program has it
    CLI::App& m_app;
    std::vector<std::unique_ptr<Syntax>> m_commands;
};

/// The exit status of a program that did all it was told to, but for telling it.
inline constexpr int outputLost = 5;

/// Writes out what `out` still holds. Gives the status to end with: `status`, or, when anything that was
/// meant for `out` did not get there, that is said to `err` and success becomes `outputLost`.
[[nodiscard]] int finishOutput(const std::string& program, int status);
[[nodiscard]] int finishOutput(const std::string& program, int status, std::ostream& out, std::ostream& err);

/// Makes `runDir`, unless it is empty, the run-time folder of this process.
void useRunDir(const std::string& runDir);

} // namespace merlow::base
