/// An LTTng session daemon for a test, its own wherever that is possible.
#pragma once

#include "subject.h"

#include <string>
#include <sys/types.h>

namespace merlow::test {

/// Root's daemon has its sockets in one place on a machine, so the test and all that it starts meanwhile
/// see an empty one there in its stead: no daemon of another test or of the machine, dead or alive, and no
/// program of theirs gets in the way. Where root may not do that (a container without the right to mount),
/// the daemon that runs is shared, and tests that use this take turns (RESOURCE_LOCK lttng). Other users'
/// daemons are in `home`.
///
/// Ends the daemon with its object if it started it.
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
    void isolate();

    std::string m_home;
    std::string m_problem;
    pid_t m_pid = -1;
    bool m_isIsolated = false;
};

} // namespace merlow::test
