#include "process.h"

#include "role.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sched.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace merlow::bench {

namespace {

volatile std::sig_atomic_t stopRequested = 0;

[[noreturn]] void fail(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

/// Runs between fork and exec, so it allocates nothing.
[[noreturn]] void becomeProcess(const Start& start, const char* program, char* const* argv, int line,
                                pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(127);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    if (start.otherCpus) {
        sched_getaffinity(0, sizeof(cpus), &cpus);
        CPU_CLR(measuringCpu(), &cpus);
    } else {
        CPU_SET(measuringCpu(), &cpus);
    }
    if (!start.anyCpu) {
        sched_setaffinity(0, sizeof(cpus), &cpus); // an empty set is refused and changes nothing
    }
    if (start.foreign) { // their complaints about limits are nothing for the table
        dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
    }
    // First out of the way of the numbers that they get, then to those numbers.
    constexpr int aside = 100;
    int count = 0;
    fcntl(line, F_DUPFD, aside);
    for (const int fd : start.descriptors) {
        fcntl(fd, F_DUPFD, aside);
        ++count;
    }
    for (int i = 0; i <= count; ++i) {
        dup2(aside + i, lineFd + i);
        close(aside + i);
    }
    execv(program, argv);
    _exit(127);
}

} // namespace

RunFolder::RunFolder()
{
    const char* base = std::getenv("TMPDIR");
    m_path = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/merlow-bench-XXXXXX";
    if (mkdtemp(m_path.data()) == nullptr) {
        fail("cannot make the folder " + m_path);
    }
}

RunFolder::~RunFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

Fd& Fd::operator=(Fd&& other) noexcept
{
    if (this != &other) {
        reset();
        m_fd = other.release();
    }
    return *this;
}

int Fd::release()
{
    const int fd = m_fd;
    m_fd = -1;
    return fd;
}

void Fd::reset()
{
    if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
    }
}

SocketPair::SocketPair()
{
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds) != 0) {
        fail("socketpair");
    }
    first = Fd(fds[0]);
    second = Fd(fds[1]);
}

Process::Process(const Start& start) : m_name(start.arguments.at(0))
{
    std::vector<std::string> arguments = start.arguments;
    std::string program = arguments.front();
    if (!start.foreign) {
        program = "/proc/self/exe";
        arguments.insert(arguments.begin(), {"merlow-bench", roleOption});
    }
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);

    int line[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, line) != 0) {
        fail("socketpair");
    }
    m_line = Fd(line[0]);
    const Fd other(line[1]);
    if (!start.runDir.empty()) {
        setenv("MERLOW_RUN_DIR", start.runDir.c_str(), 1);
    }
    const pid_t parent = getpid();
    measuringCpu();
    m_pid = fork();
    if (m_pid < 0) {
        fail("fork");
    }
    if (m_pid == 0) {
        becomeProcess(start, program.c_str(), argv.data(), other.get(), parent);
    }
}

Process::Process(Process&& other) noexcept
    : m_name(std::move(other.m_name)), m_pid(std::exchange(other.m_pid, -1)), m_line(std::move(other.m_line))
{
}

Process& Process::operator=(Process&& other) noexcept
{
    if (this != &other) {
        end();
        m_name = std::move(other.m_name);
        m_pid = std::exchange(other.m_pid, -1);
        m_line = std::move(other.m_line);
    }
    return *this;
}

void Process::tell(const std::string& text) const
{
    if (send(m_line.get(), text.data(), text.size(), MSG_NOSIGNAL) < 0) {
        fail("telling " + m_name);
    }
}

std::string Process::hear(std::chrono::milliseconds limit) const
{
    const double deadline = nowNanoseconds() + static_cast<double>(limit.count()) * 1e6;
    for (;;) {
        if (stopRequested != 0) {
            throw std::runtime_error("stopped by a signal");
        }
        const double left = deadline - nowNanoseconds();
        if (left <= 0) {
            throw std::runtime_error(m_name + " did not answer in time");
        }
        pollfd item{m_line.get(), POLLIN, 0};
        if (poll(&item, 1, static_cast<int>(left / 1e6) + 1) <= 0) {
            continue;
        }
        char buffer[512];
        const ssize_t length = recv(m_line.get(), buffer, sizeof(buffer), 0);
        if (length <= 0) {
            throw std::runtime_error(m_name + " ended");
        }
        std::string text(buffer, static_cast<std::size_t>(length));
        if (text.rfind("failed", 0) == 0) {
            throw std::runtime_error(m_name + " " + text);
        }
        return text;
    }
}

std::string Process::ask(const std::string& text) const
{
    tell(text);
    return hear();
}

Process& Process::untilReady()
{
    if (const std::string word = hear(); word != "ready") {
        throw std::runtime_error(m_name + " said \"" + word + "\" where it should be ready");
    }
    return *this;
}

double Process::cpuNanoseconds() const
{
    clockid_t clock{};
    timespec time{};
    if (clock_getcpuclockid(m_pid, &clock) != 0 || clock_gettime(clock, &time) != 0) {
        throw std::runtime_error("no CPU clock of " + m_name + ": it has ended");
    }
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

double Process::residentBytes() const
{
    std::ifstream file("/proc/" + std::to_string(m_pid) + "/smaps_rollup");
    std::string key;
    while (file >> key) {
        double kilobytes = 0;
        if (key == "Rss:" && file >> kilobytes) {
            return kilobytes * 1024;
        }
    }
    throw std::runtime_error("no memory figures of " + m_name);
}

void Process::end()
{
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }
    m_line.reset();
}

void stopOnSignals()
{
    struct sigaction action {};
    action.sa_handler = [](int) {
        stopRequested = 1;
    };
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

int measuringCpu()
{
    static const int cpu = [] {
        cpu_set_t cpus;
        int last = 0;
        if (sched_getaffinity(0, sizeof(cpus), &cpus) == 0) {
            for (int i = 0; i < CPU_SETSIZE; ++i) {
                last = CPU_ISSET(i, &cpus) ? i : last;
            }
        }
        return last;
    }();
    return cpu;
}

double nowNanoseconds()
{
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

} // namespace merlow::bench
