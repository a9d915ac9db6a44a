/// The connection from one endpoint to another, and what the kernel has not taken for it yet.
///
/// Messages leave in the order in which they were given. Until the other side has welcomed the connection,
/// what was sent is remembered too: a connection that is refused for want of descriptors has delivered
/// nothing, and the next one starts over. No locks: the endpoint that owns this holds its own.
#pragma once

#include "descriptor.h"
#include "message.h"
#include "runFolder.h"

#include <sys/types.h>

namespace mnet {

class Outgoing {
public:
    enum class Open {
        done,
        later, ///< no descriptors, or the other side's backlog is full: worth another try
        gone,  ///< nobody holds that endpoint (any more)
        denied ///< `errno` tells; somebody is there who is not to be spoken to
    };
    enum class Sent {
        done,
        later, ///< the kernel takes no more at the moment
        broken ///< this connection has ended
    };

    bool isOpen() const { return static_cast<bool>(m_socket); }
    int fd() const { return m_socket.get(); }
    bool isWelcomed() const { return m_welcomed; }
    pid_t peerPid() const { return m_peerPid; }

    /// Opens a connection of endpoint `own` to endpoint `number` and says hello. What was not welcomed on an
    /// earlier connection stands in the queue again; requests about monitors do not.
    Open open(const RunFolder& folder, std::uint16_t own, std::uint16_t number);
    void close();

    /// Whether the mailbox with this index exists, as far as that is known.
    bool isLive(std::uint16_t index) const { return !m_hasView || m_view.isLive(index); }
    /// Whether it is known that the mailbox is gone, and all that it sent on its way.
    bool isGone(std::uint16_t index) const { return !isLive(index) && !m_view.isKeeping(); }

    /// Sends the block, or leaves it with the caller when the kernel takes nothing of it. `later` with
    /// `block` taken means that a part of it is on its way.
    Sent send(BlockPtr& block);
    /// Puts the block behind what waits already; a request about a monitor goes ahead of all messages.
    void keep(BlockPtr block) { (isRequest(*block) ? m_requests : m_kept).push(std::move(block)); }
    /// Sends at most `budget` packets of what waits. Requests to watch that have left end up in `asked`.
    Sent flush(int budget, MessageQueue& asked);

    bool hasKept() const { return hasKeptMessages() || !m_requests.empty(); }
    bool hasKeptMessages() const { return !m_kept.empty(); }
    std::size_t keptBytes() const { return m_kept.bytes(); }
    std::size_t notices() const { return m_kept.notices() + m_unwelcomed.notices(); }
    /// Takes back the request to watch for `monitor` if it has not left yet.
    bool withdrawRequest(mnet_monitor_id_t monitor);
    /// Takes those back that wait for mailboxes that are gone meanwhile.
    void withdrawNeedless(MessageQueue& asked);

    /// Reads what comes back: the welcome, or the end.
    Sent readBack();

    bool waitsForWritable = false; ///< as the endpoint has it in its epoll set
    bool reportedFull = false;

private:
    static bool isRequest(const Block& block)
    {
        return block.kind == Kind::monitor || block.kind == Kind::unmonitor;
    }
    Sent sendPacket(Block& block, std::size_t& offset);
    void remember(BlockPtr block);

    Descriptor m_socket;
    LiveView m_view;
    bool m_hasView = false;
    bool m_welcomed = false;
    pid_t m_peerPid = 0;
    MessageQueue m_requests;
    MessageQueue m_kept;
    std::size_t m_offset = 0; ///< bytes of the first kept message that are gone
    MessageQueue m_unwelcomed;
};

} // namespace mnet
