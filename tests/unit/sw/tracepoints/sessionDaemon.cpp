#include "sessionDaemon.h"

#include <csignal>
#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace merlow::test {

namespace {

constexpr const char* daemonProgram = "/usr/bin/lttng-sessiond";
constexpr const char* controlProgram = "/usr/bin/lttng";
constexpr const char* rootsFolder = "/var/run/lttng";

} // namespace

SessionDaemon::SessionDaemon(const std::string& home) : m_home(home)
{
    for (const char* program : {daemonProgram, controlProgram, "/usr/bin/babeltrace2"}) {
        if (access(program, X_OK) != 0) {
            m_problem = std::string(program) + " is not installed";
            return;
        }
    }
    isolate();
    if (answers()) {
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const std::string log = m_home + "/sessiond.log";
    for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
        posix_spawn_file_actions_addopen(&actions, fd, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    }
    std::string name = daemonProgram;
    std::string option = "--no-kernel";
    std::string homeSetting = "LTTNG_HOME=" + m_home;
    std::string path = "PATH=/usr/bin:/bin";
    char* const arguments[] = {name.data(), option.data(), nullptr};
    char* const variables[] = {homeSetting.data(), path.data(), nullptr};
    const int error = posix_spawn(&m_pid, daemonProgram, &actions, nullptr, arguments, variables);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        m_pid = -1;
    }
    const auto settled = [this] {
        return m_pid < 0 || waitpid(m_pid, nullptr, WNOHANG) != 0 || answers();
    };
    if (!waitUntil(settled) || !answers()) {
        m_problem = "no LTTng session daemon can run here: " + contentOf(log);
    }
}

SessionDaemon::~SessionDaemon()
{
    if (m_pid > 0 && kill(m_pid, SIGTERM) == 0 &&
        !waitUntil([this] { return waitpid(m_pid, nullptr, WNOHANG) != 0; })) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    if (m_isIsolated) {
        umount2(rootsFolder, MNT_DETACH);
    }
}

Environment SessionDaemon::environment() const
{
    return {{"LTTNG_HOME", m_home}, {"LTTNG_UST_REGISTER_TIMEOUT", "-1"}};
}

Result SessionDaemon::lttng(std::vector<std::string> arguments) const
{
    arguments.insert(arguments.begin(), {controlProgram, "--no-sessiond"});
    return runProgram(arguments, environment());
}

void SessionDaemon::isolate()
{
    if (geteuid() != 0) {
        return;
    }
    mkdir(rootsFolder, 0755); // a mount needs a place; the daemon would make it too
    const std::string own = m_home + "/run";
    if (mkdir(own.c_str(), 0755) != 0 || unshare(CLONE_NEWNS) != 0) {
        return;
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {
        m_isIsolated = mount(own.c_str(), rootsFolder, nullptr, MS_BIND, nullptr) == 0;
    }
}

bool SessionDaemon::answers() const
{
    return lttng({"list"}).status == 0;
}

} // namespace merlow::test
