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

/// Parses the command line; a program that has commands must be given one. Gives the exit status when the
/// program is to end with it: 0 after help and version, 2 and a message for a mistake.
std::optional<int> parseCommandLine(CLI::App& app, int argc, const char* const* argv);
std::optional<int> parseCommandLine(CLI::App& app, int argc, const char* const* argv, std::ostream& out,
                                    std::ostream& err);

/// What is wrong with what `app` was given, after the name of the command that it is wrong for: "utc: TIME is
/// required". No newline.
std::string mistakeText(const CLI::App& app, const CLI::ParseError& error);

/// Makes `runDir`, unless it is empty, the run-time folder of this process.
void useRunDir(const std::string& runDir);

} // namespace merlow::base
