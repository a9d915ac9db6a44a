#include "merlowComponent.h"

#include "merlowTrace.h"

#include <algorithm>

MerlowComponent::MerlowComponent(MerlowCommonData& commonData) : m_commonData(commonData) {}

MerlowComponent::~MerlowComponent() = default;

void MerlowComponent::onBcSessionLost(const BcSession& /*session*/) {}

void MerlowComponent::onServerThreadExiting() {}

void MerlowComponent::onNewBcSession(const BcSession& /*session*/) {}

bool MerlowComponent::isReadyToPublish() const
{
    return true;
}

std::string MerlowComponent::getComponentName() const
{
    return {};
}

void MerlowComponent::subscribeForSendTarnBcConnCfm(const std::function<void(BcSession&)>& callback)
{
    m_sendConnCfm = callback;
}

void MerlowComponent::subscribeForCheckComponents(const std::function<bool()>& callback)
{
    m_checkComponents = callback;
}

bool MerlowComponent::isGsmServerRef(int serverRef) const
{
    return static_cast<unsigned int>(serverRef) - 100U < 100U;
}

void MerlowComponent::ntohDefault(TarnNodeCommonAddressInfoS& addressInfo) const
{
    Bci::swapOrder(addressInfo);
}

void MerlowComponent::htonDefault(TarnNodeCommonAddressInfoS& addressInfo) const
{
    Bci::swapOrder(addressInfo);
}

void MerlowComponent::copyStringToClearedArray(unsigned char* dest, unsigned int destSize,
                                               const std::string& src) const
{
    std::fill_n(dest, destSize, static_cast<unsigned char>(0));
    if (destSize != 0) {
        std::copy_n(src.begin(), std::min<std::size_t>(src.size(), destSize - 1), dest);
    }
    if (destSize < src.size() + 1) {
        SCRY_TRACE(4, "ABN: copyErrorDescription: data lost. source: \""
                          << src << "\" (strlen: " << src.size() + 1 << "), destination: \""
                          << (destSize == 0 ? "" : reinterpret_cast<const char*>(dest))
                          << "\" (strlen: " << destSize << ")");
    }
}

void MerlowComponent::sendToClient(mnet_mbox_id_t client, MnetMsgPtr msg) const
{
    // A client that has just gone gets nothing: its notice is on the way.
    sendMsg(std::move(msg), client, m_commonData.getPublicMbox());
}

std::optional<BrhClient::ProcedureTransaction> MerlowComponent::findBmmiTransaction(unsigned int procedureRef,
                                                                                    const char* ignored) const
{
    const auto* transaction = m_commonData.getBmmiClient().searchTransactionProcedure(procedureRef);
    if (transaction == nullptr) {
        SCRY_TRACE(4, "ABN: No BMMI transaction was found for procedureRef: " << procedureRef << ". Ignoring "
                                                                              << ignored << ".");
        return std::nullopt;
    }
    return *transaction;
}
