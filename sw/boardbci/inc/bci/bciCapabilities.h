/// Signals that tell what the unit can do, and the records in them.
#pragma once

#include "bci/bciCommon.h"

using TarnBcGetCapabilitiesReqS = TarnBcPlainS<TARN_BC_GET_CAPABILITIES_REQ>;

/// Followed by `numberOfBoardCapabilities` records; the message may be longer than they are.
struct TarnBcGetCapabilitiesCfmS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint16_t numberOfBoardCapabilities;
    std::uint16_t unset14;
};
template <> struct BciRecord<TarnBcGetCapabilitiesCfmS> {
    static constexpr std::uint32_t number = TARN_BC_GET_CAPABILITIES_CFM;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcGetCapabilitiesCfmS::numberOfBoardCapabilities};
    static_assert(size == 16 && sizeof(TarnBcGetCapabilitiesCfmS) == size);
};
static_assert(offsetof(TarnBcGetCapabilitiesCfmS, numberOfBoardCapabilities) == 12);

using TarnBcGetCapabilitiesRejS = TarnBcRejS<TARN_BC_GET_CAPABILITIES_REJ>;

/// One capability. What `content` holds goes by `capabilityNumber`: one of the structs below, or nothing. It
/// is in network order at all times; `contentOf` and `setContent` convert.
struct TarnBcBoardCapabilityS {
    std::uint16_t capabilityNumber;
    std::uint16_t size; ///< of the whole record in bytes
    unsigned char content[216];
};
template <> struct BciRecord<TarnBcBoardCapabilityS> {
    static constexpr std::size_t size = 220;
    static constexpr auto fields =
        std::tuple{&TarnBcBoardCapabilityS::capabilityNumber, &TarnBcBoardCapabilityS::size};
    static_assert(sizeof(TarnBcBoardCapabilityS) == size);
};
static_assert(offsetof(TarnBcBoardCapabilityS, content) == 4);

/// Number 1: how load modules are to be sent.
struct TarnBcLoadingBlocksS {
    std::uint16_t values[3]; ///< always 1, 1, 0
    std::uint16_t unset6;
    std::uint32_t blockSize; ///< in bytes
};
template <> struct BciRecord<TarnBcLoadingBlocksS> {
    static constexpr auto fields =
        std::tuple{&TarnBcLoadingBlocksS::values, &TarnBcLoadingBlocksS::blockSize};
};
static_assert(offsetof(TarnBcLoadingBlocksS, blockSize) == 8 && sizeof(TarnBcLoadingBlocksS) == 12);

/// Numbers 6 and 30: limits of temperatures.
struct TarnBcParameterSetsS {
    static constexpr std::size_t maxSets = 10;
    std::uint16_t count; ///< of the sets that are used
    std::uint16_t unset2;
    std::uint16_t sets[maxSets][4]; ///< three values each, and one that stays 0
};
template <> struct BciRecord<TarnBcParameterSetsS> {
    static constexpr auto fields = std::tuple{&TarnBcParameterSetsS::count, &TarnBcParameterSetsS::sets};
};
static_assert(offsetof(TarnBcParameterSetsS, sets) == 4 && sizeof(TarnBcParameterSetsS) == 84);

/// Number 41: a text of the unit, not terminated when it fills the array.
struct TarnBcCapabilityTextS {
    unsigned char text[16];
};
template <> struct BciRecord<TarnBcCapabilityTextS> {
    static constexpr auto fields = std::tuple{};
};

/// Number 45: the restart ranks that the unit has, a bit for each.
struct TarnBcRestartRanksS {
    std::uint32_t mask;
};
template <> struct BciRecord<TarnBcRestartRanksS> {
    static constexpr auto fields = std::tuple{&TarnBcRestartRanksS::mask};
};

/// Puts `content`, given in host order, at the start of the record's content.
template <class Content> void setContent(TarnBcBoardCapabilityS& record, Content content)
{
    static_assert(std::is_trivially_copyable_v<Content> && sizeof(Content) <= sizeof(record.content));
    hton(content);
    std::memcpy(record.content, &content, sizeof(content));
}

/// What `setContent` put there, in host order.
template <class Content> [[nodiscard]] Content contentOf(const TarnBcBoardCapabilityS& record)
{
    static_assert(std::is_trivially_copyable_v<Content> && sizeof(Content) <= sizeof(record.content));
    Content content;
    std::memcpy(&content, record.content, sizeof(content));
    ntoh(content);
    return content;
}
