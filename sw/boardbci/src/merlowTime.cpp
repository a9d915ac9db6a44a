#include "merlowTime.h"

#include "bci/bciTime.h"
#include "bri.pb.h"

namespace bri = boardresourcehandler::bri;

bool MerlowTime::init()
{
    BrhClient& briClient = m_commonData.getBriClient();
    onFrame<bri::RegisterUtcTimeSourceCfm>(briClient, &MerlowTime::handleRegisterUtcTimeSourceCfm);
    onFrame<bri::RegisterUtcTimeSourceRej>(briClient, &MerlowTime::handleRegisterUtcTimeSourceRej);
    onFrame<bri::UnregisterUtcTimeSourceCfm>(briClient, &MerlowTime::handleUnregisterUtcTimeSourceCfm);
    onFrame<bri::UnregisterUtcTimeSourceRej>(briClient, &MerlowTime::handleUnregisterUtcTimeSourceRej);
    onFrame<bri::SetUtcTimeCfm>(briClient, &MerlowTime::handleSetUtcTimeCfm);
    onFrame<bri::SetUtcTimeRej>(briClient, &MerlowTime::handleSetUtcTimeRej);
    onSignal(TARN_BC_SET_UTC_TIME_REQ, &MerlowTime::handleSetUtcTimeReq);
    return true;
}

void MerlowTime::onNewBcSession(const BcSession& session)
{
    bri::RegisterUtcTimeSourceReq briReq;
    briReq.set_accuracy(isGsmServerRef(session.serverRef) ? bri::RegisterUtcTimeSourceReq::REDUCED
                                                          : bri::RegisterUtcTimeSourceReq::NORMAL);
    BrhClient& briClient = m_commonData.getBriClient();
    if (const auto procedureRef = briClient.sendMessage(briReq)) {
        briClient.addProcedureTransaction(
            transactionOf(session, procedureRef, bri::RegisterUtcTimeSourceReq::MESSAGE_NUMBER));
    }
}

void MerlowTime::onBcSessionLost(const BcSession& session)
{
    bri::UnregisterUtcTimeSourceReq briReq;
    briReq.set_utc_time_source_ref(session.getUtcTimeSourceRef());
    m_commonData.getBriClient().sendMessage(briReq);
}

std::optional<BrhClient::ProcedureTransaction> MerlowTime::takeTransaction(unsigned int procedureRef,
                                                                           const char* answer) const
{
    auto transaction = m_commonData.getBriClient().takeTransaction(procedureRef);
    if (!transaction) {
        SCRY_TRACE(1, "No BRI transaction was found for procedureRef: " << procedureRef << ". Ignoring "
                                                                        << answer << ".");
    }
    return transaction;
}

BcSession* MerlowTime::findSession(const BrhClient::ProcedureTransaction& transaction) const
{
    BcSession* session = m_commonData.getClientSession(transaction.clientMbox);
    if (session == nullptr) {
        SCRY_TRACE(4, "ABN: No BC session found for mailbox ID: " << transaction.clientMbox);
    }
    return session;
}

void MerlowTime::handleRegisterUtcTimeSourceCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briCfm = readFrame<bri::RegisterUtcTimeSourceCfm>(*msg);
    if (!briCfm) {
        return;
    }
    const auto transaction = takeTransaction(briCfm->procedureRef, "RegisterUtcTimeSourceCfm");
    if (!transaction) {
        return;
    }
    BcSession* session = findSession(*transaction);
    if (session == nullptr) {
        return;
    }
    if (!briCfm->message.has_utc_time_source_ref()) {
        SCRY_TRACE(4, "ABN: RegisterUtcTimeSourceCfm did not have a time source reference");
        return;
    }
    session->setUtcTimeSourceRef(briCfm->message.utc_time_source_ref());
    session->setTimeSourceRegisterReqResponded(true);
    if (m_sendConnCfm) {
        m_sendConnCfm(*session);
    }
}

void MerlowTime::handleRegisterUtcTimeSourceRej(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briRej = readFrame<bri::RegisterUtcTimeSourceRej>(*msg);
    if (!briRej) {
        return;
    }
    const auto transaction = takeTransaction(briRej->procedureRef, "RegisterUtcTimeSourceRej");
    if (!transaction) {
        return;
    }
    BcSession* session = findSession(*transaction);
    if (session == nullptr) {
        return;
    }
    session->setTimeSourceRegisterReqResponded(true);
    if (m_sendConnCfm) {
        m_sendConnCfm(*session);
    }
}

void MerlowTime::handleUnregisterUtcTimeSourceCfm(const std::shared_ptr<mnet_msg>& /*msg*/)
{
    SCRY_OBJ_TRACE(5, "MerlowTime::handleUnregisterUtcTimeSourceCfm()");
}

void MerlowTime::handleUnregisterUtcTimeSourceRej(const std::shared_ptr<mnet_msg>& /*msg*/)
{
    SCRY_OBJ_TRACE(5, "MerlowTime::handleUnregisterUtcTimeSourceRej()");
}

void MerlowTime::handleSetUtcTimeReq(const std::shared_ptr<mnet_msg>& msg)
{
    const BcSession* session = m_commonData.getClientSession(mnet_sender(msg.get()));
    if (session == nullptr) {
        SCRY_TRACE(4, "ABN: No session for this client exists. Ignoring REQ!");
        return;
    }
    const auto req = readSignal<TarnBcSetUtcTimeReqS>(*msg);
    if (!req) {
        return;
    }
    bri::SetUtcTimeReq briReq;
    briReq.set_utc_time_source_ref(session->getUtcTimeSourceRef());
    briReq.set_utc_time(req->utcTime);
    BrhClient& briClient = m_commonData.getBriClient();
    if (const auto procedureRef = briClient.sendMessage(briReq)) {
        briClient.addProcedureTransaction(
            transactionOf(*req, *msg, procedureRef, bri::SetUtcTimeReq::MESSAGE_NUMBER));
    }
}

void MerlowTime::handleSetUtcTimeCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briCfm = readFrame<bri::SetUtcTimeCfm>(*msg);
    if (!briCfm) {
        return;
    }
    const auto transaction = takeTransaction(briCfm->procedureRef, "SetUtcTimeCfm");
    if (!transaction || findSession(*transaction) == nullptr) {
        return;
    }
    sendToClient(transaction->clientMbox, answerTo<TarnBcSetUtcTimeCfmS>(transaction->addressInfo()));
}

void MerlowTime::handleSetUtcTimeRej(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briRej = readFrame<bri::SetUtcTimeRej>(*msg);
    if (!briRej) {
        return;
    }
    const auto transaction = takeTransaction(briRej->procedureRef, "SetUtcTimeRej");
    if (!transaction || findSession(*transaction) == nullptr) {
        return;
    }
    auto rej = answerTo<TarnBcSetUtcTimeRejS>(transaction->addressInfo());
    rej.errorCode = 1;
    copyStringToClearedArray(rej.errorDescription, sizeof(rej.errorDescription), "Failed to set UTC time");
    sendToClient(transaction->clientMbox, rej);
}
