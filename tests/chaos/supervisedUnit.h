/// A unit under its supervisor, seen from outside: its processes, and what they hold.
#pragma once

#include "process.h"

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <sys/types.h>

namespace merlow::test {

/// What must not grow, whatever happens to a unit.
struct Holdings {
    std::map<std::string, std::size_t> descriptors; ///< by part; the supervisor's too
    std::set<std::string> names;                    ///< of mailboxes
    std::size_t endpoints = 0;                      ///< sockets of mailboxes in the run-time folder
};

/// What `after` has more of than `before`, for people; empty for nothing.
std::string growth(const Holdings& before, const Holdings& after);

/// Its run-time folder is its own and goes with it.
class SupervisedUnit {
public:
    SupervisedUnit();

    [[nodiscard]] const Process::Environment& environment() const { return m_environment; }
    [[nodiscard]] std::string path(const std::string& name) const { return m_dir.path() + "/" + name; }
    [[nodiscard]] bool waitUntilUp();

    /// The processes of the parts that run, by their names. Notes each, so that `leftProcesses` knows it.
    std::map<std::string, pid_t> parts();
    /// Memory of a process's own, in bytes; 0 when it is gone.
    static std::size_t memoryOf(pid_t process);
    Holdings holdings();

    /// What the supervisor said, line by line, that speaks of more than a kill or a restart of the board.
    [[nodiscard]] std::string unexpectedWords() const;
    [[nodiscard]] std::string words() const { return m_supervisor.err(); }
    [[nodiscard]] bool isRunning() { return m_supervisor.running(); }

    /// Has the supervisor end everything; gives its exit status.
    int end();
    /// After the end: mailboxes that stay in the folder, and processes that still run. For people.
    std::string leftOvers();

    [[nodiscard]] Outcome call(const std::string& program, const std::vector<std::string>& arguments,
                               const std::string& input = {}) const;

private:
    TempDir m_dir;
    Process::Environment m_environment;
    Process m_supervisor;
    std::set<pid_t> m_seen;
};

} // namespace merlow::test
