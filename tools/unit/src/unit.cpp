#include "unit.h"

#include "runDir.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

namespace merlow::unit {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// The parts, in the order of their start; they end the other way round.
constexpr const char* partNames[] = {"legacyd", "brhd", "swmd", "merlowd"};
constexpr const char* hostName = "merlowd";

constexpr milliseconds partPatience{5000}; // from SIGTERM to SIGKILL

/// Whether a second terminal needs to be told where the unit is.
bool isRunDirChosen()
{
    const char* const chosen = std::getenv("MERLOW_RUN_DIR");
    return chosen != nullptr && *chosen != '\0';
}

/// As it can be typed in the folder that the unit was started in.
std::string shortPath(const std::string& path)
{
    std::error_code error;
    const std::string here = std::filesystem::current_path(error).string() + '/';
    return path.starts_with(here) ? path.substr(here.size()) : path;
}

/// The value of a line "NAME=value" of a report; nothing when it has no such line.
std::optional<std::string> valueIn(const std::string& report, const std::string& name)
{
    const std::string start = name + '=';
    for (std::size_t at = 0; at < report.size();) {
        const auto end = std::min(report.find('\n', at), report.size());
        if (report.compare(at, start.size(), start) == 0) {
            return report.substr(at + start.size(), end - at - start.size());
        }
        at = end + 1;
    }
    return std::nullopt;
}

} // namespace

Unit::Unit(Settings settings) : m_settings(std::move(settings)) {}

