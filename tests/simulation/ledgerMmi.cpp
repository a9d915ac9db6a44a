#include "bmmi.pb.h"
#include "ledgerFrames.h"

#include <map>

namespace sim {

namespace {

namespace bmmi = boardresourcehandler::bmmi;

constexpr std::uint32_t maintStateSubscription = bmmi::SubscribeMaintStateReq::MESSAGE_NUMBER;
constexpr std::uint32_t hereIAmSubscription = bmmi::SubscribeHereIAmStateReq::MESSAGE_NUMBER;

/// What a client may set, and what the board calls it.
const std::map<std::uint32_t, int> settableMaintStates{{0, 0}, {2, 1}, {3, 2}, {4, 3}};
const std::map<int, std::uint8_t> toldMaintStates{{0, 0}, {1, 2}, {2, 3}, {3, 4}, {4, 1}};

const std::map<unsigned int, int> settableLamps{
    {0x0010, 19}, {0x0011, 20}, {0x0060, 17}, {0x0061, 18}, {0x0110, 1}, {0x0111, 2},  {0x0120, 3},
    {0x0121, 4},  {0x0130, 5},  {0x0131, 6},  {0x0140, 7},  {0x0141, 8}, {0x0310, 11}, {0x0311, 12},
    {0x0320, 13}, {0x0321, 14}, {0x0331, 15}, {0x0332, 16}, {0x0410, 9}, {0x0411, 10}};

} // namespace

void Ledger::addMmiHandlers()
{
    onFrame<bmmi::RegisterMmiUserCfm>(
        m_bmmi, [this](const Event& event, const bmmi::RegisterMmiUserCfm& cfm) {
            const auto transaction = take(m_bmmi, event);
            Session* session = transaction ? sessionOf(transaction->client) : nullptr;
            if (session != nullptr && cfm.has_mmi_user_id()) {
                session->mmiUser = cfm.mmi_user_id();
                session->mmiAnswered = true;
                releaseConfirm(*session);
            }
        });
    onFrame<bmmi::RegisterMmiUserRej>(m_bmmi, [this](const Event& event, const bmmi::RegisterMmiUserRej&) {
        const auto transaction = take(m_bmmi, event);
        if (Session* session = transaction ? sessionOf(transaction->client) : nullptr) {
            session->mmiAnswered = true;
            releaseConfirm(*session);
        }
    });
    addMaintStateHandlers();
    addVisualHandlers();
    addHereIAmHandlers();
}

// The maintenance state

void Ledger::onSetMaintState(const Event& event)
{
    const Session* session = sessionOf(event.sender);
    if (session == nullptr || session->mmiUser == 0) {
        return;
    }
    const auto state = settableMaintStates.find(wordAt(event.bytes, 12));
    if (state == settableMaintStates.end()) {
        reject(event.sender, TARN_BC_SET_MAINT_STATE_REJ, refsOf(event));
        return;
    }
    bmmi::SetMaintStateReq req;
    req.set_mmi_user_id(session->mmiUser);
    req.set_maint_state(static_cast<bmmi::SetMaintStateReq::MaintState>(state->second));
    ask(m_bmmi, req, 0, transactionOf(event, event.number));
}

void Ledger::addMaintStateHandlers()
{
    onSignal(TARN_BC_SET_MAINT_STATE_REQ, [this](const Event& event) { onSetMaintState(event); });
    endsWith<bmmi::SetMaintStateCfm, bmmi::SetMaintStateRej>(m_bmmi, TARN_BC_SET_MAINT_STATE_CFM,
                                                             TARN_BC_SET_MAINT_STATE_REJ);
    onFrame<bmmi::SetMaintStateRej>(m_bmmi, [this](const Event& event, const bmmi::SetMaintStateRej& rej) {
        const auto transaction = take(m_bmmi, event);
        if (transaction && sessionOf(transaction->client) != nullptr) {
            const bool isCode2 = rej.error_code() == bmmi::SetMaintStateRej::ILLEGAL_TRANSITION ||
                                 rej.error_code() == bmmi::SetMaintStateRej::SERVICE_MAN_PRESENT;
            reject(transaction->client, TARN_BC_SET_MAINT_STATE_REJ, transaction->refs, isCode2 ? 2 : 1);
        }
    });
    onSignal(TARN_BC_SUBSCRIBE_MAINT_STATE_REQ, [this](const Event& event) {
        const Session* session = sessionOf(event.sender);
        if (session != nullptr && session->mmiUser != 0) {
            bmmi::SubscribeMaintStateReq req;
            req.set_mmi_user_id(session->mmiUser);
            ask(m_bmmi, req, 0, transactionOf(event, event.number));
        }
    });
    endsWith<bmmi::SubscribeMaintStateCfm, bmmi::SubscribeMaintStateRej>(
        m_bmmi, TARN_BC_SUBSCRIBE_MAINT_STATE_CFM, TARN_BC_SUBSCRIBE_MAINT_STATE_REJ);
    // The confirmed one stays for as long as its session.
    onFrame<bmmi::SubscribeMaintStateCfm>(
        m_bmmi, [this](const Event& event, const bmmi::SubscribeMaintStateCfm&) {
            const Transaction* transaction = find(m_bmmi, event);
            if (transaction == nullptr) {
                return;
            }
            if (Session* session = sessionOf(transaction->client)) {
                session->procedures.emplace(maintStateSubscription, wordAt(event.bytes, 4));
                answer(transaction->client, TARN_BC_SUBSCRIBE_MAINT_STATE_CFM, transaction->refs);
            } else {
                m_bmmi.open.erase(wordAt(event.bytes, 4));
            }
        });
    onFrame<bmmi::MaintStateInd>(m_bmmi, [this](const Event& event, const bmmi::MaintStateInd& ind) {
        const Transaction* transaction = find(m_bmmi, event);
        if (transaction == nullptr) {
            return;
        }
        if (sessionOf(transaction->client) == nullptr) {
            m_bmmi.open.erase(wordAt(event.bytes, 4));
            return;
        }
        const auto state = toldMaintStates.find(ind.maint_state());
        if (ind.has_maint_state() && state != toldMaintStates.end()) {
            answer(transaction->client, TARN_BC_SET_MAINT_STATE_IND, transaction->refs,
                   {0, 0, 0, state->second});
        }
    });
}

// Lamps

void Ledger::onSetVisual(const Event& event)
{
    const Session* session = sessionOf(event.sender);
    if (session == nullptr) {
        return;
    }
    if (isKpx(refsOf(event))) {
        answer(event.sender, TARN_BC_SET_VISUAL_INDICATION_CFM, refsOf(event));
        return;
    }
    const auto lamp = settableLamps.find(halfAt(event.bytes, 12));
    if (lamp == settableLamps.end() || session->mmiUser == 0) {
        reject(event.sender, TARN_BC_SET_VISUAL_INDICATION_REJ, refsOf(event));
        return;
    }
    bmmi::SetVisualIndicationReq req;
    req.set_mmi_user_id(session->mmiUser);
    req.set_visual_state(static_cast<bmmi::SetVisualIndicationReq::VisualizedState>(lamp->second));
    ask(m_bmmi, req, 0, transactionOf(event, 0));
}

void Ledger::onGetVisual(const Event& event, std::uint32_t rejectNo)
{
    const Session* session = sessionOf(event.sender);
    if (session == nullptr) {
        return;
    }
    if (session->mmiUser == 0) {
        reject(event.sender, rejectNo, refsOf(event));
        return;
    }
    bmmi::GetVisualIndicationReq req;
    req.set_mmi_user_id(session->mmiUser);
    ask(m_bmmi, req, 0, transactionOf(event, event.number));
}

void Ledger::addVisualHandlers()
{
    onSignal(TARN_BC_SET_VISUAL_INDICATION_REQ, [this](const Event& event) { onSetVisual(event); });
    endsWith<bmmi::SetVisualIndicationCfm, bmmi::SetVisualIndicationRej>(
        m_bmmi, TARN_BC_SET_VISUAL_INDICATION_CFM, TARN_BC_SET_VISUAL_INDICATION_REJ);
    onSignal(TARN_BC_GET_VISUAL_INDICATION_REQ,
             [this](const Event& event) { onGetVisual(event, TARN_BC_GET_VISUAL_INDICATION_REJ); });
    onSignal(TARN_BC_GET_SPECIAL_INDICATOR_REQ,
             [this](const Event& event) { onGetVisual(event, TARN_BC_GET_SPECIAL_INDICATOR_REJ); });
    onFrame<bmmi::GetVisualIndicationCfm>(m_bmmi, [this](const Event& event,
                                                         const bmmi::GetVisualIndicationCfm& cfm) {
        const auto transaction = take(m_bmmi, event);
        if (!transaction || sessionOf(transaction->client) == nullptr) {
            return;
        }
        const bool isFaultTold = cfm.has_support_unit_fault_state() &&
                                 (cfm.support_unit_fault_state() == 1 || cfm.support_unit_fault_state() == 2);
        if (transaction->data == TARN_BC_GET_VISUAL_INDICATION_REQ) {
            answer(transaction->client, TARN_BC_GET_VISUAL_INDICATION_CFM, transaction->refs);
        } else if (transaction->data == TARN_BC_GET_SPECIAL_INDICATOR_REQ) {
            answer(transaction->client, TARN_BC_GET_SPECIAL_INDICATOR_CFM, transaction->refs,
                   {0, 0, 0, static_cast<std::uint8_t>(isFaultTold ? 1 : 0)}, isFaultTold ? 16 + 132 : 16);
        }
    });
    onFrame<bmmi::GetVisualIndicationRej>(
        m_bmmi, [this](const Event& event, const bmmi::GetVisualIndicationRej&) {
            const auto transaction = take(m_bmmi, event);
            if (transaction && sessionOf(transaction->client) != nullptr &&
                (transaction->data == TARN_BC_GET_VISUAL_INDICATION_REQ ||
                 transaction->data == TARN_BC_GET_SPECIAL_INDICATOR_REQ)) {
                reject(transaction->client, transaction->data + 2, transaction->refs);
            }
        });
}

// Here I Am

void Ledger::onOrderHereIAm(const Event& event)
{
    const Session* session = sessionOf(event.sender);
    if (session == nullptr) {
        return;
    }
    const unsigned int state = halfAt(event.bytes, 12);
    const auto subscription = session->procedures.find(hereIAmSubscription);
    if (session->mmiUser == 0 || subscription == session->procedures.end() || (state != 1 && state != 2)) {
        reject(event.sender, TARN_BC_ORDE_HERE_I_AM_REJ, refsOf(event));
        return;
    }
    bmmi::OrderHereIAmReq req;
    req.set_mmi_user_id(session->mmiUser);
    req.set_order(static_cast<bmmi::OrderHereIAmReq::Order>(state));
    ask(m_bmmi, req, subscription->second);
}

void Ledger::addHereIAmHandlers()
{
    onSignal(TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_REQ, [this](const Event& event) {
        const Session* session = sessionOf(event.sender);
        if (session == nullptr) {
            return;
        }
        bmmi::SubscribeHereIAmStateReq req;
        req.set_mmi_user_id(session->mmiUser);
        if (session->mmiUser == 0 || !ask(m_bmmi, req, 0, transactionOf(event, hereIAmSubscription))) {
            reject(event.sender, TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_REJ, refsOf(event));
        }
    });
    endsWith<bmmi::SubscribeHereIAmStateCfm, bmmi::SubscribeHereIAmStateRej>(
        m_bmmi, TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_CFM, TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_REJ);
    // The confirmed one stays for as long as its session.
    onFrame<bmmi::SubscribeHereIAmStateCfm>(
        m_bmmi, [this](const Event& event, const bmmi::SubscribeHereIAmStateCfm&) {
            const Transaction* transaction = find(m_bmmi, event);
            if (Session* session = transaction == nullptr ? nullptr : sessionOf(transaction->client)) {
                session->procedures.emplace(hereIAmSubscription, wordAt(event.bytes, 4));
                answer(transaction->client, TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_CFM, transaction->refs);
            }
        });
    onFrame<bmmi::HereIAmStateInd>(m_bmmi, [this](const Event& event, const bmmi::HereIAmStateInd& ind) {
        const Transaction* transaction = find(m_bmmi, event);
        if (ind.has_state() && transaction != nullptr && sessionOf(transaction->client) != nullptr) {
            const auto state = static_cast<unsigned int>(ind.state());
            answer(transaction->client, TARN_BC_HERE_I_AM_STATE_IND, transaction->refs,
                   {static_cast<std::uint8_t>(state >> 8U), static_cast<std::uint8_t>(state)});
        }
    });
    onSignal(TARN_BC_ORDE_HERE_I_AM_REQ, [this](const Event& event) { onOrderHereIAm(event); });
    staysWith<bmmi::OrderHereIAmCfm, bmmi::OrderHereIAmRej>(m_bmmi, TARN_BC_ORDE_HERE_I_AM_CFM,
                                                            TARN_BC_ORDE_HERE_I_AM_REJ);
}

} // namespace sim
