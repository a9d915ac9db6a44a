#pragma once

#include "bci/bciRecord.h"

#include <functional>
#include <memory>

namespace Merlow::BbBci {

/// Asks another board controller to enable operation. See `BbbciConnEstablish` for what all procedures share.
///
///   TARN_BC_ENABLE_OPERATION_REQ -> TARN_BC_ENABLE_OPERATION_CFM
///                                -> TARN_BC_ENABLE_OPERATION_REJ
class __attribute__((visibility("default"))) BbBciEnableOperation {
public:
    using CfmReceivedHandler = std::function<void()>;
    using RejReceivedHandler = std::function<void()>;

    BbBciEnableOperation();
    ~BbBciEnableOperation();
    BbBciEnableOperation(const BbBciEnableOperation&) = delete;
    BbBciEnableOperation& operator=(const BbBciEnableOperation&) = delete;

    void initialize();
    void removeMessageHandlers() const;

    /// A second send replaces the callbacks of the first.
    void sendEnableOperationReq(mnet_mbox_id_t mbox, const TarnNodeCommonAddressInfoS& address,
                                const CfmReceivedHandler& cfm, const RejReceivedHandler& rej);

private:
    void handleEnableOperationCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleEnableOperationRej(const std::shared_ptr<mnet_msg>& msg);

    CfmReceivedHandler m_cfm;
    RejReceivedHandler m_rej;
};

} // namespace Merlow::BbBci
