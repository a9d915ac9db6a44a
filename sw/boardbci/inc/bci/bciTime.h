/// Signals of the UTC time service.
#pragma once

#include "bci/bciCommon.h"

struct TarnBcSetUtcTimeReqS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint32_t utcTime; ///< passed on unchanged
};
template <> struct BciRecord<TarnBcSetUtcTimeReqS> {
    static constexpr std::uint32_t number = TARN_BC_SET_UTC_TIME_REQ;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcSetUtcTimeReqS::utcTime};
};
static_assert(offsetof(TarnBcSetUtcTimeReqS, utcTime) == 12);

using TarnBcSetUtcTimeCfmS = TarnBcPlainS<TARN_BC_SET_UTC_TIME_CFM>;
using TarnBcSetUtcTimeRejS = TarnBcRejS<TARN_BC_SET_UTC_TIME_REJ>;
