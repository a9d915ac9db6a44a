#include "ccfiConnEstablish.h"

#include "ccfiRecords.h"
#include "merlowTracepoints.h"
#include "mnetMessageSubscriptionCustom.h"

#include <algorithm>

namespace Merlow::Ccfi {

namespace {

using Revisions = std::vector<std::uint32_t>;

/// The revisions behind the record; nothing, and a trace, when the signal announces more than it holds.
std::optional<Revisions> readRevisions(const CcfiBcConnEstablishReqS& req, const mnet_msg& msg)
{
    constexpr std::size_t start = BciRecord<CcfiBcConnEstablishReqS>::size;
    const std::uint64_t announced = start + std::uint64_t{req.nbrOfSupportedProtocolRev} * 4;
    if (announced > mnet_size(&msg)) {
        Bci::traceShortSignal(msg, CCFI_BC_CONN_ESTABLISH_REQ, announced);
        return std::nullopt;
    }
    Revisions revisions(req.nbrOfSupportedProtocolRev);
    for (std::size_t i = 0; i < revisions.size(); ++i) {
        revisions[i] = Bci::fieldOrZero<std::uint32_t>(msg, start + i * 4);
    }
    return revisions;
}

/// Ends with the revision that fills the reject's text: the rest would be cut off.
std::string notSupportedText(const Revisions& revisions)
{
    std::string text = "protocol(s) not supported:";
    for (const auto revision : revisions) {
        if (text.size() >= BCI_ERROR_DESCRIPTION_SIZE) {
            break;
        }
        text += " " + std::to_string(revision);
    }
    return text;
}

} // namespace

CcfiConnEstablish::CcfiConnEstablish(CcfiClient& client, std::uint32_t firstReference)
    : m_client(client), m_nextServerConnectionReference(firstReference)
{
}

CcfiConnEstablish::~CcfiConnEstablish()
{
    removeMessageHandlers();
}

void CcfiConnEstablish::initialize()
{
    TP_ENTERING();
    addMessageHandlers();
}

void CcfiConnEstablish::addMessageHandlers()
{
    MnetMessageSubscriptionCustom::getInstance().addMsgHandler(
        CCFI_BC_CONN_ESTABLISH_REQ,
        [this](const std::shared_ptr<mnet_msg>& msg) { handleConnEstablishReq(msg); });
}

void CcfiConnEstablish::removeMessageHandlers() const
{
    if (auto* subscription = MnetMessageSubscriptionCustom::findInstance()) {
        subscription->removeMsgHandler(CCFI_BC_CONN_ESTABLISH_REQ);
    }
}

void CcfiConnEstablish::handleConnEstablishReq(const std::shared_ptr<mnet_msg>& msg)
{
    const auto req = readSignal<CcfiBcConnEstablishReqS>(*msg);
    if (!req) {
        return;
    }
    TP_REC_SIG(req->msgNo, "Received signal CCFI_BC_CONN_ESTABLISH_REQ: procedureRef: "
                               << req->procedureRef << ", connectionRef: " << req->connectionRef
                               << ", nbrOfSupportedProtocolRev: " << req->nbrOfSupportedProtocolRev);
    const auto revisions = readRevisions(*req, *msg);
    if (!revisions) {
        return;
    }
    const mnet_mbox_id_t client = mnet_sender(msg.get());
    if (std::find(revisions->begin(), revisions->end(), CCFI_PROTOCOL_REVISION) == revisions->end()) {
        sendConnEstablishRej(*req, client, notSupportedText(*revisions));
        return;
    }
    const std::uint32_t next = m_nextServerConnectionReference;
    if (next == 0 || !m_client.registerClient(next, req->connectionRef, client)) {
        sendConnEstablishRej(*req, client, "no more connections");
        return;
    }
    const CcfiBcConnEstablishCfmS cfm{.msgNo = CCFI_BC_CONN_ESTABLISH_CFM,
                                      .procedureRef = req->procedureRef,
                                      .connectionRef = next,
                                      .selectedProtocolRevision = CCFI_PROTOCOL_REVISION};
    TP_SEND_SIG(cfm.msgNo, client,
                "Sent signal CCFI_BC_CONN_ESTABLISH_CFM: procedureRef: "
                    << cfm.procedureRef << ", connectionRef: " << cfm.connectionRef
                    << ", selectedProtocolRevision: " << cfm.selectedProtocolRevision);
    sendMsg(toMessage(cfm), client, MNET_MY_MBOX);
    ++m_nextServerConnectionReference;
}

void CcfiConnEstablish::sendConnEstablishRej(const CcfiBcConnEstablishReqS& req, mnet_mbox_id_t client,
                                             const std::string& text) const
{
    CcfiBcConnEstablishRejS rej{};
    rej.msgNo = CCFI_BC_CONN_ESTABLISH_REJ;
    rej.procedureRef = req.procedureRef;
    rej.errorCode = 1;
    text.copy(reinterpret_cast<char*>(rej.errorDescription), sizeof(rej.errorDescription) - 1);
    TP_SEND_SIG(rej.msgNo, client,
                "Sent signal CCFI_BC_CONN_ESTABLISH_REJ: procedureRef: "
                    << rej.procedureRef << ", connectionRef: " << rej.connectionRef
                    << ", errorCode: " << rej.errorCode << ", errorDescription: " << rej.errorDescription);
    sendMsg(toMessage(rej), client, MNET_MY_MBOX);
}

} // namespace Merlow::Ccfi
