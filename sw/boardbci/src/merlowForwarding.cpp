/// The half of MerlowImpl that clients meet: publication, admission, the way to the legacy server and back,
/// and the loss of either side.

#include "bci/bciCommon.h"
#include "eventLoopIf.h"
#include "insist.h"
#include "merlowCommonData.h"
#include "merlowComponent.h"
#include "merlowImpl.h"
#include "merlowTrace.h"
#include "rushlog.h"

#include <new>

namespace {

constexpr const char* LEGACY_NAME = "LegacyMerlow";
constexpr const char* PUBLIC_NAME = "Merlow";

/// Sends through the session's clone; without the legacy server there is nobody to send to.
void sendToLegacy(FwdMbox& fwdMbox, const BcSession* legacySession, MnetMsgPtr msg)
{
    if (legacySession == nullptr) {
        SCRY_TRACE(4, "ABN: No " << LEGACY_NAME << " for message 0x" << std::hex << msg->msgNo << " from "
                                 << fwdMbox.getMboxName() << ". Ignoring it.");
        return;
    }
    mnet_msg* raw = msg.release();
    fwdMbox.send(&raw, legacySession->mailboxId);
}

/// Without a search the legacy server would be missed for ever: who supervises the server is to start it
/// again.
template <class Search> void searchOrEnd(const Search& search)
{
    try {
        search();
    } catch (const std::bad_alloc&) {
        SCRY_TRACE(1, "ABN: Without a search for " << LEGACY_NAME << " Merlow ends");
        Loomwork::EventLoop::V1::EventLoopIf::getInstance().stop();
    }
}

} // namespace

/// Without memory for it a trace, and std::bad_alloc.
void MerlowImpl::startToSearchLegacy()
{
    const mnet_mbox_id_t privateMbox = m_commonData->getPrivateMbox();
    if (!insist([privateMbox] { return mnet_locate_async(LEGACY_NAME, nullptr, privateMbox) == 0; })) {
        SCRY_TRACE(1, "ABN: Failed to start the search for " << LEGACY_NAME);
        throw std::bad_alloc();
    }
}

// Publication

bool MerlowImpl::areComponentsReadyToPublish()
{
    const bool isPublic = m_commonData->getPublicMbox() != MNET_MBOX_NONE;
    if (!isPublic && m_legacySession) {
        for (const auto& component : m_components) {
            if (!component->isReadyToPublish()) {
                SCRY_TRACE(4, component->getComponentName() << " component is not ready to publish.");
                return false;
            }
        }
        return publishToDu();
    }
    if (!m_legacySession) {
        SCRY_OBJ_TRACE(5, "legacySession not found");
    }
    if (isPublic) {
        SCRY_OBJ_TRACE(5, "Already published to the DU.");
    }
    return false;
}

bool MerlowImpl::publishToDu()
{
    const mnet_mbox_id_t privateMbox = m_commonData->getPrivateMbox();
    const mnet_mbox_id_t clone = mnet_clone_mailbox(privateMbox, PUBLIC_NAME);
    if (clone == MNET_MBOX_NONE) {
        SCRY_TRACE(1, "Cannot add clone \"Merlow\" to mailbox 0x" << std::hex << privateMbox);
        return false;
    }
    m_commonData->setPublicMbox(clone);
    SCRY_TRACE(4, "Publishing cloned mailbox: " << PUBLIC_NAME << "(0x" << std::hex << privateMbox << std::dec
                                                << ") and highestProtocolRev("
                                                << m_commonData->getHighestProtocolRev() << ")");
    rushlog_log(RUSHLOG_CATEGORY, "Radio Merlow Published (BCI)");
    return true;
}

// Sessions

BcSession* MerlowImpl::addForwardedSession(const mnet_msg& msg, const std::string& number,
                                           std::uint16_t protocolRev)
{
    const auto references = Bci::referencesOf(msg);
    BcSession* session = m_commonData->addClientSession(mnet_sender(&msg), references.clientRef,
                                                        references.serverRef, protocolRev, "DU_" + number, 0);
    session->setFwdMbox(
        std::make_unique<FwdMbox>(m_commonData->getPrivateMbox(), "BcFwdMbox_" + number).release());
    return session;
}

