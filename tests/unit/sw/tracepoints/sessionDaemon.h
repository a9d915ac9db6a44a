/// An LTTng session daemon for a test: that of the machine when one runs, else one of its own.
#pragma once

#include "subject.h"

#include <string>
#include <sys/types.h>

namespace merlow::test {

/// Ends the daemon with its object if it started it. Recordings of root share one daemon, so tests that use
/// this take turns (RESOURCE_LOCK lttng).
class SessionDaemon {
public:
    explicit SessionDaemon(const std::string& home);
    ~SessionDaemon();
    SessionDaemon(const SessionDaemon&) = delete;
    SessionDaemon& operator=(const SessionDaemon&) = delete;

    /// Why there is none; empty when it runs.
    const std::string& problem() const { return m_problem; }
    /// For everything that speaks to the daemon, traced programs included.
    Environment environment() const;
    Result lttng(std::vector<std::string> arguments) const;

private:
    bool answers() const;

    std::string m_home;
    std::string m_problem;
    pid_t m_pid = -1;
};

} // namespace merlow::test
