/// Signals of restarts.
#pragma once

#include "bci/bciCommon.h"

/// Up to its text of free length, `reasonForRestart`, which ends with its NUL or with the signal.
struct TarnBcNotifyRestartReqS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::uint32_t notifyValue; ///< passed on unchanged
};
template <> struct BciRecord<TarnBcNotifyRestartReqS> {
    static constexpr std::uint32_t number = TARN_BC_NOTIFY_RESTART_REQ;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcNotifyRestartReqS::notifyValue};
    static_assert(size == sizeof(TarnBcNotifyRestartReqS));
};
static_assert(offsetof(TarnBcNotifyRestartReqS, notifyValue) == 12);

using TarnBcNotifyRestartCfmS = TarnBcPlainS<TARN_BC_NOTIFY_RESTART_CFM>;
using TarnBcNotifyRestartRejS = TarnBcRejS<TARN_BC_NOTIFY_RESTART_REJ>;

/// Up to its text of free length, the trace information, which ends with its NUL or with the signal.
using TarnBcRestartBoardFwdS = TarnBcPlainS<TARN_BC_RESTART_BOARD_FWD>;

/// Up to its text of free length, the label, which ends with its NUL or with the signal.
struct TarnBcRestartBoardWithRankAndLabelFwdS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::int16_t restartCode;
    std::int16_t restartRank; ///< 1 to 5
    char traceInfo[140];
};
template <> struct BciRecord<TarnBcRestartBoardWithRankAndLabelFwdS> {
    static constexpr std::uint32_t number = TARN_BC_RESTART_BOARD_WITH_RANK_AND_LABEL_FWD;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcRestartBoardWithRankAndLabelFwdS::restartCode,
                                              &TarnBcRestartBoardWithRankAndLabelFwdS::restartRank};
    static_assert(size == sizeof(TarnBcRestartBoardWithRankAndLabelFwdS));
};
static_assert(offsetof(TarnBcRestartBoardWithRankAndLabelFwdS, restartCode) == 12);
static_assert(offsetof(TarnBcRestartBoardWithRankAndLabelFwdS, restartRank) == 14);
static_assert(offsetof(TarnBcRestartBoardWithRankAndLabelFwdS, traceInfo) == 16);

/// From the legacy server, on to the client.
struct TarnBcRestartBoardNotificationIndS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::int16_t restartCode;
    std::uint16_t field14;
    std::uint16_t initiatorFlag; ///< 0: the client itself ordered the restart
    unsigned char rest[162];     ///< passed on as it is
};
template <> struct BciRecord<TarnBcRestartBoardNotificationIndS> {
    static constexpr std::uint32_t number = TARN_BC_RESTART_BOARD_NOTIFICATION_IND;
    static constexpr std::size_t size = bciSizeOf(number);
    static constexpr auto fields = std::tuple{&TarnBcRestartBoardNotificationIndS::restartCode,
                                              &TarnBcRestartBoardNotificationIndS::field14,
                                              &TarnBcRestartBoardNotificationIndS::initiatorFlag};
    static_assert(size == sizeof(TarnBcRestartBoardNotificationIndS));
};
static_assert(offsetof(TarnBcRestartBoardNotificationIndS, restartCode) == 12);
static_assert(offsetof(TarnBcRestartBoardNotificationIndS, field14) == 14);
static_assert(offsetof(TarnBcRestartBoardNotificationIndS, initiatorFlag) == 16);
static_assert(offsetof(TarnBcRestartBoardNotificationIndS, rest) == 18);
