#include "ccfiConnClose.h"

#include "ccfiRecords.h"
#include "merlowTracepoints.h"
#include "mnetMessageSubscriptionCustom.h"

namespace Merlow::Ccfi {

CcfiConnClose::CcfiConnClose(CcfiClient& client) : m_client(client) {}

CcfiConnClose::~CcfiConnClose()
{
    removeMessageHandlers();
}

void CcfiConnClose::initialize()
{
    TP_ENTERING();
    addMessageHandlers();
}

void CcfiConnClose::addMessageHandlers()
{
    MnetMessageSubscriptionCustom::getInstance().addMsgHandler(
        CCFI_BC_CONN_CLOSE_REQ, [this](const std::shared_ptr<mnet_msg>& msg) { handleConnCloseReq(msg); });
}

void CcfiConnClose::removeMessageHandlers() const
{
    if (auto* subscription = MnetMessageSubscriptionCustom::findInstance()) {
        subscription->removeMsgHandler(CCFI_BC_CONN_CLOSE_REQ);
    }
}

void CcfiConnClose::handleConnCloseReq(const std::shared_ptr<mnet_msg>& msg)
{
    const auto req = readSignal<CcfiBcConnCloseReqS>(*msg);
    if (!req) {
        return;
    }
    TP_REC_SIG(req->msgNo, "Received signal CCFI_BC_CONN_CLOSE_REQ: procedureRef: "
                               << req->procedureRef << ", connectionRef: " << req->connectionRef);
    const auto clientConnectionReference = m_client.getClientConnectionReference(req->connectionRef);
    m_client.resetClient(req->connectionRef);
    if (!clientConnectionReference) {
        return;
    }
    const mnet_mbox_id_t client = mnet_sender(msg.get());
    const CcfiBcConnCloseCfmS cfm{.msgNo = CCFI_BC_CONN_CLOSE_CFM,
                                  .procedureRef = req->procedureRef,
                                  .connectionRef = *clientConnectionReference};
    TP_SEND_SIG(cfm.msgNo, client,
                "Sent signal CCFI_BC_CONN_CLOSE_CFM: procedureRef: "
                    << cfm.procedureRef << ", connectionRef: " << cfm.connectionRef);
    sendMsg(toMessage(cfm), client, MNET_MY_MBOX);
}

} // namespace Merlow::Ccfi