Unit::~Unit()
{
    for (const int fd : {m_signalFd, m_logFd}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

int Unit::run()
{
    if (openDescriptors() && startParts()) {
        watch();
    }
    end();
    return m_result;
}

bool Unit::openDescriptors()
{
    const int runDir = base::openRunSubdir("");
    if (runDir < 0) {
        const std::string reason = std::strerror(errno);
        fail("run-time folder " + base::runDirPath() + ": " + reason +
             ". MERLOW_RUN_DIR or --run-dir names another one");
        return false;
    }
    close(runDir);
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) {
        sigaddset(&signals, number);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    m_signalFd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (m_signalFd < 0 || m_notifySocket.fd() < 0) {
        fail(std::string("no descriptors: ") + std::strerror(errno));
        return false;
    }
    if (!m_settings.logFile.empty()) {
        m_logFd = open(m_settings.logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (m_logFd < 0) {
            fail(m_settings.logFile + ": " + std::strerror(errno));
            return false;
        }
    }
    return true;
}

bool Unit::startParts()
{
    for (const char* const name : partNames) {
        const std::string program = m_settings.programDir + '/' + name;
        Part& part = m_parts.emplace_back(name, std::vector<std::string>{program}, Part::Place::background);
        const bool isHost = std::string_view(name) == hostName;
        if (!part.start({isHost ? m_notifySocket.name() : std::string(), m_logFd})) {
            fail(program + " cannot be started: " + std::strerror(errno));
            return false;
        }
        if (isHost) {
            m_host = &part;
        }
    }
    return true;
}

void Unit::watch()
{
    while (m_state != State::ending) {
        int timeout = -1;
        if (m_state == State::starting && !m_settings.command.empty()) {
            const auto left =
                std::chrono::ceil<milliseconds>(m_startedAt + m_settings.patience - steady_clock::now());
            if (left <= milliseconds(0)) {
                fail("not up after " + std::to_string(m_settings.patience.count()) +
                     " s; the last word of merlowd: " + m_lastStatus);
                return;
            }
            timeout = static_cast<int>(left.count());
        }
        std::array<pollfd, 2> fds{{{m_signalFd, POLLIN, 0}, {m_notifySocket.fd(), POLLIN, 0}}};
        if (poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR) {
            fail(std::string("poll: ") + std::strerror(errno));
            return;
        }
        handleReports();
        handleSignals();
    }
}

void Unit::handleSignals()
{
    signalfd_siginfo info{};
    while (read(m_signalFd, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
        if (info.ssi_signo == SIGCHLD) {
            handleDeaths();
        } else if (m_state == State::ending) {
            m_isInHurry = true;
        } else {
            if (!m_settings.command.empty() && m_result == 0) {
                m_result = 128 + static_cast<int>(info.ssi_signo); // the command was not done
            }
            m_state = State::ending;
        }
    }
}

void Unit::handleReports()
{
    while (m_host != nullptr) {
        const auto report = m_notifySocket.receive(m_host->pid());
        if (!report) {
            return;
        }
        m_lastStatus = valueIn(*report, "STATUS").value_or(m_lastStatus);
        if (m_state == State::starting && valueIn(*report, "READY") == "1") {
            becomeUp();
        }
    }
}

void Unit::handleDeaths()
{
    for (Part& part : m_parts) {
        if (const auto status = part.reap()) {
            handleDeath(part, *status);
        }
    }
    if (m_command) {
        if (const auto status = m_command->reap()) {
            if (*status != 0 && m_result == 0) {
                m_result = WIFSIGNALED(*status) ? 128 + WTERMSIG(*status) : WEXITSTATUS(*status);
            }
            m_state = State::ending;
        }
    }
}

void Unit::handleDeath(const Part& part, int waitStatus)
{
    if (m_state != State::ending) {
        const std::string log =
            m_settings.logFile.empty() ? std::string() : "; what it said is in " + m_settings.logFile;
        fail(part.name() + " ended with " + describeEnd(waitStatus) + log + "; ending the rest");
    } else if (waitStatus != 0 && !(WIFSIGNALED(waitStatus) && WTERMSIG(waitStatus) == SIGTERM)) {
        // One that was asked to end before it could listen ends by the signal itself, and that is fine.
        fail(part.name() + " ended with " + describeEnd(waitStatus));
    }
}

void Unit::becomeUp()
{
    m_state = State::up;
    if (m_settings.command.empty()) {
        sayHowToGoOn();
        return;
    }
    m_command.emplace(m_settings.command.front(), m_settings.command, Part::Place::foreground);
    if (!m_command->start({})) {
        fail(m_settings.command.front() + " cannot be started: " + std::strerror(errno));
    }
}

void Unit::sayHowToGoOn() const
{
    const auto took = std::chrono::duration_cast<milliseconds>(steady_clock::now() - m_startedAt).count();
    const std::string where = isRunDirChosen() ? " --run-dir " + base::runDirPath() : std::string();
    const std::pair<const char*, const char*> commands[] = {
        {"/bcictl audit", "connect as a client, read its state"},
        {"/bcictl session", "stay connected; \"help\" lists the commands"},
        {"/boardctl status", "what the board's servers hold"},
    };
    std::cout << "\nThe unit is up after " << took << " ms. Try in a second terminal:\n\n" << std::left;
    for (const auto& [command, what] : commands) {
        const std::string line = shortPath(m_settings.programDir) + command + where;
        std::cout << "  "
                  << std::setw(static_cast<int>(shortPath(m_settings.programDir).size() + where.size()) + 19)
                  << line << what << "\n";
    }
    std::cout << "\nCtrl-C here ends it.\n" << std::endl;
}

void Unit::fail(const std::string& text)
{
    std::cerr << "unit: " << text << std::endl;
    m_result = 1;
    m_state = State::ending;
}

void Unit::end()
{
    m_state = State::ending;
    if (m_command) {
        endPart(*m_command);
    }
    for (auto part = m_parts.rbegin(); part != m_parts.rend(); ++part) {
        endPart(*part);
    }
}

void Unit::endPart(Part& part)
{
    part.signal(SIGTERM);
    awaitEnd(part, partPatience);
    if (part.isRunning()) {
        part.signal(SIGKILL);
        awaitEnd(part, partPatience);
    }
}

void Unit::awaitEnd(Part& part, milliseconds limit)
{
    const auto until = steady_clock::now() + limit;
    while (part.isRunning()) {
        handleSignals();
        handleDeaths();
        const auto left = std::chrono::ceil<milliseconds>(until - steady_clock::now());
        if (!part.isRunning() || left <= milliseconds(0) || m_isInHurry) {
            return;
        }
        pollfd fd{m_signalFd, POLLIN, 0};
        poll(&fd, 1, static_cast<int>(left.count()));
    }
}

} // namespace merlow::unit
