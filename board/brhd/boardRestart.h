/// Restarts of the board that are ordered over BRI.
#pragma once

#include "boardDescription.h"
#include "outbox.h"
#include "stateStore.h"

#include <bri.pb.h>
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>

namespace merlow::board {

/// Carries an order out: records it for who starts next, has the legacy server tell its clients, and ends the
/// process after the board's notice time with the status by which its supervisor restarts every part. One
/// order at a time; what comes after it in the notice time is dropped.
class BoardRestart {
public:
    /// The system's clock, in milliseconds since 1970.
    using Clock = std::function<std::int64_t()>;

    /// All references live longer.
    BoardRestart(const BoardDescription& board, Clock clock, StateStore& store, Outbox& outbox);

    void order(MailboxId client, const boardresourcehandler::bri::RestartBoardFwd& fwd);

    /// Adds "restartOrder": null, or the order that is being carried out.
    void addStatus(nlohmann::json& status) const;

private:
    /// What stands against the order; empty for nothing.
    [[nodiscard]] std::string objectionTo(const boardresourcehandler::bri::RestartBoardFwd& fwd) const;

    const BoardDescription& m_board;
    Clock m_clock;
    StateStore& m_store;
    Outbox& m_outbox;
    nlohmann::json m_ordered;
};

} // namespace merlow::board
