#include "merlowMmiHandling.h"

#include "bci/bciMmi.h"
#include "bmmi.pb.h"

namespace bmmi = boardresourcehandler::bmmi;

namespace {

constexpr std::uint32_t ONLY_MMI_MODE = 1;

} // namespace

bool MerlowMmiHandling::init()
{
    onSignal(TARN_BC_SELECT_MMI_REQ, &MerlowMmiHandling::handleSelectMmiReq);
    BrhClient& bmmiClient = m_commonData.getBmmiClient();
    onFrame<bmmi::RegisterMmiUserCfm>(bmmiClient, &MerlowMmiHandling::handleRegisterMmiUserCfm);
    onFrame<bmmi::RegisterMmiUserRej>(bmmiClient, &MerlowMmiHandling::handleRegisterMmiUserRej);
    onFrame<bmmi::UnregisterMmiUserCfm>(bmmiClient, &MerlowMmiHandling::handleUnregisterMmiUserCfm);
    onFrame<bmmi::UnregisterMmiUserRej>(bmmiClient, &MerlowMmiHandling::handleUnregisterMmiUserRej);
    return true;
}

void MerlowMmiHandling::handleSelectMmiReq(const std::shared_ptr<mnet_msg>& msg)
{
    const mnet_mbox_id_t client = mnet_sender(msg.get());
    if (m_commonData.getClientSession(client) == nullptr) {
        SCRY_TRACE(4, "ABN: No BC session found for mailbox ID: " << client
                                                                  << ". Ignoring TarnBcSelectMmiReqS.");
        return;
    }
    const auto req = readSignal<TarnBcSelectMmiReqS>(*msg);
    if (!req) {
        return;
    }
    if (req->mmiMode == ONLY_MMI_MODE) {
        sendToClient(client, answerTo<TarnBcSelectMmiCfmS>(req->addressInfo));
        return;
    }
    auto rej = answerTo<TarnBcSelectMmiRejS>(req->addressInfo);
    rej.errorCode = 1;
    copyStringToClearedArray(rej.errorDescription, sizeof(rej.errorDescription), "Unsupported MMI mode");
    sendToClient(client, rej);
}

void MerlowMmiHandling::onNewBcSession(const BcSession& session)
{
    bmmi::RegisterMmiUserReq bmmiReq;
    bmmiReq.set_priority(bmmi::RegisterMmiUserReq::NORMAL);
    BrhClient& bmmiClient = m_commonData.getBmmiClient();
    if (const auto procedureRef = bmmiClient.sendMessage(bmmiReq)) {
        bmmiClient.addProcedureTransaction(
            transactionOf(session, procedureRef, bmmi::RegisterMmiUserReq::MESSAGE_NUMBER));
    }
}

void MerlowMmiHandling::onBcSessionLost(const BcSession& session)
{
    bmmi::UnregisterMmiUserReq bmmiReq;
    bmmiReq.set_mmi_user_id(session.getMmiUserId());
    m_commonData.getBmmiClient().sendMessage(bmmiReq);
}

BcSession* MerlowMmiHandling::findRegisteringSession(unsigned int procedureRef, const char* answer) const
{
    const auto transaction = findBmmiTransaction(procedureRef, answer);
    if (!transaction) {
        return nullptr;
    }
    m_commonData.getBmmiClient().removeTransactionProcedure(procedureRef);
    BcSession* session = m_commonData.getClientSession(transaction->clientMbox);
    if (session == nullptr) {
        SCRY_TRACE(4, "ABN: No BC session found for mailbox ID: " << transaction->clientMbox << ". Ignoring "
                                                                  << answer << ".");
    }
    return session;
}

void MerlowMmiHandling::handleRegisterMmiUserCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto bmmiCfm = readFrame<bmmi::RegisterMmiUserCfm>(*msg);
    if (!bmmiCfm) {
        return;
    }
    BcSession* session = findRegisteringSession(bmmiCfm->procedureRef, "RegisterMmiUserCfm");
    if (session == nullptr) {
        return;
    }
    if (!bmmiCfm->message.has_mmi_user_id()) {
        SCRY_TRACE(4, "ABN: RegisterMmiUserCfm did not have a user ID");
        return;
    }
    session->setMmiUserId(bmmiCfm->message.mmi_user_id());
    session->setMmiUserRegisterReqResponded(true);
    if (m_sendConnCfm) {
        m_sendConnCfm(*session);
    }
}

void MerlowMmiHandling::handleRegisterMmiUserRej(const std::shared_ptr<mnet_msg>& msg)
{
    const auto bmmiRej = readFrame<bmmi::RegisterMmiUserRej>(*msg);
    if (!bmmiRej) {
        return;
    }
    BcSession* session = findRegisteringSession(bmmiRej->procedureRef, "RegisterMmiUserRej");
    if (session == nullptr) {
        return;
    }
    session->setMmiUserRegisterReqResponded(true);
    if (m_sendConnCfm) {
        m_sendConnCfm(*session);
    }
}

void MerlowMmiHandling::handleUnregisterMmiUserCfm(const std::shared_ptr<mnet_msg>& /*msg*/)
{
    SCRY_OBJ_TRACE(5, "MerlowMmiHandling:handleUnregisterMmiUserCfm()");
}

void MerlowMmiHandling::handleUnregisterMmiUserRej(const std::shared_ptr<mnet_msg>& /*msg*/)
{
    SCRY_OBJ_TRACE(5, "MerlowMmiHandling:handleUnregisterMmiUserRej()");
}
