#include "host.h"

#include "merlowImpl.h"
#include "runDir.h"
#include "sdNotify.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <iostream>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/time.h>
#include <unistd.h>

namespace merlow::merlowd {

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// The server's fifty, and the one of this program.
constexpr std::uint32_t mailboxLimit = 51;

constexpr auto firstWordAfter = 500ms;        // what is there by then is not worth a line
constexpr auto nextWordAfter = 30s;           // how often a wait is told again
constexpr milliseconds swmServerInterval{20}; // from one look for the SWM server to the next

void say(const std::string& text)
{
    std::cerr << ("merlowd: " + text + "\n"); // one write: other processes may say something too
}

extern "C" void giveUpStopping(int /*signal*/)
{
    constexpr char text[] = "merlowd: the server does not end; ending without it\n";
    (void)!write(STDERR_FILENO, text, sizeof(text) - 1);
    _exit(1);
}

} // namespace

std::string meaningOf(int result)
{
    switch (result) {
    case MerlowImpl::SUCCESS:
        return "it was told to end";
    case MerlowImpl::MNET_INIT_FAILED:
        return "the mailbox library could not be initialised";
    case MerlowImpl::NO_PRIVATE_MBOX:
        return "mailbox \"private_Merlow\" could not be created";
    case MerlowImpl::NO_MNET_FD:
        return "the mailboxes' descriptor could not be put on the event loop";
    case MerlowImpl::NO_THREAD:
        return "its thread could not be created";
    case MerlowImpl::COMPONENT_FAILED:
        return "a component could not be initialised, as it happens without an SWM server";
    case MerlowImpl::ALREADY_STARTED:
        return "it has been started before";
    default:
        return "no known result";
    }
}

Host::~Host()
{
    if (m_signalFd >= 0) {
        close(m_signalFd);
    }
}

int Host::run()
{
    if (!prepare()) {
        return 1;
    }
    if (const auto status = awaitSwmServer()) {
        return *status;
    }
    return startServer() ? watchServer() : 1;
}

bool Host::prepare()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    m_signalFd = signalfd(-1, &signals, SFD_CLOEXEC);
    if (m_signalFd < 0) {
        say(std::string("signalfd: ") + std::strerror(errno));
        return false;
    }
    if (mnet_init(mailboxLimit, 0, nullptr, 0) != 0 || !m_watch.open()) {
        const std::string reason = std::strerror(errno);
        say("no mailboxes in run-time folder " + base::runDirPath() + ": " + reason);
        return false;
    }
    return isAlone();
}

bool Host::isAlone()
{
    while (m_watch.next() != Watch::Change::none) {
        if (m_watch.privateMailbox().isThere()) {
            say("another unit holds \"private_Merlow\" in run-time folder " + base::runDirPath());
            return false;
        }
    }
    return true;
}

/// The server looks for it in the moment of its start and does not start without it. For the other neighbours
/// it waits by itself.
std::optional<int> Host::awaitSwmServer()
{
    m_nextWord = steady_clock::now() + firstWordAfter;
    while (!m_watch.findSwmServer()) {
        pollfd signals{m_signalFd, POLLIN, 0};
        if (poll(&signals, 1, static_cast<int>(swmServerInterval.count())) > 0) {
            say("ended");
            return 0;
        }
        if (!isAlone()) {
            return 1;
        }
        if (steady_clock::now() >= m_nextWord) {
            sayWhatIsWaitedFor();
        }
    }
    return std::nullopt;
}

bool Host::startServer()
{
    m_startDeadline = steady_clock::now() + m_patience.start;
    m_nextWord = steady_clock::now() + firstWordAfter;
    if (!m_server.start()) {
        say("the server could not be started");
        return false;
    }
    return true;
}

int Host::watchServer()
{
    for (;;) {
        std::array<pollfd, 2> fds{{{m_signalFd, POLLIN, 0}, {m_watch.fd(), POLLIN, 0}}};
        poll(fds.data(), fds.size(), millisecondsToNextWord());
        if (fds[0].revents != 0) {
            return stopServer();
        }
        Watch::Change change = Watch::Change::none;
        while ((change = m_watch.next()) != Watch::Change::none) {
            if (!handle(change)) {
                return 1;
            }
        }
        const auto now = steady_clock::now();
        if (!m_watch.privateMailbox().isThere() && now >= m_startDeadline) {
            const int result = resultOfServer();
            say("the server did not start: result " + std::to_string(result) + ", " + meaningOf(result));
            return 1;
        }
        if (!m_watch.publicMailbox().isThere() && now >= m_nextWord) {
            sayWhatIsWaitedFor();
        }
    }
}

bool Host::handle(Watch::Change change)
{
    switch (change) {
    case Watch::Change::privateForeign: {
        // Two hosts started at once, and this one's server came second: its mailbox will never be there.
        const int result = resultOfServer();
        say("another unit took \"private_Merlow\" in run-time folder " + base::runDirPath() + ": result " +
            std::to_string(result) + ", " + meaningOf(result));
        return false;
    }
    case Watch::Change::privateLost: {
        const int result = resultOfServer();
        say("the server ended: result " + std::to_string(result) + ", " + meaningOf(result));
        sdNotify("STATUS=the server ended: " + meaningOf(result));
        return false;
    }
    case Watch::Change::published:
        say("published as \"" + std::string(m_watch.publicMailbox().name) + "\"");
        sdNotify(std::string(m_wasPublished ? "" : "READY=1\n") + "STATUS=published");
        m_wasPublished = true;
        return true;
    case Watch::Change::unpublished:
        say("no longer published");
        m_nextWord = steady_clock::now() + firstWordAfter;
        return true;
    case Watch::Change::neighbour:
        m_nextWord = std::min(m_nextWord, steady_clock::now() + firstWordAfter);
        return true;
    case Watch::Change::privateFound:
    case Watch::Change::none:
        return true;
    }
    return true;
}

void Host::sayWhatIsWaitedFor()
{
    const std::string text = "waiting for " + m_watch.waitText();
    say(text);
    sdNotify("STATUS=" + text);
    m_nextWord = steady_clock::now() + nextWordAfter;
}

int Host::stopServer()
{
    sdNotify("STOPPING=1\nSTATUS=ending");
    const int result = resultOfServer();
    if (result != MerlowImpl::SUCCESS) {
        say("the server ended with result " + std::to_string(result) + ", " + meaningOf(result));
        return 1;
    }
    say("ended");
    return 0;
}

/// Its thread may hang, and whoever waits for this process must not.
int Host::resultOfServer()
{
    (void)std::signal(SIGALRM, giveUpStopping);
    const auto limit = m_patience.stop.count();
    const itimerval alarm{{}, {limit / 1000, limit % 1000 * 1000}};
    const itimerval never{};
    setitimer(ITIMER_REAL, &alarm, nullptr);
    const int result = m_server.stop();
    setitimer(ITIMER_REAL, &never, nullptr);
    return result;
}

int Host::millisecondsToNextWord() const
{
    std::optional<TimePoint> next;
    if (!m_watch.publicMailbox().isThere()) {
        next = m_nextWord;
    }
    if (!m_watch.privateMailbox().isThere()) {
        next = std::min(next.value_or(m_startDeadline), m_startDeadline);
    }
    if (!next) {
        return -1;
    }
    const auto left = std::chrono::ceil<milliseconds>(*next - steady_clock::now());
    return static_cast<int>(std::clamp<milliseconds::rep>(left.count(), 0, INT_MAX));
}

} // namespace merlow::merlowd
