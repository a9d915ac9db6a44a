#include "merlowVisual.h"

#include "bci/bciVisual.h"

#include <algorithm>
#include <iterator>

namespace bmmi = boardresourcehandler::bmmi;

namespace {

// The tables are no inverses of each other: several states read back as one, some can be read and never be
// set, some be set and never be read.

struct VisualizedStateRow {
    std::uint16_t bci;
    int bmmi;
};
constexpr VisualizedStateRow visualizedStates[] = {
    {0x0010, 19}, {0x0011, 20}, {0x0060, 17}, {0x0061, 18}, {0x0110, 1}, {0x0111, 2},  {0x0120, 3},
    {0x0121, 4},  {0x0130, 5},  {0x0131, 6},  {0x0140, 7},  {0x0141, 8}, {0x0310, 11}, {0x0311, 12},
    {0x0320, 13}, {0x0321, 14}, {0x0331, 15}, {0x0332, 16}, {0x0410, 9}, {0x0411, 10},
};

struct ReadVisualStateRow {
    int bmmi;
    std::uint16_t bci;
};
constexpr ReadVisualStateRow group4States[] = {{1, 0x0411}, {2, 0x0410}};
constexpr ReadVisualStateRow group1States[] = {
    {1, 0x0120}, {2, 0x0121}, {3, 0x0130}, {4, 0x0140}, {5, 0x0110}, {6, 0x0110}, {7, 0x0110},
};
constexpr ReadVisualStateRow group3States[] = {
    {1, 0x0311}, {2, 0x0310}, {3, 0x0331}, {4, 0x0320}, {5, 0x0313}, {6, 0x0312},
};
constexpr ReadVisualStateRow supportUnitFaultStates[] = {{1, 1}, {2, 4}};

constexpr const char* SUPPORT_UNIT_FAULT_INDICATOR = "Support Unit Fault Indicator";

/// Nothing when the board did not tell the state, or when the table does not have it.
template <std::size_t Rows>
std::optional<std::uint16_t> toBciVisualState(const ReadVisualStateRow (&table)[Rows], bool isTold,
                                              int bmmiState)
{
    const auto* row =
        std::find_if(std::begin(table), std::end(table), [&](const auto& r) { return r.bmmi == bmmiState; });
    return isTold && row != std::end(table) ? std::optional(row->bci) : std::nullopt;
}

} // namespace

bool MerlowVisual::init()
{
    BrhClient& bmmiClient = m_commonData.getBmmiClient();
    onSignal(TARN_BC_SET_VISUAL_INDICATION_REQ, &MerlowVisual::handleSetVisualIndicationReq);
    onFrame<bmmi::SetVisualIndicationCfm>(bmmiClient, &MerlowVisual::handleSetVisualIndicationCfm);
    onFrame<bmmi::SetVisualIndicationRej>(bmmiClient, &MerlowVisual::handleSetVisualIndicationRej);
    onSignal(TARN_BC_GET_VISUAL_INDICATION_REQ, &MerlowVisual::handleGetVisualIndicationReq);
    onSignal(TARN_BC_GET_SPECIAL_INDICATOR_REQ, &MerlowVisual::handleGetSpecialIndicatorReq);
    onFrame<bmmi::GetVisualIndicationCfm>(bmmiClient, &MerlowVisual::handleGetVisualIndicationCfm);
    onFrame<bmmi::GetVisualIndicationRej>(bmmiClient, &MerlowVisual::handleGetVisualIndicationRej);
    return true;
}

const BcSession* MerlowVisual::findSession(const mnet_msg& msg) const
{
    const BcSession* session = m_commonData.getClientSession(mnet_sender(&msg));
    if (session == nullptr) {
        SCRY_TRACE(4,
                   "ABN: There is no session for the received message 0x" << std::hex << mnet_sender(&msg));
    }
    return session;
}

bool MerlowVisual::isLedHandlingDisabledFor(int serverRef) const
{
    const ProductInfo& product = m_commonData.getProductInfoCache();
    return product.isComplete && product.productName.starts_with("KPX") && isGsmServerRef(serverRef);
}

std::optional<BrhClient::ProcedureTransaction> MerlowVisual::takeTransaction(unsigned int procedureRef,
                                                                             const char* answer) const
{
    const auto transaction = m_commonData.getBmmiClient().takeTransaction(procedureRef);
    if (!transaction) {
        SCRY_TRACE(1, "Cannot find a matching transaction for this " << answer << " with procedureRef "
                                                                     << procedureRef);
    }
    return transaction;
}

// Setting