void MerlowImpl::processBcConnEstablishReq(mnet_msg* rawMsg)
{
    MnetMsgPtr msg(rawMsg);
    if (m_commonData->getPublicMbox() == MNET_MBOX_NONE) {
        SCRY_OBJ_TRACE(5, "ABN: TARN_BC_CONN_ESTABLISH_REQ received before going public");
        return;
    }
    const std::string start = "Radio Merlow Connection Established, Start clientRef=" +
                              std::to_string(Bci::referencesOf(*msg).clientRef);
    rushlog_log(RUSHLOG_CATEGORY, start.c_str());

    if (const BcSession* known = m_commonData->getClientSession(mnet_sender(msg.get()))) {
        if (FwdMbox* fwdMbox = known->getFwdMbox()) {
            sendToLegacy(*fwdMbox, m_legacySession.get(), std::move(msg));
            SCRY_OBJ_TRACE(5, "A session for this client already exists, forwarding to "
                                  << LEGACY_NAME << " from " << fwdMbox->getMboxName());
            return;
        }
    }
    const std::string number = std::to_string(m_commonData->generateSessionNumber());
    SCRY_OBJ_TRACE(5, "Creating new session and FwdMbox named BcFwdMbox_" << number << " for DU_" << number);
    const auto protocolRev =
        Bci::fieldOrZero<std::uint16_t>(*msg, offsetof(TarnBcConnEstablishReqS, protocolRev));
    const BcSession* session = addForwardedSession(*msg, number, protocolRev);
    FwdMbox* fwdMbox = session->getFwdMbox();
    if (fwdMbox->start() == 0) {
        sendToLegacy(*fwdMbox, m_legacySession.get(), std::move(msg));
        SCRY_OBJ_TRACE(5, "TARN_BC_CONN_ESTABLISH_REQ from " << session->getMboxName()
                                                             << " has been forwarded to " << LEGACY_NAME
                                                             << " via the " << fwdMbox->getMboxName());
    }
}

void MerlowImpl::sendTarnBcConnEstablishCfm(const BcSession& session)
{
    if (!session.areRegistrationsResponded()) {
        return;
    }
    SCRY_OBJ_TRACE(5, "Registrations complete. Send the pending TARN_BC_CONN_ESTABLISH_CFM.");
    const mnet_msg* pending = session.getCfmPending();
    if (pending == nullptr) {
        return;
    }
    const auto references = Bci::referencesOf(*pending);
    const std::string end =
        "Radio Merlow Connection Established, End clientRef=" + std::to_string(references.clientRef) +
        ", serverRef=" + std::to_string(references.serverRef);
    rushlog_log(RUSHLOG_CATEGORY, end.c_str());
    sendMsg(session.takeCfmPending(), session.mailboxId, m_commonData->getPublicMbox());
}

void MerlowImpl::deleteBcSession(const BcSession& session)
{
    for (const auto& component : m_components) {
        try {
            component->onBcSessionLost(session);
        } catch (const std::bad_alloc&) { // the session must not stay for it
            SCRY_TRACE(1, "ABN: No memory to give back all that " << session.getMboxName() << " has held");
        }
    }
    SCRY_OBJ_TRACE(5, "MerlowImpl::deleteBcSession erasing " << session.getMboxName());
    m_commonData->removeClientSession(session.mailboxId);
}

// The legacy server

