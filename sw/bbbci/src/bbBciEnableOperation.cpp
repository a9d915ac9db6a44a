#include "bbBciEnableOperation.h"

#include "bbBciProcedure.h"
#include "bci/bciState.h"

namespace Merlow::BbBci {

BbBciEnableOperation::BbBciEnableOperation() = default;

BbBciEnableOperation::~BbBciEnableOperation()
{
    removeMessageHandlers();
}

void BbBciEnableOperation::initialize()
{
    TP_ENTERING();
    onSignal(this, TARN_BC_ENABLE_OPERATION_CFM, &BbBciEnableOperation::handleEnableOperationCfm);
    onSignal(this, TARN_BC_ENABLE_OPERATION_REJ, &BbBciEnableOperation::handleEnableOperationRej);
}

void BbBciEnableOperation::removeMessageHandlers() const
{
    removeHandlers({TARN_BC_ENABLE_OPERATION_CFM, TARN_BC_ENABLE_OPERATION_REJ});
}

void BbBciEnableOperation::sendEnableOperationReq(mnet_mbox_id_t mbox,
                                                  const TarnNodeCommonAddressInfoS& address,
                                                  const CfmReceivedHandler& cfm,
                                                  const RejReceivedHandler& rej)
{
    m_cfm = cfm;
    m_rej = rej;
    sendToPeer(answerTo<TarnBcEnableOperationReqS>(address), mbox);
}

void BbBciEnableOperation::handleEnableOperationCfm(const std::shared_ptr<mnet_msg>& msg)
{
    if (receive<TarnBcEnableOperationCfmS>(*msg)) {
        const auto confirmed = m_cfm;
        confirmed();
    }
}

void BbBciEnableOperation::handleEnableOperationRej(const std::shared_ptr<mnet_msg>& msg)
{
    if (const auto rej = receive<TarnBcEnableOperationRejS>(*msg)) {
        traceReject("TARN_BC_ENABLE_OPERATION_REJ", *rej, *msg);
        const auto rejected = m_rej;
        rejected();
    }
}

} // namespace Merlow::BbBci
