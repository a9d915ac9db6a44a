#pragma once

#include "merlowComponent.h"

/// Here I Am: the unit makes itself seen. A client subscribes to the state, and may order it from then on.
///
///   TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_REQ -> bmmi::SubscribeHereIAmStateReq
///                                         -> TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_CFM
///                                         -> TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_REJ
///   TARN_BC_ORDE_HERE_I_AM_REQ -> bmmi::OrderHereIAmReq -> TARN_BC_ORDE_HERE_I_AM_CFM
///                                                       -> TARN_BC_ORDE_HERE_I_AM_REJ
///   bmmi::HereIAmStateInd -> TARN_BC_HERE_I_AM_STATE_IND
///
/// Only registered MMI users are served. One BMMI procedure spans it all: the subscription's transaction
/// stays until its session is lost, orders and indications travel under its procedure reference, and every
/// answer carries the references of the subscribe request. Server thread only.
class MerlowHereIAm : public MerlowComponent {
public:
    using MerlowComponent::MerlowComponent;

    bool init() override;
    void onBcSessionLost(const BcSession& session) override;

private:
    using Transaction = BrhClient::ProcedureTransaction;

    void handleSubscribeHereIAmStateReq(const std::shared_ptr<mnet_msg>& msg);
    void handleSubscribeHereIAmStateCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleSubscribeHereIAmStateRej(const std::shared_ptr<mnet_msg>& msg);
    void handleHereIAmStateInd(const std::shared_ptr<mnet_msg>& msg);
    void handleOrderHereIAmReq(const std::shared_ptr<mnet_msg>& msg);
    void handleOrderHereIAmCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleOrderHereIAmRej(const std::shared_ptr<mnet_msg>& msg);

    void sendSubscribeHereIAmStateRej(const Transaction& transaction, const std::string& text) const;
    void sendOrderHereIAmRej(const Transaction& transaction, const std::string& text) const;

    /// Null, and a trace that names the answer, when the transaction's client has no session any more.
    [[nodiscard]] BcSession* findSession(const Transaction& transaction, const char* answer) const;
};
