#pragma once

#include "merlowComponent.h"

/// The unit's maintenance state. Translates between the numbers of both sides; the state itself and what is
/// allowed lie with the BMMI server.
///
///   TARN_BC_SET_MAINT_STATE_REQ -> bmmi::SetMaintStateReq -> TARN_BC_SET_MAINT_STATE_CFM
///                                                         -> TARN_BC_SET_MAINT_STATE_REJ
///   TARN_BC_SUBSCRIBE_MAINT_STATE_REQ -> bmmi::SubscribeMaintStateReq -> TARN_BC_SUBSCRIBE_MAINT_STATE_CFM
///                                                                     -> TARN_BC_SUBSCRIBE_MAINT_STATE_REJ
///   bmmi::MaintStateInd -> TARN_BC_SET_MAINT_STATE_IND
///
/// Only registered MMI users are served. The transaction of a confirmed subscription stays, since indications
/// come under its procedure reference; the session notes the first one, which goes with the session. Server
/// thread only.
class MerlowMaintState : public MerlowComponent {
public:
    using MerlowComponent::MerlowComponent;

    bool init() override;
    void onBcSessionLost(const BcSession& session) override;

private:
    using Transaction = BrhClient::ProcedureTransaction;

    void handleSetMaintStateReq(const std::shared_ptr<mnet_msg>& msg);
    void handleSubscribeMaintStateReq(const std::shared_ptr<mnet_msg>& msg);
    void handleSetMaintStateCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleSetMaintStateRej(const std::shared_ptr<mnet_msg>& msg);
    void handleSubscribeMaintStateCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleSubscribeMaintStateRej(const std::shared_ptr<mnet_msg>& msg);
    void handleMaintStateInd(const std::shared_ptr<mnet_msg>& msg);

    void sendSetMaintStateRej(const Transaction& transaction, unsigned int errorCode,
                              const std::string& description) const;

    /// Null, and a trace that says what is ignored, when the mailbox has no session.
    [[nodiscard]] BcSession* findSession(mnet_mbox_id_t mailbox, const char* ignored) const;
    /// False, and a trace, when the session is no MMI user.
    [[nodiscard]] static bool isMmiUser(const BcSession& session);
};
