/// Signals of Here I Am. Some of their names lack a letter, as the interface spells them.
#pragma once

#include "bci/bciCommon.h"

struct TarnBcOrdeHereIAmReqS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint16_t state; ///< 1 or 2
};
template <> struct BciRecord<TarnBcOrdeHereIAmReqS> {
    static constexpr std::uint32_t number = TARN_BC_ORDE_HERE_I_AM_REQ;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcOrdeHereIAmReqS::state};
    static_assert(size == 14);
};
static_assert(offsetof(TarnBcOrdeHereIAmReqS, state) == 12);

/// Bytes of `text`, the terminator included.
inline constexpr unsigned int BCI_HERE_I_AM_TEXT_SIZE = 128;

/// Its references are those of the request that subscribed.
struct TarnBcOrdeHereIAmCfmS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint16_t status;
    std::uint16_t reserved14;
    unsigned char text[BCI_HERE_I_AM_TEXT_SIZE];
};
template <> struct BciRecord<TarnBcOrdeHereIAmCfmS> {
    static constexpr std::uint32_t number = TARN_BC_ORDE_HERE_I_AM_CFM;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcOrdeHereIAmCfmS::status};
    static_assert(size == 144 && sizeof(TarnBcOrdeHereIAmCfmS) == size);
};
static_assert(offsetof(TarnBcOrdeHereIAmCfmS, status) == 12);
static_assert(offsetof(TarnBcOrdeHereIAmCfmS, text) == 16);

using TarnBcOrdeHereIAmRejS = TarnBcRejS<TARN_BC_ORDE_HERE_I_AM_REJ>;
using TarnBcSubscribeHereIAmStateReqS = TarnBcPlainS<TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_REQ>;
using TarnBcSubscribeHereIAmStateCfmS = TarnBcPlainS<TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_CFM>;
using TarnBcSubscribeHereIAmStateRejS = TarnBcRejS<TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_REJ>;

struct TarnBcHereIAmStateIndS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo; ///< of the request that subscribed
    std::uint16_t state;                    ///< the board's own number
    std::uint16_t reserved14;
};
template <> struct BciRecord<TarnBcHereIAmStateIndS> {
    static constexpr std::uint32_t number = TARN_BC_HERE_I_AM_STATE_IND;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcHereIAmStateIndS::state};
    static_assert(size == 16 && sizeof(TarnBcHereIAmStateIndS) == size);
};
static_assert(offsetof(TarnBcHereIAmStateIndS, state) == 12);
