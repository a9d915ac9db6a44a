#include "legacyServer.h"

#include "control.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace merlow::board {

namespace {

using Result = ControlAnswer::Result;

constexpr std::uint32_t TARN_BC_CONN_ESTABLISH_REQ = 0x1658000;
constexpr std::uint32_t TARN_BC_CONN_ESTABLISH_CFM = 0x1658001;
constexpr std::uint32_t TARN_BC_CONN_ESTABLISH_REJ = 0x1658002;

constexpr std::uint32_t TARN_BC_RESTART_BOARD_NOTIFICATION_IND = 0x1659B03;

constexpr std::size_t envelopeSize = 12;
constexpr std::size_t connEstablishReqSize = 14; // to the end of its last field
constexpr std::size_t connEstablishRejSize = 132;
constexpr std::size_t errorDescriptionSize = 110;
constexpr std::size_t restartNotificationSize = 180;

constexpr std::uint16_t lowestProtocolRev = 1;
constexpr std::uint16_t highestProtocolRev = 3;

/// Somebody else ordered the restart; who did is found out on the way.
constexpr std::uint16_t initiatorFlag = 1;

constexpr std::uint16_t errorCode = 1;
constexpr const char* ratNotSupported = "RAT not supported";
constexpr const char* protocolNotSupported = "Protocol not supported";
constexpr const char* atMaximumCapacity = "Already at maximum client capacity";

constexpr const char* connectKind = "legacy::Connect";
constexpr const char* otherKindPrefix = "legacy::";

/// Signals and rules are kept apart by number up to so many; a peer has 2^32 to choose from.
constexpr std::size_t maxNumbers = 256;

Bytes connEstablishCfm(std::int32_t clientRef, std::int32_t serverRef)
{
    Bytes cfm;
    cfm.reserve(envelopeSize);
    putHost32(cfm, TARN_BC_CONN_ESTABLISH_CFM);
    putNetwork32(cfm, static_cast<std::uint32_t>(clientRef));
    putNetwork32(cfm, static_cast<std::uint32_t>(serverRef));
    return cfm;
}

Bytes connEstablishRej(std::int32_t clientRef, std::int32_t serverRef, const std::string& text)
{
    Bytes rej;
    rej.reserve(connEstablishRejSize);
    putHost32(rej, TARN_BC_CONN_ESTABLISH_REJ);
    putNetwork32(rej, static_cast<std::uint32_t>(clientRef));
    putNetwork32(rej, static_cast<std::uint32_t>(serverRef));
    putNetwork16(rej, highestProtocolRev);
    putNetwork16(rej, 0);
    putNetwork16(rej, errorCode);
    putNetwork16(rej, 0);
    putText(rej, text, errorDescriptionSize);
    rej.resize(connEstablishRejSize);
    return rej;
}

Bytes restartNotification(std::int32_t clientRef, std::int32_t serverRef, std::uint16_t code)
{
    Bytes ind;
    ind.reserve(restartNotificationSize);
    putHost32(ind, TARN_BC_RESTART_BOARD_NOTIFICATION_IND);
    putNetwork32(ind, static_cast<std::uint32_t>(clientRef));
    putNetwork32(ind, static_cast<std::uint32_t>(serverRef));
    putNetwork16(ind, code);
    putNetwork16(ind, 0);
    putNetwork16(ind, initiatorFlag);
    ind.resize(restartNotificationSize);
    return ind;
}

std::string otherKind(std::uint32_t number)
{
    return otherKindPrefix + hex(number);
}

bool isConnectionSignal(std::uint32_t number)
{
    return number >= TARN_BC_CONN_ESTABLISH_REQ && number <= TARN_BC_CONN_ESTABLISH_REJ;
}

} // namespace

LegacyServer::LegacyServer(Outbox& outbox) : m_outbox(outbox) {}

void LegacyServer::attach(const std::string& /*mailboxName*/, MailboxId mailbox)
{
    m_mailbox = mailbox;
}

