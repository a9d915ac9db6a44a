#include "ccfiClient.h"

#include "ccfiRecords.h"
#include "merlowTrace.h"
#include "merlowTracepoints.h"
#include "mnetMessageSubscriptionCustom.h"

#include <algorithm>

namespace Merlow::Ccfi {

CcfiClient::~CcfiClient()
{
    removeMessageHandlers();
}

void CcfiClient::initialize()
{
    TP_ENTERING();
    m_connections.clear();
    addMessageHandlers();
}

void CcfiClient::addMessageHandlers()
{
    MnetMessageSubscriptionCustom::getInstance().addMsgHandler(
        CCFI_MERLOW_MNET_MONITOR_IND,
        [this](const std::shared_ptr<mnet_msg>& msg) { doClientDisconnected(msg); });
}

void CcfiClient::removeMessageHandlers() const
{
    if (auto* subscription = MnetMessageSubscriptionCustom::findInstance()) {
        subscription->removeMsgHandler(CCFI_MERLOW_MNET_MONITOR_IND);
    }
}

bool CcfiClient::registerClient(std::uint32_t serverConnectionReference,
                                std::uint32_t clientConnectionReference, mnet_mbox_id_t mbox)
{
    TP_ENTERING();
    MnetMsgPtr monitorInd = toMessage(
        CcfiMerlowMnetMonitorIndS{.msgNo = 0, .serverConnectionReference = serverConnectionReference});
    if (!monitorInd) {
        return false; // without a message of its own the notice would be taken for a lost session's
    }
    mnet_msg* raw = monitorInd.release();
    const mnet_monitor_id_t monitorId = mnet_monitor(mbox, &raw);
    if (monitorId == MNET_MBOX_NONE) {
        return false;
    }
    m_connections.push_back({serverConnectionReference, clientConnectionReference, mbox, monitorId});
    return true;
}

std::pair<CcfiClient::Connections::const_iterator, bool>
CcfiClient::getConnection(unsigned int serverConnectionReference) const
{
    const auto it = std::find_if(m_connections.begin(), m_connections.end(), [&](const auto& connection) {
        return connection.serverConnectionReference == serverConnectionReference;
    });
    const bool found = it != m_connections.end();
    TP_INFO((found ? "A" : "No") << " client with corresponding server connection reference "
                                 << serverConnectionReference << " was found.");
    return {it, found};
}

std::optional<unsigned int>
CcfiClient::getClientConnectionReference(unsigned int serverConnectionReference) const
{
    const auto [connection, found] = getConnection(serverConnectionReference);
    return found ? std::optional(connection->clientConnectionReference) : std::nullopt;
}

void CcfiClient::resetClient(unsigned int serverConnectionReference)
{
    const auto [connection, found] = getConnection(serverConnectionReference);
    if (!found) {
        return;
    }
    mnet_unmonitor(connection->monitorId);
    m_connections.erase(connection);
    TP_INFO("The client with corresponding server connection reference " << serverConnectionReference
                                                                         << " was reset.");
}

void CcfiClient::doClientDisconnected(const std::shared_ptr<mnet_msg>& msg)
{
    if (mnet_is_notice(msg.get()) != 1) {
        SCRY_TRACE(4, "ABN: CCFI_MERLOW_MNET_MONITOR_IND from mbox: 0x" << std::hex << mnet_sender(msg.get())
                                                                        << " is no notice. Ignoring it.");
        return;
    }
    const auto ind = readSignal<CcfiMerlowMnetMonitorIndS>(*msg);
    if (!ind) {
        return;
    }
    TP_INFO("Client with server connection reference " << ind->serverConnectionReference
                                                       << " is disconnected.");
    resetClient(ind->serverConnectionReference);
}

} // namespace Merlow::Ccfi
