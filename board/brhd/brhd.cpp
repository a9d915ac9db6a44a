#include "brhd.h"

#include <utility>

namespace merlow::board {

using Result = ControlAnswer::Result;

Brhd::Brhd(Config config, const BoardRestart::Clock& systemClock, BoardStores stores, Outbox& outbox)
    : m_board(std::move(config.board)), m_outbox(outbox),
      m_bri(std::move(config.bri), m_board.description,
            BoardSensors(m_board.description, std::move(config.hwmonFolder), config.seed), systemClock,
            std::move(stores), outbox, m_plans),
      m_bmmi(std::move(config.bmmi), m_board.description.bmmi, LedClass(std::move(config.ledFolder)), outbox,
             m_plans)
{
}

std::vector<std::string> Brhd::mailboxNames() const
{
    return {m_bri.mailboxName(), m_bmmi.mailboxName()};
}

void Brhd::attach(const std::string& mailboxName, MailboxId mailbox)
{
    for (BrhServer* server : {static_cast<BrhServer*>(&m_bri), static_cast<BrhServer*>(&m_bmmi)}) {
        if (server->mailboxName() == mailboxName) {
            server->attach(mailbox);
        }
    }
}

void Brhd::begin()
{
    m_bri.begin();
    m_bmmi.begin();
}

void Brhd::receive(const Received& received)
{
    if (received.receiver == m_bri.mailbox()) {
        m_bri.receive(received);
    } else if (received.receiver == m_bmmi.mailbox()) {
        m_bmmi.receive(received);
    }
}

void Brhd::mailboxGone(MailboxId mailbox)
{
    m_bri.clientGone(mailbox);
    m_bmmi.clientGone(mailbox);
}

/// Only the legacy server is ever asked something: to tell its clients of a restart.
void Brhd::answered(const ControlAnswer& /*answer*/)
{
    m_bri.restart().clientsAreTold();
}

nlohmann::json Brhd::status() const
{
    return {{"bri", m_bri.status()}, {"bmmi", m_bmmi.status()}, {"plans", m_plans.toJson()}};
}

std::vector<AnswerKind> Brhd::kinds() const
{
    auto kinds = m_bri.kinds();
    for (AnswerKind& kind : m_bmmi.kinds()) {
        kinds.push_back(std::move(kind));
    }
    return kinds;
}

std::optional<AnswerKind> Brhd::findKind(const std::string& kind) const
{
    const auto found = m_bri.findKind(kind);
    return found ? found : m_bmmi.findKind(kind);
}

BrhServer* Brhd::serverNamed(const std::string& name)
{
    if (name == "bri") {
        return &m_bri;
    }
    return name == "bmmi" ? &m_bmmi : nullptr;
}

ControlAnswer Brhd::lose(const std::string& server, std::optional<std::uint32_t> ref)
{
    BrhServer* const lost = serverNamed(server);
    if (lost == nullptr) {
        return {Result::usage, "brhd has the servers bri and bmmi, not \"" + server + "\"", {}};
    }
    if (ref) {
        if (!lost->loseConnection(*ref)) {
            return {Result::notFound, server + " has no connection " + std::to_string(*ref), {}};
        }
        return {Result::done, server + " forgot connection " + std::to_string(*ref), {}};
    }
    const std::size_t count = lost->loseAllConnections();
    const MailboxId mailbox = m_outbox.reopenMailbox(lost->mailbox());
    lost->attach(mailbox);
    if (mailbox == noMailbox) {
        return {Result::refused, "the mailbox " + lost->mailboxName() + " could not be made again", {}};
    }
    return {Result::done,
            lost->mailboxName() + " went and came back; it lost " + countOf(count, "connection"),
            {}};
}

ControlAnswer Brhd::clear()
{
    std::string text = "brhd cleared " + countOf(m_plans.clear(), "plan");
    if (const std::size_t count = m_bri.temperatures().clear(); count != 0) {
        text += " and " + countOf(count, "set temperature");
    }
    return {Result::done, std::move(text), {}};
}

ControlAnswer Brhd::describe() const
{
    return {Result::done, m_board.origin(), toJson(m_board.description)};
}

ControlAnswer Brhd::control(const std::string& command, const nlohmann::json& request)
{
    if (command == "fault") {
        return m_bri.faults().control(request);
    }
    if (command == "temp") {
        return m_bri.temperatures().control(request);
    }
    if (command == "describe") {
        return describe();
    }
    if (command == "leds") {
        return m_bmmi.controlLeds();
    }
    if (command == "serviceman") {
        return m_bmmi.controlServiceMan(request);
    }
    return {Result::usage, "brhd has no command \"" + command + "\"", {}};
}

} // namespace merlow::board