void LegacyServer::receive(const Received& received)
{
    const std::uint32_t number = host32At(received.bytes, 0).value_or(0);
    if (number == TARN_BC_CONN_ESTABLISH_REQ) {
        handleConnEstablishReq(received);
    } else if (isConnectionSignal(number)) {
        ++m_counters.strayAnswers;
        BOARD_LOG(m_outbox, LogLevel::abnormal,
                  "ABN: dropped the connection answer " << hex(number) << " from " << hex(received.sender));
    } else {
        handleOther(received, number);
    }
}

std::optional<LegacyServer::ConnEstablishReq> LegacyServer::readConnEstablishReq(BytesView bytes)
{
    const auto clientRef = network32At(bytes, 4);
    const auto serverRef = network32At(bytes, 8);
    const auto protocolRev = network16At(bytes, 12);
    if (!clientRef || !serverRef || !protocolRev) {
        return std::nullopt;
    }
    return ConnEstablishReq{static_cast<std::int32_t>(*clientRef), static_cast<std::int32_t>(*serverRef),
                            *protocolRev};
}

void LegacyServer::handleConnEstablishReq(const Received& received)
{
    ++m_counters.connReceived;
    const auto req = readConnEstablishReq(received.bytes);
    if (!req) {
        ++m_counters.tooShort;
        BOARD_LOG(m_outbox, LogLevel::abnormal,
                  "ABN: dropped TARN_BC_CONN_ESTABLISH_REQ from " << hex(received.sender) << ": "
                                                                  << received.bytes.size() << " bytes of "
                                                                  << connEstablishReqSize);
        return;
    }
    const auto plan = m_plans.take(connectKind);
    std::optional<std::string> objection;
    if (plan && plan->action == AnswerPlan::Action::refuse) {
        objection = plan->cause.empty() ? atMaximumCapacity : plan->cause;
    } else {
        objection = objectionTo(*req, received.sender);
        if (!objection && !m_outbox.watch(received.sender)) {
            // Without the notice of its end the connection would hold its reference for ever.
            objection = atMaximumCapacity;
        }
    }
    if (objection) {
        ++m_counters.connRejected;
        BOARD_LOG(m_outbox, LogLevel::info,
                  "rejected the client " << req->clientRef << " at " << hex(received.sender) << ": "
                                         << *objection);
        sendPlanned(received.sender, connEstablishRej(req->clientRef, req->serverRef, *objection), plan);
        return;
    }
    const std::int32_t serverRef = takeServerRef(req->serverRef, received.sender);
    m_connections.insert_or_assign(received.sender, Connection{req->clientRef, serverRef, req->protocolRev});
    ++m_counters.connConfirmed;
    BOARD_LOG(m_outbox, LogLevel::info,
              "connected the client " << req->clientRef << " at " << hex(received.sender) << " as "
                                      << serverRef << " with revision " << req->protocolRev);
    sendPlanned(received.sender, connEstablishCfm(req->clientRef, serverRef), plan);
}

std::optional<std::string> LegacyServer::objectionTo(const ConnEstablishReq& req, MailboxId client) const
{
    const auto range = rangeOf(req.serverRef);
    if (!range) {
        return ratNotSupported;
    }
    if (req.protocolRev < lowestProtocolRev || req.protocolRev > highestProtocolRev) {
        return protocolNotSupported;
    }
    if (!holdsOneOf(*range, client) && !hasFree(m_ranges[*range])) {
        return atMaximumCapacity;
    }
    return std::nullopt;
}

/// The reference for a request that nothing stands against.
std::int32_t LegacyServer::takeServerRef(std::int32_t requested, MailboxId client)
{
    const std::size_t index = *rangeOf(requested);
    if (holdsOneOf(index, client)) {
        return m_connections.at(client).serverRef;
    }
    Range& range = m_ranges[index];
    std::int32_t serverRef = 0;
    do {
        serverRef = range.next;
        range.next = serverRef == range.last ? range.first : serverRef + 1;
    } while (!isFree(serverRef));
    return serverRef;
}

std::optional<std::size_t> LegacyServer::rangeOf(std::int32_t serverRef) const
{
    for (std::size_t index = 0; index < m_ranges.size(); ++index) {
        if (serverRef >= m_ranges[index].first && serverRef <= m_ranges[index].last) {
            return index;
        }
    }
    return std::nullopt;
}

