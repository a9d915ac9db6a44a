/// Signals of the hardware log.
#pragma once

#include "bci/bciCommon.h"

/// Bytes of the packed entries in a signal. Each entry is its characters and one NUL, the next follows at
/// once.
inline constexpr std::size_t BCI_HWLOG_ENTRIES_SIZE = 424;

struct TarnBcHwLogSetReqS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    char logLabel[16];
    std::uint32_t logId;  ///< 0 to 999
    std::uint32_t length; ///< number of entries
    char entries[BCI_HWLOG_ENTRIES_SIZE];
};
template <> struct BciRecord<TarnBcHwLogSetReqS> {
    static constexpr std::uint32_t number = TARN_BC_HWLOG_SET_REQ;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcHwLogSetReqS::logId, &TarnBcHwLogSetReqS::length};
    static_assert(size == sizeof(TarnBcHwLogSetReqS));
};
static_assert(offsetof(TarnBcHwLogSetReqS, logLabel) == 12);
static_assert(offsetof(TarnBcHwLogSetReqS, logId) == 28);
static_assert(offsetof(TarnBcHwLogSetReqS, length) == 32);
static_assert(offsetof(TarnBcHwLogSetReqS, entries) == 36);

using TarnBcHwLogSetCfmS = TarnBcPlainS<TARN_BC_HWLOG_SET_CFM>;
using TarnBcHwLogSetRejS = TarnBcRejS<TARN_BC_HWLOG_SET_REJ>;

struct TarnBcHwLogGetReqS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint32_t logId;
};
template <> struct BciRecord<TarnBcHwLogGetReqS> {
    static constexpr std::uint32_t number = TARN_BC_HWLOG_GET_REQ;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcHwLogGetReqS::logId};
    static_assert(size == sizeof(TarnBcHwLogGetReqS));
};
static_assert(offsetof(TarnBcHwLogGetReqS, logId) == 12);

struct TarnBcHwLogGetCfmS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint32_t length; ///< number of entries
    char entries[BCI_HWLOG_ENTRIES_SIZE];
};
template <> struct BciRecord<TarnBcHwLogGetCfmS> {
    static constexpr std::uint32_t number = TARN_BC_HWLOG_GET_CFM;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcHwLogGetCfmS::length};
    static_assert(size == sizeof(TarnBcHwLogGetCfmS));
};
static_assert(offsetof(TarnBcHwLogGetCfmS, length) == 12);
static_assert(offsetof(TarnBcHwLogGetCfmS, entries) == 16);

using TarnBcHwLogGetRejS = TarnBcRejS<TARN_BC_HWLOG_GET_REJ>;
