#pragma once

#include "bci/bciRecord.h"
#include "faultManagerIf.h"

#include <functional>
#include <memory>

namespace Merlow::BbBci {

/// Subscribes to the faults of another board controller in the form that carries a recovery time and the
/// label of the faulty part. See `BbbciConnEstablish` for what all procedures share, `BbBciFaults` for the
/// faults.
///
///   TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REQ -> ..._CFM, then
///                                                       TARN_BC_FAULT_WITH_RECOVERY_TIME_AND_HW_FAULT_LABEL_IND
///                                                    -> ..._REJ
///
/// The ends of these faults come as TARN_BC_FAULTCEASE_IND, which only `BbBciFaults` takes. With the
/// references of another subscription this one would end it at the peer: use a `clientRef` of its own.
class __attribute__((visibility("default"))) BbBciHwFaultLabel {
public:
    using CfmReceivedHandler = std::function<void()>;
    using RejReceivedHandler = std::function<void()>;

    /// `faultManager` must outlive the object and belong to the same thread.
    explicit BbBciHwFaultLabel(FaultManagerIf& faultManager);
    ~BbBciHwFaultLabel();
    BbBciHwFaultLabel(const BbBciHwFaultLabel&) = delete;
    BbBciHwFaultLabel& operator=(const BbBciHwFaultLabel&) = delete;

    void initialize();
    /// Those of the confirm and the reject; faults still come in.
    void removeInitializationMessageHandlers() const;
    void removeMessageHandlers() const;

    void sendSubscribeHwFaultLabelReq(mnet_mbox_id_t mbox, const TarnNodeCommonAddressInfoS& address,
                                      const CfmReceivedHandler& cfm, const RejReceivedHandler& rej);

private:
    void handleSubscribeHwFaultLabelCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleSubscribeHwFaultLabelRej(const std::shared_ptr<mnet_msg>& msg);
    void handleHwFaultLabelInd(const std::shared_ptr<mnet_msg>& msg);

    CfmReceivedHandler m_cfm;
    RejReceivedHandler m_rej;
    FaultManagerIf& m_faultManager;
};

} // namespace Merlow::BbBci
