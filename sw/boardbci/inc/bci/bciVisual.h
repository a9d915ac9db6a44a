/// Signals of the unit's indicators.
#pragma once

#include "bci/bciCommon.h"

struct TarnBcSetVisualIndicationReqS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint16_t visualizedState;
};
template <> struct BciRecord<TarnBcSetVisualIndicationReqS> {
    static constexpr std::uint32_t number = TARN_BC_SET_VISUAL_INDICATION_REQ;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcSetVisualIndicationReqS::visualizedState};
    static_assert(size == 14);
};
static_assert(offsetof(TarnBcSetVisualIndicationReqS, visualizedState) == 12);

using TarnBcSetVisualIndicationCfmS = TarnBcPlainS<TARN_BC_SET_VISUAL_INDICATION_CFM>;
using TarnBcSetVisualIndicationRejS = TarnBcRejS<TARN_BC_SET_VISUAL_INDICATION_REJ>;
using TarnBcGetVisualIndicationReqS = TarnBcPlainS<TARN_BC_GET_VISUAL_INDICATION_REQ>;

/// In place of a state that the board did not tell, or that has no number on this side.
inline constexpr std::uint16_t BCI_UNKNOWN_VISUAL_STATE = 255;

struct TarnBcGetVisualIndicationCfmS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint16_t group4State;
    std::uint16_t group1State;
    std::uint16_t supportUnitFaultState;
    std::uint16_t group3State;
};
template <> struct BciRecord<TarnBcGetVisualIndicationCfmS> {
    static constexpr std::uint32_t number = TARN_BC_GET_VISUAL_INDICATION_CFM;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{
        &TarnBcGetVisualIndicationCfmS::group4State, &TarnBcGetVisualIndicationCfmS::group1State,
        &TarnBcGetVisualIndicationCfmS::supportUnitFaultState, &TarnBcGetVisualIndicationCfmS::group3State};
    static_assert(size == 20 && sizeof(TarnBcGetVisualIndicationCfmS) == size);
};
static_assert(offsetof(TarnBcGetVisualIndicationCfmS, group4State) == 12);
static_assert(offsetof(TarnBcGetVisualIndicationCfmS, group1State) == 14);
static_assert(offsetof(TarnBcGetVisualIndicationCfmS, supportUnitFaultState) == 16);
static_assert(offsetof(TarnBcGetVisualIndicationCfmS, group3State) == 18);

using TarnBcGetVisualIndicationRejS = TarnBcRejS<TARN_BC_GET_VISUAL_INDICATION_REJ>;
using TarnBcGetSpecialIndicatorReqS = TarnBcPlainS<TARN_BC_GET_SPECIAL_INDICATOR_REQ>;

/// What stands in front of the list of indicators.
struct TarnBcGetSpecialIndicatorCfmS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint32_t count; ///< of the `TarnBcSpecialIndicatorS` that follow
};
template <> struct BciRecord<TarnBcGetSpecialIndicatorCfmS> {
    static constexpr std::uint32_t number = TARN_BC_GET_SPECIAL_INDICATOR_CFM;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcGetSpecialIndicatorCfmS::count};
    static_assert(size == 16 && sizeof(TarnBcGetSpecialIndicatorCfmS) == size);
};
static_assert(offsetof(TarnBcGetSpecialIndicatorCfmS, count) == 12);

/// Bytes of an indicator's name, the terminator included.
inline constexpr unsigned int BCI_INDICATOR_NAME_SIZE = 128;

struct TarnBcSpecialIndicatorS {
    unsigned char name[BCI_INDICATOR_NAME_SIZE];
    std::uint16_t state;
    std::uint16_t reserved130;
};
static_assert(offsetof(TarnBcSpecialIndicatorS, state) == 128 && sizeof(TarnBcSpecialIndicatorS) == 132);

using TarnBcGetSpecialIndicatorRejS = TarnBcRejS<TARN_BC_GET_SPECIAL_INDICATOR_REJ>;
