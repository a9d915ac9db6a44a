#include "merlowMaintState.h"

#include "bci/bciMaintState.h"
#include "bmmi.pb.h"

#include <algorithm>
#include <iterator>

namespace bmmi = boardresourcehandler::bmmi;

namespace {

/// The two sides number the states differently, and one state can be seen but not asked for.
struct MaintStateRow {
    std::uint32_t bci;
    int bmmi;
    bool canBeSet;
};
constexpr MaintStateRow maintStates[] = {
    {0, 0, true}, {1, 4, false}, {2, 1, true}, {3, 2, true}, {4, 3, true},
};

struct SetMaintStateRejRow {
    int bmmiErrorCode;
    unsigned int errorCode;
    const char* errorDescription;
};
constexpr SetMaintStateRejRow setMaintStateRejs[] = {
    {bmmi::SetMaintStateRej::UNSPECIFIED, 1, " "},
    {bmmi::SetMaintStateRej::NOT_ACTIVATED, 1, "Maintenance State handling not activated"},
    {bmmi::SetMaintStateRej::ILLEGAL_TRANSITION, 2, "Illegal state transition requested"},
    {bmmi::SetMaintStateRej::SERVICE_MAN_PRESENT, 2, "Prohibited due to service man present"},
};

} // namespace

bool MerlowMaintState::init()
{
    BrhClient& bmmiClient = m_commonData.getBmmiClient();
    onSignal(TARN_BC_SUBSCRIBE_MAINT_STATE_REQ, &MerlowMaintState::handleSubscribeMaintStateReq);
    onSignal(TARN_BC_SET_MAINT_STATE_REQ, &MerlowMaintState::handleSetMaintStateReq);
    onFrame<bmmi::SubscribeMaintStateCfm>(bmmiClient, &MerlowMaintState::handleSubscribeMaintStateCfm);
    onFrame<bmmi::SubscribeMaintStateRej>(bmmiClient, &MerlowMaintState::handleSubscribeMaintStateRej);
    onFrame<bmmi::MaintStateInd>(bmmiClient, &MerlowMaintState::handleMaintStateInd);
    onFrame<bmmi::SetMaintStateCfm>(bmmiClient, &MerlowMaintState::handleSetMaintStateCfm);
    onFrame<bmmi::SetMaintStateRej>(bmmiClient, &MerlowMaintState::handleSetMaintStateRej);
    return true;
}

BcSession* MerlowMaintState::findSession(mnet_mbox_id_t mailbox, const char* ignored) const
{
    BcSession* session = m_commonData.getClientSession(mailbox);
    if (session == nullptr) {
        SCRY_TRACE(4, "ABN: Merlow has no session for mailbox 0x" << std::hex << mailbox << ". Ignoring "
                                                                  << ignored << ".");
    }
    return session;
}

bool MerlowMaintState::isMmiUser(const BcSession& session)
{
    const std::uint32_t id = session.getMmiUserId();
    if (id == 0) {
        SCRY_TRACE(4, "ABN: The session has not subscribed as an MMI User: ID=" << id);
    }
    return id != 0;
}

void MerlowMaintState::handleSetMaintStateReq(const std::shared_ptr<mnet_msg>& msg)
{
    const BcSession* session = findSession(mnet_sender(msg.get()), "TARN_BC_SET_MAINT_STATE_REQ");
    if (session == nullptr) {
        return;
    }
    const auto req = readSignal<TarnBcSetMaintStateReqS>(*msg);
    if (!req || !isMmiUser(*session)) {
        return;
    }
    const auto* row = std::find_if(std::begin(maintStates), std::end(maintStates), [&](const auto& state) {
        return state.bci == req->maintState && state.canBeSet;
    });
    if (row == std::end(maintStates)) {
        SCRY_TRACE(
            4, "ABN: TARN_BC_SET_MAINT_STATE_REQ contains an invalid maintState field: " << req->maintState);
        sendSetMaintStateRej(transactionOf(*req, *msg, 0), 1, "");
        return;
    }
    bmmi::SetMaintStateReq bmmiReq;
    bmmiReq.set_mmi_user_id(session->getMmiUserId());
    bmmiReq.set_maint_state(static_cast<bmmi::SetMaintStateReq::MaintState>(row->bmmi));
    BrhClient& bmmiClient = m_commonData.getBmmiClient();
    if (const auto procedureRef = bmmiClient.sendMessage(bmmiReq)) {
        bmmiClient.addProcedureTransaction(transactionOf(*req, *msg, procedureRef));
    }
}

