/// Signals of the maintenance state.
#pragma once

#include "bci/bciCommon.h"

using TarnBcSubscribeMaintStateReqS = TarnBcPlainS<TARN_BC_SUBSCRIBE_MAINT_STATE_REQ>;
using TarnBcSubscribeMaintStateCfmS = TarnBcPlainS<TARN_BC_SUBSCRIBE_MAINT_STATE_CFM>;
using TarnBcSubscribeMaintStateRejS = TarnBcRejS<TARN_BC_SUBSCRIBE_MAINT_STATE_REJ>;

struct TarnBcSetMaintStateReqS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint32_t maintState; ///< 0, 2, 3 or 4
};
template <> struct BciRecord<TarnBcSetMaintStateReqS> {
    static constexpr std::uint32_t number = TARN_BC_SET_MAINT_STATE_REQ;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcSetMaintStateReqS::maintState};
    static_assert(size == 16 && sizeof(TarnBcSetMaintStateReqS) == size);
};
static_assert(offsetof(TarnBcSetMaintStateReqS, maintState) == 12);

using TarnBcSetMaintStateCfmS = TarnBcPlainS<TARN_BC_SET_MAINT_STATE_CFM>;
using TarnBcSetMaintStateRejS = TarnBcRejS<TARN_BC_SET_MAINT_STATE_REJ>;

struct TarnBcSetMaintStateIndS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo; ///< of the request that subscribed
    std::uint32_t maintState;               ///< 0 to 4
};
template <> struct BciRecord<TarnBcSetMaintStateIndS> {
    static constexpr std::uint32_t number = TARN_BC_SET_MAINT_STATE_IND;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcSetMaintStateIndS::maintState};
    static_assert(size == 16 && sizeof(TarnBcSetMaintStateIndS) == size);
};
static_assert(offsetof(TarnBcSetMaintStateIndS, maintState) == 12);
