#pragma once

#include "merlowComponent.h"

/// MMI users. Makes each session a user of the BMMI server, and answers the selection of the MMI mode.
///
///   new session -> bmmi::RegisterMmiUserReq; its answer lets the client have its connection confirmed
///   TARN_BC_SELECT_MMI_REQ -> TARN_BC_SELECT_MMI_CFM
///                          -> TARN_BC_SELECT_MMI_REJ
///   session lost -> bmmi::UnregisterMmiUserReq
///
/// Keeps the user's id in the session and nothing else. A transaction ends with its answer. Server thread
/// only.
class MerlowMmiHandling : public MerlowComponent {
public:
    using MerlowComponent::MerlowComponent;

    bool init() override;
    void onNewBcSession(const BcSession& session) override;
    void onBcSessionLost(const BcSession& session) override;

private:
    void handleSelectMmiReq(const std::shared_ptr<mnet_msg>& msg);
    void handleRegisterMmiUserCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleRegisterMmiUserRej(const std::shared_ptr<mnet_msg>& msg);
    void handleUnregisterMmiUserCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleUnregisterMmiUserRej(const std::shared_ptr<mnet_msg>& msg);

    /// The session whose registration was answered, its transaction gone from the map; null, and a trace that
    /// names the answer, when there is no such transaction or no session any more.
    [[nodiscard]] BcSession* findRegisteringSession(unsigned int procedureRef, const char* answer) const;
};
