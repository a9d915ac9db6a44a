#include "wire.h"

#include <cctype>
#include <cstring>
#include <gtest/gtest.h>

namespace support {

namespace {

constexpr char digits[] = "0123456789abcdef";

void putWord(Bytes& bytes, std::uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<std::uint8_t>(value >> static_cast<unsigned int>(shift)));
    }
}

void putNumber(Bytes& bytes, std::uint32_t msgNo)
{
    bytes.resize(sizeof(msgNo));
    std::memcpy(bytes.data(), &msgNo, sizeof(msgNo));
}

} // namespace

std::string messageToHex(const Bytes& bytes)
{
    Bytes printed = bytes;
    if (bytes.size() >= sizeof(std::uint32_t)) {
        std::uint32_t msgNo = 0;
        std::memcpy(&msgNo, bytes.data(), sizeof(msgNo));
        Bytes number;
        putWord(number, msgNo);
        std::copy(number.begin(), number.end(), printed.begin());
    }
    std::string text;
    for (std::size_t i = 0; i < printed.size(); ++i) {
        if (i != 0 && i % 4 == 0) {
            text += ' ';
        }
        text += digits[printed[i] >> 4U];
        text += digits[printed[i] & 15U];
    }
    return text;
}

Bytes messageFromHex(const std::string& hex)
{
    Bytes bytes;
    unsigned int half = 0;
    bool odd = false;
    for (const char c : hex) {
        if (std::isspace(static_cast<unsigned char>(c)) != 0) {
            continue;
        }
        const char* digit = std::strchr(digits, std::tolower(static_cast<unsigned char>(c)));
        if (digit == nullptr) {
            ADD_FAILURE() << "No hexadecimal text: " << hex;
            return {};
        }
        half = half * 16U + static_cast<unsigned int>(digit - digits);
        if (odd) {
            bytes.push_back(static_cast<std::uint8_t>(half));
            half = 0;
        }
        odd = !odd;
    }
    if (odd || bytes.size() < sizeof(std::uint32_t)) {
        ADD_FAILURE() << "No message: " << hex;
        return {};
    }
    Bytes number;
    putNumber(number, wordAt(bytes, 0));
    std::copy(number.begin(), number.end(), bytes.begin());
    return bytes;
}

std::string rejectTail(const std::string& text)
{
    constexpr std::size_t tailSize = 116;
    constexpr std::size_t textOffset = 4;
    Bytes bytes(sizeof(std::uint32_t) + tailSize); // behind a number, which is cut off again
    bytes[5] = 1;
    std::copy(text.begin(), text.end(), bytes.begin() + sizeof(std::uint32_t) + textOffset);
    return messageToHex(bytes).substr(9);
}

Bytes makeFrame(std::uint32_t msgNo, std::uint32_t procedureRef, std::uint32_t connectionRef,
                const std::string& body)
{
    Bytes bytes;
    putNumber(bytes, msgNo);
    putWord(bytes, procedureRef);
    putWord(bytes, connectionRef);
    bytes.insert(bytes.end(), body.begin(), body.end());
    return bytes;
}

std::uint32_t wordAt(const Bytes& bytes, std::size_t offset)
{
    if (offset + sizeof(std::uint32_t) > bytes.size()) {
        return 0;
    }
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < sizeof(value); ++i) {
        value = value << 8U | bytes[offset + i];
    }
    return value;
}

} // namespace support
