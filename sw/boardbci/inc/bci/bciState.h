/// Signals of a session's operational state.
#pragma once

#include "bci/bciCommon.h"

using TarnBcAuditReqS = TarnBcPlainS<TARN_BC_AUDIT_REQ>;

struct TarnBcAuditCfmS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint16_t state; ///< 0 starting, 1 operational, 2 disabled
    std::uint16_t unset14;
};
template <> struct BciRecord<TarnBcAuditCfmS> {
    static constexpr std::uint32_t number = TARN_BC_AUDIT_CFM;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcAuditCfmS::state};
};
static_assert(offsetof(TarnBcAuditCfmS, state) == 12);

using TarnBcEnableOperationReqS = TarnBcPlainS<TARN_BC_ENABLE_OPERATION_REQ>;
using TarnBcEnableOperationCfmS = TarnBcPlainS<TARN_BC_ENABLE_OPERATION_CFM>;
using TarnBcEnableOperationRejS = TarnBcRejS<TARN_BC_ENABLE_OPERATION_REJ>;

using TarnBcDisableOperationReqS = TarnBcPlainS<TARN_BC_DISABLE_OPERATION_REQ>;
using TarnBcDisableOperationCfmS = TarnBcPlainS<TARN_BC_DISABLE_OPERATION_CFM>;
using TarnBcDisableOperationRejS = TarnBcRejS<TARN_BC_DISABLE_OPERATION_REJ>;
