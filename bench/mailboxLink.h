/// A mailbox behind a second epoll descriptor, as every user of an event loop has it.
#pragma once

#include "mnet.h"
#include "process.h"

#include <cstdint>
#include <string>

namespace merlow::bench {

/// A received or prepared message with an owner.
class Message {
public:
    explicit Message(mnet_msg* msg = nullptr) : m_msg(msg) {}
    Message(std::size_t size, std::uint32_t number);
    ~Message() { mnet_free(&m_msg); }
    Message(Message&& other) noexcept : m_msg(other.m_msg) { other.m_msg = nullptr; }
    Message& operator=(Message&& other) noexcept;
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    explicit operator bool() const { return m_msg != nullptr; }
    std::uint32_t number() const { return m_msg->msgNo; }
    void setNumber(std::uint32_t number) { m_msg->msgNo = number; }
    std::size_t size() const { return mnet_size(m_msg); }
    mnet_mbox_id_t sender() const { return mnet_sender(m_msg); }
    mnet_mbox_id_t receiver() const { return mnet_receiver(m_msg); }
    char* bytes() { return reinterpret_cast<char*>(m_msg); }
    mnet_msg** handOver() { return &m_msg; }

    /// The big-endian 32-bit word at `offset`, which lies within the message.
    std::uint32_t word(std::size_t offset) const;
    void setWord(std::size_t offset, std::uint32_t value);

private:
    mnet_msg* m_msg = nullptr;
};

/// The one mailbox of a role. Throws when the library refuses.
class MailboxLink {
public:
    /// "" is a mailbox without a name.
    explicit MailboxLink(const std::string& name);

    /// A second mailbox on the same queue.
    void addName(const std::string& name);

    /// The answer is a message with the default number.
    void startLocate(const std::string& name);
    void startMonitor(mnet_mbox_id_t mailbox);

    /// Waits until a mailbox of that name is there; `send` goes to it.
    void aimAt(const std::string& name);
    mnet_mbox_id_t target() const { return m_target; }
    void setNumber(std::uint32_t number) { m_number = number; }

    /// Waits for a message.
    Message take();
    /// Takes one if one is there.
    Message takeNow();

    void sendTo(mnet_mbox_id_t to, Message message);
    /// The message itself, back to its sender.
    void giveBack(Message message);
    /// From the mailbox that the request came to.
    void answer(const Message& request, Message reply);

    // What the loops of every link use.
    void send(std::size_t size) { sendTo(m_target, Message(size, m_number)); }
    std::size_t receive() { return take().size(); }
    std::size_t receiveNext();

private:
    Fd m_epoll;
    mnet_mbox_id_t m_target = MNET_MBOX_NONE;
    std::uint32_t m_number = 0x7000000;
};

} // namespace merlow::bench
