#include "merlowCommonData.h"

#include "mnet.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace {

bool isSysModeAuboot()
{
    const char* mode = std::getenv("SYS_MODE");
    return mode != nullptr && std::string_view(mode) == "AUBOOT";
}

} // namespace

MerlowCommonData* MerlowCommonData::getNew(unsigned int firstClientRef, Merlow::FaultManagerIf& faultManager)
{
    return new MerlowCommonData(firstClientRef, faultManager);
}

MerlowCommonData::MerlowCommonData(unsigned int firstClientRef, Merlow::FaultManagerIf& faultManager)
    : m_briClient(firstClientRef), m_bmmiClient(firstClientRef), m_isAuboot(isSysModeAuboot()),
      m_protocolRevs(m_isAuboot ? std::vector<std::uint16_t>{1} : std::vector<std::uint16_t>{3, 2, 1}),
      m_faultManager(faultManager)
{
}

MerlowCommonData::~MerlowCommonData() = default;

void MerlowCommonData::setPrivateMbox(mnet_mbox_id_t mbox)
{
    if (mbox == MNET_MBOX_NONE) {
        mnet_delete_mailbox(m_privateMbox);
    }
    m_privateMbox = mbox;
}

void MerlowCommonData::setPublicMbox(mnet_mbox_id_t mbox)
{
    if (mbox == MNET_MBOX_NONE) {
        mnet_delete_mailbox(m_publicMbox);
    }
    m_publicMbox = mbox;
}

BcSession* MerlowCommonData::addClientSession(mnet_mbox_id_t mailbox, std::int32_t clientRef,
                                              std::int32_t serverRef, std::uint16_t protocolRev,
                                              const std::string& name, std::uint32_t extraRef)
{
    return m_sessions
        .emplace_back(std::make_unique<BcSession>(mailbox, clientRef, serverRef, protocolRev, name, extraRef))
        .get();
}

void MerlowCommonData::removeClientSession(mnet_mbox_id_t mailbox)
{
    const auto it = std::find_if(m_sessions.begin(), m_sessions.end(),
                                 [mailbox](const auto& session) { return session->mailboxId == mailbox; });
    if (it != m_sessions.end()) {
        m_sessions.erase(it);
        m_briClient.abandonTransactions(mailbox);
        m_bmmiClient.abandonTransactions(mailbox);
    }
}

BcSession* MerlowCommonData::getClientSession(mnet_mbox_id_t mailbox) const
{
    const auto it = std::find_if(m_sessions.begin(), m_sessions.end(),
                                 [mailbox](const auto& session) { return session->mailboxId == mailbox; });
    return it == m_sessions.end() ? nullptr : it->get();
}

BcSession* MerlowCommonData::getSessionFromFwdMbox(mnet_mbox_id_t mailbox) const
{
    const auto it = std::find_if(m_sessions.begin(), m_sessions.end(), [mailbox](const auto& session) {
        return session->getFwdMailboxId() == mailbox;
    });
    // A session whose clone could not be started has no mailbox, and so is nobody's receiver.
    return it == m_sessions.end() || mailbox == MNET_MBOX_NONE ? nullptr : it->get();
}

bool MerlowCommonData::isSupportedProtocolRev(unsigned short protocolRev) const
{
    return std::find(m_protocolRevs.begin(), m_protocolRevs.end(), protocolRev) != m_protocolRevs.end();
}

void MerlowCommonData::setPdsFaultsEnabled(bool enabled)
{
    if (enabled) {
        ++m_pdsFaultsEnabled;
        return;
    }
    auto count = m_pdsFaultsEnabled.load();
    while (count != 0 && !m_pdsFaultsEnabled.compare_exchange_weak(count, count - 1)) {
    }
}

void MerlowCommonData::destroyClients()
{
    m_briClient.destroy();
    m_bmmiClient.destroy();
    m_swmiClient.destroy();
}

void MerlowCommonData::cleanUp()
{
    if (m_privateMbox != MNET_MBOX_NONE) {
        setPrivateMbox(MNET_MBOX_NONE);
    }
    if (m_publicMbox != MNET_MBOX_NONE) {
        setPublicMbox(MNET_MBOX_NONE);
    }
    m_sessions.clear();
    destroyClients();
}