void MerlowVisual::handleSetVisualIndicationReq(const std::shared_ptr<mnet_msg>& msg)
{
    const BcSession* session = findSession(*msg);
    if (session == nullptr) {
        return;
    }
    const auto req = readSignal<TarnBcSetVisualIndicationReqS>(*msg);
    if (!req) {
        return;
    }
    Transaction transaction = transactionOf(*req, *msg, 0, 0);
    if (isLedHandlingDisabledFor(transaction.serverRef)) {
        SCRY_TRACE(4, "Disabled Led handling for GSM serverRef:" << transaction.serverRef);
        sendSetVisualIndicationCfm(transaction);
        return;
    }
    const auto* row = std::find_if(std::begin(visualizedStates), std::end(visualizedStates),
                                   [&](const auto& state) { return state.bci == req->visualizedState; });
    if (row == std::end(visualizedStates)) {
        sendSetVisualIndicationRej(transaction, "Invalid parameter VisualizedState: " +
                                                    std::to_string(req->visualizedState));
        return;
    }
    if (session->getMmiUserId() == 0) {
        sendSetVisualIndicationRej(transaction, "The session has not subscribed as an MMI User: ID=" +
                                                    std::to_string(session->getMmiUserId()));
        return;
    }
    bmmi::SetVisualIndicationReq bmmiReq;
    bmmiReq.set_mmi_user_id(session->getMmiUserId());
    bmmiReq.set_visual_state(static_cast<bmmi::SetVisualIndicationReq::VisualizedState>(row->bmmi));
    BrhClient& bmmiClient = m_commonData.getBmmiClient();
    transaction.procedureRef = bmmiClient.sendMessage(bmmiReq);
    if (transaction.procedureRef == 0) {
        SCRY_TRACE(1, "Cannot send bmmi::SetVisualIndicationReq to the BMMI server");
        return;
    }
    bmmiClient.addProcedureTransaction(transaction);
}

void MerlowVisual::handleSetVisualIndicationCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto bmmiCfm = readFrame<bmmi::SetVisualIndicationCfm>(*msg);
    if (!bmmiCfm) {
        return;
    }
    const auto transaction = takeTransaction(bmmiCfm->procedureRef, "SetVisualIndicationCfm");
    if (!transaction) {
        return;
    }
    if (m_commonData.getClientSession(transaction->clientMbox) == nullptr) {
        SCRY_TRACE(4, "ABN: Cannot find a matching session for this GetVisualIndicationCfm with mailbox "
                          << transaction->clientMbox);
        return;
    }
    sendSetVisualIndicationCfm(*transaction);
}

void MerlowVisual::handleSetVisualIndicationRej(const std::shared_ptr<mnet_msg>& msg)
{
    const auto bmmiRej = readFrame<bmmi::SetVisualIndicationRej>(*msg);
    if (!bmmiRej) {
        return;
    }
    const auto transaction = takeTransaction(bmmiRej->procedureRef, "SetVisualIndicationRej");
    if (!transaction) {
        return;
    }
    if (m_commonData.getClientSession(transaction->clientMbox) == nullptr) {
        SCRY_TRACE(4, "ABN: Cannot find a matching session for this GetVisualIndicationCfm with mailbox "
                          << transaction->clientMbox);
        return;
    }
    sendSetVisualIndicationRej(*transaction, "See logs to reveal why the BMMI server rejected the request");
}

void MerlowVisual::sendSetVisualIndicationCfm(const Transaction& transaction) const
{
    sendToClient(transaction.clientMbox, answerTo<TarnBcSetVisualIndicationCfmS>(transaction.addressInfo()));
}

void MerlowVisual::sendSetVisualIndicationRej(const Transaction& transaction, const std::string& text) const
{
    sendRej<TarnBcSetVisualIndicationRejS>(transaction, text);
}

template <class Rej> void MerlowVisual::sendRej(const Transaction& transaction, const std::string& text) const
{
    auto rej = answerTo<Rej>(transaction.addressInfo());
    rej.errorCode = 1;
    copyStringToClearedArray(rej.errorDescription, sizeof(rej.errorDescription), text);
    sendToClient(transaction.clientMbox, rej);
}

// Reading

void MerlowVisual::handleGetVisualIndicationReq(const std::shared_ptr<mnet_msg>& msg)
{
    const BcSession* session = findSession(*msg);
    if (session == nullptr) {
        return;
    }
    const auto req = readSignal<TarnBcGetVisualIndicationReqS>(*msg);
    if (!req) {
        return;
    }
    const Transaction transaction = transactionOf(*req, *msg, 0);
    if (session->getMmiUserId() == 0) {
        sendRej<TarnBcGetVisualIndicationRejS>(transaction, "The session has not subscribed as an MMI User");
        return;
    }
    askForStates(*session, transaction);
}

void MerlowVisual::handleGetSpecialIndicatorReq(const std::shared_ptr<mnet_msg>& msg)
{
    const BcSession* session = findSession(*msg);
    if (session == nullptr) {
        return;
    }
    const auto req = readSignal<TarnBcGetSpecialIndicatorReqS>(*msg);
    if (!req) {
        return;
    }
    const Transaction transaction = transactionOf(*req, *msg, 0);
    if (session->getMmiUserId() == 0) {
        sendRej<TarnBcGetSpecialIndicatorRejS>(transaction, "The session has not subscribed as an MMI User");
        return;
    }
    askForStates(*session, transaction);
}

