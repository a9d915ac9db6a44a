#include "bbBciHwFaultLabel.h"

#include "bbBciFaultRecords.h"
#include "bbBciProcedure.h"

namespace Merlow::BbBci {

BbBciHwFaultLabel::BbBciHwFaultLabel(FaultManagerIf& faultManager) : m_faultManager(faultManager) {}

BbBciHwFaultLabel::~BbBciHwFaultLabel()
{
    removeMessageHandlers();
}

void BbBciHwFaultLabel::initialize()
{
    TP_ENTERING();
    onSignal(this, TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_CFM,
             &BbBciHwFaultLabel::handleSubscribeHwFaultLabelCfm);
    onSignal(this, TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REJ,
             &BbBciHwFaultLabel::handleSubscribeHwFaultLabelRej);
    onSignal(this, TARN_BC_FAULT_WITH_RECOVERY_TIME_AND_HW_FAULT_LABEL_IND,
             &BbBciHwFaultLabel::handleHwFaultLabelInd);
}

void BbBciHwFaultLabel::removeInitializationMessageHandlers() const
{
    removeHandlers(
        {TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_CFM, TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REJ});
}

void BbBciHwFaultLabel::removeMessageHandlers() const
{
    removeInitializationMessageHandlers();
    removeHandlers({TARN_BC_FAULT_WITH_RECOVERY_TIME_AND_HW_FAULT_LABEL_IND});
}

void BbBciHwFaultLabel::sendSubscribeHwFaultLabelReq(mnet_mbox_id_t mbox,
                                                     const TarnNodeCommonAddressInfoS& address,
                                                     const CfmReceivedHandler& cfm,
                                                     const RejReceivedHandler& rej)
{
    m_cfm = cfm;
    m_rej = rej;
    sendToPeer(answerTo<TarnBcSubscribeFaultsWithHwFaultLabelReqS>(address), mbox);
}

void BbBciHwFaultLabel::handleSubscribeHwFaultLabelCfm(const std::shared_ptr<mnet_msg>& msg)
{
    if (receive<TarnBcSubscribeFaultsWithHwFaultLabelCfmS>(*msg)) {
        const auto confirmed = m_cfm;
        confirmed();
    }
}

void BbBciHwFaultLabel::handleSubscribeHwFaultLabelRej(const std::shared_ptr<mnet_msg>& msg)
{
    if (const auto rej = receive<TarnBcSubscribeFaultsWithHwFaultLabelRejS>(*msg)) {
        // Logs are searched for the one name that the rejects of both subscriptions have always had.
        traceReject("TARN_BC_SUBSCRIBE_FAULTS_REJ", *rej, *msg);
        const auto rejected = m_rej;
        rejected();
    }
}

void BbBciHwFaultLabel::handleHwFaultLabelInd(const std::shared_ptr<mnet_msg>& msg)
{
    using Ind = TarnBcFaultWithRecoveryTimeAndHwFaultLabelIndS;
    const auto ind = readSignal<Ind>(*msg);
    if (!ind) {
        return;
    }
    FaultData fault(FaultSource::BB_BCI, ind->faultId, ind->faultCase, Bci::textOf(ind->faultDescription),
                    ind->recoveryTime, textBehind<Ind>(*msg));
    TP_REC_SIG(ind->msgNo, "Received signal TARN_BC_FAULT_WITH_RECOVERY_TIME_AND_HW_FAULT_LABEL_IND: "
                               << describe(ind->addressInfo) << ", " << toString(fault)
                               << describeAdditionalData(ind->additionalData, ind->additionalDataLength));
    if (!m_faultManager.addFault(fault)) {
        TP_ERROR("active fault 0x" << std::hex << ind->faultId << " from BB-BCI added failed");
    }
}

} // namespace Merlow::BbBci
