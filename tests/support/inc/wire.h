/// Messages as text: "0165950c 00000007 fffffffe 0002", the number as a value, all behind it byte by byte.
#pragma once

#include <cstdint>
#include <mnet.h>
#include <string>
#include <vector>

namespace support {

using Bytes = std::vector<std::uint8_t>;

/// A message that a virtual process took from its queue.
struct Received {
    std::uint32_t msgNo = 0;
    mnet_mbox_id_t sender = MNET_MBOX_NONE;
    Bytes bytes; ///< the number, in host order, included
};

/// Groups of four bytes, the last one shorter when bytes are left; "" for no bytes.
[[nodiscard]] std::string messageToHex(const Bytes& bytes);
/// The reverse; blanks do not count. Fails the test when the text is no message.
[[nodiscard]] Bytes messageFromHex(const std::string& hex);

/// What follows the references of a reject of 128 bytes, as text: errorCode 1, two unset bytes, and the text
/// in its 110 bytes.
[[nodiscard]] std::string rejectTail(const std::string& text);

/// A frame: number, both references, the serialised message.
[[nodiscard]] Bytes makeFrame(std::uint32_t msgNo, std::uint32_t procedureRef, std::uint32_t connectionRef,
                              const std::string& body);
/// The 32-bit word in network order at `offset`; 0 behind the end.
[[nodiscard]] std::uint32_t wordAt(const Bytes& bytes, std::size_t offset);

} // namespace support
