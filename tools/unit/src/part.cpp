#include "part.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace merlow::unit {

std::string describeEnd(int waitStatus)
{
    if (WIFSIGNALED(waitStatus)) {
        const int number = WTERMSIG(waitStatus);
        return "signal " + std::to_string(number) + " (" + strsignal(number) + ")";
    }
    return "exit status " + std::to_string(WEXITSTATUS(waitStatus));
}

Part::Part(std::string name, std::vector<std::string> command, Place place)
    : m_name(std::move(name)), m_command(std::move(command)), m_place(place)
{
}

bool Part::start(const Surroundings& surroundings)
{
    std::vector<char*> arguments;
    for (auto& word : m_command) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);

    int failure[2]; // closed by a successful exec, else it carries the errno
    if (pipe2(failure, O_CLOEXEC) != 0) {
        return false;
    }
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) {
        runChild(arguments, surroundings, parent, failure[1]);
    }
    int error = child < 0 ? errno : 0;
    close(failure[1]);
    if (child > 0) {
        if (read(failure[0], &error, sizeof(error)) > 0) {
            waitpid(child, nullptr, 0);
        } else {
            m_pid = child;
        }
    }
    close(failure[0]);
    errno = error;
    return isRunning();
}

void Part::runChild(const std::vector<char*>& arguments, const Surroundings& surroundings, pid_t parent,
                    int failureFd) const
{
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (m_place == Place::background) {
        setpgid(0, 0);
        const int devNull = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (devNull >= 0) {
            dup2(devNull, STDIN_FILENO);
        }
    }
    if (surroundings.outputFd >= 0) {
        dup2(surroundings.outputFd, STDOUT_FILENO);
        dup2(surroundings.outputFd, STDERR_FILENO);
    }
    if (surroundings.notifySocket.empty()) {
        unsetenv("NOTIFY_SOCKET");
    } else {
        setenv("NOTIFY_SOCKET", surroundings.notifySocket.c_str(), 1);
    }
    if (getppid() == parent) { // else it died before the prctl
        execvp(arguments[0], arguments.data());
    }
    const int error = errno;
    (void)!write(failureFd, &error, sizeof(error));
    _exit(127);
}

std::optional<int> Part::reap()
{
    int status = 0;
    if (!isRunning() || waitpid(m_pid, &status, WNOHANG) != m_pid) {
        return std::nullopt;
    }
    m_pid = -1;
    return status;
}

void Part::signal(int number) const
{
    if (isRunning()) {
        kill(m_pid, number);
    }
}

} // namespace merlow::unit
