/// Bytes as people write and read them.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace merlow::tools {

/// Bytes from pairs of hexadecimal digits; blanks and colons between the pairs are free, a leading "0x" too.
/// Nothing for anything else, an odd digit included.
std::optional<std::vector<std::uint8_t>> parseHex(std::string_view text);

/// All bytes as lower-case digits, nothing between them.
std::string toHex(std::span<const std::uint8_t> bytes);

/// Lines of offset, sixteen bytes, and the same as text (a dot for what is not printable ASCII), each with
/// two blanks in front and a newline behind; empty for no bytes.
std::string hexView(std::span<const std::uint8_t> bytes);

} // namespace merlow::tools
