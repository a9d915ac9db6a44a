#include "message.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <charconv>
#include <cstring>

namespace merlow::board {

namespace {

template <class Integer> std::optional<Integer> readAt(BytesView bytes, std::size_t offset)
{
    if (bytes.size() < sizeof(Integer) || offset > bytes.size() - sizeof(Integer)) {
        return std::nullopt;
    }
    Integer value{};
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

template <class Integer> void put(Bytes& bytes, Integer value)
{
    const auto view = std::as_bytes(std::span(&value, 1));
    bytes.insert(bytes.end(), view.begin(), view.end());
}

std::optional<unsigned> hexDigit(char digit)
{
    if (digit >= '0' && digit <= '9') {
        return static_cast<unsigned>(digit - '0');
    }
    if (digit >= 'a' && digit <= 'f') {
        return static_cast<unsigned>(digit - 'a') + 10;
    }
    if (digit >= 'A' && digit <= 'F') {
        return static_cast<unsigned>(digit - 'A') + 10;
    }
    return std::nullopt;
}

} // namespace

std::optional<std::uint32_t> host32At(BytesView bytes, std::size_t offset)
{
    return readAt<std::uint32_t>(bytes, offset);
}

std::optional<std::uint32_t> network32At(BytesView bytes, std::size_t offset)
{
    const auto value = readAt<std::uint32_t>(bytes, offset);
    return value ? std::optional(ntohl(*value)) : std::nullopt;
}

std::optional<std::uint16_t> network16At(BytesView bytes, std::size_t offset)
{
    const auto value = readAt<std::uint16_t>(bytes, offset);
    return value ? std::optional<std::uint16_t>(ntohs(*value)) : std::nullopt;
}

void putHost32(Bytes& bytes, std::uint32_t value)
{
    put(bytes, value);
}

void putNetwork32(Bytes& bytes, std::uint32_t value)
{
    put(bytes, htonl(value));
}

void putNetwork16(Bytes& bytes, std::uint16_t value)
{
    put(bytes, htons(value));
}

void putBytes(Bytes& bytes, BytesView more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
}

void putText(Bytes& bytes, const std::string& text, std::size_t size)
{
    const std::size_t length = size == 0 ? 0 : std::min(text.size(), size - 1);
    putBytes(bytes, std::as_bytes(std::span(text.data(), length)));
    bytes.resize(bytes.size() + size - length);
}

std::string countOf(std::size_t count, const char* noun)
{
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string commaList(const std::vector<std::string>& names)
{
    std::string list;
    for (const std::string& name : names) {
        list += (list.empty() ? "" : ", ") + name;
    }
    return list;
}

std::string hex(std::uint32_t value)
{
    char digits[8];
    const auto end = std::to_chars(std::begin(digits), std::end(digits), value, 16).ptr;
    return "0x" + std::string(digits, end);
}

std::optional<Bytes> bytesFromHex(const std::string& text)
{
    Bytes bytes;
    for (std::size_t at = 0; at < text.size();) {
        if (std::isspace(static_cast<unsigned char>(text[at])) != 0) {
            ++at;
            continue;
        }
        const auto high = hexDigit(text[at]);
        const auto low = at + 1 < text.size() ? hexDigit(text[at + 1]) : std::nullopt;
        if (!high || !low) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<std::byte>(*high << 4U | *low));
        at += 2;
    }
    return bytes;
}

std::optional<std::uint32_t> parseNumber(const std::string& text)
{
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    const char* begin = text.data() + (hexadecimal ? 2 : 0);
    const char* end = text.data() + text.size();
    std::uint32_t value = 0;
    const auto [rest, error] = std::from_chars(begin, end, value, hexadecimal ? 16 : 10);
    if (error != std::errc{} || rest != end) {
        return std::nullopt;
    }
    return value;
}

} // namespace merlow::board
