#include "fakeMnet.h"
#include "ledger.h"
#include "virtualSwmServer.h"

#include <algorithm>

namespace sim {

namespace {

constexpr std::uint32_t exitNo = 0xDEADBEEF;
constexpr std::uint32_t subscriberLostNo = 0xDEADBEF0;
/// As an audit tells it.
constexpr unsigned int disabledState = 2;

} // namespace

Session* Ledger::sessionOf(mnet_mbox_id_t mbox)
{
    const auto found = m_sessions.find(mbox);
    return found == m_sessions.end() ? nullptr : &found->second;
}

void Ledger::dispatch(const Event& event)
{
    m_canSendSwmi = support::VirtualSwmServer::connection() != nullptr &&
                    !support::VirtualSwmServer::connection()->closedByPeer;
    if (event.isSwmi) {
        onSwmi(event);
        return;
    }
    switch (event.number) {
    case exitNo:
        if (event.sender == m_private) {
            m_isExiting = true;
            m_public = MNET_MBOX_NONE;
        }
        return;
    case MNET_LOCATE_DEFAULT_MSGNO:
        onLegacyFound(event);
        return;
    case MNET_MONITOR_DEFAULT_MSGNO:
        onMailboxLost(event);
        return;
    case subscriberLostNo:
        if (event.isNotice) {
            onSubscriberLost(event);
            return;
        }
        break; // from anybody else it is a number like any other
    default:
        break;
    }
    for (Backend* backend : {&m_bri, &m_bmmi}) {
        if (event.number == backend->notifyNo) {
            onNotify(*backend, event);
            return;
        }
    }
    if (m_frameNumbers.count(event.number) != 0) {
        const bool isConfirm = event.number == 0x170772E || event.number == 0x1707571;
        const auto frame = m_frames.find({event.number, wordAt(event.bytes, isConfirm ? 4 : 8)});
        if (frame != m_frames.end()) {
            frame->second(event);
        }
        return;
    }
    const auto signal = m_signals.find(event.number);
    if (signal == m_signals.end()) {
        onUnhandled(event);
        return;
    }
    signal->second(event);
}

void Ledger::onLegacyFound(const Event& event)
{
    if (event.isNotice) {
        m_legacy = event.sender;
        checkPublication();
    }
}

void Ledger::onMailboxLost(const Event& event)
{
    if (!event.isNotice) {
        return;
    }
    const bool isLegacy = event.sender == m_legacy;
    closeSession(event.sender);
    if (isLegacy) {
        m_legacy = MNET_MBOX_NONE;
        m_public = MNET_MBOX_NONE;
    }
}

void Ledger::checkPublication()
{
    m_isPublishing = m_public == MNET_MBOX_NONE && m_legacy != MNET_MBOX_NONE && m_bri.isConnected &&
                     m_bri.hasCapabilities && m_bmmi.isConnected && m_bmmi.hasCapabilities &&
                     m_isSwmiConnected;
}

void Ledger::openSession(const Event& event, unsigned int protocolRev)
{
    m_sessions[event.sender] = {.number = m_nextSession++,
                                .mbox = event.sender,
                                .refs = {wordAt(event.bytes, 4), wordAt(event.bytes, 8)},
                                .protocolRev = protocolRev,
                                .held = {},
                                .procedures = {}};
    pass(m_legacy, m_private, event.bytes);
    m_expected.back().opensSessionOf = event.sender;
}

void Ledger::onUnhandled(const Event& event)
{
    if (!isPublished()) {
        return;
    }
    const bool isEstablishing = event.number == TARN_BC_CONN_ESTABLISH_REQ;
    if (!isEstablishing) {
        for (auto& [mbox, session] : m_sessions) {
            if (session.clone == event.receiver) {
                onFromLegacy(session, event);
                return;
            }
        }
    }
    if (const Session* session = sessionOf(event.sender)) {
        pass(m_legacy, session->clone, event.bytes);
        return;
    }
    openSession(event, isEstablishing ? halfAt(event.bytes, 12) : 0);
}

void Ledger::onFromLegacy(Session& session, const Event& event)
{
    if (event.number != TARN_BC_CONN_ESTABLISH_CFM) {
        pass(session.mbox, m_public, event.bytes);
        if (event.number == TARN_BC_CONN_ESTABLISH_REJ) {
            closeSession(session.mbox);
        }
        return;
    }
    session.refs.server = wordAt(event.bytes, 8);
    session.held = event.bytes;
    session.timeAnswered = false;
    session.mmiAnswered = false;
    registerSession(session);
}

void Ledger::releaseConfirm(Session& session)
{
    if (session.timeAnswered && session.mmiAnswered && session.held) {
        pass(session.mbox, m_public, *session.held);
        session.held.reset();
    }
}

void Ledger::closeSession(mnet_mbox_id_t mbox)
{
    const Session* session = sessionOf(mbox);
    if (session == nullptr) {
        return;
    }
    unregisterSession(*session);
    m_sessions.erase(mbox);
}

bool Ledger::isDefaultSubscriber(mnet_mbox_id_t mbox) const
{
    return std::any_of(m_defaultSubscribers.begin(), m_defaultSubscribers.end(),
                       [mbox](const Subscriber& subscriber) { return subscriber.mbox == mbox; });
}

// Services that the server answers by itself

void Ledger::addClientHandlers()
{
    const auto on = [this](std::uint32_t number, void (Ledger::*handler)(const Event&)) {
        onSignal(number, [this, handler](const Event& event) { (this->*handler)(event); });
    };
    on(TARN_BC_AUDIT_REQ, &Ledger::onAudit);
    on(TARN_BC_ENABLE_OPERATION_REQ, &Ledger::onEnable);
    on(TARN_BC_DISABLE_OPERATION_REQ, &Ledger::onDisable);
    on(TARN_BC_GET_CAPABILITIES_REQ, &Ledger::onGetCapabilities);
    on(TARN_BC_LINK_SUPERVISION_REQ, &Ledger::onLinkSupervision);
    on(TARN_BC_SELECT_MMI_REQ, &Ledger::onSelectMmi);
    on(TARN_BC_NOTIFY_RESTART_REQ, &Ledger::onNotifyRestart);
    on(TARN_BC_RESTART_BOARD_NOTIFICATION_IND, &Ledger::onRestartNotification);
}

void Ledger::onAudit(const Event& event)
{
    if (const Session* session = sessionOf(event.sender)) {
        answer(event.sender, TARN_BC_AUDIT_CFM, refsOf(event),
               {0, static_cast<std::uint8_t>(session->state)});
    }
}

void Ledger::onEnable(const Event& event)
{
    Session* session = sessionOf(event.sender);
    if (session == nullptr) {
        return;
    }
    if (session->state == disabledState) {
        reject(event.sender, TARN_BC_ENABLE_OPERATION_REJ, refsOf(event));
        return;
    }
    session->state = 1;
    answer(event.sender, TARN_BC_ENABLE_OPERATION_CFM, refsOf(event));
}

void Ledger::onDisable(const Event& event)
{
    if (Session* session = sessionOf(event.sender)) {
        session->state = disabledState;
        answer(event.sender, TARN_BC_DISABLE_OPERATION_CFM, refsOf(event));
    }
}

void Ledger::onGetCapabilities(const Event& event)
{
    answer(event.sender, TARN_BC_GET_CAPABILITIES_CFM, refsOf(event), {}, 0);
}

void Ledger::onLinkSupervision(const Event& event)
{
    reject(event.sender, TARN_BC_LINK_SUPERVISION_REJ, refsOf(event));
}

void Ledger::onSelectMmi(const Event& event)
{
    if (sessionOf(event.sender) == nullptr) {
        return;
    }
    if (wordAt(event.bytes, 12) == 1) {
        answer(event.sender, TARN_BC_SELECT_MMI_CFM, refsOf(event));
    } else {
        reject(event.sender, TARN_BC_SELECT_MMI_REJ, refsOf(event));
    }
}

void Ledger::onNotifyRestart(const Event& event)
{
    if (sessionOf(event.sender) == nullptr) {
        return;
    }
    if (textAt(event.bytes, 16, event.bytes.size()).empty()) { // the platform wants a reason
        reject(event.sender, TARN_BC_NOTIFY_RESTART_REJ, refsOf(event));
    } else {
        answer(event.sender, TARN_BC_NOTIFY_RESTART_CFM, refsOf(event));
    }
}

void Ledger::onRestartNotification(const Event& event)
{
    Bytes told(event.bytes.begin(), event.bytes.begin() + 180);
    const auto code = static_cast<std::int16_t>(halfAt(told, 12));
    if (halfAt(told, 16) != 2 && m_restartInitiators.count({refsOf(event), code}) != 0) {
        told[16] = told[17] = 0;
    }
    for (const auto& [mbox, session] : m_sessions) {
        if (session.clone == event.receiver) {
            pass(mbox, m_public, told);
        }
    }
}

} // namespace sim
