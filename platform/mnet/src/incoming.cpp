#include "incoming.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>

namespace mnet {

namespace {

/// Above this size, copying a message costs more than receiving it in two pieces.
constexpr std::size_t largeMessage = 8192;

/// After so many messages that were far too small for it, the block for a large one is given back.
constexpr unsigned maxMisses = 64;

Incoming::Got failed()
{
    if (errno == ENOMEM || errno == ENOBUFS) {
        return Incoming::Got::hungry;
    }
    if (errno == EAGAIN || errno == EINTR) {
        return Incoming::Got::again;
    }
    return errno == ECONNRESET ? Incoming::Got::reset : Incoming::Got::end;
}

} // namespace

bool ReceiveArea::prepare()
{
    if (!m_buffer) {
        m_buffer = makeBlock(maxChunk, Fill::none);
    }
    if (!m_large && m_wanted > 0) {
        m_large = makeBlock(m_wanted, Fill::none);
    }
    return m_buffer != nullptr;
}

ssize_t ReceiveArea::receive(int socket)
{
    constexpr std::size_t whole = sizeof(PacketHeader) + maxChunk;
    if (!m_large) {
        return recv(socket, m_buffer->packet(), whole, MSG_DONTWAIT | MSG_TRUNC);
    }
    std::array<iovec, 2> parts{
        {{m_large->packet(), sizeof(PacketHeader) + m_large->size}, {m_buffer->body(), maxChunk}}};
    msghdr packet{};
    packet.msg_iov = parts.data();
    packet.msg_iovlen = parts.size();
    return recvmsg(socket, &packet, MSG_DONTWAIT | MSG_TRUNC);
}

BlockPtr ReceiveArea::take(std::size_t size)
{
    BlockPtr block;
    if (m_large && size <= m_large->size && size >= m_large->size - m_large->size / 8) {
        block = std::move(m_large);
        block->size = size;
        m_misses = 0;
        return block;
    }
    block = makeBlock(size, Fill::none);
    if (!block) {
        return giveAway(size);
    }
    copyTo(block->body(), size);
    if (size > largeMessage) {
        m_wanted = size;
        m_misses = 0;
        m_large.reset();
    } else if (m_large && ++m_misses > maxMisses) {
        m_wanted = 0;
        m_misses = 0;
        m_large.reset();
    }
    return block;
}

BlockPtr ReceiveArea::giveAway(std::size_t size)
{
    if (m_large && size > m_large->size) {
        std::memmove(m_buffer->body() + m_large->size, m_buffer->body(), size - m_large->size);
        std::memcpy(m_buffer->body(), m_large->body(), m_large->size);
        m_large.reset();
    }
    BlockPtr block = std::move(m_large ? m_large : m_buffer);
    block->size = size;
    return block;
}

void ReceiveArea::copyTo(std::byte* to, std::size_t size) const
{
    const std::size_t first = m_large ? std::min(size, m_large->size) : 0;
    if (first > 0) {
        std::memcpy(to, m_large->body(), first);
    }
    std::memcpy(to + first, m_buffer->body(), size - first);
}

Incoming::Got Incoming::readHello(std::uint16_t own, std::uint16_t& claimed)
{
    PacketHeader header;
    const ssize_t got = recv(m_socket.get(), &header, sizeof(header), MSG_DONTWAIT | MSG_TRUNC);
    if (got < 0) {
        return failed();
    }
    if (got == 0) {
        return Got::end;
    }
    if (got != static_cast<ssize_t>(sizeof(header)) ||
        header.kind != static_cast<std::uint32_t>(Kind::hello) || header.value != helloValue ||
        header.receiver != makeId(own, 0) || !isMailboxId(header.sender) || indexOf(header.sender) != 0) {
        return Got::refused;
    }
    claimed = endpointOf(header.sender);
    return Got::request;
}

bool Incoming::accept(std::uint16_t peer)
{
    const PacketHeader welcome{.kind = static_cast<std::uint32_t>(Kind::welcome)};
    // The buffer of a fresh connection has room; a peer that is gone already needs no welcome.
    if (send(m_socket.get(), &welcome, sizeof(welcome), MSG_DONTWAIT | MSG_NOSIGNAL) < 0 &&
        (errno == ENOBUFS || errno == ENOMEM || errno == EINTR)) {
        return false;
    }
    m_peer = peer;
    return true;
}

/// All that a packet can need, so that none is read in vain.
bool Incoming::prepare(ReceiveArea& area)
{
    if (!area.prepare()) {
        return false;
    }
    if (m_spare.empty()) {
        BlockPtr notice = makeBlock(0, Fill::none);
        if (!notice) {
            return false;
        }
        try {
            m_spare.push_back({.endpoint = 0, .monitor = 0, .notice = std::move(notice)});
        } catch (const std::bad_alloc&) {
            return false;
        }
    }
    return true;
}

std::size_t Incoming::waiting() const
{
    int bytes = 0;
    return ioctl(m_socket.get(), FIONREAD, &bytes) == 0 ? static_cast<std::size_t>(bytes) : 0;
}

Incoming::Got Incoming::read(std::uint16_t own, ReceiveArea& area, BlockPtr& block, PacketHeader& header)
{
    if (m_first && !takeFirst()) {
        return Got::hungry;
    }
    if (m_partial) {
        return readMore(block);
    }
    if (!prepare(area)) {
        return Got::hungry;
    }
    const ssize_t got = area.receive(m_socket.get());
    if (got < 0) {
        return failed();
    }
    if (got == 0) {
        return Got::end;
    }
    const auto length = static_cast<std::size_t>(got);
    m_received += length;
    if (length < sizeof(header) || length > sizeof(header) + maxChunk) {
        return Got::refused;
    }
    header = area.header();
    if (endpointOf(header.sender) != m_peer || endpointOf(header.receiver) != own) {
        return Got::refused;
    }
    const std::size_t size = length - sizeof(header);
    switch (kindOf(header)) {
    case Kind::data:
    case Kind::dataFirst:
        return takeData(header, size, area, block);
    case Kind::monitor:
    case Kind::unmonitor:
    case Kind::notice:
        return size == 0 ? Got::request : Got::refused;
    default:
        return Got::refused;
    }
}

Incoming::Got Incoming::takeData(const PacketHeader& header, std::size_t size, ReceiveArea& area,
                                 BlockPtr& block)
{
    const bool whole = kindOf(header) == Kind::data;
    if (header.value < minMessageSize || header.value > maxMessageSize || size != chunkAt(header.value, 0) ||
        whole != (size == header.value)) {
        return Got::refused;
    }
    BlockPtr message = whole ? area.take(size) : makeBlock(header.value, Fill::none);
    const bool isFirst = !message;
    if (isFirst) {
        message = area.giveAway(size);
    }
    message->sender = header.sender;
    message->receiver = header.receiver;
    if (whole) {
        block = std::move(message);
        return Got::message;
    }
    if (isFirst) {
        m_first = std::move(message);
        m_whole = header.value;
        return Got::hungry;
    }
    area.copyTo(message->body(), size);
    m_partial = std::move(message);
    m_offset = size;
    return Got::nothing;
}

/// False when there is no memory for the whole message yet.
bool Incoming::takeFirst()
{
    m_partial = makeBlock(m_whole, Fill::none);
    if (!m_partial) {
        return false;
    }
    m_partial->sender = m_first->sender;
    m_partial->receiver = m_first->receiver;
    m_offset = m_first->size;
    std::memcpy(m_partial->body(), m_first->body(), m_offset);
    m_first.reset();
    return true;
}

Incoming::Got Incoming::readMore(BlockPtr& block)
{
    PacketHeader header;
    const std::size_t chunk = chunkAt(m_partial->size, m_offset);
    std::array<iovec, 2> parts{{{&header, sizeof(header)}, {m_partial->body() + m_offset, chunk}}};
    msghdr packet{};
    packet.msg_iov = parts.data();
    packet.msg_iovlen = parts.size();
    const ssize_t got = recvmsg(m_socket.get(), &packet, MSG_DONTWAIT);
    if (got < 0) {
        return failed();
    }
    if (got == 0) {
        return Got::end;
    }
    m_received += static_cast<std::size_t>(got);
    if (static_cast<std::size_t>(got) != sizeof(header) + chunk || (packet.msg_flags & MSG_TRUNC) != 0 ||
        header.kind != static_cast<std::uint32_t>(Kind::dataMore) || header.value != m_offset ||
        header.sender != m_partial->sender || header.receiver != m_partial->receiver) {
        return Got::refused;
    }
    m_offset += chunk;
    if (m_offset < m_partial->size) {
        return Got::nothing;
    }
    block = std::move(m_partial);
    return Got::message;
}

} // namespace mnet