bool LegacyServer::holdsOneOf(std::size_t range, MailboxId client) const
{
    const auto standing = m_connections.find(client);
    return standing != m_connections.end() && rangeOf(standing->second.serverRef) == range;
}

bool LegacyServer::isFree(std::int32_t serverRef) const
{
    return std::none_of(m_connections.begin(), m_connections.end(),
                        [serverRef](const auto& entry) { return entry.second.serverRef == serverRef; });
}

bool LegacyServer::hasFree(const Range& range) const
{
    for (std::int32_t serverRef = range.first; serverRef <= range.last; ++serverRef) {
        if (isFree(serverRef)) {
            return true;
        }
    }
    return false;
}

void LegacyServer::handleOther(const Received& received, std::uint32_t number)
{
    countOther(number);
    const auto plan = m_plans.empty() ? std::nullopt : m_plans.take(otherKind(number));
    const auto rule = m_rules.find(number);
    if (rule == m_rules.end() && !plan) {
        ++m_counters.echoed;
        m_outbox.sendBack(received);
        return;
    }
    Bytes answer;
    if (rule == m_rules.end()) {
        ++m_counters.echoed;
        putBytes(answer, received.bytes);
    } else {
        ++m_counters.answeredByRule;
        putHost32(answer, rule->second.answerNumber);
        putNetwork32(answer, network32At(received.bytes, 4).value_or(0));
        putNetwork32(answer, network32At(received.bytes, 8).value_or(0));
        putBytes(answer, rule->second.fields);
    }
    sendPlanned(received.sender, std::move(answer), plan);
}

void LegacyServer::countOther(std::uint32_t number)
{
    const auto counted = m_otherSignals.find(number);
    if (counted != m_otherSignals.end()) {
        ++counted->second;
    } else if (m_otherSignals.size() < maxNumbers) {
        m_otherSignals.emplace(number, 1);
    } else {
        ++m_counters.uncounted;
    }
}

void LegacyServer::sendPlanned(MailboxId client, Bytes message, const std::optional<AnswerPlan>& plan)
{
    if (plan && plan->action == AnswerPlan::Action::drop) {
        ++m_counters.dropped;
    } else if (plan && plan->action == AnswerPlan::Action::delay) {
        ++m_counters.delayed;
        m_outbox.sendAfter(plan->delay, m_mailbox, client, std::move(message));
    } else {
        m_outbox.send(m_mailbox, client, message);
    }
}

void LegacyServer::mailboxGone(MailboxId mailbox)
{
    const auto ended = m_connections.find(mailbox);
    if (ended == m_connections.end()) {
        return;
    }
    BOARD_LOG(m_outbox, LogLevel::info,
              "the client " << ended->second.clientRef << " at " << hex(mailbox) << " is gone, "
                            << ended->second.serverRef << " is free");
    m_connections.erase(ended);
}

std::vector<AnswerKind> LegacyServer::kinds() const
{
    return {{connectKind, true, {atMaximumCapacity, protocolNotSupported, ratNotSupported}, true},
            {std::string(otherKindPrefix) + "NUMBER", false, {}, false}};
}

std::optional<AnswerKind> LegacyServer::findKind(const std::string& kind) const
{
    if (kind == connectKind) {
        return kinds().front();
    }
    const std::string prefix = otherKindPrefix;
    const auto number = kind.starts_with(prefix) ? parseNumber(kind.substr(prefix.size())) : std::nullopt;
    if (!number || isConnectionSignal(*number)) {
        return std::nullopt;
    }
    return AnswerKind{otherKind(*number), false, {}, false};
}

ControlAnswer LegacyServer::lose(const std::string& server, std::optional<std::uint32_t> ref)
{
    if (server != "legacy") {
        return {Result::usage, "legacyd has the server legacy, not \"" + server + "\"", {}};
    }
    if (ref) {
        const auto lost = std::find_if(m_connections.begin(), m_connections.end(), [ref](const auto& entry) {
            return static_cast<std::uint32_t>(entry.second.serverRef) == *ref;
        });
        if (lost == m_connections.end()) {
            return {Result::notFound, "legacy has no connection " + std::to_string(*ref), {}};
        }
        m_connections.erase(lost);
        return {Result::done, "legacy forgot connection " + std::to_string(*ref), {}};
    }
    const std::size_t count = m_connections.size();
    m_connections.clear();
    m_mailbox = m_outbox.reopenMailbox(m_mailbox);
    if (m_mailbox == noMailbox) {
        return {Result::refused, "the mailbox LegacyMerlow could not be made again", {}};
    }
    return {Result::done, "LegacyMerlow went and came back; it lost " + countOf(count, "connection"), {}};
}

