/// Signals that select the MMI mode.
#pragma once

#include "bci/bciCommon.h"

struct TarnBcSelectMmiReqS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint32_t mmiMode; ///< 1 is the one mode that exists
};
template <> struct BciRecord<TarnBcSelectMmiReqS> {
    static constexpr std::uint32_t number = TARN_BC_SELECT_MMI_REQ;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcSelectMmiReqS::mmiMode};
};
static_assert(offsetof(TarnBcSelectMmiReqS, mmiMode) == 12);

using TarnBcSelectMmiCfmS = TarnBcPlainS<TARN_BC_SELECT_MMI_CFM>;
using TarnBcSelectMmiRejS = TarnBcRejS<TARN_BC_SELECT_MMI_REJ>;
