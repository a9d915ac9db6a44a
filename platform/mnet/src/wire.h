/// What travels on a connection between two endpoints. One packet of the socket is one `PacketHeader` and,
/// for data, the message or a piece of it; all numbers in host byte order, since both ends share a machine.
///
///   hello      first packet of a connection: sender is the connecting endpoint, receiver the called one
///   welcome    the only packet that goes back: the hello was accepted, what follows it will be read
///   data       a whole message; value is its size
///   dataFirst  the first `maxChunk` bytes of a message above that; value is the whole message's size
///   dataMore   the next bytes of it; value is their offset. Nothing else comes in between
///   monitor    receiver is to be watched; value is the watcher's monitor id
///   unmonitor  the same, ended
///   notice     sender is gone; value is the monitor id
#pragma once

#include "message.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace mnet {

/// The value of a hello: "mnet" and the version of this format.
inline constexpr std::uint32_t helloValue = 0x6d6e6501;

/// The most message bytes in one packet; fits the kernel's default socket buffer (212,992 bytes).
inline constexpr std::size_t maxChunk = 131072;

/// An id carries the number of its endpoint in the upper half. Numbers end below the API's constants.
inline constexpr std::uint16_t firstEndpoint = 1;
inline constexpr std::uint16_t lastEndpoint = 0xFFEF;

constexpr std::uint16_t endpointOf(mnet_mbox_id_t id)
{
    return static_cast<std::uint16_t>(id >> 16);
}

constexpr std::uint16_t indexOf(mnet_mbox_id_t id)
{
    return static_cast<std::uint16_t>(id & 0xFFFF);
}

constexpr mnet_mbox_id_t makeId(std::uint16_t endpoint, std::uint16_t index)
{
    return (mnet_mbox_id_t{endpoint} << 16) | index;
}

constexpr bool isMailboxId(mnet_mbox_id_t id)
{
    return endpointOf(id) >= firstEndpoint && endpointOf(id) <= lastEndpoint;
}

/// What a received header is for; no `Kind` at all for a number that none has.
constexpr Kind kindOf(const PacketHeader& header)
{
    return header.kind <= static_cast<std::uint32_t>(Kind::notice) ? static_cast<Kind>(header.kind) : Kind{};
}

/// The bytes of a message of `size` that travel in the packet that starts at `offset`.
constexpr std::size_t chunkAt(std::size_t size, std::size_t offset)
{
    return std::min(maxChunk, size - offset);
}

} // namespace mnet
