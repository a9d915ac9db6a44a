#include "bri.pb.h"
#include "ledgerFrames.h"

#include <algorithm>

namespace sim {

namespace {

namespace bri = boardresourcehandler::bri;

const std::set<std::uint16_t> forwardable{0x0300, 0x0301, 0x0502, 0x0521, 0x0522, 0x0710, 0x0711};

/// As an array of a signal holds it.
Bytes textField(const std::string& text, std::size_t size)
{
    Bytes bytes(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(std::min(text.size(), size - 1)));
    bytes.resize(size);
    return bytes;
}

} // namespace

void Ledger::faultRaised(const Fault& fault, std::optional<mnet_mbox_id_t> onlyTo)
{
    Bytes tail{static_cast<std::uint8_t>(fault.id >> 8U), static_cast<std::uint8_t>(fault.id), 0, 0};
    const Bytes text = textField(fault.text, 110);
    tail.insert(tail.end(), text.begin(), text.end());
    tail.resize(140 - 12); // what is between is not written
    tail.push_back(static_cast<std::uint8_t>(fault.faultCase >> 8U));
    tail.push_back(static_cast<std::uint8_t>(fault.faultCase));
    for (const Subscriber& subscriber : m_defaultSubscribers) {
        if (!onlyTo || *onlyTo == subscriber.mbox) {
            answer(subscriber.mbox, TARN_BC_FAULT_IND, subscriber.refs, tail);
        }
    }
}

void Ledger::faultCeased(const Fault& fault)
{
    Bytes tail{static_cast<std::uint8_t>(fault.id >> 8U), static_cast<std::uint8_t>(fault.id)};
    tail.resize(24 - 12); // what is between is not written
    tail.push_back(static_cast<std::uint8_t>(fault.faultCase >> 8U));
    tail.push_back(static_cast<std::uint8_t>(fault.faultCase));
    for (const Subscriber& subscriber : m_defaultSubscribers) {
        answer(subscriber.mbox, TARN_BC_FAULTCEASE_IND, subscriber.refs, tail);
    }
}

// The board's faults

void Ledger::applyBoardCalls()
{
    for (const FaultCall& call : std::exchange(m_boardCalls, {})) {
        if (call.raised) {
            m_faults.raise(true, call.faultId, call.faultCase, call.description);
        } else {
            m_faults.remove(call.faultId);
        }
    }
}

void Ledger::addFaultHandlers()
{
    onFrame<bri::FaultInd>(m_bri, [this](const Event&, const bri::FaultInd& ind) {
        model::Indication indication;
        if (ind.has_fault_id()) {
            indication.faultId = ind.fault_id();
        }
        if (ind.has_fault_case()) {
            indication.faultCase = ind.fault_case();
        }
        if (ind.has_fan_product_info()) {
            const auto& told = ind.fan_product_info();
            model::FanInfo& fan = indication.fan.emplace();
            if (told.has_fan_product_number()) {
                fan.productNumber = told.fan_product_number();
            }
            if (told.has_fan_parent_product_number()) {
                fan.parentProductNumber = told.fan_parent_product_number();
            }
            if (told.has_fan_position_slot()) {
                fan.slot = told.fan_position_slot();
            }
        }
        m_boardFaults.indicate(indication);
        applyBoardCalls();
    });
    onFrame<bri::FaultCeaseInd>(m_bri, [this](const Event&, const bri::FaultCeaseInd& ind) {
        if (ind.has_fault_id()) {
            m_boardFaults.cease(ind.fault_id());
            applyBoardCalls();
        }
    });
    onSignal(TARN_BC_SUBSCRIBE_FAULTS_REQ, [this](const Event& event) {
        const Subscriber subscriber{.mbox = event.sender, .refs = refsOf(event)};
        if (std::count(m_labelSubscribers.begin(), m_labelSubscribers.end(), subscriber) != 0) {
            return;
        }
        if (subscribe(event, m_defaultSubscribers, TARN_BC_SUBSCRIBE_FAULTS_CFM)) {
            m_faults.forEachShown([&](const Fault& fault) { faultRaised(fault, event.sender); });
        }
    });
    onSignal(TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REQ, [this](const Event& event) {
        std::erase(m_defaultSubscribers, Subscriber{.mbox = event.sender, .refs = refsOf(event)});
        subscribe(event, m_labelSubscribers, TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_CFM);
    });
    onSignal(TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_REQ, [this](const Event& event) {
        const Subscriber subscriber{.mbox = event.sender, .refs = refsOf(event)};
        if (std::count(m_labelSubscribers.begin(), m_labelSubscribers.end(), subscriber) == 0) {
            subscribe(event, m_recoverySubscribers, TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_CFM);
        }
    });
    onSignal(CCFI_BC_CONN_ESTABLISH_REQ, [this](const Event& event) { onCcfiEstablish(event); });
    onSignal(CCFI_BC_CONN_CLOSE_REQ, [this](const Event& event) { onCcfiClose(event); });
    onSignal(CCFI_BC_FAULT_FWD, [this](const Event& event) { onCcfiFault(event, true); });
    onSignal(CCFI_BC_FAULTCEASE_FWD, [this](const Event& event) { onCcfiFault(event, false); });
    m_signals[CCFI_MERLOW_MNET_MONITOR_IND] = [this](const Event& event) {
        if (event.isNotice) {
            std::uint32_t reference = 0;
            std::memcpy(&reference, event.bytes.data() + 4, sizeof(reference)); // it never left the process
            m_ccfi.erase(reference);
        }
    };
}

// Subscribers

bool Ledger::subscribe(const Event& event, Subscribers& list, std::uint32_t confirmNo)
{
    if (sessionOf(event.sender) == nullptr) {
        return false;
    }
    const Subscriber subscriber{.mbox = event.sender, .refs = refsOf(event)};
    if (std::count(list.begin(), list.end(), subscriber) == 0) {
        list.push_back(subscriber);
    }
    answer(event.sender, confirmNo, subscriber.refs);
    return true;
}

/// The first default subscription goes with the session; what is left goes with the client's mailbox.
void Ledger::unsubscribe(mnet_mbox_id_t mbox)
{
    const auto isOfClient = [mbox](const Subscriber& subscriber) {
        return subscriber.mbox == mbox;
    };
    const auto first = std::find_if(m_defaultSubscribers.begin(), m_defaultSubscribers.end(), isOfClient);
    if (first != m_defaultSubscribers.end()) {
        m_defaultSubscribers.erase(first);
    }
    for (const Subscribers* list : {&m_defaultSubscribers, &m_labelSubscribers, &m_recoverySubscribers}) {
        if (std::any_of(list->begin(), list->end(), isOfClient)) {
            m_watched.insert(mbox);
        }
    }
}

void Ledger::onSubscriberLost(const Event& event)
{
    m_watched.erase(event.sender);
    for (Subscribers* list : {&m_defaultSubscribers, &m_labelSubscribers, &m_recoverySubscribers}) {
        std::erase_if(*list, [&](const Subscriber& subscriber) { return subscriber.mbox == event.sender; });
    }
}

// Faults of other processes

void Ledger::onCcfiEstablish(const Event& event)
{
    const std::uint32_t count = wordAt(event.bytes, 12);
    if (event.bytes.size() < 16 + std::uint64_t{count} * 4) {
        return;
    }
    bool isSupported = false;
    for (std::size_t i = 0; i < count; ++i) {
        isSupported = isSupported || wordAt(event.bytes, 16 + i * 4) == 1;
    }
    const auto refs = refsOf(event);
    Expected expected{.to = event.sender, .from = m_private, .whole = {}, .opens = {}};
    if (isSupported) {
        expected.number = CCFI_BC_CONN_ESTABLISH_CFM;
        expected.refs = {refs.client, m_nextCcfi};
        expected.tail = {0, 0, 0, 1};
        m_ccfi[m_nextCcfi++] = {.clientRef = refs.server, .mbox = event.sender};
    } else {
        expected.number = CCFI_BC_CONN_ESTABLISH_REJ;
        expected.refs = {refs.client, 0};
        expected.tail = {0, 1};
    }
    expected.size = bciSizeOf(expected.number);
    m_expected.push_back(expected);
}

void Ledger::onCcfiClose(const Event& event)
{
    const auto refs = refsOf(event);
    const auto connection = m_ccfi.find(refs.server);
    if (connection == m_ccfi.end()) {
        return;
    }
    m_expected.push_back({.to = event.sender,
                          .from = m_private,
                          .number = CCFI_BC_CONN_CLOSE_CFM,
                          .whole = {},
                          .size = bciSizeOf(CCFI_BC_CONN_CLOSE_CFM),
                          .refs = {refs.client, connection->second.clientRef},
                          .tail = {},
                          .opens = {}});
    m_ccfi.erase(connection);
}

void Ledger::onCcfiFault(const Event& event, bool isRaise)
{
    const std::uint16_t id = halfAt(event.bytes, 12);
    if (m_ccfi.count(refsOf(event).server) == 0 || forwardable.count(id) == 0) {
        return;
    }
    if (isRaise) {
        m_faults.raise(false, id, 0, textAt(event.bytes, 16, 128));
    } else {
        m_faults.remove(id);
    }
}

} // namespace sim
