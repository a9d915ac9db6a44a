#include "merlowHereIAm.h"

#include "bci/bciHereIAm.h"
#include "bmmi.pb.h"

namespace bmmi = boardresourcehandler::bmmi;

bool MerlowHereIAm::init()
{
    BrhClient& bmmiClient = m_commonData.getBmmiClient();
    onSignal(TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_REQ, &MerlowHereIAm::handleSubscribeHereIAmStateReq);
    onFrame<bmmi::SubscribeHereIAmStateCfm>(bmmiClient, &MerlowHereIAm::handleSubscribeHereIAmStateCfm);
    onFrame<bmmi::SubscribeHereIAmStateRej>(bmmiClient, &MerlowHereIAm::handleSubscribeHereIAmStateRej);
    onFrame<bmmi::HereIAmStateInd>(bmmiClient, &MerlowHereIAm::handleHereIAmStateInd);
    onSignal(TARN_BC_ORDE_HERE_I_AM_REQ, &MerlowHereIAm::handleOrderHereIAmReq);
    onFrame<bmmi::OrderHereIAmCfm>(bmmiClient, &MerlowHereIAm::handleOrderHereIAmCfm);
    onFrame<bmmi::OrderHereIAmRej>(bmmiClient, &MerlowHereIAm::handleOrderHereIAmRej);
    return true;
}

BcSession* MerlowHereIAm::findSession(const Transaction& transaction, const char* answer) const
{
    BcSession* session = m_commonData.getClientSession(transaction.clientMbox);
    if (session == nullptr) {
        SCRY_TRACE(4, "ABN: No BC session found for mailbox ID: 0x" << std::hex << transaction.clientMbox
                                                                    << ". Ignoring " << answer << ".");
    }
    return session;
}

// The subscription

void MerlowHereIAm::handleSubscribeHereIAmStateReq(const std::shared_ptr<mnet_msg>& msg)
{
    const BcSession* session = m_commonData.getClientSession(mnet_sender(msg.get()));
    if (session == nullptr) {
        SCRY_TRACE(4, "ABN: No session for this client exists. Ignoring "
                      "TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_REQ!");
        return;
    }
    const auto req = readSignal<TarnBcSubscribeHereIAmStateReqS>(*msg);
    if (!req) {
        return;
    }
    Transaction transaction = transactionOf(*req, *msg, 0, bmmi::SubscribeHereIAmStateReq::MESSAGE_NUMBER);
    if (session->getMmiUserId() == 0) {
        SCRY_TRACE(4, "ABN: MMI user has not been registered yet. Rejecting the "
                      "TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_REQ!");
        sendSubscribeHereIAmStateRej(transaction, "MMI user has not been registered yet.");
        return;
    }
    bmmi::SubscribeHereIAmStateReq bmmiReq;
    bmmiReq.set_mmi_user_id(session->getMmiUserId());
    BrhClient& bmmiClient = m_commonData.getBmmiClient();
    transaction.procedureRef = bmmiClient.sendMessage(bmmiReq);
    if (transaction.procedureRef == 0) {
        sendSubscribeHereIAmStateRej(transaction, "Could not subscribe HereIAmState.");
        return;
    }
    bmmiClient.addProcedureTransaction(transaction);
}

void MerlowHereIAm::handleSubscribeHereIAmStateCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto bmmiCfm = readFrame<bmmi::SubscribeHereIAmStateCfm>(*msg);
    if (!bmmiCfm) {
        return;
    }
    const auto transaction = findBmmiTransaction(bmmiCfm->procedureRef, "SubscribeHereIAmStateCfm");
    if (!transaction) {
        return;
    }
    BcSession* session = findSession(*transaction, "SubscribeHereIAmStateCfm");
    if (session == nullptr) {
        return;
    }
    session->addProcedureRefInfo(bmmi::SubscribeHereIAmStateReq::MESSAGE_NUMBER, bmmiCfm->procedureRef);
    sendToClient(transaction->clientMbox,
                 answerTo<TarnBcSubscribeHereIAmStateCfmS>(transaction->addressInfo()));
}

void MerlowHereIAm::handleSubscribeHereIAmStateRej(const std::shared_ptr<mnet_msg>& msg)
{
    const auto bmmiRej = readFrame<bmmi::SubscribeHereIAmStateRej>(*msg);
    if (!bmmiRej) {
        return;
    }
    const auto transaction = findBmmiTransaction(bmmiRej->procedureRef, "SubscribeHereIAmStateRej");
    if (!transaction) {
        return;
    }
    m_commonData.getBmmiClient().removeTransactionProcedure(bmmiRej->procedureRef);
    if (findSession(*transaction, "SubscribeHereIAmStateRej") != nullptr) {
        sendSubscribeHereIAmStateRej(*transaction,
                                     "See logs to reveal why the BMMI server rejected the request.");
    }
}

void MerlowHereIAm::sendSubscribeHereIAmStateRej(const Transaction& transaction,
                                                 const std::string& text) const
{
    auto rej = answerTo<TarnBcSubscribeHereIAmStateRejS>(transaction.addressInfo());
    rej.errorCode = 1;
    copyStringToClearedArray(rej.errorDescription, sizeof(rej.errorDescription), text);
    sendToClient(transaction.clientMbox, rej);
}

