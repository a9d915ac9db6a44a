#pragma once

#include "bci/bciFaults.h"
#include "faultData.h"
#include "merlowComponent.h"

#include <cstdint>
#include <iosfwd>
#include <set>
#include <vector>

/// One subscription: a client may hold several that differ in their references.
struct BcFaultSubscriber {
    std::uint32_t mboxId;
    std::uint32_t clientRef;
    std::uint32_t serverRef;

    [[nodiscard]] TarnNodeCommonAddressInfoS addressInfo() const
    {
        return {.clientRef = static_cast<std::int32_t>(clientRef),
                .serverRef = static_cast<std::int32_t>(serverRef)};
    }
    bool operator==(const BcFaultSubscriber&) const = default;
};

/// "BcFaultSubscriber: mboxId = 0x1a, clientRef = 7, serverRef = 300".
std::ostream& operator<<(std::ostream& out, const BcFaultSubscriber& subscriber);

/// Brings faults to clients: holds their subscriptions and is the fault manager's one consumer.
///
///   TARN_BC_SUBSCRIBE_FAULTS_REQ -> TARN_BC_SUBSCRIBE_FAULTS_CFM, then what is shown now
///   TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REQ -> TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_CFM
///   TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_REQ -> TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_CFM
///   the fault manager's raise, cease -> TARN_BC_FAULT_IND, TARN_BC_FAULTCEASE_IND to each default subscriber
///
/// The other two kinds of subscription are confirmed and carry no traffic yet. A subscriber leaves the
/// default list for the one with labels, and does not come back.
///
/// A lost session takes one default subscription with it. What else its client has is kept, since that may be
/// alive and see the difference, until its mailbox is gone. Server thread only.
class MerlowFaultHandling : public MerlowComponent {
public:
    using MerlowComponent::MerlowComponent;

    bool init() override;
    void onBcSessionLost(const BcSession& session) override;

    /// All subscriptions that are held, of all kinds.
    [[nodiscard]] std::size_t getNumSubscribers() const;

private:
    using Subscribers = std::vector<BcFaultSubscriber>;

    void handleSubscribeFaultsReq(const std::shared_ptr<mnet_msg>& msg);
    void handleSubscribeHwFaultLabelReq(const std::shared_ptr<mnet_msg>& msg);
    void handleSubscribeRecoveryTimeFaultsReq(const std::shared_ptr<mnet_msg>& msg);
    void handleSubscriberLost(const std::shared_ptr<mnet_msg>& msg);
    void handleRaisedFault(const Merlow::FaultData& data, unsigned int mbox) const;
    void handleCeasedFault(const Merlow::FaultData& data) const;

    [[nodiscard]] BcFaultSubscriber getFaultSubscriber(const TarnNodeCommonAddressInfoS& addressInfo,
                                                       unsigned int sender) const;
    /// False without a session of the subscriber's mailbox. An equal subscriber counts as added.
    bool addSubscriber(Subscribers& subscribers, const BcFaultSubscriber& subscriber) const;
    /// True, and a trace, when the subscriber has the subscription with labels: the request is ignored.
    [[nodiscard]] bool isIgnored(const BcFaultSubscriber& subscriber, std::uint32_t msgNo) const;
    void traceNotConnected(const BcFaultSubscriber& subscriber, std::uint32_t msgNo) const;
    template <class Cfm> void sendTarnBcSubscribeCfm(const BcFaultSubscriber& subscriber) const;
    void traceFaultInd(const TarnBcFaultIndS& ind) const;
    void traceFaultInd(const TarnBcFaultceaseIndS& ind) const;
    /// Lets go of what the mailbox still has when it is gone.
    void watch(mnet_mbox_id_t mbox);

    Subscribers m_defaultSubscribers;
    Subscribers m_hwFaultLabelSubscribers;
    Subscribers m_recoveryTimeSubscribers;
    std::set<mnet_mbox_id_t> m_watched; ///< subscribers' mailboxes whose session has gone
};