void MerlowMaintState::handleSetMaintStateCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto bmmiCfm = readFrame<bmmi::SetMaintStateCfm>(*msg);
    if (!bmmiCfm) {
        return;
    }
    const auto transaction = findBmmiTransaction(bmmiCfm->procedureRef, "SetMaintStateCfm");
    if (!transaction) {
        return;
    }
    m_commonData.getBmmiClient().removeTransactionProcedure(bmmiCfm->procedureRef);
    if (findSession(transaction->clientMbox, "TARN_BC_SET_MAINT_STATE_CFM") != nullptr) {
        sendToClient(transaction->clientMbox, answerTo<TarnBcSetMaintStateCfmS>(transaction->addressInfo()));
    }
}

void MerlowMaintState::handleSetMaintStateRej(const std::shared_ptr<mnet_msg>& msg)
{
    const auto bmmiRej = readFrame<bmmi::SetMaintStateRej>(*msg);
    if (!bmmiRej) {
        return;
    }
    const auto transaction = findBmmiTransaction(bmmiRej->procedureRef, "SetMaintStateRej");
    if (!transaction) {
        return;
    }
    if (findSession(transaction->clientMbox, "TARN_BC_SET_MAINT_STATE_REJ") != nullptr) {
        if (!bmmiRej->message.has_error_code()) {
            SCRY_TRACE(4, "ABN: SetMaintStateRej missing errorCode! sending default errorCode and "
                          "errorDescription to client.");
        }
        const auto* row =
            std::find_if(std::begin(setMaintStateRejs), std::end(setMaintStateRejs),
                         [&](const auto& rej) { return rej.bmmiErrorCode == bmmiRej->message.error_code(); });
        if (row != std::end(setMaintStateRejs)) {
            sendSetMaintStateRej(*transaction, row->errorCode, row->errorDescription);
        } else {
            SCRY_TRACE(4, "ABN: Unknown errorCode or errorDescription!");
            sendSetMaintStateRej(*transaction, 1, "");
        }
    }
    m_commonData.getBmmiClient().removeTransactionProcedure(bmmiRej->procedureRef);
}

void MerlowMaintState::sendSetMaintStateRej(const Transaction& transaction, unsigned int errorCode,
                                            const std::string& description) const
{
    auto rej = answerTo<TarnBcSetMaintStateRejS>(transaction.addressInfo());
    rej.errorCode = static_cast<std::uint16_t>(errorCode);
    copyStringToClearedArray(rej.errorDescription, sizeof(rej.errorDescription), description);
    sendToClient(transaction.clientMbox, rej);
}

void MerlowMaintState::handleSubscribeMaintStateReq(const std::shared_ptr<mnet_msg>& msg)
{
    const BcSession* session = findSession(mnet_sender(msg.get()), "TARN_BC_SUBSCRIBE_MAINT_STATE_REQ");
    if (session == nullptr) {
        return;
    }
    const auto req = readSignal<TarnBcSubscribeMaintStateReqS>(*msg);
    if (!req || !isMmiUser(*session)) {
        return;
    }
    bmmi::SubscribeMaintStateReq bmmiReq;
    bmmiReq.set_mmi_user_id(session->getMmiUserId());
    BrhClient& bmmiClient = m_commonData.getBmmiClient();
    if (const auto procedureRef = bmmiClient.sendMessage(bmmiReq)) {
        bmmiClient.addProcedureTransaction(transactionOf(*req, *msg, procedureRef));
    }
}

