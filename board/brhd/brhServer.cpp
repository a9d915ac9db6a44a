#include "brhServer.h"

#include "schemaKinds.h"

#include <algorithm>
#include <google/protobuf/descriptor.h>
#include <utility>

namespace merlow::board {

BrhServer::BrhServer(std::string kindPrefix, std::string mailboxName, BrhServerConfig config, Outbox& outbox,
                     AnswerPlans& plans)
    : m_kindPrefix(std::move(kindPrefix)), m_mailboxName(std::move(mailboxName)), m_config(std::move(config)),
      m_outbox(outbox), m_plans(plans)
{
}

BrhServer::Row& BrhServer::addRow(const google::protobuf::Message& request, std::uint32_t number)
{
    Row& row = m_rows[number];
    row.kind = m_kindPrefix + request.GetDescriptor()->name();
    row.request = &request;
    return row;
}

void BrhServer::receive(const Received& received)
{
    const auto frame = BrhFrame::read(received.bytes);
    if (!frame) {
        ++m_cutFrames;
        BOARD_LOG(m_outbox, LogLevel::abnormal,
                  "ABN: " << m_mailboxName << " dropped a cut frame from " << hex(received.sender) << ": "
                          << received.bytes.size() << " bytes of " << BrhFrame::headerSize);
        return;
    }
    const auto found = m_rows.find(frame->number);
    if (found == m_rows.end()) {
        ++m_unknownFrames;
        BOARD_LOG(m_outbox, LogLevel::abnormal,
                  "ABN: " << m_mailboxName << " dropped an unknown frame " << hex(frame->number) << " from "
                          << hex(received.sender));
        return;
    }
    Row& row = found->second;
    ++row.counters.received;
    if (row.establishes) {
        establish(row, received, *frame);
        return;
    }
    const auto connection = m_connections.find(frame->connectionRef);
    if (connection == m_connections.end() || connection->second.mailbox != received.sender) {
        // An answer would need the client's reference, which only the connection tells.
        ++m_wrongReferences;
        BOARD_LOG(m_outbox, LogLevel::abnormal,
                  "ABN: dropped " << row.kind << " from " << hex(received.sender)
                                  << ": it has no connection with the reference " << frame->connectionRef);
        return;
    }
    serve(row, connection->second, *frame);
}

void BrhServer::serve(Row& row, const BrhConnection& connection, const BrhFrame& frame)
{
    const std::unique_ptr<google::protobuf::Message> request(row.request->New());
    if (!parseBody(frame.body, *request)) {
        ++row.counters.malformed;
        BOARD_LOG(m_outbox, LogLevel::abnormal,
                  "ABN: dropped " << row.kind << " from " << hex(connection.mailbox) << ": its body of "
                                  << frame.body.size() << " bytes does not parse");
        return;
    }
    if (!row.hasAnswer) {
        row.handle(connection, *request);
        return;
    }
    const auto plan = m_plans.take(row.kind);
    const bool refuse = plan && plan->action == AnswerPlan::Action::refuse;
    const BrhAnswer answer = refuse ? refused(row, plan->cause) : row.handle(connection, *request);
    deliver(row, connection.mailbox,
            encodeFrame(answer.number, frame.procedureRef, connection.clientRef, *answer.message),
            answer.confirms, plan);
    if (answer.afterwards) {
        answer.afterwards(frame.procedureRef);
    }
}

void BrhServer::establish(Row& row, const Received& received, const BrhFrame& frame)
{
    const std::unique_ptr<google::protobuf::Message> request(row.request->New());
    if (!parseBody(frame.body, *request)) {
        ++row.counters.malformed;
        BOARD_LOG(m_outbox, LogLevel::abnormal,
                  "ABN: dropped " << row.kind << " from " << hex(received.sender) << ": its body of "
                                  << frame.body.size() << " bytes does not parse");
        return;
    }
    const auto plan = m_plans.take(row.kind);
    const std::uint32_t clientRef = frame.connectionRef;
    const std::uint32_t revision = highestCommonRevision(m_offeredRevisions(*request));
    const BrhConnection* standing = findConnection(received.sender, clientRef);

    std::optional<BrhAnswer> reject;
    if (plan && plan->action == AnswerPlan::Action::refuse) {
        reject = refused(row, plan->cause);
    } else if (const auto objection = objectionTo(standing, revision)) {
        reject = m_makeEstablishRej(*objection);
    } else if (!m_outbox.watch(received.sender)) {
        // Without the notice of its end the connection would stay for ever.
        reject = m_makeEstablishRej(RejectReason::maxNumberOfConnectionsExceeded);
    }
    if (reject) {
        BOARD_LOG(m_outbox, LogLevel::info,
                  m_mailboxName << " rejected the client " << clientRef << " at " << hex(received.sender)
                                << ": " << reject->message->ShortDebugString());
        deliver(row, received.sender,
                encodeFrame(reject->number, frame.procedureRef, clientRef, *reject->message), false, plan);
        return;
    }
    const BrhConnection& connection = makeConnection(standing, received.sender, clientRef, revision);
    const BrhAnswer confirm = m_makeEstablishCfm(revision);
    // The confirm alone has the client's reference first: it is what tells the client ours.
    deliver(row, received.sender, encodeFrame(confirm.number, clientRef, connection.ref, *confirm.message),
            true, plan);
}

void BrhServer::deliver(Row& row, MailboxId client, Bytes frame, bool confirms,
                        const std::optional<AnswerPlan>& plan)
{
    ++(confirms ? row.counters.confirmed : row.counters.rejected);
    if (plan && plan->action == AnswerPlan::Action::drop) {
        ++row.counters.dropped;
        return;
    }
    if (plan && plan->action == AnswerPlan::Action::delay) {
        ++row.counters.delayed;
        m_outbox.sendAfter(plan->delay, m_mailbox, client, std::move(frame));
        return;
    }
    m_outbox.send(m_mailbox, client, frame);
}

std::optional<BrhServer::RejectReason> BrhServer::objectionTo(const BrhConnection* standing,
                                                              std::uint32_t revision) const
{
    if (revision == 0) {
        return RejectReason::noSupportedProtocolRevision;
    }
    if (standing == nullptr && m_connections.size() >= m_config.maxConnections) {
        return RejectReason::maxNumberOfConnectionsExceeded;
    }
    return std::nullopt;
}

BrhConnection& BrhServer::makeConnection(const BrhConnection* standing, MailboxId client,
                                         std::uint32_t clientRef, std::uint32_t revision)
{
    if (standing != nullptr) {
        // A client that establishes again has forgotten what it held.
        endConnection(standing->ref);
    }
    do {
        ++m_lastConnectionRef;
    } while (m_lastConnectionRef == 0 || m_connections.contains(m_lastConnectionRef));
    BOARD_LOG(m_outbox, LogLevel::info,
              m_mailboxName << " connected the client " << clientRef << " at " << hex(client)
                            << " as connection " << m_lastConnectionRef << " with revision " << revision);
    return m_connections
        .emplace(m_lastConnectionRef, BrhConnection{m_lastConnectionRef, client, clientRef, revision})
        .first->second;
}

/// 0 when there is none: no protocol has the revision 0.
std::uint32_t BrhServer::highestCommonRevision(const std::vector<std::uint32_t>& offered) const
{
    std::uint32_t highest = 0;
    for (const std::uint32_t revision : offered) {
        if (revision > highest && m_config.revisions.contains(revision)) {
            highest = revision;
        }
    }
    return highest;
}

const BrhConnection* BrhServer::findConnection(MailboxId client, std::uint32_t clientRef) const
{
    for (const auto& [ref, connection] : m_connections) {
        if (connection.mailbox == client && connection.clientRef == clientRef) {
            return &connection;
        }
    }
    return nullptr;
}

void BrhServer::clientGone(MailboxId mailbox)
{
    for (auto next = m_connections.begin(); next != m_connections.end();) {
        const BrhConnection& connection = next->second;
        ++next;
        if (connection.mailbox == mailbox) {
            endConnection(connection.ref);
        }
    }
}

bool BrhServer::loseConnection(std::uint32_t ref)
{
    if (!m_connections.contains(ref)) {
        return false;
    }
    endConnection(ref);
    return true;
}

std::size_t BrhServer::loseAllConnections()
{
    const std::size_t count = m_connections.size();
    while (!m_connections.empty()) {
        endConnection(m_connections.begin()->first);
    }
    return count;
}

void BrhServer::endConnection(std::uint32_t ref)
{
    const auto ended = m_connections.extract(ref).mapped();
    BOARD_LOG(m_outbox, LogLevel::info,
              m_mailboxName << " ended connection " << ended.ref << " of the client " << ended.clientRef
                            << " at " << hex(ended.mailbox));
    connectionEnded(ended);
}

BrhAnswer BrhServer::refused(const Row& row, const std::string& cause)
{
    return {row.rejectNumber, false, refusalOf(*row.reject, cause)};
}

std::vector<AnswerKind> BrhServer::kinds() const
{
    std::vector<AnswerKind> kinds;
    for (const auto& [number, row] : m_rows) {
        if (row.hasAnswer) {
            kinds.push_back(answerKindOf(row.kind, row.reject));
        }
    }
    return kinds;
}

std::optional<AnswerKind> BrhServer::findKind(const std::string& name) const
{
    for (const auto& [number, row] : m_rows) {
        if (row.kind == name && row.hasAnswer) {
            return answerKindOf(row.kind, row.reject);
        }
    }
    return std::nullopt;
}

nlohmann::json BrhServer::status() const
{
    nlohmann::json connections = nlohmann::json::array();
    for (const auto& [ref, connection] : m_connections) {
        connections.push_back({{"ref", ref},
                               {"clientMailbox", hex(connection.mailbox)},
                               {"clientRef", connection.clientRef},
                               {"revision", connection.revision}});
    }
    nlohmann::json status{
        {"mailboxName", m_mailboxName},          {"mailbox", hex(m_mailbox)},
        {"revisions", m_config.revisions},       {"maxConnections", m_config.maxConnections},
        {"connections", std::move(connections)}, {"cutFrames", m_cutFrames},
        {"unknownFrames", m_unknownFrames},      {"wrongReferences", m_wrongReferences}};
    for (const auto& [number, row] : m_rows) {
        const Counters& counters = row.counters;
        status["received"][row.kind] = counters.received;
        status["malformed"][row.kind] = counters.malformed;
        status["confirmed"][row.kind] = counters.confirmed;
        status["rejected"][row.kind] = counters.rejected;
        status["delayed"][row.kind] = counters.delayed;
        status["dropped"][row.kind] = counters.dropped;
    }
    return status;
}

} // namespace merlow::board
