/// Signals of the software store: its acquisition, loading, selection, the running module and the list of
/// software components.
#pragma once

#include "bci/bciCommon.h"

template <std::uint32_t Number> struct TarnBcResourceS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint16_t resource; ///< the client's own; an acquisition is known by it and the references
    std::uint16_t unset14;
};
template <std::uint32_t Number> struct BciRecord<TarnBcResourceS<Number>> {
    static constexpr std::uint32_t number = Number;
    static constexpr std::size_t size = bciSizeOf(Number);
    static constexpr auto fields = std::tuple{&TarnBcResourceS<Number>::resource};
    static_assert(size == 16 && sizeof(TarnBcResourceS<Number>) == size);
    static_assert(offsetof(TarnBcResourceS<Number>, resource) == 12);
};

template <std::uint32_t Number> struct TarnBcResourceRejS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint16_t resource;
    std::uint16_t unset14;
    std::uint16_t errorCode;
    std::uint16_t unset18;
    unsigned char errorDescription[BCI_ERROR_DESCRIPTION_SIZE];
    std::uint16_t unset130;
};
template <std::uint32_t Number> struct BciRecord<TarnBcResourceRejS<Number>> {
    static constexpr std::uint32_t number = Number;
    static constexpr std::size_t size = bciSizeOf(Number);
    static constexpr auto fields =
        std::tuple{&TarnBcResourceRejS<Number>::resource, &TarnBcResourceRejS<Number>::errorCode};
    static_assert(size == 132 && sizeof(TarnBcResourceRejS<Number>) == size);
    static_assert(offsetof(TarnBcResourceRejS<Number>, resource) == 12);
    static_assert(offsetof(TarnBcResourceRejS<Number>, errorCode) == 16);
    static_assert(offsetof(TarnBcResourceRejS<Number>, errorDescription) == 20);
};

using TarnBcAcquireResourceReqS = TarnBcResourceS<TARN_BC_ACQUIRE_RESOURCE_REQ>;
using TarnBcAcquireResourceCfmS = TarnBcResourceS<TARN_BC_ACQUIRE_RESOURCE_CFM>;
using TarnBcAcquireResourceRejS = TarnBcResourceRejS<TARN_BC_ACQUIRE_RESOURCE_REJ>;
using TarnBcReleaseResourceReqS = TarnBcResourceS<TARN_BC_RELEASE_RESOURCE_REQ>;
using TarnBcReleaseResourceCfmS = TarnBcResourceS<TARN_BC_RELEASE_RESOURCE_CFM>;
using TarnBcReleaseResourceRejS = TarnBcResourceRejS<TARN_BC_RELEASE_RESOURCE_REJ>;

/// Behind it stands `software`: product number, '_' and revision, a terminated text.
using TarnBcLmcInitReqS = TarnBcPlainS<TARN_BC_LMC_INIT_REQ>;
using TarnBcLmcInitRejS = TarnBcRejS<TARN_BC_LMC_INIT_REJ>;

struct TarnBcLmcInitCfmS {
    /// What `loadStatus` says. With all but the first there is nothing to load, and the load is over.
    enum LoadStatus : std::uint16_t {
        LOAD_MAY_BEGIN = 0,
        ALREADY_LOADED = 1,
        RUNNING = 2,
    };

    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint16_t loadStatus;
    std::uint16_t unset14;
};
template <> struct BciRecord<TarnBcLmcInitCfmS> {
    static constexpr std::uint32_t number = TARN_BC_LMC_INIT_CFM;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcLmcInitCfmS::loadStatus};
    static_assert(size == 16 && sizeof(TarnBcLmcInitCfmS) == size);
};
static_assert(offsetof(TarnBcLmcInitCfmS, loadStatus) == 12);

/// Behind it stand the `size` bytes of the block.
struct TarnBcLmcDataS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint16_t lmSeqNr; ///< the block's number, echoed in its acknowledgement
    std::uint16_t unset14;
    std::uint32_t size; ///< in bytes
};
template <> struct BciRecord<TarnBcLmcDataS> {
    static constexpr std::uint32_t number = TARN_BC_LMC_DATA;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcLmcDataS::lmSeqNr, &TarnBcLmcDataS::size};
    static_assert(size == 20 && sizeof(TarnBcLmcDataS) == size);
};
static_assert(offsetof(TarnBcLmcDataS, lmSeqNr) == 12);
static_assert(offsetof(TarnBcLmcDataS, size) == 16);

