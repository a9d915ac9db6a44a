#include "host.h"

#include "control.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <eventLoopIf.h>
#include <iostream>
#include <runDir.h>
#include <rushlog.h>
#include <scryTrace.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace merlow::board {

namespace {

constexpr std::uint32_t maxMailboxes = 16;
constexpr const char* logCategory = "RadioApplication,RadioBoardCtrl";

Loomwork::EventLoop::V1::EventLoopIf& loop()
{
    return Loomwork::EventLoop::V1::EventLoopIf::getInstance();
}

sigset_t endingSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

std::string reasonOf(int error)
{
    return std::generic_category().message(error);
}

std::string listOf(const std::vector<std::string>& names)
{
    std::string list;
    for (const std::string& name : names) {
        list += (list.empty() ? "" : " and ") + name;
    }
    return list;
}

} // namespace

int failToStart(const std::string& program, const std::string& text)
{
    std::cerr << (program + ": " + text + "\n"); // one write: other processes may say something too
    rushlog_log(logCategory, (program + " " + text).c_str());
    return 1;
}

Host::Host(unsigned clockSpeed) : m_clockSpeed(clockSpeed)
{
    const sigset_t signals = endingSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGXFSZ, SIG_IGN); // a file that may not grow is a write that fails
}

Host::~Host()
{
    if (m_signalFd >= 0) {
        loop().removeFd(m_signalFd);
        close(m_signalFd);
    }
}

int Host::run(Service& service)
{
    m_service = &service;
    scryStart(); // what fails there it tells the remote log, and this process works all the same
    if (const int result = mnet_init(maxMailboxes, 0, nullptr, 0); result != 0) {
        fail("the run-time folder " + base::runDirPath() + " cannot be used: " + reasonOf(errno));
        return m_exitStatus;
    }
    if (openMailboxes() && openDescriptors()) {
        service.begin();
        const std::string line = "serving " + listOf(service.servedNames()) + " in " + base::runDirPath();
        std::cerr << (service.name() + ": " + line + "\n");
        rushlog_log(logCategory, (service.name() + " " + line).c_str());
        if (loop().run() != 0) {
            fail("the event loop failed: " + reasonOf(errno));
        }
        loop().removeFd(mnet_get_fd());
    }
    m_inHand.reset();
    mnet_exit();
    return m_exitStatus;
}

bool Host::openMailboxes()
{
    m_control = mnet_create_mailbox(m_service->controlMailboxName().c_str(), 0);
    if (m_control == MNET_MBOX_NONE) {
        fail(errno == EEXIST
                 ? "another " + m_service->name() + " is running in " + base::runDirPath()
                 : "the mailbox " + m_service->controlMailboxName() + " cannot be made: " + reasonOf(errno));
        return false;
    }
    for (const std::string& name : m_service->mailboxNames()) {
        const MailboxId mailbox = mnet_create_mailbox(name.c_str(), 0);
        if (mailbox == MNET_MBOX_NONE) {
            fail(errno == EEXIST ? "another program has the mailbox " + name + " in " + base::runDirPath()
                                 : "the mailbox " + name + " cannot be made: " + reasonOf(errno));
            return false;
        }
        m_mailboxes.emplace(mailbox, name);
        m_service->attach(name, mailbox);
    }
    return true;
}

bool Host::openDescriptors()
{
    const sigset_t signals = endingSignals();
    m_signalFd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    const int mnetFd = mnet_get_fd();
    if (m_signalFd < 0 || mnetFd < 0 || !m_delayed.open() || !m_actions.open() ||
        loop().addFd(m_signalFd, EPOLLIN, [this](int, unsigned int) { handleSignal(); }) != 0 ||
        loop().addFd(mnetFd, EPOLLIN, [this](int, unsigned int) { handleMailboxes(); }) != 0) {
        fail("descriptors cannot be opened: " + reasonOf(errno));
        return false;
    }
    return true;
}

void Host::fail(const std::string& text)
{
    m_exitStatus = failToStart(m_service->name(), text);
}

/// One message for each wake-up: a second look at the queue would cost more than the loop's own.
void Host::handleMailboxes()
{
    m_inHand.reset(mnet_receive(nullptr, 0, MNET_FROM_ANY));
    if (!m_inHand) {
        return;
    }
    const mnet_msg* msg = m_inHand.get();
    const Received received{mnet_sender(msg), mnet_receiver(msg),
                            BytesView(reinterpret_cast<const std::byte*>(msg), mnet_size(msg))};
    if (mnet_is_notice(msg) == 1) {
        handleNotice();
    } else if (received.receiver == m_control) {
        handleControl(received);
    } else {
        m_service->receive(received);
    }
    m_inHand.reset();
}

/// The loss of a watched mailbox, or a message that waited for its receiver.
void Host::handleNotice()
{
    const MailboxId mailbox = mnet_sender(m_inHand.get());
    if (m_inHand->msgNo == MNET_MONITOR_DEFAULT_MSGNO) {
        m_watched.erase(mailbox);
        m_service->mailboxGone(mailbox);
        return;
    }
    send(m_control, mailbox,
         BytesView(reinterpret_cast<const std::byte*>(m_inHand.get()), mnet_size(m_inHand.get())));
}

