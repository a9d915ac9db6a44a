#include "unit.h"

#include "partStatus.h"
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

using std::chrono::steady_clock;

/// The parts, in the order of their start; they end the other way round.
constexpr const char* partNames[] = {"legacyd", "brhd", "swmd", "merlowd"};
constexpr const char* hostName = "merlowd";
constexpr std::string_view softwareServerName = "swmd";

constexpr std::chrono::milliseconds partPatience{5000}; // from SIGTERM to SIGKILL
constexpr unsigned startAttempts = 5;                   // of one part before the unit was up
constexpr unsigned manyEnds = 3;                        // in a row: the part cannot stay up

/// Whether a second terminal needs to be told where the unit is.
bool isRunDirChosen()
{
    const char* const chosen = std::getenv("MERLOW_RUN_DIR");
    return chosen != nullptr && *chosen != '\0';
}

std::chrono::milliseconds sinceThen(steady_clock::time_point then)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - then);
}

void say(const std::string& text)
{
    std::cerr << ("unit: " + text + "\n"); // one write: the parts may say something at the same time
}

/// Whether a part that was asked to end did so. One that was asked before it could listen ends by the signal
/// itself, and that is fine.
bool isGoodEnd(int waitStatus)
{
    return WIFSIGNALED(waitStatus)
               ? WTERMSIG(waitStatus) == SIGTERM
               : WEXITSTATUS(waitStatus) == 0 || WEXITSTATUS(waitStatus) == base::boardRestartStatus;
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
        Supervised& supervised = m_parts.emplace_back(Part(name, {program}, Part::Place::background));
        if (std::string_view(name) == hostName) {
            m_host = &supervised;
        }
        if (!start(supervised)) {
            fail(program + " cannot be started: " + std::strerror(errno));
            return false;
        }
    }
    return true;
}

bool Unit::start(Supervised& supervised)
{
    supervised.startAgainAt.reset();
    supervised.isToEnd = false;
    supervised.startedAt = steady_clock::now();
    return supervised.part.start({&supervised == m_host ? m_notifySocket.name() : std::string(), m_logFd});
}

void Unit::watch()
{
    while (m_state != State::ending) {
        const auto left = timeLeft();
        std::array<pollfd, 2> fds{{{m_signalFd, POLLIN, 0}, {m_notifySocket.fd(), POLLIN, 0}}};
        const int timeout = left ? static_cast<int>(std::max(*left, milliseconds(0)).count()) : -1;
        if (poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR) {
            fail(std::string("poll: ") + std::strerror(errno));
            return;
        }
        handleReports();
        handleSignals();
        restartBoard();
        startDueParts();
        if (m_state == State::starting && !m_settings.command.empty() &&
            steady_clock::now() >= m_startedAt + m_settings.patience) {
            fail("not up after " + std::to_string(m_settings.patience.count()) +
                 " s; the last word of merlowd: " + m_lastStatus);
        }
    }
}

std::optional<Unit::milliseconds> Unit::timeLeft() const
{
    std::optional<TimePoint> first;
    if (m_state == State::starting && !m_settings.command.empty()) {
        first = m_startedAt + m_settings.patience;
    }
    for (const Supervised& supervised : m_parts) {
        if (supervised.startAgainAt) {
            first = std::min(first.value_or(*supervised.startAgainAt), *supervised.startAgainAt);
        }
    }
    return first ? std::optional(std::chrono::ceil<milliseconds>(*first - steady_clock::now()))
                 : std::nullopt;
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
        const auto report = m_notifySocket.receive(m_host->part.pid());
        if (!report) {
            return;
        }
        m_lastStatus = valueIn(*report, "STATUS").value_or(m_lastStatus);
        if (valueIn(*report, "READY") == "1") {
            becomeUp();
        }
    }
}

