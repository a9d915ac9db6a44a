#pragma once

#include "bcSession.h"
#include "brhClient.h"
#include "faultManagerIf.h"
#include "productInfo.h"
#include "swmClient.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// What all components share: the two mailboxes, the client sessions, the backend clients.
///
/// Server thread only. Two exceptions: `getPrivateMbox`, which a host thread reads to send the stop request,
/// and `cleanUp`, which runs on the thread that ends the server once the server thread is over.
class MerlowCommonData {
public:
    /// A new object that the caller owns. `firstClientRef` is the first reference that the backend clients
    /// try. The fault manager must outlive the object.
    [[nodiscard]] static MerlowCommonData* getNew(unsigned int firstClientRef,
                                                  Merlow::FaultManagerIf& faultManager);
    virtual ~MerlowCommonData();
    MerlowCommonData(const MerlowCommonData&) = delete;
    MerlowCommonData& operator=(const MerlowCommonData&) = delete;

    /// Store the id. `MNET_MBOX_NONE` also deletes the mailbox that was held.
    void setPrivateMbox(mnet_mbox_id_t mbox);
    void setPublicMbox(mnet_mbox_id_t mbox);
    [[nodiscard]] mnet_mbox_id_t getPrivateMbox() const { return m_privateMbox; }
    /// `MNET_MBOX_NONE` means not published.
    [[nodiscard]] mnet_mbox_id_t getPublicMbox() const { return m_publicMbox; }

    /// A client is known by the mailbox that its signals come from. The list owns the sessions; a pointer
    /// into it is good until the session is removed. Never looks for a duplicate.
    BcSession* addClientSession(mnet_mbox_id_t mailbox, std::int32_t clientRef, std::int32_t serverRef,
                                std::uint16_t protocolRev, const std::string& name, std::uint32_t extraRef);
    void removeClientSession(mnet_mbox_id_t mailbox);
    /// Null when there is none: a normal case.
    [[nodiscard]] BcSession* getClientSession(mnet_mbox_id_t mailbox) const;
    [[nodiscard]] BcSession* getSessionFromFwdMbox(mnet_mbox_id_t mailbox) const;
    [[nodiscard]] std::size_t getNumClientSessions() const { return m_sessions.size(); }

    [[nodiscard]] BrhClient& getBriClient() { return m_briClient; }
    [[nodiscard]] BrhClient& getBmmiClient() { return m_bmmiClient; }
    [[nodiscard]] SWMClient& getSwmiClient() { return m_swmiClient; }
    [[nodiscard]] Merlow::FaultManagerIf& getFaultManager() { return m_faultManager; }

    /// The load module that the board shall start next: product number, '_' and revision; empty means none.
    [[nodiscard]] const std::string& getSelectLoadModule() const { return m_selectLoadModule; }
    void setSelectLoadModule(const std::string& software) { m_selectLoadModule = software; }

    /// What was told of the unit and its container last; kept while this object lives.
    [[nodiscard]] const ProductInfo& getProductInfoCache() const { return m_productInfo; }
    void setProductInfoCache(const ProductInfo& info) { m_productInfo = info; }
    [[nodiscard]] const ContainerInfo& getContainerInfoCache() const { return m_containerInfo; }
    void setContainerInfoCache(const ContainerInfo& info) { m_containerInfo = info; }

    /// Automatic boot mode: the environment variable `SYS_MODE` was "AUBOOT" when this object was made.
    [[nodiscard]] bool isAuboot() const { return m_isAuboot; }
    [[nodiscard]] bool isSupportedProtocolRev(unsigned short protocolRev) const;
    [[nodiscard]] std::uint16_t getHighestProtocolRev() const { return m_protocolRevs.front(); }

    [[nodiscard]] std::uint32_t generateSessionNumber() { return m_sessionNumber++; }

    /// Counted: each true needs a false of its own.
    void setPdsFaultsEnabled(bool enabled);
    [[nodiscard]] bool isPdsFaultsEnabled() const { return m_pdsFaultsEnabled != 0; }

    /// Takes the backend clients off the calling thread's subscription and off their servers. Harmless when
    /// done already.
    void destroyClients();
    /// Deletes both mailboxes, destroys every session and then the backend clients' connections.
    void cleanUp();

private:
    MerlowCommonData(unsigned int firstClientRef, Merlow::FaultManagerIf& faultManager);

    std::atomic<mnet_mbox_id_t> m_privateMbox{MNET_MBOX_NONE};
    mnet_mbox_id_t m_publicMbox{MNET_MBOX_NONE};
    std::vector<std::unique_ptr<BcSession>> m_sessions;
    BrhClient m_briClient;
    BrhClient m_bmmiClient;
    SWMClient m_swmiClient;
    std::string m_selectLoadModule;
    bool m_isAuboot;
    std::vector<std::uint16_t> m_protocolRevs; ///< highest first
    Merlow::FaultManagerIf& m_faultManager;
    ProductInfo m_productInfo;
    ContainerInfo m_containerInfo;
    std::uint32_t m_sessionNumber{0};
    std::atomic<std::uint32_t> m_pdsFaultsEnabled{0}; ///< a host thread may set it
};
