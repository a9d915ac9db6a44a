#pragma once

#include "bci/bciRecord.h"
#include "faultManagerIf.h"

#include <functional>
#include <memory>

namespace Merlow::BbBci {

/// Subscribes to the faults of another board controller and reports them to a fault manager with the source
/// BB_BCI. See `BbbciConnEstablish` for what all procedures share.
///
///   TARN_BC_SUBSCRIBE_FAULTS_REQ -> TARN_BC_SUBSCRIBE_FAULTS_CFM, then TARN_BC_FAULT_IND and
///                                   TARN_BC_FAULTCEASE_IND until the connection ends
///                                -> TARN_BC_SUBSCRIBE_FAULTS_REJ
///
/// Faults that the fault manager refuses are traced and forgotten. A fault that is told twice counts twice:
/// for a new connection take a new fault manager.
class __attribute__((visibility("default"))) BbBciFaults {
public:
    using CfmReceivedHandler = std::function<void()>;
    using RejReceivedHandler = std::function<void()>;

    /// `faultManager` must outlive the object and belong to the same thread.
    explicit BbBciFaults(FaultManagerIf& faultManager);
    ~BbBciFaults();
    BbBciFaults(const BbBciFaults&) = delete;
    BbBciFaults& operator=(const BbBciFaults&) = delete;

    void initialize();
    /// Those of the confirm and the reject; faults still come in.
    void removeInitializationMessageHandlers() const;
    void removeMessageHandlers() const;

    void sendSubscribeFaultsReq(mnet_mbox_id_t mbox, const TarnNodeCommonAddressInfoS& address,
                                const CfmReceivedHandler& cfm, const RejReceivedHandler& rej);

private:
    void handleSubscribeFaultsCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleSubscribeFaultsRej(const std::shared_ptr<mnet_msg>& msg);
    void handleFaultInd(const std::shared_ptr<mnet_msg>& msg);
    void handleFaultCeaseInd(const std::shared_ptr<mnet_msg>& msg);

    CfmReceivedHandler m_cfm;
    RejReceivedHandler m_rej;
    FaultManagerIf& m_faultManager;
};

} // namespace Merlow::BbBci
