#include "hex.h"

#include <algorithm>

namespace merlow::tools {

namespace {

constexpr char digits[] = "0123456789abcdef";
constexpr std::size_t bytesPerLine = 16;

int valueOf(char digit)
{
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    if (digit >= 'a' && digit <= 'f') {
        return digit - 'a' + 10;
    }
    if (digit >= 'A' && digit <= 'F') {
        return digit - 'A' + 10;
    }
    return -1;
}

void appendByte(std::string& out, std::uint8_t byte)
{
    out += digits[byte >> 4];
    out += digits[byte & 0xF];
}

std::string lineOf(std::span<const std::uint8_t> bytes, std::size_t offset)
{
    std::string line = "  ";
    for (const int shift : {16, 8, 0}) {
        appendByte(line, static_cast<std::uint8_t>(offset >> shift));
    }
    std::string text;
    for (std::size_t i = 0; i < bytesPerLine; ++i) {
        line += i == bytesPerLine / 2 ? "  " : " ";
        if (i < bytes.size()) {
            appendByte(line, bytes[i]);
            text += bytes[i] >= ' ' && bytes[i] <= '~' ? static_cast<char>(bytes[i]) : '.';
        } else {
            line += "  ";
        }
    }
    return line + "  |" + text + "|\n";
}

} // namespace

std::optional<std::vector<std::uint8_t>> parseHex(std::string_view text)
{
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
    }
    std::vector<std::uint8_t> bytes;
    std::size_t at = 0;
    while (at < text.size()) {
        if (text[at] == ' ' || text[at] == ':') {
            ++at;
            continue;
        }
        const int high = valueOf(text[at]);
        const int low = at + 1 < text.size() ? valueOf(text[at + 1]) : -1;
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<std::uint8_t>(high << 4 | low));
        at += 2;
    }
    return bytes;
}

std::string toHex(std::span<const std::uint8_t> bytes)
{
    std::string out;
    for (const auto byte : bytes) {
        appendByte(out, byte);
    }
    return out;
}

std::string hexView(std::span<const std::uint8_t> bytes)
{
    std::string out;
    for (std::size_t offset = 0; offset < bytes.size(); offset += bytesPerLine) {
        out += lineOf(bytes.subspan(offset, std::min(bytesPerLine, bytes.size() - offset)), offset);
    }
    return out;
}

} // namespace merlow::tools
