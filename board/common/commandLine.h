/// What the command lines of the neighbours and boardctl have in common.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>

namespace merlow::board {

/// `--run-dir` and `--version`.
void addCommonOptions(CLI::App& app, std::string& runDir);

/// Parses the command line. Gives the exit status when the program is to end with it: 0 after help and
/// version, 2 and a message on stderr for a mistake.
std::optional<int> parseCommandLine(CLI::App& app, int argc, const char* const* argv);

/// Makes `runDir`, unless it is empty, the run-time folder of this process.
void useRunDir(const std::string& runDir);

} // namespace merlow::board
