#include "ccfiFaultFwd.h"

#include "ccfiRecords.h"
#include "merlowTracepoints.h"
#include "mnetMessageSubscriptionCustom.h"

#include <algorithm>
#include <array>
#include <string>

namespace Merlow::Ccfi {

namespace {

constexpr std::array<std::uint16_t, 7> ACCEPTED_FAULT_IDS{0x0300, 0x0301, 0x0502, 0x0521,
                                                          0x0522, 0x0710, 0x0711};

bool isAccepted(std::uint16_t faultId)
{
    return std::find(ACCEPTED_FAULT_IDS.begin(), ACCEPTED_FAULT_IDS.end(), faultId) !=
           ACCEPTED_FAULT_IDS.end();
}

} // namespace

CcfiFaultFwd::CcfiFaultFwd(CcfiClient& client, FaultManagerIf& faultManager)
    : m_client(client), m_faultManager(faultManager)
{
}

CcfiFaultFwd::~CcfiFaultFwd()
{
    removeMessageHandlers();
}

void CcfiFaultFwd::initialize()
{
    TP_ENTERING();
    addMessageHandlers();
}

void CcfiFaultFwd::addMessageHandlers()
{
    auto& subscription = MnetMessageSubscriptionCustom::getInstance();
    subscription.addMsgHandler(CCFI_BC_FAULT_FWD,
                               [this](const std::shared_ptr<mnet_msg>& msg) { handleFaultFwd(msg); });
    subscription.addMsgHandler(CCFI_BC_FAULTCEASE_FWD,
                               [this](const std::shared_ptr<mnet_msg>& msg) { handleFaultceaseFwd(msg); });
}

void CcfiFaultFwd::removeMessageHandlers() const
{
    if (auto* subscription = MnetMessageSubscriptionCustom::findInstance()) {
        subscription->removeMsgHandler(CCFI_BC_FAULT_FWD);
        subscription->removeMsgHandler(CCFI_BC_FAULTCEASE_FWD);
    }
}

bool CcfiFaultFwd::isConnected(std::uint32_t serverConnectionReference) const
{
    if (!m_client.getClientConnectionReference(serverConnectionReference)) {
        TP_INFO("Client with server connection reference " << serverConnectionReference
                                                           << " is not connected. The failure is dropped.");
        return false;
    }
    return true;
}

void CcfiFaultFwd::handleFaultFwd(const std::shared_ptr<mnet_msg>& msg)
{
    const auto fwd = readSignal<CcfiBcFaultFwdS>(*msg);
    if (!fwd) {
        return;
    }
    FaultData data(FaultSource::CCFI, fwd->faultId, 0, Bci::textOf(fwd->faultDescription), fwd->recoveryTime,
                   textBehind<CcfiBcFaultFwdS>(*msg));
    TP_REC_SIG(fwd->msgNo, "Received signal CCFI_BC_FAULT_FWD: procedureRef: "
                               << fwd->procedureRef << ", connectionRef: " << fwd->connectionRef << ", "
                               << toString(data));
    if (!isConnected(fwd->connectionRef)) {
        return;
    }
    if (!isAccepted(fwd->faultId)) {
        TP_ERROR("Unknown Fault-id 0x" << std::hex << fwd->faultId << " is ignored by BC-CCFI");
        return;
    }
    if (!m_faultManager.addFault(data)) {
        TP_ERROR("active fault 0x" << std::hex << fwd->faultId << " from BC-CCFI added failed");
    }
}

void CcfiFaultFwd::handleFaultceaseFwd(const std::shared_ptr<mnet_msg>& msg)
{
    const auto fwd = readSignal<CcfiBcFaultceaseFwdS>(*msg);
    if (!fwd) {
        return;
    }
    TP_REC_SIG(fwd->msgNo, "Received signal CCFI_BC_FAULTCEASE_FWD: procedureRef: "
                               << fwd->procedureRef << ", connectionRef: " << fwd->connectionRef
                               << ", faultId: 0x" << std::hex << fwd->faultId);
    if (!isConnected(fwd->connectionRef)) {
        return;
    }
    if (!isAccepted(fwd->faultId)) {
        TP_ERROR("Unknown FaultCease-id 0x" << std::hex << fwd->faultId << " is ignored by BC-CCFI");
        return;
    }
    m_faultManager.removeFault(fwd->faultId);
}

} // namespace Merlow::Ccfi
