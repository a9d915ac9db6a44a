/// What the unit sends, read with its real length in view.
#pragma once

#include "bci/bciCommon.h"

#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace merlow::tools {

/// One received signal: all its bytes, the number in host order, the rest as on the wire.
struct Signal {
    std::vector<std::uint8_t> bytes;

    [[nodiscard]] std::uint32_t number() const;
    /// In host order; a reference that the signal is too short for is 0.
    [[nodiscard]] TarnNodeCommonAddressInfoS addressInfo() const;
    /// What follows the references; empty for a signal that ends with them or before.
    [[nodiscard]] std::span<const std::uint8_t> fields() const;
};

/// The record in host order; nothing when the signal is shorter than the record.
template <class R> [[nodiscard]] std::optional<R> decode(const Signal& signal)
{
    if (signal.bytes.size() < BciRecord<R>::size) {
        return std::nullopt;
    }
    R record{};
    std::memcpy(&record, signal.bytes.data(), BciRecord<R>::size);
    ntoh(record);
    return record;
}

struct Rejection {
    std::uint16_t errorCode;
    std::string errorDescription;
};

/// Whether `number` is one of the interface's rejects.
bool isReject(std::uint32_t number);

/// Code and text of a reject; nothing when it is shorter than its layout.
std::optional<Rejection> decodeReject(const Signal& reject);

/// The text in a fixed array: up to its terminator, or all of an array without one. What is no printable
/// character becomes '?', so that no text from elsewhere steers the terminal.
std::string textOf(std::span<const std::uint8_t> array);

/// The name of a signal, or its number in hexadecimal, "0x1658fff", when it has none.
std::string signalName(std::uint32_t number);

/// A number: decimal, or hexadecimal after "0x"; nothing for anything else.
std::optional<std::uint32_t> parseNumber(std::string_view text);

/// A number as above or a signal's name; nothing for anything else.
std::optional<std::uint32_t> parseSignalNumber(std::string_view text);

} // namespace merlow::tools
