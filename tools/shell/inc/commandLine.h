/// The part of a command line that all client programs have in common.
#pragma once

#include "output.h"
#include "programOptions.h"

#include <chrono>
#include <optional>
#include <ostream>
#include <string>

namespace merlow::tools {

/// --timeout, --run-dir, --json, --verbose and --version.
class CommandLine {
public:
    /// `program` as people call it.
    CommandLine(const char* program, const char* description);
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    /// For the program's own options and commands; the common options are behind them in the help.
    [[nodiscard]] base::Syntax& app() { return m_app; }

    /// Reads the command line and puts `--run-dir` in force. A status when there is nothing left to do: help
    /// was asked for, or the command line is wrong.
    [[nodiscard]] std::optional<int> parse(int argc, const char* const* argv, std::ostream& out,
                                           std::ostream& err);

    /// For each wait: the search, each answer.
    [[nodiscard]] std::chrono::milliseconds timeout() const;
    [[nodiscard]] const Output::Style& style() const { return m_style; }

private:
    base::Syntax m_app;
    double m_timeoutSeconds = 3;
    std::string m_runDir;
    Output::Style m_style;
};

} // namespace merlow::tools