void MerlowHereIAm::handleHereIAmStateInd(const std::shared_ptr<mnet_msg>& msg)
{
    const auto bmmiInd = readFrame<bmmi::HereIAmStateInd>(*msg);
    if (!bmmiInd) {
        return;
    }
    if (!bmmiInd->message.has_state()) {
        SCRY_TRACE(4, "ABN: HereIAmStateInd does not have a state.");
        return;
    }
    const auto transaction = findBmmiTransaction(bmmiInd->procedureRef, "HereIAmStateInd");
    if (!transaction || findSession(*transaction, "HereIAmStateInd") == nullptr) {
        return;
    }
    auto ind = answerTo<TarnBcHereIAmStateIndS>(transaction->addressInfo());
    ind.state = static_cast<std::uint16_t>(bmmiInd->message.state());
    sendToClient(transaction->clientMbox, ind);
}

void MerlowHereIAm::onBcSessionLost(const BcSession& session)
{
    if (const auto procedureRef = session.getProcedureRef(bmmi::SubscribeHereIAmStateReq::MESSAGE_NUMBER)) {
        SCRY_OBJ_TRACE(5, "remove procedureRef: (" << procedureRef << ") from transaction map.");
        m_commonData.getBmmiClient().removeTransactionProcedure(procedureRef);
    }
}

// Orders

void MerlowHereIAm::handleOrderHereIAmReq(const std::shared_ptr<mnet_msg>& msg)
{
    const BcSession* session = m_commonData.getClientSession(mnet_sender(msg.get()));
    if (session == nullptr) {
        SCRY_TRACE(4, "ABN: No session for this client exists. Ignoring TARN_BC_ORDE_HERE_I_AM_REQ!");
        return;
    }
    const auto req = readSignal<TarnBcOrdeHereIAmReqS>(*msg);
    if (!req) {
        return;
    }
    const Transaction refused = transactionOf(*req, *msg, 0);
    if (session->getMmiUserId() == 0) {
        SCRY_TRACE(4, "ABN: MMI user has not been registered yet. Ignoring TARN_BC_ORDE_HERE_I_AM_REQ!");
        sendOrderHereIAmRej(refused, "MMI user has not been registered yet.");
        return;
    }
    const auto procedureRef = session->getProcedureRef(bmmi::SubscribeHereIAmStateReq::MESSAGE_NUMBER);
    if (procedureRef == 0) {
        SCRY_TRACE(4, "ABN: Here I Am client has not subscribed yet. Ignoring TARN_BC_ORDE_HERE_I_AM_REQ!");
        sendOrderHereIAmRej(refused, "Here I Am client has not subscribed yet.");
        return;
    }
    if (!bmmi::OrderHereIAmReq::Order_IsValid(req->state)) { // the same numbers on both sides
        SCRY_TRACE(4, "ABN: TARN_BC_ORDE_HERE_I_AM_REQ has an invalid state: " << req->state);
        sendOrderHereIAmRej(refused, "TARN_BC_ORDE_HERE_I_AM_REQ has an invalid state.");
        return;
    }
    bmmi::OrderHereIAmReq bmmiReq;
    bmmiReq.set_mmi_user_id(session->getMmiUserId());
    bmmiReq.set_order(static_cast<bmmi::OrderHereIAmReq::Order>(req->state));
    m_commonData.getBmmiClient().sendMessage(bmmiReq, procedureRef);
}

void MerlowHereIAm::handleOrderHereIAmCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto bmmiCfm = readFrame<bmmi::OrderHereIAmCfm>(*msg);
    if (!bmmiCfm) {
        return;
    }
    const auto transaction = findBmmiTransaction(bmmiCfm->procedureRef, "OrderHereIAmCfm");
    if (!transaction || findSession(*transaction, "OrderHereIAmCfm") == nullptr) {
        return;
    }
    auto cfm = answerTo<TarnBcOrdeHereIAmCfmS>(transaction->addressInfo());
    cfm.status = static_cast<std::uint16_t>(bmmiCfm->message.status());
    copyStringToClearedArray(cfm.text, sizeof(cfm.text), bmmiCfm->message.text());
    sendToClient(transaction->clientMbox, cfm);
}

void MerlowHereIAm::handleOrderHereIAmRej(const std::shared_ptr<mnet_msg>& msg)
{
    const auto bmmiRej = readFrame<bmmi::OrderHereIAmRej>(*msg);
    if (!bmmiRej) {
        return;
    }
    const auto transaction = findBmmiTransaction(bmmiRej->procedureRef, "OrderHereIAmRej");
    if (!transaction || findSession(*transaction, "OrderHereIAmRej") == nullptr) {
        return;
    }
    sendOrderHereIAmRej(*transaction, "See logs to reveal why the BMMI server rejected the request.");
}

void MerlowHereIAm::sendOrderHereIAmRej(const Transaction& transaction, const std::string& text) const
{
    auto rej = answerTo<TarnBcOrdeHereIAmRejS>(transaction.addressInfo());
    rej.errorCode = 1;
    copyStringToClearedArray(rej.errorDescription, sizeof(rej.errorDescription), text);
    sendToClient(transaction.clientMbox, rej);
}