void MerlowImpl::handleLegacyFound(const std::shared_ptr<mnet_msg>& msg)
{
    const mnet_mbox_id_t mailbox = mnet_sender(msg.get());
    if (mnet_is_notice(msg.get()) != 1) {
        SCRY_TRACE(4, "ABN: Locate answer from mbox: 0x" << std::hex << mailbox
                                                         << " is no notice. Ignoring it.");
        return;
    }
    SCRY_OBJ_TRACE(5, "Legacy Merlow was found at mailbox 0x" << std::hex << mailbox);
    const bool isSession = insist([this, mailbox] {
        try {
            m_legacySession = std::make_unique<BcSession>(mailbox, 0, 0, std::uint16_t{0}, LEGACY_NAME, 0U);
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    });
    if (!isSession) {
        searchOrEnd([this] { startToSearchLegacy(); }); // it is found at once
        return;
    }
    areComponentsReadyToPublish();
}

void MerlowImpl::redirectToAndFromLegacy(mnet_msg* rawMsg)
{
    if (rawMsg->msgNo == TARN_BC_CONN_ESTABLISH_REQ) {
        processBcConnEstablishReq(rawMsg);
        return;
    }
    MnetMsgPtr msg(rawMsg);
    const std::uint32_t msgNo = msg->msgNo;
    if (m_commonData->getPublicMbox() == MNET_MBOX_NONE) {
        SCRY_OBJ_TRACE(5, "ABN: DU message received before going public");
        return;
    }
    const mnet_mbox_id_t sender = mnet_sender(msg.get());
    SCRY_OBJ_TRACE(5, "Merlow received an unhandled message (0x" << std::hex << msgNo << ")");

    if (BcSession* receiver = m_commonData->getSessionFromFwdMbox(mnet_receiver(msg.get()))) {
        forwardFromLegacy(*receiver, std::move(msg));
        return;
    }
    if (const BcSession* session = m_commonData->getClientSession(sender)) {
        if (FwdMbox* fwdMbox = session->getFwdMbox()) {
            SCRY_OBJ_TRACE(5, "Forwarding message 0x" << std::hex << msgNo << " from "
                                                      << session->getMboxName() << " to " << LEGACY_NAME
                                                      << " via " << fwdMbox->getMboxName());
            sendToLegacy(*fwdMbox, m_legacySession.get(), std::move(msg));
            return;
        }
    }
    // Somebody who speaks without having asked for a connection is a client all the same.
    const std::string number = std::to_string(m_commonData->generateSessionNumber());
    SCRY_OBJ_TRACE(5, "default from DU_" << number << " creating new session list entry");
    const BcSession* session = addForwardedSession(*msg, number, 0);
    FwdMbox* fwdMbox = session->getFwdMbox();
    if (fwdMbox->start() == 0) {
        SCRY_OBJ_TRACE(5, "Message 0x" << std::hex << msgNo << " from " << session->getMboxName()
                                       << " has been forwarded to " << LEGACY_NAME << " via the "
                                       << fwdMbox->getMboxName());
        sendToLegacy(*fwdMbox, m_legacySession.get(), std::move(msg));
    }
}

void MerlowImpl::forwardFromLegacy(BcSession& session, MnetMsgPtr msg)
{
    const std::uint32_t msgNo = msg->msgNo;
    SCRY_OBJ_TRACE(5, "Message was forwarded from legacy Merlow via " << session.getFwdMbox()->getMboxName());
    if (msgNo != TARN_BC_CONN_ESTABLISH_CFM) {
        SCRY_OBJ_TRACE(5, "Forwarding message 0x" << std::hex << msgNo << " to " << session.getMboxName());
        sendMsg(std::move(msg), session.mailboxId, m_commonData->getPublicMbox());
        if (msgNo == TARN_BC_CONN_ESTABLISH_REJ) {
            deleteBcSession(session);
        }
        return;
    }
    // Held back until the services have had their registrations answered.
    session.serverRef = Bci::referencesOf(*msg).serverRef;
    SCRY_OBJ_TRACE(5, "Adopting TARN_BC_CONN_ESTABLISH_CFM's serverRef " << session.serverRef);
    session.setCfmPending(msg.release());
    session.setMmiUserRegisterReqResponded(false);
    session.setTimeSourceRegisterReqResponded(false);
    for (const auto& component : m_components) {
        component->onNewBcSession(session);
    }
}

// Loss

void MerlowImpl::handleSessionLost(const std::shared_ptr<mnet_msg>& msg)
{
    const mnet_mbox_id_t mailbox = mnet_sender(msg.get());
    if (mnet_is_notice(msg.get()) != 1) {
        SCRY_TRACE(4, "ABN: Monitor notification from mbox: 0x" << std::hex << mailbox
                                                                << " is no notice. Ignoring it.");
        return;
    }
    const BcSession* session = m_commonData->getClientSession(mailbox);
    const bool isLegacy = m_legacySession && m_legacySession->mailboxId == mailbox;
    if (session != nullptr) {
        SCRY_OBJ_TRACE(5, "Client disconnected: " << session->getMboxName());
        deleteBcSession(*session);
    }
    // A legacy server that has spoken to the public mailbox is a client too, with a watch for each role. The
    // end of the one takes a queued notice of the other with it, so whichever comes first stands for both.
    if (isLegacy) {
        SCRY_TRACE(1, "ABN: Backend disconnected: erasing " << m_legacySession->getMboxName());
        m_legacySession.reset();
        m_commonData->setPublicMbox(MNET_MBOX_NONE);
        searchOrEnd([this] { startToSearchLegacy(); });
    } else if (session == nullptr) {
        SCRY_OBJ_TRACE(5, "Unknown client disconnected: " << mailbox);
    }
}