struct TarnBcLmcDataAckS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint16_t lmSeqNr;
    std::uint16_t unset14;
};
template <> struct BciRecord<TarnBcLmcDataAckS> {
    static constexpr std::uint32_t number = TARN_BC_LMC_DATA_ACK;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcLmcDataAckS::lmSeqNr};
    static_assert(size == 16 && sizeof(TarnBcLmcDataAckS) == size);
};
static_assert(offsetof(TarnBcLmcDataAckS, lmSeqNr) == 12);

using TarnBcLmcEndReqS = TarnBcPlainS<TARN_BC_LMC_END_REQ>;
using TarnBcLmcEndRejS = TarnBcRejS<TARN_BC_LMC_END_REJ>;

struct TarnBcLmcEndCfmS {
    enum Result : std::uint16_t {
        COMPLETED = 0,
        FAILED = 1,
    };

    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint16_t result;
    std::uint16_t unset14;
};
template <> struct BciRecord<TarnBcLmcEndCfmS> {
    static constexpr std::uint32_t number = TARN_BC_LMC_END_CFM;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcLmcEndCfmS::result};
    static_assert(size == 16 && sizeof(TarnBcLmcEndCfmS) == size);
};
static_assert(offsetof(TarnBcLmcEndCfmS, result) == 12);

/// Behind it stands `software`, as in `TARN_BC_LMC_INIT_REQ`.
using TarnBcSelectLmcReqS = TarnBcPlainS<TARN_BC_SELECT_LMC_REQ>;
using TarnBcSelectLmcCfmS = TarnBcPlainS<TARN_BC_SELECT_LMC_CFM>;
using TarnBcSelectLmcRejS = TarnBcRejS<TARN_BC_SELECT_LMC_REJ>;

using TarnBcSwCompListReqS = TarnBcPlainS<TARN_BC_SW_COMP_LIST_REQ>;
using TarnBcSwCompListCfmS = TarnBcPlainS<TARN_BC_SW_COMP_LIST_CFM>;
using TarnBcSwCompListRejS = TarnBcRejS<TARN_BC_SW_COMP_LIST_REJ>;

/// Behind it stand `length` bytes of the list's text, which is not terminated, and
/// `BCI_SW_COMP_LIST_DATA_TAIL` bytes that are not set.
struct TarnBcSwCompListDataS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint32_t end; ///< 1 with the last piece, else 0
    std::uint32_t length;
};
template <> struct BciRecord<TarnBcSwCompListDataS> {
    static constexpr std::uint32_t number = TARN_BC_SW_COMP_LIST_DATA;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcSwCompListDataS::end, &TarnBcSwCompListDataS::length};
    static_assert(size == 20 && sizeof(TarnBcSwCompListDataS) == size);
};
static_assert(offsetof(TarnBcSwCompListDataS, end) == 12);
static_assert(offsetof(TarnBcSwCompListDataS, length) == 16);

inline constexpr std::size_t BCI_SW_COMP_LIST_DATA_TAIL = 3;

struct TarnBcSwCompListAckS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint32_t abort; ///< not 0: the client gives the list up
};
template <> struct BciRecord<TarnBcSwCompListAckS> {
    static constexpr std::uint32_t number = TARN_BC_SW_COMP_LIST_ACK;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcSwCompListAckS::abort};
    static_assert(size == 16 && sizeof(TarnBcSwCompListAckS) == size);
};
static_assert(offsetof(TarnBcSwCompListAckS, abort) == 12);

using TarnBcGetRunningLmcReqS = TarnBcPlainS<TARN_BC_GET_RUNNING_LMC_REQ>;
using TarnBcGetRunningLmcRejS = TarnBcRejS<TARN_BC_GET_RUNNING_LMC_REJ>;

struct TarnBcGetRunningLmcCfmS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    unsigned char runningSoftware[36]; ///< terminated
};
template <> struct BciRecord<TarnBcGetRunningLmcCfmS> {
    static constexpr std::uint32_t number = TARN_BC_GET_RUNNING_LMC_CFM;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{};
    static_assert(size == 48 && sizeof(TarnBcGetRunningLmcCfmS) == size);
};
static_assert(offsetof(TarnBcGetRunningLmcCfmS, runningSoftware) == 12);
