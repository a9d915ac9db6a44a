/// Restarts of the board that are ordered over BRI.
#pragma once

#include "boardDescription.h"
#include "outbox.h"
#include "restartOrder.h"
#include "stateStore.h"

#include <bri.pb.h>
#include <chrono>
#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>

namespace merlow::board {

/// Carries an order out: records it for who starts next, has the legacy server tell its clients, and ends the
/// process with the status by which its supervisor restarts every part: after the board's notice time, and
/// not before the legacy server says that its clients know, as long as it says so within `tellingPatience`.
/// One order at a time; what comes after it in the notice time is dropped.
///
/// An order whose process dies in the notice time is carried out by the next one, from its record on.
class BoardRestart {
public:
    /// The system's clock, in milliseconds since 1970.
    using Clock = std::function<std::int64_t()>;

    /// What a legacy server that does not answer adds to the notice time, on the board's clock.
    static constexpr std::chrono::milliseconds tellingPatience{2000};

    /// All references live longer. `given` keeps the last order, `carriedOut` the last one for which the
    /// process ended.
    BoardRestart(const BoardDescription& board, Clock clock, StateStore& given, StateStore& carriedOut,
                 Outbox& outbox);

    /// Goes on with the order that the process before this one left.
    void begin();
    void order(MailboxId client, const boardresourcehandler::bri::RestartBoardFwd& fwd);
    /// The legacy server has told its clients.
    void clientsAreTold();

    /// Adds "restartOrder": null, or the order that is being carried out.
    void addStatus(nlohmann::json& status) const;

private:
    /// What stands against the order; empty for nothing.
    [[nodiscard]] std::string objectionTo(const boardresourcehandler::bri::RestartBoardFwd& fwd) const;

    void carryOut(RestartOrder order);
    void restart();

    const BoardDescription& m_board;
    Clock m_clock;
    StateStore& m_given;
    StateStore& m_carriedOut;
    Outbox& m_outbox;
    std::optional<RestartOrder> m_order; ///< that is being carried out
    unsigned m_orders = 0;               ///< grows with each begin and end, so that nothing late acts
    bool m_isLeftOver = false;           ///< the order is of the process before this one
    bool m_isNoticeOver = false;
    bool m_areClientsTold = false;
};

} // namespace merlow::board
