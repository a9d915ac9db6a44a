#include "outgoing.h"

#include "unixSocket.h"
#include "wire.h"

#include <array>
#include <cerrno>
#include <string>
#include <sys/socket.h>
#include <sys/uio.h>

namespace mnet {

namespace {

/// Room for a few large messages or some thousands of small ones in flight; the kernel lowers it to its
/// `wmem_max`.
constexpr int sendBufferSize = 512 * 1024;

bool isShortage(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS || error == EAGAIN ||
           error == EINTR;
}

} // namespace

Outgoing::Open Outgoing::open(const RunFolder& folder, std::uint16_t own, std::uint16_t number)
{
    close();
    Descriptor socket =
        Descriptor::open([] { return ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); });
    if (!socket) {
        return Open::later;
    }
    setsockopt(socket.get(), SOL_SOCKET, SO_SNDBUF, &sendBufferSize, sizeof(sendBufferSize));
    if (merlow::base::connectAt(socket.get(), folder.endpoints(), std::to_string(number)) != 0) {
        if (errno == EACCES || errno == EPERM) {
            return Open::denied;
        }
        return isShortage(errno) ? Open::later : Open::gone;
    }
    // A message is only for the process that holds the number, whoever put a socket in its place.
    ucred peer{};
    const pid_t holder = folder.holder(number);
    if (holder == 0) {
        return Open::gone;
    }
    if (!merlow::base::peerCredentials(socket.get(), peer) || peer.pid != holder) {
        errno = EACCES;
        return Open::denied;
    }
    if (!merlow::base::peerAllowed(socket.get())) {
        return isShortage(errno) ? Open::later : Open::denied;
    }
    if (m_peerPid != 0 && peer.pid != m_peerPid) {
        return Open::gone; // a successor; whom this one was for is gone
    }
    if (!m_hasView) {
        if (m_view.open(folder, number)) {
            m_hasView = true;
        } else {
            return isShortage(errno) ? Open::later : Open::gone;
        }
    }
    const PacketHeader hello{.kind = static_cast<std::uint32_t>(Kind::hello),
                             .sender = makeId(own, 0),
                             .receiver = makeId(number, 0),
                             .value = helloValue};
    if (::send(socket.get(), &hello, sizeof(hello), MSG_DONTWAIT | MSG_NOSIGNAL) !=
        static_cast<ssize_t>(sizeof(hello))) {
        return Open::later;
    }
    m_peerPid = peer.pid;
    m_socket = std::move(socket);
    return Open::done;
}

void Outgoing::close()
{
    m_socket.reset();
    waitsForWritable = false;
    m_offset = 0;
    m_kept.prependAll(m_unwelcomed);
    m_welcomed = false;
    m_requests.clear();
}

Outgoing::Sent Outgoing::sendPacket(Block& block, std::size_t& offset)
{
    const std::size_t chunk = block.kind == Kind::data ? chunkAt(block.size, offset) : 0;
    ssize_t sent = 0;
    if (offset == 0) {
        const bool first = chunk < block.size;
        block.packetKind = static_cast<std::uint32_t>(first ? Kind::dataFirst : block.kind);
        block.packetValue = block.kind == Kind::data ? static_cast<std::uint32_t>(block.size) : block.monitor;
        do {
            sent = ::send(m_socket.get(), block.packet(), sizeof(PacketHeader) + chunk,
                          MSG_DONTWAIT | MSG_NOSIGNAL);
        } while (sent < 0 && errno == EINTR);
    } else {
        PacketHeader header = block.header();
        header.kind = static_cast<std::uint32_t>(Kind::dataMore);
        header.value = static_cast<std::uint32_t>(offset);
        std::array<iovec, 2> parts{{{&header, sizeof(header)}, {block.body() + offset, chunk}}};
        msghdr packet{};
        packet.msg_iov = parts.data();
        packet.msg_iovlen = parts.size();
        do {
            sent = sendmsg(m_socket.get(), &packet, MSG_DONTWAIT | MSG_NOSIGNAL);
        } while (sent < 0 && errno == EINTR);
    }
    if (sent < 0) {
        return isShortage(errno) ? Sent::later : Sent::broken;
    }
    offset += chunk;
    return Sent::done;
}

void Outgoing::remember(BlockPtr block)
{
    if (!m_welcomed && (block->kind == Kind::data || block->kind == Kind::notice)) {
        m_unwelcomed.push(std::move(block));
    }
}

Outgoing::Sent Outgoing::send(BlockPtr& block)
{
    if (hasKept()) {
        return Sent::later;
    }
    std::size_t offset = 0;
    do {
        const Sent sent = sendPacket(*block, offset);
        if (sent != Sent::done) {
            if (offset > 0) {
                m_kept.push(std::move(block));
                m_offset = offset;
            }
            return sent;
        }
    } while (block->kind == Kind::data && offset < block->size);
    remember(std::move(block));
    return m_welcomed ? Sent::done : readBack();
}

Outgoing::Sent Outgoing::flush(int budget, MessageQueue& asked)
{
    for (; budget > 0 && hasKept(); --budget) {
        MessageQueue& queue = m_offset == 0 && !m_requests.empty() ? m_requests : m_kept;
        Block& block = *queue.first();
        const Sent sent = sendPacket(block, m_offset);
        if (sent != Sent::done) {
            return sent;
        }
        if (block.kind != Kind::data || m_offset == block.size) {
            m_offset = 0;
            BlockPtr gone = queue.pop();
            if (gone->kind == Kind::monitor) {
                asked.push(std::move(gone));
            } else {
                remember(std::move(gone));
            }
        }
    }
    return hasKept() ? Sent::later : Sent::done;
}

bool Outgoing::withdrawRequest(mnet_monitor_id_t monitor)
{
    bool found = false;
    m_requests.removeIf(
        [&](const Block& block) { return block.kind == Kind::monitor && block.monitor == monitor; },
        [&](const BlockPtr&) { found = true; });
    return found;
}

void Outgoing::withdrawNeedless(MessageQueue& asked)
{
    m_requests.removeIf(
        [&](const Block& block) { return block.kind == Kind::monitor && isGone(indexOf(block.receiver)); },
        [&](BlockPtr block) { asked.push(std::move(block)); });
}

Outgoing::Sent Outgoing::readBack()
{
    PacketHeader header;
    for (;;) {
        const ssize_t got = recv(m_socket.get(), &header, sizeof(header), MSG_DONTWAIT | MSG_TRUNC);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return isShortage(errno) ? Sent::done : Sent::broken;
        }
        if (got != static_cast<ssize_t>(sizeof(header)) ||
            header.kind != static_cast<std::uint32_t>(Kind::welcome)) {
            return Sent::broken;
        }
        m_welcomed = true;
        m_unwelcomed.clear();
    }
}

} // namespace mnet
