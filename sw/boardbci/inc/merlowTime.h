#pragma once

#include "merlowComponent.h"

/// UTC time. Makes each session a time source of the board, and hands the client's time on under that source.
///
///   new session -> bri::RegisterUtcTimeSourceReq; its answer lets the client have its connection confirmed
///   TARN_BC_SET_UTC_TIME_REQ -> bri::SetUtcTimeReq -> TARN_BC_SET_UTC_TIME_CFM
///                                                  -> TARN_BC_SET_UTC_TIME_REJ
///   session lost -> bri::UnregisterUtcTimeSourceReq
///
/// Keeps the source's reference in the session and nothing else. A transaction ends with its answer. Server
/// thread only.
class MerlowTime : public MerlowComponent {
public:
    using MerlowComponent::MerlowComponent;

    bool init() override;
    void onNewBcSession(const BcSession& session) override;
    void onBcSessionLost(const BcSession& session) override;

private:
    void handleSetUtcTimeReq(const std::shared_ptr<mnet_msg>& msg);
    void handleSetUtcTimeCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleSetUtcTimeRej(const std::shared_ptr<mnet_msg>& msg);
    void handleRegisterUtcTimeSourceCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleRegisterUtcTimeSourceRej(const std::shared_ptr<mnet_msg>& msg);
    void handleUnregisterUtcTimeSourceCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleUnregisterUtcTimeSourceRej(const std::shared_ptr<mnet_msg>& msg);

    /// The transaction, gone from the map; nothing, and a trace that names the answer, when there is none.
    [[nodiscard]] std::optional<BrhClient::ProcedureTransaction> takeTransaction(unsigned int procedureRef,
                                                                                 const char* answer) const;
    /// Null, and a trace, when the session has gone.
    [[nodiscard]] BcSession* findSession(const BrhClient::ProcedureTransaction& transaction) const;
};
