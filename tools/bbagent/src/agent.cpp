#include "agent.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <eventLoopIf.h>
#include <iostream>
#include <mnetMessageSubscriptionCustom.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace merlow::bbagent {

namespace {

using Loomwork::EventLoop::V1::EventLoopIf;

constexpr unsigned int READABLE = 1;
constexpr std::uint32_t MAX_MAILBOXES = 4;

} // namespace

Agent::~Agent()
{
    m_connection.reset();
    MnetMessageSubscriptionCustom::reset();
    if (m_mailbox != MNET_MBOX_NONE) {
        mnet_exit();
    }
    if (m_signalFd != -1) {
        EventLoopIf::getInstance().removeFd(m_signalFd);
        close(m_signalFd);
    }
}

std::optional<std::string> Agent::open()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    auto& loop = EventLoopIf::getInstance();
    m_signalFd = signalfd(-1, &signals, SFD_CLOEXEC);
    if (m_signalFd == -1 ||
        loop.addFd(m_signalFd, READABLE, [this](int, unsigned int) { end(ExitStatus::done); }) != 0) {
        return std::string("signalfd: ") + std::strerror(errno);
    }
    if (mnet_init(MAX_MAILBOXES, 0, nullptr, 0) != 0 ||
        (m_mailbox = mnet_create_mailbox(nullptr, 0)) == MNET_MBOX_NONE) {
        return std::string("the run-time folder can't be used: ") + std::strerror(errno);
    }
    auto& subscription = MnetMessageSubscriptionCustom::getInstance();
    subscription.addMsgHandler(MNET_LOCATE_DEFAULT_MSGNO,
                               [this](const std::shared_ptr<mnet_msg>& msg) { onFound(msg); });
    subscription.addMsgHandler(MNET_MONITOR_DEFAULT_MSGNO,
                               [this](const std::shared_ptr<mnet_msg>& msg) { onLost(msg); });
    if (subscription.monitorMnetFd(mnet_get_fd()) != MnetMessageSubscriptionCustom::DONE) {
        return "the mailbox library gives no descriptor";
    }
    return std::nullopt;
}

Agent::ExitStatus Agent::run()
{
    if (const auto failure = open()) {
        std::cerr << "bbagent: " << *failure << "\n";
        return ExitStatus::noUnit;
    }
    search();
    EventLoopIf::getInstance().run();
    return m_status;
}

void Agent::search()
{
    m_report.tell("searching", "looking for the unit");
    mnet_locate_async("Merlow", nullptr, m_mailbox);
}

void Agent::onFound(const std::shared_ptr<mnet_msg>& msg)
{
    if (mnet_is_notice(msg.get()) != 1) {
        return;
    }
    const mnet_mbox_id_t unit = mnet_sender(msg.get());
    mnet_monitor(unit, nullptr);
    m_connection = std::make_unique<Connection>(unit, m_report, [this] { end(ExitStatus::rejected); });
}

void Agent::onLost(const std::shared_ptr<mnet_msg>& msg)
{
    if (mnet_is_notice(msg.get()) != 1) {
        return;
    }
    m_report.tell("lost", "the unit is gone");
    m_connection.reset();
    search();
}

void Agent::end(ExitStatus status)
{
    m_status = status;
    EventLoopIf::getInstance().stop();
}

} // namespace merlow::bbagent
