#include "brhFrame.h"

#include <limits>

namespace merlow::board {

std::optional<BrhFrame> BrhFrame::read(BytesView bytes)
{
    if (bytes.size() < headerSize) {
        return std::nullopt;
    }
    return BrhFrame{*host32At(bytes, 0), *network32At(bytes, 4), *network32At(bytes, 8),
                    bytes.subspan(headerSize)};
}

Bytes encodeFrame(std::uint32_t number, std::uint32_t procedureRef, std::uint32_t connectionRef,
                  const google::protobuf::Message& message)
{
    const std::size_t size = message.ByteSizeLong();
    Bytes bytes;
    bytes.reserve(BrhFrame::headerSize + size);
    putHost32(bytes, number);
    putNetwork32(bytes, procedureRef);
    putNetwork32(bytes, connectionRef);
    bytes.resize(BrhFrame::headerSize + size);
    // Fails only beyond 2 GiB, where no answer of a board comes near.
    message.SerializeWithCachedSizesToArray(
        reinterpret_cast<std::uint8_t*>(bytes.data() + BrhFrame::headerSize));
    return bytes;
}

bool parseBody(BytesView body, google::protobuf::Message& out)
{
    return body.size() <= static_cast<std::size_t>(std::numeric_limits<int>::max()) &&
           out.ParseFromArray(body.data(), static_cast<int>(body.size()));
}

} // namespace merlow::board
