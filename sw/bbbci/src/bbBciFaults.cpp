#include "bbBciFaults.h"

#include "bbBciFaultRecords.h"
#include "bbBciProcedure.h"

namespace Merlow::BbBci {

BbBciFaults::BbBciFaults(FaultManagerIf& faultManager) : m_faultManager(faultManager) {}

BbBciFaults::~BbBciFaults()
{
    removeMessageHandlers();
}

void BbBciFaults::initialize()
{
    TP_ENTERING();
    onSignal(this, TARN_BC_SUBSCRIBE_FAULTS_CFM, &BbBciFaults::handleSubscribeFaultsCfm);
    onSignal(this, TARN_BC_SUBSCRIBE_FAULTS_REJ, &BbBciFaults::handleSubscribeFaultsRej);
    onSignal(this, TARN_BC_FAULT_IND, &BbBciFaults::handleFaultInd);
    onSignal(this, TARN_BC_FAULTCEASE_IND, &BbBciFaults::handleFaultCeaseInd);
}

void BbBciFaults::removeInitializationMessageHandlers() const
{
    removeHandlers({TARN_BC_SUBSCRIBE_FAULTS_CFM, TARN_BC_SUBSCRIBE_FAULTS_REJ});
}

void BbBciFaults::removeMessageHandlers() const
{
    removeInitializationMessageHandlers();
    removeHandlers({TARN_BC_FAULT_IND, TARN_BC_FAULTCEASE_IND});
}

void BbBciFaults::sendSubscribeFaultsReq(mnet_mbox_id_t mbox, const TarnNodeCommonAddressInfoS& address,
                                         const CfmReceivedHandler& cfm, const RejReceivedHandler& rej)
{
    m_cfm = cfm;
    m_rej = rej;
    sendToPeer(answerTo<TarnBcSubscribeFaultsReqS>(address), mbox);
}

void BbBciFaults::handleSubscribeFaultsCfm(const std::shared_ptr<mnet_msg>& msg)
{
    if (receive<TarnBcSubscribeFaultsCfmS>(*msg)) {
        const auto confirmed = m_cfm;
        confirmed();
    }
}

void BbBciFaults::handleSubscribeFaultsRej(const std::shared_ptr<mnet_msg>& msg)
{
    if (const auto rej = receive<TarnBcSubscribeFaultsRejS>(*msg)) {
        traceReject("TARN_BC_SUBSCRIBE_FAULTS_REJ", *rej, *msg);
        const auto rejected = m_rej;
        rejected();
    }
}

void BbBciFaults::handleFaultInd(const std::shared_ptr<mnet_msg>& msg)
{
    const auto ind = readSignal<TarnBcFaultIndS>(*msg);
    if (!ind) {
        return;
    }
    FaultData fault(FaultSource::BB_BCI, ind->faultId, ind->faultCase, Bci::textOf(ind->faultDescription));
    TP_REC_SIG(ind->msgNo, "Received signal TARN_BC_FAULT_IND: "
                               << describe(ind->addressInfo) << ", " << toString(fault)
                               << describeAdditionalData(ind->additionalData, ind->additionalDataLength));
    if (!m_faultManager.addFault(fault)) {
        TP_ERROR("Removing active fault " << ind->faultId << " from bc agent failed");
    }
}

void BbBciFaults::handleFaultCeaseInd(const std::shared_ptr<mnet_msg>& msg)
{
    const auto ind = readSignal<TarnBcFaultceaseIndS>(*msg);
    if (!ind) {
        return;
    }
    TP_REC_SIG(ind->msgNo, "Received signal TARN_BC_FAULTCEASE_IND: "
                               << describe(ind->addressInfo) << ", faultId: 0x" << std::hex << ind->faultId
                               << std::dec << ", faultCase: " << ind->faultCase
                               << describeAdditionalData(ind->additionalData, ind->additionalDataLength));
    m_faultManager.removeFault(ind->faultId);
}

} // namespace Merlow::BbBci