void Host::handleControl(const Received& received)
{
    if (const auto message = decodeControl(received.bytes, controlAnswer)) {
        if (const auto answer = answerFromJson(message->body)) {
            BOARD_LOG(*this, LogLevel::info, "answered by " << hex(received.sender) << ": " << answer->text);
            m_service->answered(*answer);
        }
        return;
    }
    const auto request = decodeControl(received.bytes, controlRequest);
    if (!request) {
        BOARD_LOG(*this, LogLevel::abnormal,
                  "ABN: dropped " << received.bytes.size() << " bytes from " << hex(received.sender)
                                  << " that are no control request");
        return;
    }
    const ControlAnswer answer = serveControl(*m_service, request->body);
    BOARD_LOG(*this, LogLevel::info, "control " << request->body.dump() << ": " << answer.text);
    send(m_control, received.sender, encodeControl(controlAnswer, request->ref, toJson(answer)));
}

void Host::handleSignal()
{
    signalfd_siginfo info{};
    if (read(m_signalFd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        loop().stop();
    }
}

void Host::send(MailboxId from, MailboxId to, BytesView message)
{
    mnet_msg* msg = mnet_alloc(message.size(), 0);
    if (msg == nullptr) {
        BOARD_LOG(*this, LogLevel::error,
                  "no memory for a message of " << message.size() << " bytes to " << hex(to));
        return;
    }
    std::memcpy(msg, message.data(), message.size());
    if (mnet_send(&msg, to, from) != 0 && errno != ENOENT) {
        BOARD_LOG(*this, LogLevel::abnormal, "ABN: cannot send to " << hex(to) << ": " << reasonOf(errno));
    }
}

void Host::sendBack(const Received& received)
{
    mnet_msg* msg = m_inHand.release();
    if (mnet_send(&msg, received.sender, received.receiver) != 0 && errno != ENOENT) {
        BOARD_LOG(*this, LogLevel::abnormal,
                  "ABN: cannot send back to " << hex(received.sender) << ": " << reasonOf(errno));
    }
}

void Host::sendAfter(std::chrono::milliseconds delay, MailboxId from, MailboxId to, Bytes message)
{
    if (!m_delayed.add(delay, Delayed{from, to, std::move(message)})) {
        BOARD_LOG(*this, LogLevel::error, "too many delayed messages, lost one to " << hex(to));
    }
}

std::chrono::milliseconds Host::now() const
{
    const auto passed = std::chrono::steady_clock::now() - m_start;
    return std::chrono::duration_cast<std::chrono::milliseconds>(passed * m_clockSpeed);
}

bool Host::runAfter(std::chrono::milliseconds delay, std::function<void()> action)
{
    return m_actions.add(std::chrono::duration_cast<std::chrono::microseconds>(delay) / m_clockSpeed,
                         std::move(action));
}

void Host::ask(const std::string& name, BytesView request)
{
    mnet_msg* msg = mnet_alloc(request.size(), 0);
    if (msg == nullptr) {
        BOARD_LOG(*this, LogLevel::error,
                  "no memory for a message of " << request.size() << " bytes to " << name);
        return;
    }
    std::memcpy(msg, request.data(), request.size());
    if (mnet_locate_async(name.c_str(), &msg, m_control) != 0) {
        BOARD_LOG(*this, LogLevel::error, "cannot look for " << name << ": " << reasonOf(errno));
    }
}

void Host::end(int exitStatus)
{
    m_exitStatus = exitStatus;
    loop().stop();
}

bool Host::watch(MailboxId mailbox)
{
    if (m_watched.contains(mailbox)) {
        return true;
    }
    mnet_msg* noticeMessage = nullptr;
    if (mnet_monitor(mailbox, &noticeMessage) == MNET_MBOX_NONE) {
        BOARD_LOG(*this, LogLevel::error, "cannot watch " << hex(mailbox) << ": " << reasonOf(errno));
        return false;
    }
    m_watched.insert(mailbox);
    return true;
}

MailboxId Host::reopenMailbox(MailboxId mailbox)
{
    const auto entry = m_mailboxes.extract(mailbox);
    const std::string name = entry.empty() ? "" : entry.mapped();
    m_delayed.dropIf([mailbox](const Delayed& delayed) { return delayed.from == mailbox; });
    mnet_delete_mailbox(mailbox);
    const MailboxId reopened = mnet_create_mailbox(name.c_str(), 0);
    if (reopened == MNET_MBOX_NONE) {
        // Without its mailbox the service is of no use to anyone; whoever supervises it starts a new one.
        fail("the mailbox " + name + " cannot be made again: " + reasonOf(errno));
        loop().stop();
        return noMailbox;
    }
    m_mailboxes.emplace(reopened, name);
    return reopened;
}

bool Host::logs(LogLevel level) const
{
    return (procInfo->mask >> static_cast<unsigned>(level) & 1U) != 0;
}

void Host::log(LogLevel level, const char* file, unsigned line, const std::string& text)
{
    lttngScryTrace(static_cast<unsigned>(level), short_fname(file), line, text.c_str(), procInfo);
}

} // namespace merlow::board