void MerlowVisual::askForStates(const BcSession& session, const Transaction& transaction) const
{
    bmmi::GetVisualIndicationReq bmmiReq;
    bmmiReq.set_mmi_user_id(session.getMmiUserId());
    BrhClient& bmmiClient = m_commonData.getBmmiClient();
    Transaction open = transaction;
    open.procedureRef = bmmiClient.sendMessage(bmmiReq);
    if (open.procedureRef == 0) {
        SCRY_TRACE(1, "Cannot send bmmi::GetVisualIndicationReq to the BMMI server");
        return;
    }
    bmmiClient.addProcedureTransaction(open);
}

void MerlowVisual::handleGetVisualIndicationCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto bmmiCfm = readFrame<bmmi::GetVisualIndicationCfm>(*msg);
    if (!bmmiCfm) {
        return;
    }
    const auto transaction = takeTransaction(bmmiCfm->procedureRef, "GetVisualIndicationCfm");
    if (!transaction) {
        return;
    }
    if (m_commonData.getClientSession(transaction->clientMbox) == nullptr) {
        SCRY_TRACE(4, "ABN: Cannot find a matching session for this GetVisualIndicationCfm with mailbox 0x"
                          << std::hex << transaction->clientMbox);
        return;
    }
    if (transaction->data == TARN_BC_GET_VISUAL_INDICATION_REQ) {
        sendGetVisualIndicationCfm(*transaction, bmmiCfm->message);
    } else if (transaction->data == TARN_BC_GET_SPECIAL_INDICATOR_REQ) {
        sendGetSpecialIndicationCfm(*transaction, bmmiCfm->message);
    } else {
        SCRY_TRACE(4, "ABN: Unrecognized message number stored in transaction from GetVisualIndicationCfm");
    }
}

void MerlowVisual::handleGetVisualIndicationRej(const std::shared_ptr<mnet_msg>& msg)
{
    const auto bmmiRej = readFrame<bmmi::GetVisualIndicationRej>(*msg);
    if (!bmmiRej) {
        return;
    }
    const auto transaction = takeTransaction(bmmiRej->procedureRef, "GetVisualIndicationRej");
    if (!transaction) {
        return;
    }
    if (m_commonData.getClientSession(transaction->clientMbox) == nullptr) {
        SCRY_TRACE(4, "ABN: Cannot find a matching session for this GetVisualIndicationRej with mailbox 0x"
                          << std::hex << transaction->clientMbox);
        return;
    }
    if (transaction->data == TARN_BC_GET_VISUAL_INDICATION_REQ) {
        sendRej<TarnBcGetVisualIndicationRejS>(*transaction, "Interaction failure");
    } else if (transaction->data == TARN_BC_GET_SPECIAL_INDICATOR_REQ) {
        sendRej<TarnBcGetSpecialIndicatorRejS>(*transaction, "Interaction failure");
    }
}

void MerlowVisual::sendGetVisualIndicationCfm(const Transaction& transaction, const BmmiStates& states) const
{
    // The last two change places on the way: a client reads the support unit's state in front of group 3.
    auto cfm = answerTo<TarnBcGetVisualIndicationCfmS>(transaction.addressInfo());
    cfm.group4State = toBciVisualState(group4States, states.has_group_4_state(), states.group_4_state())
                          .value_or(BCI_UNKNOWN_VISUAL_STATE);
    cfm.group1State = toBciVisualState(group1States, states.has_group_1_state(), states.group_1_state())
                          .value_or(BCI_UNKNOWN_VISUAL_STATE);
    cfm.supportUnitFaultState =
        toBciVisualState(supportUnitFaultStates, states.has_support_unit_fault_state(),
                         states.support_unit_fault_state())
            .value_or(BCI_UNKNOWN_VISUAL_STATE);
    cfm.group3State = toBciVisualState(group3States, states.has_group_3_state(), states.group_3_state())
                          .value_or(BCI_UNKNOWN_VISUAL_STATE);
    sendToClient(transaction.clientMbox, cfm);
}

void MerlowVisual::sendGetSpecialIndicationCfm(const Transaction& transaction, const BmmiStates& states) const
{
    const auto state = toBciVisualState(supportUnitFaultStates, states.has_support_unit_fault_state(),
                                        states.support_unit_fault_state());
    auto cfm = answerTo<TarnBcGetSpecialIndicatorCfmS>(transaction.addressInfo());
    cfm.count = state ? 1 : 0;
    SCRY_OBJ_TRACE(5, "TARN_BC_GET_SPECIAL_INDICATOR_CFM with " << cfm.count << " special indicators");
    if (!state) {
        sendToClient(transaction.clientMbox, cfm);
        return;
    }
    TarnBcSpecialIndicatorS indicator{};
    copyStringToClearedArray(indicator.name, sizeof(indicator.name), SUPPORT_UNIT_FAULT_INDICATOR);
    indicator.state = *state;
    Bci::swapOrder(indicator.state);
    hton(cfm);
    MnetMsgPtr msg = allocMsg(sizeof(cfm) + sizeof(indicator), cfm.msgNo);
    if (msg) {
        auto* bytes = reinterpret_cast<unsigned char*>(msg.get());
        std::memcpy(bytes, &cfm, sizeof(cfm));
        std::memcpy(bytes + sizeof(cfm), &indicator, sizeof(indicator));
    }
    sendToClient(transaction.clientMbox, std::move(msg));
}
