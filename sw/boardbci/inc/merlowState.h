#pragma once

#include "bci/bciState.h"
#include "merlowComponent.h"

/// Each client's own view of its session: starting, operational, disabled. Nobody else reads it, and only a
/// new session leads out of disabled.
///
///   TARN_BC_AUDIT_REQ             -> TARN_BC_AUDIT_CFM
///   TARN_BC_ENABLE_OPERATION_REQ  -> TARN_BC_ENABLE_OPERATION_CFM or _REJ
///   TARN_BC_DISABLE_OPERATION_REQ -> TARN_BC_DISABLE_OPERATION_CFM or _REJ
///
/// Keeps nothing: the state lives in the session. Server thread only.
class MerlowState : public MerlowComponent {
public:
    using MerlowComponent::MerlowComponent;
    bool init() override;

private:
    void handleAuditReq(const std::shared_ptr<mnet_msg>& msg);
    void handleEnableOperationReq(const std::shared_ptr<mnet_msg>& msg);
    void handleDisableOperationReq(const std::shared_ptr<mnet_msg>& msg);

    void sendEnableOperationCfm(const BrhClient::ProcedureTransaction& transaction) const;
    void sendEnableOperationRej(const BrhClient::ProcedureTransaction& transaction,
                                const std::string& currentStateName) const;
    void sendDisableOperationCfm(const BrhClient::ProcedureTransaction& transaction) const;
    void sendDisableOperationRej(const BrhClient::ProcedureTransaction& transaction,
                                 const std::string& currentStateName) const;

    /// The sender's session; null, and a trace, when it has none.
    [[nodiscard]] BcSession* sessionOf(const mnet_msg& msg) const;
};