void MerlowMaintState::handleSubscribeMaintStateCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto bmmiCfm = readFrame<bmmi::SubscribeMaintStateCfm>(*msg);
    if (!bmmiCfm) {
        return;
    }
    const auto transaction = findBmmiTransaction(bmmiCfm->procedureRef, "SubscribeMaintStateCfm");
    if (!transaction) {
        return;
    }
    BcSession* session = findSession(transaction->clientMbox, "TARN_BC_SUBSCRIBE_MAINT_STATE_CFM");
    if (session == nullptr) {
        m_commonData.getBmmiClient().removeTransactionProcedure(bmmiCfm->procedureRef);
        return;
    }
    session->addProcedureRefInfo(bmmi::SubscribeMaintStateReq::MESSAGE_NUMBER, bmmiCfm->procedureRef);
    sendToClient(transaction->clientMbox,
                 answerTo<TarnBcSubscribeMaintStateCfmS>(transaction->addressInfo()));
}

void MerlowMaintState::handleSubscribeMaintStateRej(const std::shared_ptr<mnet_msg>& msg)
{
    const auto bmmiRej = readFrame<bmmi::SubscribeMaintStateRej>(*msg);
    if (!bmmiRej) {
        return;
    }
    const auto transaction = findBmmiTransaction(bmmiRej->procedureRef, "SubscribeMaintStateRej");
    if (!transaction) {
        return;
    }
    if (findSession(transaction->clientMbox, "TARN_BC_SUBSCRIBE_MAINT_STATE_REJ") != nullptr) {
        auto rej = answerTo<TarnBcSubscribeMaintStateRejS>(transaction->addressInfo());
        rej.errorCode = 1;
        copyStringToClearedArray(rej.errorDescription, sizeof(rej.errorDescription),
                                 "subscribing to maintenance state was unsuccessful");
        sendToClient(transaction->clientMbox, rej);
    }
    m_commonData.getBmmiClient().removeTransactionProcedure(bmmiRej->procedureRef);
}

void MerlowMaintState::handleMaintStateInd(const std::shared_ptr<mnet_msg>& msg)
{
    const auto bmmiInd = readFrame<bmmi::MaintStateInd>(*msg);
    if (!bmmiInd) {
        return;
    }
    const auto transaction = findBmmiTransaction(bmmiInd->procedureRef, "MaintStateInd");
    if (!transaction) {
        return;
    }
    if (findSession(transaction->clientMbox, "TARN_BC_SET_MAINT_STATE_IND") == nullptr) {
        m_commonData.getBmmiClient().removeTransactionProcedure(bmmiInd->procedureRef);
        return;
    }
    if (!bmmiInd->message.has_maint_state()) {
        SCRY_TRACE(4, "ABN: missing maintState in the MaintStateInd! Ignoring signal!");
        return;
    }
    const auto* row = std::find_if(std::begin(maintStates), std::end(maintStates), [&](const auto& state) {
        return state.bmmi == bmmiInd->message.maint_state();
    });
    if (row == std::end(maintStates)) {
        SCRY_TRACE(4, "ABN: Merlow:: Unknown Maintenance state!");
        return;
    }
    auto ind = answerTo<TarnBcSetMaintStateIndS>(transaction->addressInfo());
    ind.maintState = row->bci;
    sendToClient(transaction->clientMbox, ind);
}

void MerlowMaintState::onBcSessionLost(const BcSession& session)
{
    if (const auto procedureRef = session.getProcedureRef(bmmi::SubscribeMaintStateReq::MESSAGE_NUMBER)) {
        SCRY_OBJ_TRACE(5, "remove procedureRef: (" << procedureRef << ") from transaction map.");
        m_commonData.getBmmiClient().removeTransactionProcedure(procedureRef);
    }
}
