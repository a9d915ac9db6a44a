/// Messages as the neighbours' protocol logic sees them: bytes, a sender and a receiver, no mailbox library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace merlow::board {

using MailboxId = std::uint32_t;
using Bytes = std::vector<std::byte>;
using BytesView = std::span<const std::byte>;

constexpr MailboxId noMailbox = 0xFFFFFFFFu;

/// One message that arrived. `bytes` is the whole of it, its number in host order first; it is valid as long
/// as the call that hands it out.
struct Received {
    MailboxId sender;
    MailboxId receiver;
    BytesView bytes;
};

/// Reads at `offset`; nothing where the value would not lie wholly inside `bytes`.
std::optional<std::uint32_t> host32At(BytesView bytes, std::size_t offset);
std::optional<std::uint32_t> network32At(BytesView bytes, std::size_t offset);
std::optional<std::uint16_t> network16At(BytesView bytes, std::size_t offset);

/// Appends to a message that is being built.
void putHost32(Bytes& bytes, std::uint32_t value);
void putNetwork32(Bytes& bytes, std::uint32_t value);
void putNetwork16(Bytes& bytes, std::uint16_t value);
void putBytes(Bytes& bytes, BytesView more);
/// Appends `text` as an array of `size` bytes: cut so that it stays terminated, the rest cleared.
void putText(Bytes& bytes, const std::string& text, std::size_t size);

/// "1 plan", "2 plans".
std::string countOf(std::size_t count, const char* noun);

/// "a, b, c".
std::string commaList(const std::vector<std::string>& names);

/// "0x" and the number in small hexadecimal digits.
std::string hex(std::uint32_t value);

/// The bytes that `text` spells in hexadecimal (spaces allowed between bytes); nothing for anything else.
std::optional<Bytes> bytesFromHex(const std::string& text);

/// A whole number, decimal or with "0x" in hexadecimal, of at most 32 bits; nothing for anything else.
std::optional<std::uint32_t> parseNumber(const std::string& text);

} // namespace merlow::board
