// What holders of the active ticket may do with the store.

#include "swmServer.h"

#include <algorithm>
#include <limits>
#include <span>

namespace merlow::board {

using loadmodule::softwareIdFrom;
using Action = AnswerPlan::Action;

namespace {

/// A running software is told with '%' for the '/' of its number.
std::string runningText(const loadmodule::SoftwareId& id)
{
    std::string text = toText(id);
    std::replace(text.begin(), text.end(), '/', '%');
    return text;
}

} // namespace

void SwmServer::handlePushLoadInitReq(Turn& turn, const swm::PushLoadInitReq& req)
{
    using Rej = swm::PushLoadInitRej;
    if (rejectedForTicket<Rej>(turn, req)) {
        return;
    }
    const auto id = softwareIdFrom(req.software());
    const auto begun = id ? m_store.beginLoad(*id) : SwStore::Begun::failed;
    if (begun == SwStore::Begun::started) {
        BOARD_LOG(m_peers, LogLevel::info, "connection " << turn.connection << " loads " << req.software());
        swm::PushLoadInitCfm cfm;
        cfm.set_ticket_number(req.ticket_number());
        confirm(turn, cfm);
        return;
    }
    if (begun == SwStore::Begun::failed) {
        BOARD_LOG(m_peers, LogLevel::abnormal,
                  "ABN: no load of \"" << req.software()
                                       << "\": " << (id ? m_store.error() : "it names no load module"));
    }
    Rej rej;
    rej.set_ticket_number(req.ticket_number());
    switch (begun) {
    case SwStore::Begun::running:
        rej.set_reason(Rej::RUNNING);
        break;
    case SwStore::Begun::alreadyLoaded:
        rej.set_reason(Rej::ALREADY_LOADED);
        break;
    case SwStore::Begun::busy:
        rej.set_reason(Rej::BUSY);
        break;
    case SwStore::Begun::noSlot:
        rej.set_reason(Rej::RESOURCE_SHORTAGE);
        break;
    case SwStore::Begun::started:
    case SwStore::Begun::failed:
        rej.set_reason(Rej::INTERNAL_ERROR);
        break;
    }
    reject(turn, rej);
}

/// Each block is acknowledged; what is wrong with it shows at the end of the load. One that belongs to no
/// load is given up.
void SwmServer::handlePushLoadData(Turn& turn, const swm::PushLoadData& req)
{
    const bool loads = m_tickets.stateOf(turn.connection, req.ticket_number()) == SwmTickets::State::active &&
                       m_store.isLoading();
    const bool aborted = turn.plan && turn.plan->action == Action::abort;
    if (loads && !aborted) {
        m_store.addPiece(std::as_bytes(std::span(req.data())));
    }
    swm::PushLoadAck ack;
    ack.set_ticket_number(req.ticket_number());
    ack.set_abort(!loads || aborted);
    ack.set_sequence_number(req.sequence_number());
    if (ack.abort()) {
        reject(turn, ack);
    } else {
        confirm(turn, ack);
    }
}

void SwmServer::handlePushLoadEndReq(Turn& turn, const swm::PushLoadEndReq& req)
{
    using Rej = swm::PushLoadEndRej;
    if (rejectedForTicket<Rej>(turn, req)) {
        return;
    }
    if (!m_store.isLoading()) {
        Rej rej;
        rej.set_ticket_number(req.ticket_number());
        rej.set_reason(Rej::INVALID_STATE);
        reject(turn, rej);
        return;
    }
    const bool completed = m_store.endLoad();
    m_lastLoad = completed ? "completed" : "failed: " + m_store.error();
    BOARD_LOG(m_peers, completed ? LogLevel::info : LogLevel::abnormal,
              (completed ? "" : "ABN: ")
                  << "the load of connection " << turn.connection << " " << m_lastLoad);
    swm::PushLoadEndCfm cfm;
    cfm.set_ticket_number(req.ticket_number());
    cfm.set_result(completed ? swm::PushLoadEndCfm::COMPLETED : swm::PushLoadEndCfm::FAILED);
    confirm(turn, cfm);
}

/// The board takes what it is given and fetches nothing, as its capabilities tell.
void SwmServer::handlePullLoadInitReq(Turn& turn, const swm::PullLoadInitReq& req)
{
    if (!rejectedForTicket<swm::PullLoadInitRej>(turn, req)) {
        swm::PullLoadInitRej rej;
        rej.set_ticket_number(req.ticket_number());
        rej.set_reason(swm::PullLoadInitRej::INTERNAL_ERROR);
        reject(turn, rej);
    }
}

void SwmServer::handlePullLoadAbortReq(Turn& turn, const swm::PullLoadAbortReq& req)
{
    if (!rejectedForTicket<swm::PullLoadAbortRej>(turn, req)) {
        swm::PullLoadAbortRej rej;
        rej.set_ticket_number(req.ticket_number());
        rej.set_reason(swm::PullLoadAbortRej::NOT_IN_PROGRESS);
        reject(turn, rej);
    }
}

// Inventory

void SwmServer::handleDeleteReq(Turn& turn, const swm::DeleteReq& req)
{
    using Rej = swm::DeleteRej;
    if (rejectedForTicket<Rej>(turn, req)) {
        return;
    }
    const auto id = softwareIdFrom(req.software());
    const auto removed = id ? m_store.remove(*id) : SwStore::Removed::unknown;
    if (!m_store.error().empty() &&
        (removed == SwStore::Removed::failed || removed == SwStore::Removed::done)) {
        BOARD_LOG(m_peers, LogLevel::abnormal,
                  "ABN: the deletion of " << req.software() << ": " << m_store.error());
    }
    if (removed == SwStore::Removed::done) {
        swm::DeleteCfm cfm;
        cfm.set_ticket_number(req.ticket_number());
        confirm(turn, cfm);
        return;
    }
    Rej rej;
    rej.set_ticket_number(req.ticket_number());
    rej.set_reason(removed == SwStore::Removed::busy     ? Rej::BUSY
                   : removed == SwStore::Removed::failed ? Rej::INTERNAL_ERROR
                                                         : Rej::ILLEGAL_SOFTWARE);
    reject(turn, rej);
}

void SwmServer::handleGetSwProductInvReq(Turn& turn, const swm::GetSwProductInvReq& req)
{
    if (rejectedForTicket<swm::GetSwProductInvRej>(turn, req)) {
        return;
    }
    swm::GetSwProductInvCfm cfm;
    cfm.set_ticket_number(req.ticket_number());
    for (const StoredModule& module : m_store.modules()) {
        using Entry = swm::ProductInventory;
        Entry& entry = *cfm.add_product_inventory();
        entry.set_product_number(module.id.number);
        entry.set_revision(module.id.revision);
        entry.set_running(module.running);
        entry.set_software_type(static_cast<Entry::SoftwareType>(module.type));
        entry.set_size(static_cast<std::uint32_t>(
            std::min<std::uint64_t>(module.size, std::numeric_limits<std::uint32_t>::max())));
        entry.set_status(static_cast<Entry::Status>(module.status));
        entry.set_access(static_cast<Entry::Access>(module.access));
        entry.set_sequence_number(module.slot);
    }
    confirm(turn, cfm);
}

void SwmServer::handleSwCompListReq(Turn& turn, const swm::SwCompListReq& req)
{
    if (rejectedForTicket<swm::SwCompListRej>(turn, req)) {
        return;
    }
    SwmTicket& ticket = *m_tickets.active();
    ticket.transfer = SwmTicket::Transfer{turn.procRef, m_store.componentList()};
    swm::SwCompListCfm cfm;
    cfm.set_ticket_number(ticket.number);
    confirm(turn, cfm);
    sendListPiece(turn, ticket);
}

void SwmServer::handleSwCompListAck(Turn& turn, const swm::SwCompListAck& req)
{
    const bool isActive =
        m_tickets.stateOf(turn.connection, req.ticket_number()) == SwmTickets::State::active;
    SwmTicket* const ticket = isActive ? m_tickets.active() : nullptr;
    if (ticket == nullptr || !ticket->transfer || ticket->transfer->procRef != turn.procRef) {
        BOARD_LOG(m_peers, LogLevel::abnormal,
                  "ABN: dropped an acknowledgement of connection " << turn.connection
                                                                   << " for a list that is not on its way");
        return;
    }
    if (req.abort() || ticket->transfer->sent == ticket->transfer->text.size()) {
        ticket->transfer.reset();
        return;
    }
    sendListPiece(turn, *ticket);
}

void SwmServer::sendListPiece(const Turn& turn, SwmTicket& ticket)
{
    SwmTicket::Transfer& transfer = *ticket.transfer;
    swm::SwCompListData piece;
    piece.set_ticket_number(ticket.number);
    piece.set_data(transfer.text.substr(transfer.sent, m_config.listPiece));
    transfer.sent += piece.data().size();
    piece.set_end(transfer.sent == transfer.text.size());
    confirm(turn, piece);
}

void SwmServer::handleGetRunningSwReq(Turn& turn, const swm::GetRunningSwReq& /*req*/)
{
    if (const StoredModule* const running = m_store.running()) {
        swm::GetRunningSwCfm cfm;
        cfm.set_running_software(runningText(running->id));
        confirm(turn, cfm);
        return;
    }
    swm::GetRunningSwRej rej;
    rej.set_reason(swm::GetRunningSwRej::NOT_FOUND);
    reject(turn, rej);
}

void SwmServer::handleSetCurrentSlotWorkingReq(Turn& turn, const swm::SetCurrentSlotWorkingReq& /*req*/)
{
    if (m_store.running() == nullptr) {
        swm::SetCurrentSlotWorkingRej rej;
        rej.set_reason(swm::SetCurrentSlotWorkingRej::INTERNAL_ERROR);
        reject(turn, rej);
        return;
    }
    m_slotWorking = true;
    confirm(turn, swm::SetCurrentSlotWorkingCfm());
}

} // namespace merlow::board
