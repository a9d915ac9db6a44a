#include "commandLine.h"

#include "exitStatus.h"

#include <cmath>
#include <cstdlib>

namespace merlow::tools {

CommandLine::CommandLine(const char* program, const char* description) : m_app(description, program)
{
    m_style.program = program;
    m_app.set_version_flag("--version", std::string(program) + " " MERLOW_VERSION);
    m_app.fallthrough();
    m_app.add_option("--timeout", m_timeoutSeconds, "Seconds to wait for the unit, and for each answer")
        ->check(CLI::Range(0.001, 86400.0))
        ->capture_default_str();
    m_app.add_option("--run-dir", m_runDir, "The unit's run-time folder (default: as MERLOW_RUN_DIR says)");
    m_app.add_flag("--json", m_style.json, "One JSON object a line");
    m_app.add_flag("-v,--verbose", m_style.verbose, "Signal names in front of each line");
}

std::optional<int> CommandLine::parse(int argc, const char* const* argv, std::ostream& out, std::ostream& err)
{
    try {
        m_app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return m_app.exit(error, out, err) == 0 ? 0 : static_cast<int>(ExitStatus::usage);
    }
    if (m_app.get_subcommands().empty()) {
        err << m_style.program << ": a command is missing; --help lists them" << std::endl;
        return static_cast<int>(ExitStatus::usage);
    }
    if (!m_runDir.empty()) {
        setenv("MERLOW_RUN_DIR", m_runDir.c_str(), 1);
    }
    return std::nullopt;
}

std::chrono::milliseconds CommandLine::timeout() const
{
    return std::chrono::milliseconds(std::lround(m_timeoutSeconds * 1000));
}

} // namespace merlow::tools
