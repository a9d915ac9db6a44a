#pragma once

#include "service.h"
#include "swmServer.h"

#include <string>
#include <vector>

namespace merlow::board {

/// The SWM server as a neighbour of the unit: what boardctl may ask of it. Its clients come over message
/// sockets, so it has no mailboxes besides the one of the control protocol.
class Swmd : public Service {
public:
    /// `store` and `peers` outlive it.
    Swmd(SwmServerConfig config, SwStore& store, SwmPeers& peers);

    SwmServer& server() { return m_server; }

    std::string name() const override { return "swmd"; }
    std::string controlMailboxName() const override { return "SwmdControl"; }
    std::vector<std::string> mailboxNames() const override { return {}; }
    std::vector<std::string> servedNames() const override;
    void attach(const std::string& /*mailboxName*/, MailboxId /*mailbox*/) override {}
    void receive(const Received& /*received*/) override {}
    void mailboxGone(MailboxId /*mailbox*/) override {}

    nlohmann::json status() const override;
    std::vector<AnswerKind> kinds() const override { return m_server.kinds(); }
    AnswerPlans& plans() override { return m_plans; }
    std::optional<AnswerKind> findKind(const std::string& kind) const override
    {
        return m_server.findKind(kind);
    }
    ControlAnswer lose(const std::string& server, std::optional<std::uint32_t> ref) override;
    ControlAnswer clear() override;
    ControlAnswer control(const std::string& command, const nlohmann::json& request) override;

private:
    AnswerPlans m_plans;
    SwmServer m_server;
};

} // namespace merlow::board
