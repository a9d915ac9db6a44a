#include "bciDecode.h"

#include "bci/bciSoftware.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace merlow::tools {

namespace {

constexpr std::size_t envelopeSize = 12;

std::int32_t referenceAt(std::span<const std::uint8_t> bytes, std::size_t offset)
{
    std::int32_t value = 0;
    if (bytes.size() >= offset + sizeof(value)) {
        std::memcpy(&value, bytes.data() + offset, sizeof(value));
        Bci::swapOrder(value);
    }
    return value;
}

// Those of the connection and of the software store have a word more; all other rejects share one layout,
// whatever their number.
using AnyRejectS = TarnBcRejS<TARN_BC_ENABLE_OPERATION_REJ>;
using AnyResourceRejectS = TarnBcAcquireResourceRejS;

template <class R> std::optional<Rejection> rejectionIn(const Signal& signal)
{
    const auto record = decode<R>(signal);
    if (!record) {
        return std::nullopt;
    }
    return Rejection{record->errorCode, textOf(record->errorDescription)};
}

} // namespace

std::uint32_t Signal::number() const
{
    std::uint32_t value = 0;
    if (bytes.size() >= sizeof(value)) {
        std::memcpy(&value, bytes.data(), sizeof(value));
    }
    return value;
}

TarnNodeCommonAddressInfoS Signal::addressInfo() const
{
    return {.clientRef = referenceAt(bytes, 4), .serverRef = referenceAt(bytes, 8)};
}

std::span<const std::uint8_t> Signal::fields() const
{
    return std::span(bytes).subspan(std::min(bytes.size(), envelopeSize));
}

bool isReject(std::uint32_t number)
{
    const BciSignal* const row = findBciSignal(number);
    return row != nullptr && row->name.ends_with("_REJ");
}

std::optional<Rejection> decodeReject(const Signal& reject)
{
    if (reject.number() == TARN_BC_CONN_ESTABLISH_REJ) {
        return rejectionIn<TarnBcConnEstablishRejS>(reject);
    }
    if (reject.number() == TARN_BC_ACQUIRE_RESOURCE_REJ || reject.number() == TARN_BC_RELEASE_RESOURCE_REJ) {
        return rejectionIn<AnyResourceRejectS>(reject);
    }
    return rejectionIn<AnyRejectS>(reject);
}

std::string textOf(std::span<const std::uint8_t> array)
{
    std::string text;
    for (const auto byte : array) {
        if (byte == 0) {
            break;
        }
        text += byte >= ' ' && byte <= '~' ? static_cast<char>(byte) : '?';
    }
    return text;
}

std::string signalName(std::uint32_t number)
{
    const BciSignal* const row = findBciSignal(number);
    if (row != nullptr) {
        return std::string(row->name);
    }
    char text[16];
    (void)std::snprintf(text, sizeof(text), "0x%x", number);
    return text;
}

std::optional<std::uint32_t> parseSignalNumber(std::string_view text)
{
    for (const BciSignal& row : BCI_SIGNALS) {
        if (row.name == text) {
            return row.number;
        }
    }
    return parseNumber(text);
}

std::optional<std::uint32_t> parseNumber(std::string_view text)
{
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
        base = 16;
    }
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return number;
}

} // namespace merlow::tools
