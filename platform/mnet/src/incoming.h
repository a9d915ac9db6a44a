/// The receiving end of a connection from another endpoint: packets in, whole messages and requests out.
/// Checks every byte before it is used. No locks: the endpoint that owns this holds its own.
#pragma once

#include "descriptor.h"
#include "message.h"
#include "wire.h"

#include <cstdint>
#include <list>
#include <sys/types.h>
#include <utility>

namespace mnet {

/// Where packets are received before their size is known; one for an endpoint, for all its connections. As
/// long as messages are small, that is one buffer that they are copied out of. After a large one, the next is
/// received into a block of its size, which becomes the message if it fits.
class ReceiveArea {
public:
    /// False when there is no memory for the next packet.
    bool prepare();
    /// Receives one packet: its length, which is more than a packet has when it was cut; 0 at the end of the
    /// connection; -1 with `errno`.
    ssize_t receive(int socket);
    /// Of the packet that was received.
    PacketHeader header() const { return (m_large ? m_large : m_buffer)->header(); }

    /// A message of the `size` bytes that were received. Without memory for it the area itself becomes the
    /// message, and the next packet waits.
    BlockPtr take(std::size_t size);
    /// Copies the `size` bytes that were received to `to`.
    void copyTo(std::byte* to, std::size_t size) const;

    /// The area with the `size` bytes that were received.
    BlockPtr giveAway(std::size_t size);

private:
    BlockPtr m_buffer; ///< for the longest packet
    BlockPtr m_large;  ///< in front of the buffer, when there is one
    std::size_t m_wanted = 0;
    unsigned m_misses = 0;
};

/// Who is to be told when a mailbox is gone.
struct Watcher {
    std::uint16_t endpoint;
    mnet_monitor_id_t monitor;
    BlockPtr notice; ///< what the endpoint of another process is told with; made when there is memory
};

class Incoming {
public:
    enum class Got {
        message, ///< `block` is a message for one of this endpoint's mailboxes
        request, ///< `header` is a monitor, unmonitor or notice of the peer
        nothing, ///< a piece of a message
        again,   ///< nothing there at the moment
        hungry,  ///< no memory for what comes; it waits
        reset,   ///< the other end is gone; what it sent before still follows, then the end
        end,     ///< all has been read
        refused  ///< what came is not allowed: the connection has to go
    };

    Incoming(Descriptor socket, pid_t pid, uid_t uid) : m_socket(std::move(socket)), m_pid(pid), m_uid(uid) {}

    int fd() const { return m_socket.get(); }
    pid_t pid() const { return m_pid; }
    uid_t uid() const { return m_uid; }
    /// The endpoint at the other end, 0 until `readHello` has succeeded.
    std::uint16_t peer() const { return m_peer; }

    /// Reads the first packet: `request` when it is a hello for endpoint `own`, with the claimed number in
    /// `claimed`; the caller decides, by `accept`, whether the claim holds.
    Got readHello(std::uint16_t own, std::uint16_t& claimed);
    /// False when the peer can't be told.
    [[nodiscard]] bool accept(std::uint16_t peer);

    /// How many bytes were read so far, and how many wait to be.
    std::uint64_t received() const { return m_received; }
    std::size_t waiting() const;

    /// Reads one packet of the accepted peer.
    Got read(std::uint16_t own, ReceiveArea& area, BlockPtr& block, PacketHeader& header);

    /// A watcher, made before the request for it was read.
    std::list<Watcher> takeSpare() { return std::exchange(m_spare, {}); }

    std::uint32_t serial = 0;
    bool starves = false;       ///< out of the epoll set's interest until there may be memory again
    std::uint64_t lastTurn = 0; ///< when the endpoint served it last
    bool paused = false;        ///< out of the epoll set's interest, since too much of it is queued

private:
    Got readMore(BlockPtr& block);
    Got takeData(const PacketHeader& header, std::size_t size, ReceiveArea& area, BlockPtr& block);
    bool prepare(ReceiveArea& area);
    bool takeFirst();

    Descriptor m_socket;
    pid_t m_pid;
    uid_t m_uid;
    std::uint16_t m_peer = 0;
    std::uint64_t m_received = 0;
    std::list<Watcher> m_spare;
    BlockPtr m_first; ///< of a long message, for which there is no memory yet
    BlockPtr m_partial;
    std::size_t m_whole = 0;  ///< bytes of that message
    std::size_t m_offset = 0; ///< bytes of `m_partial` that are here
};

} // namespace mnet
