/// What the command lines of all programs have in common: the options that each has, and how a mistake is
/// told.
#pragma once

#include <CLI/CLI.hpp>
#include <iosfwd>
#include <optional>
#include <string>

namespace merlow::base {

/// `--run-dir` and `--version`.
void addCommonOptions(CLI::App& app, std::string& runDir);

/// The exit status of a program that did all it was told to, but for telling it.
inline constexpr int outputLost = 5;

/// Writes out what `out` still holds. Gives the status to end with: `status`, or, when anything that was
/// meant for `out` did not get there, that is said to `err` and success becomes `outputLost`.
[[nodiscard]] int finishOutput(const std::string& program, int status);
[[nodiscard]] int finishOutput(const std::string& program, int status, std::ostream& out, std::ostream& err);

/// Parses the command line; a program that has commands must be given one. Gives the exit status when the
/// program is to end with it: that of `finishOutput` after help and version, 2 and a message for a mistake.
std::optional<int> parseCommandLine(CLI::App& app, int argc, const char* const* argv);
std::optional<int> parseCommandLine(CLI::App& app, int argc, const char* const* argv, std::ostream& out,
                                    std::ostream& err);

/// What is wrong with what `app` was given, after the name of the command that it is wrong for: "utc: TIME is
/// required". No newline.
std::string mistakeText(const CLI::App& app, const CLI::ParseError& error);

/// Makes `runDir`, unless it is empty, the run-time folder of this process.
void useRunDir(const std::string& runDir);

} // namespace merlow::base