void Unit::handleDeaths()
{
    for (Supervised& supervised : m_parts) {
        if (const auto status = supervised.part.reap()) {
            handleDeath(supervised, *status);
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

void Unit::handleDeath(Supervised& supervised, int waitStatus)
{
    const std::string whatHappened = supervised.part.name() + " ended with " + describeEnd(waitStatus);
    if (supervised.isToEnd || m_state == State::ending) {
        if (!isGoodEnd(waitStatus)) {
            say(whatHappened);
            m_result = m_state == State::ending ? 1 : m_result;
        }
        return;
    }
    if (WIFEXITED(waitStatus) && WEXITSTATUS(waitStatus) == base::boardRestartStatus) {
        say(supervised.part.name() + " has the board restarted; starting every part again");
        m_doesBoardRestart = true;
        return;
    }
    if (isHopeless(supervised, waitStatus)) {
        fail(whatHappened + whereItsWordsAre() + "; ending the rest");
    } else {
        startLater(supervised, whatHappened);
    }
}

bool Unit::isHopeless(const Supervised& supervised, int waitStatus) const
{
    return m_state == State::starting && ((WIFEXITED(waitStatus) && &supervised != m_host) ||
                                          supervised.backOff.endsInARow() + 1 >= startAttempts);
}

void Unit::startLater(Supervised& supervised, const std::string& whatHappened)
{
    const auto now = steady_clock::now();
    const auto wait = supervised.backOff.afterEnd(sinceThen(supervised.startedAt));
    supervised.startAgainAt = now + wait;
    if (&supervised == m_host) {
        m_downSince = now;
    }
    std::string text = whatHappened;
    if (supervised.backOff.endsInARow() >= manyEnds) {
        text += ", " + std::to_string(supervised.backOff.endsInARow()) +
                " times in a row; it cannot stay up" + whereItsWordsAre();
    }
    text += "; starting it again in " + std::to_string(wait.count()) + " ms";
    say(text + (supervised.part.name() == softwareServerName ? ", and merlowd behind it" : ""));
}

/// Those that are due at the same time in the order of the first start.
void Unit::startDueParts()
{
    for (Supervised& supervised : m_parts) {
        if (m_state != State::ending && supervised.startAgainAt &&
            steady_clock::now() >= *supervised.startAgainAt) {
            startAgain(supervised);
        }
    }
}

void Unit::startAgain(Supervised& supervised)
{
    if (supervised.part.name() == softwareServerName && m_host->part.isRunning()) {
        m_downSince = steady_clock::now();
        endSupervised(*m_host);
        m_host->startAgainAt = steady_clock::now();
    }
    if (m_state != State::ending && !start(supervised)) {
        startLater(supervised, supervised.part.name() + " cannot be started: " + std::strerror(errno));
    }
}

/// A board that restarts again and again takes its time for it, as a part does.
void Unit::restartBoard()
{
    if (!m_doesBoardRestart || m_state == State::ending) {
        return;
    }
    m_doesBoardRestart = false;
    m_downSince = steady_clock::now();
    const auto wait = m_boardBackOff.afterEnd(sinceThen(m_boardStartedAt));
    for (auto supervised = m_parts.rbegin(); supervised != m_parts.rend(); ++supervised) {
        endSupervised(*supervised);
    }
    m_doesBoardRestart = false; // another part may have said so as well
    m_boardStartedAt = steady_clock::now() + wait;
    for (Supervised& supervised : m_parts) {
        supervised.backOff.reset();
        supervised.startAgainAt = m_boardStartedAt;
    }
}

void Unit::becomeUp()
{
    if (m_state == State::up) {
        say("up again after " + std::to_string(sinceThen(m_downSince).count()) + " ms");
        return;
    }
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
    const auto took = sinceThen(m_startedAt).count();
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

std::string Unit::whereItsWordsAre() const
{
    return m_settings.logFile.empty() ? "" : "; what it said is in " + m_settings.logFile;
}

void Unit::fail(const std::string& text)
{
    say(text);
    m_result = 1;
    m_state = State::ending;
}

void Unit::end()
{
    m_state = State::ending;
    if (m_command) {
        endPart(*m_command);
    }
    for (auto supervised = m_parts.rbegin(); supervised != m_parts.rend(); ++supervised) {
        endSupervised(*supervised);
    }
}

void Unit::endSupervised(Supervised& supervised)
{
    supervised.isToEnd = true;
    endPart(supervised.part);
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
