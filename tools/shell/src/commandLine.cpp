#include "commandLine.h"

#include "programOptions.h"

#include <cmath>
#include <iostream>
#include <unistd.h>

namespace merlow::tools {

CommandLine::CommandLine(const char* program, const char* description) : m_app(program, description)
{
    m_style.program = program;
    m_app.allowOptionsBehindCommands();
    m_app.addOption("--timeout", m_timeoutSeconds, "Seconds to wait for the unit, and for each answer")
        .range(0.001, 86400.0)
        .showDefault();
    m_app.addCommonOptions(m_runDir);
    m_app.addFlag("--json", m_style.json, "One JSON object a line");
    m_app.addFlag("-v,--verbose", m_style.verbose, "Signal names in front of each line");
}

std::optional<int> CommandLine::parse(int argc, const char* const* argv, std::ostream& out, std::ostream& err)
{
    const auto status = m_app.parse(argc, argv, out, err);
    if (!status) {
        base::useRunDir(m_runDir);
        m_style.terminal = &out == &std::cout && isatty(STDOUT_FILENO) != 0;
    }
    return status;
}

std::chrono::milliseconds CommandLine::timeout() const
{
    return std::chrono::milliseconds(std::lround(m_timeoutSeconds * 1000));
}

} // namespace merlow::tools
