#pragma once

#include "connection.h"

#include <memory>
#include <optional>

namespace merlow::bbagent {

/// Looks for the unit's public mailbox, keeps a connection as long as it stands, and looks for it again.
class Agent {
public:
    enum class ExitStatus : int { done = 0, rejected = 1, usage = 2, noUnit = 4 };

    explicit Agent(Report& report) : m_report(report) {}
    ~Agent();
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    /// Until SIGINT or SIGTERM, or until the unit refuses a step.
    ExitStatus run();

private:
    /// Why the agent can't begin.
    [[nodiscard]] std::optional<std::string> open();
    void search();
    void onFound(const std::shared_ptr<mnet_msg>& msg);
    void onLost(const std::shared_ptr<mnet_msg>& msg);
    void end(ExitStatus status);

    Report& m_report;
    int m_signalFd = -1;
    mnet_mbox_id_t m_mailbox = MNET_MBOX_NONE;
    std::unique_ptr<Connection> m_connection;
    ExitStatus m_status = ExitStatus::done;
};

} // namespace merlow::bbagent
