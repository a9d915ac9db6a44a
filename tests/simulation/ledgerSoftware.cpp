#include "ledger.h"
#include "swmi.pb.h"

#include <algorithm>

namespace sim {

namespace {

constexpr std::size_t swmiHeaderSize = 8;
constexpr std::size_t kpxPieceSize = 255;

Bytes half(std::uint32_t value)
{
    return {static_cast<std::uint8_t>(value >> 8U), static_cast<std::uint8_t>(value)};
}

Bytes word(std::uint32_t value)
{
    Bytes bytes = half(value >> 16U);
    const Bytes low = half(value);
    bytes.insert(bytes.end(), low.begin(), low.end());
    return bytes;
}

/// Resource, two unset bytes, error code.
Bytes resourceRefusal(const SwRecord& record)
{
    Bytes tail = half(record.aux);
    tail.insert(tail.end(), {0, 0, 0, 1});
    return tail;
}

std::string nameOf(const swm::ProductInventory& module)
{
    const bool hasBoth = !module.product_number().empty() && !module.revision().empty();
    return module.product_number() + (hasBoth ? "_" : "") + module.revision();
}

/// The oldest one that may go, by its revision: one digit and one letter, so that texts are ordered as
/// revisions are.
std::string moduleToDelete(const swm::GetSwProductInvCfm& cfm)
{
    const swm::ProductInventory* oldest = nullptr;
    for (const auto& module : cfm.product_inventory()) {
        if (module.status() == swm::ProductInventory::ERASING) {
            return "";
        }
        if (module.status() == swm::ProductInventory::VALID &&
            module.access() == swm::ProductInventory::READ_WRITE &&
            module.software_type() == swm::ProductInventory::AUAPPLIC && !module.running() &&
            (oldest == nullptr || module.revision() < oldest->revision())) {
            oldest = &module;
        }
    }
    return oldest == nullptr ? "" : nameOf(*oldest);
}

template <class M> M withTicket(std::uint32_t ticket)
{
    M message;
    message.set_ticket_number(ticket);
    return message;
}

template <class M> M withSoftware(std::uint32_t ticket, const std::string& software)
{
    M message = withTicket<M>(ticket);
    message.set_software(software);
    return message;
}

swm::SwCompListAck listAck(std::uint32_t ticket, bool abort)
{
    auto ack = withTicket<swm::SwCompListAck>(ticket);
    ack.set_abort(abort);
    return ack;
}

} // namespace

// Records

SwRecord& Ledger::addRecord(std::uint32_t signal, const Event& event)
{
    m_records.push_back({.signal = signal,
                         .refs = refsOf(event),
                         .procRef = ++m_lastProcRef,
                         .client = event.sender,
                         .software = {}});
    return m_records.back();
}

SwRecord* Ledger::findRecord(std::uint32_t signal, Refs refs, std::optional<std::uint32_t> aux)
{
    const auto found = std::find_if(m_records.begin(), m_records.end(), [&](const SwRecord& record) {
        return record.signal == signal && record.refs == refs && (!aux || record.aux == *aux);
    });
    return found == m_records.end() ? nullptr : &*found;
}

SwRecord* Ledger::findProcedure(std::uint32_t procRef, std::optional<std::uint32_t> ticket)
{
    const auto found = std::find_if(m_records.begin(), m_records.end(), [&](const SwRecord& record) {
        return record.procRef == procRef && (!ticket || record.ticket == *ticket);
    });
    return found == m_records.end() ? nullptr : &*found;
}

void Ledger::eraseRecord(const SwRecord* record)
{
    m_records.erase(m_records.begin() + (record - m_records.data()));
}

bool Ledger::acquiresImplicitly(mnet_mbox_id_t client)
{
    const Session* session = sessionOf(client);
    return m_isAuboot && session != nullptr && session->protocolRev == 1;
}

SwRecord* Ledger::openWithTicket(const Event& event, std::uint32_t rejectNo)
{
    const std::string software = event.number == TARN_BC_SW_COMP_LIST_REQ
                                     ? std::string()
                                     : textAt(event.bytes, 12, event.bytes.size());
    if (const SwRecord* acquisition = findRecord(TARN_BC_ACQUIRE_RESOURCE_REQ, refsOf(event))) {
        const std::uint32_t ticket = acquisition->ticket;
        SwRecord& record = addRecord(event.number, event);
        record.ticket = ticket;
        record.software = software;
        return &record;
    }
    if (!acquiresImplicitly(event.sender)) {
        reject(event.sender, rejectNo, refsOf(event));
        return nullptr;
    }
    acquire(event, 1);
    addRecord(event.number, event).software = software; // begins when the ticket is active
    return nullptr;
}

void Ledger::acquire(const Event& event, std::uint32_t resource)
{
    SwRecord& record = addRecord(TARN_BC_ACQUIRE_RESOURCE_REQ, event);
    record.aux = resource;
    swm::AcquireResourceReq req;
    req.set_ticket_request_reference(record.refs.server);
    req.set_resource(swm::SW_STORE);
    askSwmi(record.procRef, req);
}

/// What a lost session's open procedures give back, the youngest first.
void Ledger::closeSoftware(std::uint32_t serverRef)
{
    for (std::size_t i = m_records.size(); i-- > 0;) {
        const SwRecord& record = m_records[i];
        if (record.refs.server != serverRef) {
            continue;
        }
        if (record.signal == TARN_BC_SW_COMP_LIST_REQ) {
            askSwmi(record.procRef, listAck(record.ticket, true));
        } else if (record.signal == TARN_BC_LMC_INIT_REQ) {
            askSwmi(record.procRef, withTicket<swm::PushLoadEndReq>(record.ticket));
        } else if (record.signal == TARN_BC_ACQUIRE_RESOURCE_REQ) {
            askSwmi(record.procRef, withTicket<swm::ReleaseResourceReq>(record.ticket));
        } else {
            continue; // its answer closes it
        }
        eraseRecord(&record);
    }
}

// Frames

void Ledger::onSwmi(const Event& event)
{
    if (event.bytes.size() >= swmiHeaderSize) {
        const auto handler = m_swmi.find(event.number);
        if (handler != m_swmi.end()) {
            handler->second(event);
        }
    }
}

template <class M> void Ledger::onSwmiFrame(std::function<void(const Event&, const M&)> handler)
{
    m_swmi[M::MESSAGE_NUMBER] = [handler = std::move(handler)](const Event& event) {
        M message; // a damaged one counts as far as it goes
        static_cast<void>(message.ParseFromArray(event.bytes.data() + swmiHeaderSize,
                                                 static_cast<int>(event.bytes.size() - swmiHeaderSize)));
        handler(event, message);
    };
}

template <class M> void Ledger::onSwmiAnswer(std::function<void(SwRecord&, const M&)> handler)
{
    onSwmiFrame<M>([this, handler = std::move(handler)](const Event& event, const M& message) {
        if (SwRecord* record = findProcedure(wordAt(event.bytes, 4), message.ticket_number())) {
            handler(*record, message);
        }
    });
}

void Ledger::addSoftwareHandlers()
{
    onSwmiFrame<swm::ConnEstablishCfm>([this](const Event& event, const swm::ConnEstablishCfm& cfm) {
        m_isSwmiConnected = cfm.selected_protocol_revision() != 0;
        askSwmi(wordAt(event.bytes, 4), swm::GetCapabilitiesReq());
    });
    onSwmiFrame<swm::GetCapabilitiesCfm>(
        [this](const Event&, const swm::GetCapabilitiesCfm&) { checkPublication(); });
    addTicketHandlers();
    addLoadHandlers();
    addInventoryHandlers();
    addListHandlers();
}

// Tickets

void Ledger::addTicketHandlers()
{
    onSignal(TARN_BC_ACQUIRE_RESOURCE_REQ, [this](const Event& event) {
        const std::uint32_t resource = halfAt(event.bytes, 12);
        if (const SwRecord* known = findRecord(TARN_BC_ACQUIRE_RESOURCE_REQ, refsOf(event), resource)) {
            answer(known->client, TARN_BC_ACQUIRE_RESOURCE_REJ, known->refs, resourceRefusal(*known));
        } else {
            acquire(event, resource);
        }
    });
    onSwmiFrame<swm::AcquireResourceCfm>([this](const Event& event, const swm::AcquireResourceCfm& cfm) {
        SwRecord* record = findProcedure(wordAt(event.bytes, 4));
        if (record != nullptr && record->refs.server == cfm.ticket_request_reference()) {
            record->ticket = cfm.ticket_number();
        }
    });
    onSwmiFrame<swm::AcquireResourceRej>([this](const Event& event, const swm::AcquireResourceRej& rej) {
        const SwRecord* record = findProcedure(wordAt(event.bytes, 4));
        if (record != nullptr && record->refs.server == rej.ticket_request_reference()) {
            answer(record->client, TARN_BC_ACQUIRE_RESOURCE_REJ, record->refs, resourceRefusal(*record));
            eraseRecord(record);
        }
    });
    onSwmiAnswer<swm::AcquireResourceInd>([this](SwRecord& record, const swm::AcquireResourceInd&) {
        m_selectedModule.clear();
        if (!acquiresImplicitly(record.client)) {
            answer(record.client, TARN_BC_ACQUIRE_RESOURCE_CFM, record.refs, half(record.aux));
            return;
        }
        const std::uint32_t ticket = record.ticket;
        SwRecord* waiting = findProcedure(record.procRef + 1);
        if (waiting == nullptr) {
            return;
        }
        waiting->ticket = ticket;
        if (waiting->signal == TARN_BC_SELECT_LMC_REQ) {
            askSwmi(waiting->procRef, withTicket<swm::GetSwProductInvReq>(ticket));
        } else if (waiting->signal == TARN_BC_SW_COMP_LIST_REQ) {
            askSwmi(waiting->procRef, withTicket<swm::SwCompListReq>(ticket));
        } else if (waiting->signal == TARN_BC_LMC_INIT_REQ) {
            askSwmi(waiting->procRef, withSoftware<swm::PushLoadInitReq>(ticket, waiting->software));
        }
    });
    onSignal(TARN_BC_RELEASE_RESOURCE_REQ, [this](const Event& event) {
        SwRecord* record = findRecord(TARN_BC_ACQUIRE_RESOURCE_REQ, refsOf(event), halfAt(event.bytes, 12));
        if (record != nullptr) {
            record->savedSignal = std::exchange(record->signal, TARN_BC_RELEASE_RESOURCE_REQ);
            askSwmi(record->procRef, withTicket<swm::ReleaseResourceReq>(record->ticket));
        }
    });
    onSwmiAnswer<swm::ReleaseResourceCfm>([this](SwRecord& record, const swm::ReleaseResourceCfm& cfm) {
        answer(record.client, TARN_BC_RELEASE_RESOURCE_CFM, record.refs, half(record.aux));
        eraseRecord(&record);
        std::erase_if(m_records, [&](const SwRecord& one) { return one.ticket == cfm.ticket_number(); });
    });
    onSwmiAnswer<swm::ReleaseResourceRej>([this](SwRecord& record, const swm::ReleaseResourceRej&) {
        record.signal = record.savedSignal;
        answer(record.client, TARN_BC_RELEASE_RESOURCE_REJ, record.refs, resourceRefusal(record));
    });
}

// Loads

void Ledger::addLoadHandlers()
{
    onSignal(TARN_BC_LMC_INIT_REQ, [this](const Event& event) {
        if (const SwRecord* load = openWithTicket(event, TARN_BC_LMC_INIT_REJ)) {
            askSwmi(load->procRef, withSoftware<swm::PushLoadInitReq>(load->ticket, load->software));
        }
    });
    onSwmiAnswer<swm::PushLoadInitCfm>([this](SwRecord& record, const swm::PushLoadInitCfm&) {
        answer(record.client, TARN_BC_LMC_INIT_CFM, record.refs, {0, 0});
    });
    onSwmiAnswer<swm::PushLoadInitRej>([this](SwRecord& record, const swm::PushLoadInitRej& rej) {
        if (rej.reason() == swm::PushLoadInitRej::RESOURCE_SHORTAGE) {
            askSwmi(record.procRef, withTicket<swm::GetSwProductInvReq>(record.ticket));
            return;
        }
        if (rej.reason() == swm::PushLoadInitRej::ALREADY_LOADED) {
            answer(record.client, TARN_BC_LMC_INIT_CFM, record.refs, {0, 1});
        } else if (rej.reason() == swm::PushLoadInitRej::RUNNING) {
            answer(record.client, TARN_BC_LMC_INIT_CFM, record.refs, {0, 2});
        } else {
            reject(record.client, TARN_BC_LMC_INIT_REJ, record.refs);
        }
        eraseRecord(&record);
    });
    onSignal(TARN_BC_LMC_DATA, [this](const Event& event) {
        const std::size_t size = wordAt(event.bytes, 16);
        const SwRecord* load = findRecord(TARN_BC_LMC_INIT_REQ, refsOf(event));
        if (load == nullptr || size > event.bytes.size() - 20) {
            return;
        }
        const std::uint32_t ticket = load->ticket;
        SwRecord& block = addRecord(TARN_BC_LMC_DATA, event);
        block.ticket = ticket;
        auto data = withTicket<swm::PushLoadData>(ticket);
        data.set_sequence_number(halfAt(event.bytes, 12));
        data.set_data(event.bytes.data() + 20, size);
        askSwmi(block.procRef, data);
    });
    onSwmiAnswer<swm::PushLoadAck>([this](SwRecord& record, const swm::PushLoadAck& ack) {
        if (!ack.abort()) {
            answer(record.client, TARN_BC_LMC_DATA_ACK, record.refs, half(ack.sequence_number()));
        }
        eraseRecord(&record);
    });
    onSignal(TARN_BC_LMC_END_REQ, [this](const Event& event) {
        if (SwRecord* load = findRecord(TARN_BC_LMC_INIT_REQ, refsOf(event))) {
            load->savedSignal = std::exchange(load->signal, TARN_BC_LMC_END_REQ);
            askSwmi(load->procRef, withTicket<swm::PushLoadEndReq>(load->ticket));
        }
    });
    onSwmiAnswer<swm::PushLoadEndCfm>([this](SwRecord& record, const swm::PushLoadEndCfm& cfm) {
        const bool isCompleted = cfm.result() == swm::PushLoadEndCfm::COMPLETED;
        answer(record.client, TARN_BC_LMC_END_CFM, record.refs, half(isCompleted ? 0 : 1));
        eraseRecord(&record);
    });
    onSwmiAnswer<swm::PushLoadEndRej>([this](SwRecord& record, const swm::PushLoadEndRej&) {
        record.signal = record.savedSignal;
        reject(record.client, TARN_BC_LMC_END_REJ, record.refs);
    });
}

// Selection, deletion, the running module

void Ledger::addInventoryHandlers()
{
    onSignal(TARN_BC_SELECT_LMC_REQ, [this](const Event& event) {
        if (const SwRecord* selection = openWithTicket(event, TARN_BC_SELECT_LMC_REJ)) {
            askSwmi(selection->procRef, withTicket<swm::GetSwProductInvReq>(selection->ticket));
        }
    });
    onSwmiAnswer<swm::GetSwProductInvCfm>([this](SwRecord& record, const swm::GetSwProductInvCfm& cfm) {
        if (record.signal != TARN_BC_SELECT_LMC_REQ) {
            askSwmi(record.procRef, withSoftware<swm::DeleteReq>(record.ticket, moduleToDelete(cfm)));
            return;
        }
        const auto& modules = cfm.product_inventory();
        if (std::any_of(modules.begin(), modules.end(),
                        [&](const auto& module) { return nameOf(module) == record.software; })) {
            m_selectedModule = record.software;
            answer(record.client, TARN_BC_SELECT_LMC_CFM, record.refs);
        } else {
            reject(record.client, TARN_BC_SELECT_LMC_REJ, record.refs);
        }
        eraseRecord(&record);
    });
    onSwmiAnswer<swm::GetSwProductInvRej>([this](SwRecord& record, const swm::GetSwProductInvRej&) {
        if (record.signal == TARN_BC_SELECT_LMC_REQ) {
            m_selectedModule.clear();
            reject(record.client, TARN_BC_SELECT_LMC_REJ, record.refs);
        } else {
            reject(record.client, TARN_BC_LMC_INIT_REJ, record.refs);
        }
        eraseRecord(&record);
    });
    onSwmiAnswer<swm::DeleteCfm>([this](SwRecord& record, const swm::DeleteCfm&) {
        askSwmi(record.procRef, withSoftware<swm::PushLoadInitReq>(record.ticket, record.software));
    });
    onSwmiAnswer<swm::DeleteRej>([this](SwRecord& record, const swm::DeleteRej&) {
        reject(record.client, TARN_BC_LMC_INIT_REJ, record.refs);
        eraseRecord(&record);
    });
    onSignal(TARN_BC_GET_RUNNING_LMC_REQ, [this](const Event& event) {
        askSwmi(addRecord(event.number, event).procRef, swm::GetRunningSwReq());
    });
    onSwmiFrame<swm::GetRunningSwCfm>([this](const Event& event, const swm::GetRunningSwCfm& cfm) {
        SwRecord* record = findProcedure(wordAt(event.bytes, 4));
        if (record == nullptr) {
            return;
        }
        if (record->signal == TARN_BC_SW_COMP_LIST_REQ) {
            finishKpxList(*record);
            return;
        }
        const std::string& running = cfm.running_software();
        answer(record->client, TARN_BC_GET_RUNNING_LMC_CFM, record->refs, {running.begin(), running.end()});
        eraseRecord(record);
    });
    onSwmiFrame<swm::GetRunningSwRej>([this](const Event& event, const swm::GetRunningSwRej&) {
        SwRecord* record = findProcedure(wordAt(event.bytes, 4));
        if (record == nullptr) {
            return;
        }
        if (record->signal == TARN_BC_SW_COMP_LIST_REQ) {
            finishKpxList(*record);
            return;
        }
        reject(record->client, TARN_BC_GET_RUNNING_LMC_REJ, record->refs);
        eraseRecord(record);
    });
}

// The list of software components

/// The simulated lists hold no tags that would be rewritten.
void Ledger::finishKpxList(SwRecord& record)
{
    if (record.software.find("<Preinstalled/>") == std::string::npos) {
        m_mayThrow = true; // there is no place for what would be put in
        return;
    }
    sendKpxPiece(record);
}

void Ledger::sendKpxPiece(SwRecord& record)
{
    if (!record.software.empty()) {
        const std::string piece = record.software.substr(0, kpxPieceSize);
        record.software.erase(0, kpxPieceSize);
        sendListPiece(record, record.software.empty(), piece);
    }
}

void Ledger::sendListPiece(const SwRecord& record, bool isEnd, const std::string& text)
{
    Bytes tail = word(isEnd ? 1 : 0);
    const Bytes length = word(static_cast<std::uint32_t>(text.size()));
    tail.insert(tail.end(), length.begin(), length.end());
    tail.insert(tail.end(), text.begin(), text.end());
    answer(record.client, TARN_BC_SW_COMP_LIST_DATA, record.refs, tail, 20 + text.size() + 3);
}

void Ledger::addListHandlers()
{
    onSignal(TARN_BC_SW_COMP_LIST_REQ, [this](const Event& event) {
        if (const SwRecord* list = openWithTicket(event, TARN_BC_SW_COMP_LIST_REJ)) {
            askSwmi(list->procRef, withTicket<swm::SwCompListReq>(list->ticket));
        }
    });
    onSwmiAnswer<swm::SwCompListCfm>([this](SwRecord& record, const swm::SwCompListCfm&) {
        answer(record.client, TARN_BC_SW_COMP_LIST_CFM, record.refs);
    });
    onSwmiAnswer<swm::SwCompListRej>([this](SwRecord& record, const swm::SwCompListRej&) {
        reject(record.client, TARN_BC_SW_COMP_LIST_REJ, record.refs);
        eraseRecord(&record);
    });
    onSwmiAnswer<swm::SwCompListData>([this](SwRecord& record, const swm::SwCompListData& data) {
        record.aux = data.end() ? 1 : 0;
        if (!isKpx(record.refs)) {
            sendListPiece(record, data.end(), data.data());
            return;
        }
        record.software += data.data();
        askSwmi(record.procRef, listAck(record.ticket, data.end()));
        if (data.end()) {
            askSwmi(record.procRef, swm::GetRunningSwReq());
        }
    });
    onSignal(TARN_BC_SW_COMP_LIST_ACK, [this](const Event& event) {
        SwRecord* record = findRecord(TARN_BC_SW_COMP_LIST_REQ, refsOf(event));
        if (record == nullptr) {
            return;
        }
        const bool isAborted = wordAt(event.bytes, 12) != 0;
        if (!isKpx(record->refs)) {
            askSwmi(record->procRef, listAck(record->ticket, isAborted));
        } else if (!isAborted) {
            sendKpxPiece(*record);
        }
        if (isAborted || record->aux != 0) {
            eraseRecord(record);
        }
    });
}

} // namespace sim
