#pragma once

#include "merlowComponent.h"

#include <cstdint>
#include <string>
#include <vector>

/// Restarts of the board: carries orders to BRI, and marks the notification for the client that gave one.
///
///   TARN_BC_RESTART_BOARD_FWD, TARN_BC_RESTART_BOARD_WITH_RANK_AND_LABEL_FWD -> bri::RestartBoardFwd
///   TARN_BC_RESTART_BOARD_NOTIFICATION_IND, from the legacy server -> the same, to the client
///   TARN_BC_NOTIFY_RESTART_REQ -> TARN_BC_NOTIFY_RESTART_CFM
///                              -> TARN_BC_NOTIFY_RESTART_REJ
///
/// An order has no answer: the notification is its only sign. Who gave one is kept for good, as a restart can
/// take its time. Server thread only.
class MerlowRestart : public MerlowComponent {
public:
    /// Of all that gave an order only so many that differ are kept, those with the latest orders.
    static constexpr std::size_t maxPendingRestartInitiators = 1024;

    using MerlowComponent::MerlowComponent;

    bool init() override;

private:
    struct PendingRestartInitiatorS {
        std::int32_t clientRef;
        std::int32_t serverRef;
        std::int16_t restartCode;

        bool operator==(const PendingRestartInitiatorS&) const = default;
    };

    void handleNotifyRestartReq(const std::shared_ptr<mnet_msg>& msg);
    void handleRestartBoardFwd(const std::shared_ptr<mnet_msg>& msg);
    void handleRestartBoardRankLabelFwd(const std::shared_ptr<mnet_msg>& msg);
    void handleRestartBoardNotificationInd(const std::shared_ptr<mnet_msg>& msg);

    void addPendingRestartInitiator(const PendingRestartInitiatorS& initiator);
    /// What BRI has announced of the ranks that it can restart with.
    [[nodiscard]] std::uint32_t supportedRestartRanks() const;

    std::vector<PendingRestartInitiatorS> m_pendingRestartInitiators; ///< the latest order last
    bool m_initiatorCapTraced{false};
};
