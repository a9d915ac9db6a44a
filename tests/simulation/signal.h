/// Signals byte by byte, as both sides of the interfaces see them.
#pragma once

#include "wire.h"

#include <cstdint>
#include <cstring>
#include <string>

namespace sim {

using support::Bytes;
using support::wordAt;

/// The number in host order, all else in network order.
class Signal {
public:
    explicit Signal(std::uint32_t number) : m_bytes(sizeof(number))
    {
        std::memcpy(m_bytes.data(), &number, sizeof(number));
    }
    Signal& u8(unsigned int value)
    {
        m_bytes.push_back(static_cast<std::uint8_t>(value));
        return *this;
    }
    Signal& u16(unsigned int value) { return u8((value >> 8U) & 0xFFU).u8(value & 0xFFU); }
    Signal& u32(std::uint32_t value) { return u16(value >> 16U).u16(value & 0xFFFFU); }
    /// With its NUL.
    Signal& text(const std::string& text)
    {
        m_bytes.insert(m_bytes.end(), text.begin(), text.end());
        return u8(0);
    }
    /// Zeros up to this offset.
    Signal& upTo(std::size_t offset)
    {
        m_bytes.resize(offset);
        return *this;
    }
    [[nodiscard]] const Bytes& bytes() const { return m_bytes; }

private:
    Bytes m_bytes;
};

[[nodiscard]] inline std::uint32_t numberOf(const Bytes& bytes)
{
    std::uint32_t number = 0;
    std::memcpy(&number, bytes.data(), sizeof(number));
    return number;
}

[[nodiscard]] inline std::uint16_t halfAt(const Bytes& bytes, std::size_t offset)
{
    return offset + 2 > bytes.size() ? std::uint16_t{0}
                                     : static_cast<std::uint16_t>((bytes[offset] << 8U) | bytes[offset + 1]);
}

/// Up to its NUL, or to `end`.
[[nodiscard]] inline std::string textAt(const Bytes& bytes, std::size_t offset, std::size_t end)
{
    std::string text;
    for (; offset < end && offset < bytes.size() && bytes[offset] != 0; ++offset) {
        text += static_cast<char>(bytes[offset]);
    }
    return text;
}

} // namespace sim
