/// One program of the unit as a child process.
#pragma once

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace merlow::unit {

/// How a child ended, as people say it: "exit status 2", "signal 9 (Killed)".
std::string describeEnd(int waitStatus);

/// A child process that gets SIGTERM when the unit itself is killed.
class Part {
public:
    enum class Place {
        /// Leads a process group of its own, so that Ctrl-C at the terminal reaches the unit alone and the
        /// parts end in order. Standard input is empty.
        background,
        /// Shares the terminal with the unit.
        foreground,
    };

    struct Surroundings {
        std::string notifySocket; ///< what the program finds in `NOTIFY_SOCKET`; empty for none
        int outputFd = -1;        ///< where its output and errors go; -1 for where the unit's go
    };

    Part(std::string name, std::vector<std::string> command, Place place);

    [[nodiscard]] const std::string& name() const { return m_name; }
    [[nodiscard]] pid_t pid() const { return m_pid; }
    [[nodiscard]] bool isRunning() const { return m_pid > 0; }

    /// Starts the program (looked up in `PATH` if it has no slash). False with `errno` when it cannot run.
    [[nodiscard]] bool start(const Surroundings& surroundings);

    /// The wait status, once, when the child has ended.
    std::optional<int> reap();

    void signal(int number) const;

private:
    [[noreturn]] void runChild(const std::vector<char*>& arguments, const Surroundings& surroundings,
                               pid_t parent, int failureFd) const;

    std::string m_name;
    std::vector<std::string> m_command;
    Place m_place;
    pid_t m_pid = -1;
};

} // namespace merlow::unit
