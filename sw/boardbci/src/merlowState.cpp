#include "merlowState.h"

#include "merlowTrace.h"
#include "rushlog.h"

#include <array>

namespace {

constexpr std::uint16_t ERROR_CODE = 1;

struct WireState {
    BcState state;
    std::uint16_t onWire;
};

constexpr std::array<WireState, 3> WIRE_STATES{{
    {BcState::Starting, 0},
    {BcState::Operational, 1},
    {BcState::Disabled, 2},
}};

/// Sent for the disable request too: clients know it by these words.
std::string refusal(const std::string& currentStateName)
{
    return "signal expected in BcState: STARTING OPERATIONAL, received in BcState: " + currentStateName;
}

void logEnable(const char* event, const TarnNodeCommonAddressInfoS& references)
{
    const std::string text = std::string(event) + " clientRef=" + std::to_string(references.clientRef) +
                             ", serverRef=" + std::to_string(references.serverRef);
    rushlog_log(RUSHLOG_CATEGORY, text.c_str());
}

} // namespace

bool MerlowState::init()
{
    onSignal(TARN_BC_AUDIT_REQ, &MerlowState::handleAuditReq);
    onSignal(TARN_BC_ENABLE_OPERATION_REQ, &MerlowState::handleEnableOperationReq);
    onSignal(TARN_BC_DISABLE_OPERATION_REQ, &MerlowState::handleDisableOperationReq);
    return true;
}

BcSession* MerlowState::sessionOf(const mnet_msg& msg) const
{
    BcSession* session = m_commonData.getClientSession(mnet_sender(&msg));
    if (session == nullptr) {
        SCRY_TRACE(4, "ABN: BC session for mailboxID " << mnet_sender(&msg) << "not found, ignore signal");
    }
    return session;
}

void MerlowState::handleAuditReq(const std::shared_ptr<mnet_msg>& msg)
{
    const auto req = readSignal<TarnBcAuditReqS>(*msg);
    if (!req) {
        return;
    }
    const BcSession* session = sessionOf(*msg);
    if (session == nullptr) {
        return;
    }
    for (const WireState& row : WIRE_STATES) {
        if (row.state == session->getBcState()) {
            auto cfm = answerTo<TarnBcAuditCfmS>(req->addressInfo);
            cfm.state = row.onWire;
            sendToClient(session->mailboxId, cfm);
            return;
        }
    }
    SCRY_TRACE(1, "Unknown O&M-state " << session->getBcStateName());
}

void MerlowState::handleEnableOperationReq(const std::shared_ptr<mnet_msg>& msg)
{
    const auto req = readSignal<TarnBcEnableOperationReqS>(*msg);
    if (!req) {
        return;
    }
    logEnable("Enable Operational Mode Start", req->addressInfo);
    BcSession* session = sessionOf(*msg);
    if (session == nullptr) {
        return;
    }
    const auto transaction = transactionOf(*req, *msg, 0);
    switch (session->getBcState()) {
    case BcState::Starting:
    case BcState::Operational:
        session->setBcState(BcState::Operational);
        SCRY_TRACE(4, "set BC state to Operational: ");
        sendEnableOperationCfm(transaction);
        logEnable("Enable Operational Mode End", req->addressInfo);
        break;
    default:
        sendEnableOperationRej(transaction, session->getBcStateName());
        break;
    }
}

void MerlowState::handleDisableOperationReq(const std::shared_ptr<mnet_msg>& msg)
{
    const auto req = readSignal<TarnBcDisableOperationReqS>(*msg);
    if (!req) {
        return;
    }
    BcSession* session = sessionOf(*msg);
    if (session == nullptr) {
        return;
    }
    const auto transaction = transactionOf(*req, *msg, 0);
    switch (session->getBcState()) {
    case BcState::Disabled:
    case BcState::Starting:
    case BcState::Operational:
        session->setBcState(BcState::Disabled);
        SCRY_TRACE(4, "set BC state to Disabled: ");
        sendDisableOperationCfm(transaction);
        break;
    default:
        sendDisableOperationRej(transaction, session->getBcStateName());
        break;
    }
}

void MerlowState::sendEnableOperationCfm(const BrhClient::ProcedureTransaction& transaction) const
{
    sendToClient(transaction.clientMbox, answerTo<TarnBcEnableOperationCfmS>(transaction.addressInfo()));
}

void MerlowState::sendEnableOperationRej(const BrhClient::ProcedureTransaction& transaction,
                                         const std::string& currentStateName) const
{
    auto rej = answerTo<TarnBcEnableOperationRejS>(transaction.addressInfo());
    rej.errorCode = ERROR_CODE;
    copyStringToClearedArray(rej.errorDescription, sizeof(rej.errorDescription), refusal(currentStateName));
    sendToClient(transaction.clientMbox, rej);
}

void MerlowState::sendDisableOperationCfm(const BrhClient::ProcedureTransaction& transaction) const
{
    sendToClient(transaction.clientMbox, answerTo<TarnBcDisableOperationCfmS>(transaction.addressInfo()));
}

void MerlowState::sendDisableOperationRej(const BrhClient::ProcedureTransaction& transaction,
                                          const std::string& currentStateName) const
{
    auto rej = answerTo<TarnBcDisableOperationRejS>(transaction.addressInfo());
    rej.errorCode = ERROR_CODE;
    copyStringToClearedArray(rej.errorDescription, sizeof(rej.errorDescription), refusal(currentStateName));
    sendToClient(transaction.clientMbox, rej);
}
