/// Frames of BRI and BMMI: a number, two references and a serialised message.
///
/// | Offset | Size | Field | Order |
/// | 0 | 4 | number | host |
/// | 4 | 4 | procedure reference: the client's for one request and its answer | network |
/// | 8 | 4 | connection reference: to the server its own, to the client the client's | network |
/// | 12 | n | the message in protobuf's wire format; absent when it is empty | |
#pragma once

#include "message.h"

#include <cstdint>
#include <google/protobuf/message.h>
#include <optional>

namespace merlow::board {

struct BrhFrame {
    std::uint32_t number;
    std::uint32_t procedureRef;
    std::uint32_t connectionRef;
    BytesView body; ///< of the received bytes

    static constexpr std::size_t headerSize = 12;

    /// Nothing when the bytes are no whole header.
    static std::optional<BrhFrame> read(BytesView bytes);
};

Bytes encodeFrame(std::uint32_t number, std::uint32_t procedureRef, std::uint32_t connectionRef,
                  const google::protobuf::Message& message);

/// The body of a frame as a message; false when it is none.
[[nodiscard]] bool parseBody(BytesView body, google::protobuf::Message& out);

} // namespace merlow::board
