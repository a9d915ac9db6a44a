#include "mailboxLink.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <sys/epoll.h>
#include <system_error>
#include <utility>

namespace merlow::bench {

namespace {

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

Message::Message(std::size_t size, std::uint32_t number) : m_msg(mnet_alloc(size, number))
{
    if (m_msg == nullptr) {
        fail("mnet_alloc");
    }
}

Message& Message::operator=(Message&& other) noexcept
{
    std::swap(m_msg, other.m_msg);
    return *this;
}

std::uint32_t Message::word(std::size_t offset) const
{
    std::uint32_t value = 0;
    std::memcpy(&value, reinterpret_cast<const char*>(m_msg) + offset, sizeof(value));
    return ntohl(value);
}

void Message::setWord(std::size_t offset, std::uint32_t value)
{
    value = htonl(value);
    std::memcpy(bytes() + offset, &value, sizeof(value));
}

MailboxLink::MailboxLink(const std::string& name) : m_epoll(epoll_create1(EPOLL_CLOEXEC))
{
    if (mnet_init(50, 0, nullptr, 0) < 0 ||
        mnet_create_mailbox(name.empty() ? nullptr : name.c_str(), 0) == MNET_MBOX_NONE) {
        fail("opening the mailbox");
    }
    epoll_event event{};
    event.events = EPOLLIN;
    if (epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, mnet_get_fd(), &event) != 0) {
        fail("epoll_ctl");
    }
}

void MailboxLink::addName(const std::string& name)
{
    if (mnet_clone_mailbox(mnet_current_mbox(), name.c_str()) == MNET_MBOX_NONE) {
        fail("mnet_clone_mailbox");
    }
}

void MailboxLink::startLocate(const std::string& name)
{
    if (mnet_locate_async(name.c_str(), nullptr, mnet_current_mbox()) != 0) {
        fail("mnet_locate_async");
    }
}

void MailboxLink::startMonitor(mnet_mbox_id_t mailbox)
{
    if (mnet_monitor(mailbox, nullptr) == MNET_MBOX_NONE) {
        fail("mnet_monitor");
    }
}

void MailboxLink::aimAt(const std::string& name)
{
    startLocate(name);
    for (;;) {
        const Message found = take();
        if (found.number() == MNET_LOCATE_DEFAULT_MSGNO) {
            m_target = found.sender();
            return;
        }
    }
}

Message MailboxLink::take()
{
    for (;;) {
        epoll_event event{};
        if (epoll_wait(m_epoll.get(), &event, 1, -1) == 1) {
            if (Message message = takeNow()) {
                return message;
            }
        }
    }
}

Message MailboxLink::takeNow()
{
    return Message(mnet_receive(nullptr, 0, MNET_FROM_ANY));
}

void MailboxLink::sendTo(mnet_mbox_id_t to, Message message)
{
    if (mnet_send(message.handOver(), to, MNET_MY_MBOX) != 0) {
        fail("mnet_send");
    }
}

void MailboxLink::giveBack(Message message)
{
    const mnet_mbox_id_t to = message.sender();
    sendTo(to, std::move(message));
}

void MailboxLink::answer(const Message& request, Message reply)
{
    if (mnet_send(reply.handOver(), request.sender(), request.receiver()) != 0) {
        fail("mnet_send");
    }
}

std::size_t MailboxLink::receiveNext()
{
    Message message = takeNow();
    if (!message) {
        message = take();
    }
    m_target = message.sender();
    return message.size();
}

} // namespace merlow::bench