ControlAnswer LegacyServer::clear()
{
    const std::size_t plans = m_plans.clear();
    const std::size_t rules = m_rules.size();
    m_rules.clear();
    return {Result::done, "legacyd cleared " + countOf(plans, "plan") + " and " + countOf(rules, "rule"), {}};
}

ControlAnswer LegacyServer::control(const std::string& command, const nlohmann::json& request)
{
    if (command == "answer") {
        return addRule(request);
    }
    if (command == "restart") {
        return notifyRestart(request);
    }
    return {Result::usage, "legacyd has no command \"" + command + "\"", {}};
}

ControlAnswer LegacyServer::notifyRestart(const nlohmann::json& request)
{
    const auto code = numberMember(request, "code");
    if (!code || *code > std::numeric_limits<std::uint16_t>::max()) {
        return {Result::usage, "a restart needs a code of 16 bits", {}};
    }
    for (const auto& [mailbox, connection] : m_connections) {
        m_outbox.send(m_mailbox, mailbox,
                      restartNotification(connection.clientRef, connection.serverRef,
                                          static_cast<std::uint16_t>(*code)));
    }
    return {Result::done, "legacyd notified " + countOf(m_connections.size(), "client"), {}};
}

ControlAnswer LegacyServer::addRule(const nlohmann::json& request)
{
    const auto signal = numberMember(request, "signal");
    const auto number = numberMember(request, "number");
    const auto fields = bytesFromHex(textMember(request, "fields").value_or(""));
    if (!signal || !number || !fields) {
        return {Result::usage, "an answer needs two signal numbers and its fields in hexadecimal", {}};
    }
    if (isConnectionSignal(*signal) || isConnectionSignal(*number)) {
        return {Result::refused, "connection signals have no rules", {}};
    }
    if (m_rules.size() >= maxNumbers && !m_rules.contains(*signal)) {
        return {Result::refused, "there are too many rules; clear them first", {}};
    }
    m_rules.insert_or_assign(*signal, Rule{*number, *fields});
    return {Result::done, "legacyd answers " + hex(*signal) + " with " + hex(*number), {}};
}

nlohmann::json LegacyServer::status() const
{
    nlohmann::json connections = nlohmann::json::array();
    for (const auto& [mailbox, connection] : m_connections) {
        connections.push_back({{"clientMailbox", hex(mailbox)},
                               {"clientRef", connection.clientRef},
                               {"serverRef", connection.serverRef},
                               {"protocolRev", connection.protocolRev}});
    }
    nlohmann::json others = nlohmann::json::object();
    for (const auto& [number, count] : m_otherSignals) {
        others[otherKind(number)] = count;
    }
    others[connectKind] = m_counters.connReceived;
    nlohmann::json rules = nlohmann::json::array();
    for (const auto& [signal, rule] : m_rules) {
        rules.push_back({{"signal", hex(signal)},
                         {"number", hex(rule.answerNumber)},
                         {"fieldBytes", rule.fields.size()}});
    }
    return {{"mailboxName", "LegacyMerlow"},
            {"mailbox", hex(m_mailbox)},
            {"connections", std::move(connections)},
            {"received", std::move(others)},
            {"receivedUncounted", m_counters.uncounted},
            {"confirmed", m_counters.connConfirmed},
            {"rejected", m_counters.connRejected},
            {"echoed", m_counters.echoed},
            {"answeredByRule", m_counters.answeredByRule},
            {"delayed", m_counters.delayed},
            {"dropped", m_counters.dropped},
            {"tooShort", m_counters.tooShort},
            {"strayAnswers", m_counters.strayAnswers},
            {"plans", m_plans.toJson()},
            {"rules", std::move(rules)}};
}

} // namespace merlow::board
