#include "swmServer.h"

#include "schemaKinds.h"

#include <algorithm>
#include <google/protobuf/descriptor.h>
#include <utility>

namespace merlow::board {

using Action = AnswerPlan::Action;
using std::chrono::milliseconds;

namespace {

constexpr std::size_t headerSize = 8;
constexpr const char* kindPrefix = "swm::";

void putNetwork32At(std::byte* at, std::uint32_t value)
{
    for (unsigned index = 0; index < 4; ++index) {
        at[index] = static_cast<std::byte>(value >> (24U - 8U * index));
    }
}

/// What the request names and its reject names as well: ticket, reference, resource.
void copySharedFields(const google::protobuf::Message& request, google::protobuf::Message& reject)
{
    const auto* from = request.GetDescriptor();
    for (int index = 0; index < from->field_count(); ++index) {
        const auto* field = from->field(index);
        const auto* same = reject.GetDescriptor()->FindFieldByName(field->name());
        if (same == nullptr || !request.GetReflection()->HasField(request, field)) {
            continue;
        }
        if (field->cpp_type() == google::protobuf::FieldDescriptor::CPPTYPE_ENUM) {
            reject.GetReflection()->SetEnum(&reject, same, request.GetReflection()->GetEnum(request, field));
        } else {
            reject.GetReflection()->SetUInt32(&reject, same,
                                              request.GetReflection()->GetUInt32(request, field));
        }
    }
}

} // namespace

SwmServer::SwmServer(SwmServerConfig config, SwStore& store, SwmPeers& peers, AnswerPlans& plans)
    : m_config(std::move(config)), m_store(store), m_peers(peers), m_plans(plans)
{
    using S = SwmServer;
    onRequest<swm::ConnEstablishReq, swm::ConnEstablishRej>(&S::handleConnEstablishReq);
    onRequest<swm::GetCapabilitiesReq, swm::GetCapabilitiesRej>(&S::handleGetCapabilitiesReq);
    onRequest<swm::AcquireResourceReq, swm::AcquireResourceRej>(&S::handleAcquireResourceReq);
    onRequest<swm::ReleaseResourceReq, swm::ReleaseResourceRej>(&S::handleReleaseResourceReq);
    onRequest<swm::PushLoadInitReq, swm::PushLoadInitRej>(&S::handlePushLoadInitReq);
    onRequest<swm::PushLoadData>(&S::handlePushLoadData);
    onRequest<swm::PushLoadEndReq, swm::PushLoadEndRej>(&S::handlePushLoadEndReq);
    onRequest<swm::PullLoadInitReq, swm::PullLoadInitRej>(&S::handlePullLoadInitReq);
    onRequest<swm::PullLoadAbortReq, swm::PullLoadAbortRej>(&S::handlePullLoadAbortReq);
    onRequest<swm::DeleteReq, swm::DeleteRej>(&S::handleDeleteReq);
    onRequest<swm::GetSwProductInvReq, swm::GetSwProductInvRej>(&S::handleGetSwProductInvReq);
    onRequest<swm::SwCompListReq, swm::SwCompListRej>(&S::handleSwCompListReq);
    onRequest<swm::SwCompListAck>(&S::handleSwCompListAck);
    onRequest<swm::GetRunningSwReq, swm::GetRunningSwRej>(&S::handleGetRunningSwReq);
    onRequest<swm::SetCurrentSlotWorkingReq, swm::SetCurrentSlotWorkingRej>(
        &S::handleSetCurrentSlotWorkingReq);
    m_rows[swm::AcquireResourceInd::MESSAGE_NUMBER].kind = std::string(kindPrefix) + "AcquireResourceInd";
}

template <class Request>
SwmServer::Row& SwmServer::onRequest(void (SwmServer::*handler)(Turn&, const Request&))
{
    Row& row = m_rows[Request::MESSAGE_NUMBER];
    row.kind = kindPrefix + Request::descriptor()->name();
    auto request = std::make_unique<Request>();
    row.handle = [this, handler, &req = *request](Turn& turn) {
        (this->*handler)(turn, req);
    };
    row.request = std::move(request);
    return row;
}

template <class Request, class Reject>
void SwmServer::onRequest(void (SwmServer::*handler)(Turn&, const Request&))
{
    Row& row = onRequest<Request>(handler);
    row.reject = &Reject::default_instance();
    row.rejectNumber = Reject::MESSAGE_NUMBER;
}

// Connections and frames

void SwmServer::connected(ConnectionId connection)
{
    m_connections.emplace(connection, 0);
    BOARD_LOG(m_peers, LogLevel::info, "connection " << connection << " began");
}

void SwmServer::ended(ConnectionId connection)
{
    if (m_connections.erase(connection) == 0) {
        return;
    }
    BOARD_LOG(m_peers, LogLevel::info, "connection " << connection << " ended");
    freeHeldBy(connection);
}

bool SwmServer::loseConnection(ConnectionId connection)
{
    if (!m_connections.contains(connection)) {
        return false;
    }
    m_peers.close(connection);
    ended(connection);
    return true;
}

std::size_t SwmServer::loseAllConnections()
{
    const std::size_t count = m_connections.size();
    while (!m_connections.empty()) {
        // The last one first: no ticket comes to its turn only to go.
        (void)loseConnection(m_connections.rbegin()->first);
    }
    return count;
}

void SwmServer::receive(ConnectionId connection, BytesView frame)
{
    const auto number = network32At(frame, 0);
    const auto procRef = network32At(frame, 4);
    if (!number || !procRef) {
        ++m_cutFrames;
        BOARD_LOG(m_peers, LogLevel::abnormal,
                  "ABN: dropped a cut frame of connection " << connection << ": " << frame.size()
                                                            << " bytes of " << headerSize);
        return;
    }
    const auto found = m_rows.find(*number);
    if (found == m_rows.end() || !found->second.handle) {
        ++m_unknownFrames;
        BOARD_LOG(m_peers, LogLevel::abnormal,
                  "ABN: dropped an unknown frame " << *number << " of connection " << connection);
        return;
    }
    Row& row = found->second;
    ++row.counters.received;
    if (m_connections[connection] == 0 && *number != swm::ConnEstablishReq::MESSAGE_NUMBER) {
        ++m_earlyFrames;
        BOARD_LOG(m_peers, LogLevel::abnormal,
                  "ABN: dropped " << row.kind << " of connection " << connection
                                  << ", which is not established");
        return;
    }
    const BytesView body = frame.subspan(headerSize);
    if (!row.request->ParseFromArray(body.data(), static_cast<int>(body.size()))) {
        ++row.counters.malformed;
        BOARD_LOG(m_peers, LogLevel::abnormal,
                  "ABN: the body of " << row.kind << " of connection " << connection << ", " << body.size()
                                      << " bytes, does not parse; what could be read counts");
    }
    Turn turn{connection, *procRef, row, m_plans.take(row.kind)};
    if (turn.plan && turn.plan->action == Action::refuse) {
        refuse(turn);
    } else {
        row.handle(turn);
    }
}

void SwmServer::receivedTooLong(ConnectionId connection)
{
    ++m_tooLongFrames;
    BOARD_LOG(m_peers, LogLevel::abnormal,
              "ABN: dropped a frame of connection " << connection << " that is longer than any may be");
}

void SwmServer::refuse(const Turn& turn)
{
    const auto refusal = refusalOf(*turn.row.reject, turn.plan->cause);
    copySharedFields(*turn.row.request, *refusal);
    deliver(turn, turn.row.rejectNumber, *refusal, false);
}

void SwmServer::deliver(const Turn& turn, std::uint32_t number, const google::protobuf::Message& message,
                        bool confirms)
{
    Counters& counters = turn.row.counters;
    ++(confirms ? counters.confirmed : counters.rejected);
    if (turn.plan && turn.plan->action == Action::drop) {
        ++counters.dropped;
        return;
    }
    m_frame.resize(headerSize + message.ByteSizeLong());
    putNetwork32At(m_frame.data(), number);
    putNetwork32At(m_frame.data() + 4, turn.procRef);
    message.SerializeWithCachedSizesToArray(reinterpret_cast<std::uint8_t*>(m_frame.data() + headerSize));
    if (turn.plan && turn.plan->action == Action::delay) {
        ++counters.delayed;
        m_peers.sendAfter(turn.plan->delay, turn.connection, m_frame);
        return;
    }
    m_peers.send(turn.connection, m_frame);
}

void SwmServer::handleConnEstablishReq(Turn& turn, const swm::ConnEstablishReq& req)
{
    std::uint32_t& established = m_connections[turn.connection];
    const std::uint32_t revision = highestCommonRevision(req);
    swm::ConnEstablishRej rej;
    if (revision == 0) {
        rej.set_reason(swm::ConnEstablishRej::NO_SUPPORTED_PROTOCOL_REVISION);
        reject(turn, rej);
        return;
    }
    if (established == 0 && establishedCount() >= m_config.maxConnections) {
        rej.set_reason(swm::ConnEstablishRej::MAX_NUMBER_OF_CONNECTIONS_EXCEEDED);
        reject(turn, rej);
        return;
    }
    // A client that establishes again has forgotten what it held.
    freeHeldBy(turn.connection);
    established = revision;
    swm::ConnEstablishCfm cfm;
    cfm.set_selected_protocol_revision(revision);
    confirm(turn, cfm);
}

/// 0 when there is none: no protocol has the revision 0.
std::uint32_t SwmServer::highestCommonRevision(const swm::ConnEstablishReq& req) const
{
    std::uint32_t highest = 0;
    for (const std::uint32_t revision : req.supported_protocol_revisions()) {
        if (revision > highest && m_config.revisions.contains(revision)) {
            highest = revision;
        }
    }
    return highest;
}

std::size_t SwmServer::establishedCount() const
{
    return static_cast<std::size_t>(std::count_if(m_connections.begin(), m_connections.end(),
                                                  [](const auto& entry) { return entry.second != 0; }));
}

void SwmServer::handleGetCapabilitiesReq(Turn& turn, const swm::GetCapabilitiesReq& /*req*/)
{
    swm::GetCapabilitiesCfm cfm;
    if (m_store.config().preinstalled) {
        cfm.mutable_preinstalled_support();
    }
    cfm.mutable_sw_comp_list_support();
    cfm.mutable_lockable_resource_sw_store_support();
    for (const auto& software : m_config.bootSoftware) {
        auto* entry = cfm.mutable_boot_sw_inventory_support()->add_boot_sw_inventory();
        entry->set_product_number(software.number);
        entry->set_product_revision(software.revision);
    }
    cfm.mutable_loading_block_size_support()->set_block_size(m_config.blockSize);
    cfm.mutable_set_slot_working_support();
    confirm(turn, cfm);
}

// Tickets

std::uint32_t SwmServer::activeNumber()
{
    const SwmTicket* const active = m_tickets.active();
    return active == nullptr ? 0 : active->number;
}

void SwmServer::handleAcquireResourceReq(Turn& turn, const swm::AcquireResourceReq& req)
{
    // A resource that the schema does not know is kept apart from the known fields.
    const bool unknown = !req.has_resource() && !req.unknown_fields().empty();
    if (unknown || m_tickets.countOf(turn.connection) >= maxTickets) {
        swm::AcquireResourceRej rej;
        rej.set_ticket_request_reference(req.ticket_request_reference());
        rej.set_reason(swm::AcquireResourceRej::UNKNOWN_RESOURCE);
        reject(turn, rej);
        return;
    }
    const std::uint32_t activeBefore = activeNumber();
    swm::AcquireResourceCfm cfm;
    cfm.set_ticket_request_reference(req.ticket_request_reference());
    cfm.set_ticket_number(m_tickets.add(turn.connection, turn.procRef).number);
    cfm.set_resource(req.resource());
    confirm(turn, cfm);
    // The indication never overtakes the confirm, which tells the client its ticket.
    indicateActive(activeBefore, turn.plan ? turn.plan->delay : milliseconds(0));
}

void SwmServer::indicateActive(std::uint32_t activeBefore, milliseconds delay)
{
    const SwmTicket* const active = m_tickets.active();
    if (active == nullptr || active->number == activeBefore) {
        return;
    }
    Row& row = m_rows[swm::AcquireResourceInd::MESSAGE_NUMBER];
    Turn turn{active->connection, active->procRef, row, m_plans.take(row.kind)};
    if (delay.count() > 0 && (!turn.plan || turn.plan->action == Action::delay)) {
        turn.plan = AnswerPlan{.action = Action::delay,
                               .kind = row.kind,
                               .delay = std::max(delay, turn.plan ? turn.plan->delay : delay),
                               .cause = ""};
    }
    swm::AcquireResourceInd ind;
    ind.set_ticket_number(active->number);
    confirm(turn, ind);
}

void SwmServer::handleReleaseResourceReq(Turn& turn, const swm::ReleaseResourceReq& req)
{
    // A client that has not yet read the number of its ticket releases it by the reference of its
    // acquisition.
    const std::uint32_t number = m_tickets.findFor(turn.connection, req.ticket_number(), turn.procRef);
    if (number == 0) {
        swm::ReleaseResourceRej rej;
        rej.set_ticket_number(req.ticket_number());
        rej.set_reason(swm::ReleaseResourceRej::INVALID_TICKET_NUMBER);
        reject(turn, rej);
        return;
    }
    swm::ReleaseResourceCfm cfm;
    cfm.set_ticket_number(number);
    confirm(turn, cfm);
    releaseTicket(number);
}

void SwmServer::releaseTicket(std::uint32_t number)
{
    const std::uint32_t activeBefore = activeNumber();
    if (number == activeBefore && m_store.isLoading()) {
        m_store.dropLoad();
        m_lastLoad = "given up: its ticket was released";
    }
    m_tickets.remove(number);
    indicateActive(activeBefore, milliseconds(0));
}

void SwmServer::freeHeldBy(ConnectionId connection)
{
    const SwmTicket* const active = m_tickets.active();
    const std::uint32_t activeBefore = activeNumber();
    if (active != nullptr && active->connection == connection && m_store.isLoading()) {
        m_store.dropLoad();
        m_lastLoad = "given up: its connection ended";
        BOARD_LOG(m_peers, LogLevel::info, "the load of connection " << connection << " ended with it");
    }
    m_tickets.removeAllOf(connection);
    indicateActive(activeBefore, milliseconds(0));
}

} // namespace merlow::board
