#include "boardRestart.h"

#include "control.h"
#include "restartOrder.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <partStatus.h>
#include <utility>

namespace merlow::board {

namespace bri = boardresourcehandler::bri;

namespace {

/// What a plain order, without rank and label, asks for; the board has it whatever ranks it announces.
constexpr bri::RestartBoardFwd::RestartRankE plainRank = bri::RestartBoardFwd::RANK_2;

constexpr std::size_t maxTextSize = 4096;

bool announcesRanks(const BoardDescription& board)
{
    const auto& announced = board.bri.capabilities;
    return std::any_of(announced.begin(), announced.end(), [](std::uint32_t capability) {
        return capability == bri::GetCapabilitiesCfm::RESTART_RANK_LABEL;
    });
}

} // namespace

BoardRestart::BoardRestart(const BoardDescription& board, Clock clock, StateStore& store, Outbox& outbox)
    : m_board(board), m_clock(std::move(clock)), m_store(store), m_outbox(outbox)
{
}

std::string BoardRestart::objectionTo(const bri::RestartBoardFwd& fwd) const
{
    if (!m_ordered.is_null()) {
        return "the board restarts already";
    }
    if (!fwd.has_restartcode() || fwd.restartcode() < std::numeric_limits<std::int16_t>::min() ||
        fwd.restartcode() > std::numeric_limits<std::int16_t>::max()) {
        return "it has no code of 16 bits";
    }
    if (fwd.load_module().size() > maxTextSize) {
        return "a load module's name of " + std::to_string(fwd.load_module().size()) + " bytes";
    }
    if (!fwd.has_label()) {
        return "";
    }
    if (!announcesRanks(m_board)) {
        return "the board has no restarts with rank and label";
    }
    const auto& ranks = m_board.restart.ranks;
    const bool isOurs = fwd.has_restart_rank_v2() &&
                        std::find(ranks.begin(), ranks.end(),
                                  static_cast<std::uint32_t>(fwd.restart_rank_v2())) != ranks.end();
    return isOurs ? "" : "the board does not have its rank";
}

void BoardRestart::order(MailboxId client, const bri::RestartBoardFwd& fwd)
{
    if (const std::string objection = objectionTo(fwd); !objection.empty()) {
        BOARD_LOG(m_outbox, LogLevel::abnormal,
                  "ABN: dropped the restart order from " << hex(client) << ": " << objection);
        return;
    }
    const auto rank = fwd.has_restart_rank_v2() ? fwd.restart_rank_v2() : plainRank;
    const std::string initiator =
        fwd.trace_info().empty() ? "the client at " + hex(client) : fwd.trace_info().substr(0, maxTextSize);
    const RestartOrder order{fwd.restartcode(),
                             static_cast<std::uint32_t>(rank),
                             fwd.label().substr(0, maxTextSize),
                             fwd.load_module(),
                             initiator,
                             m_clock()};
    // An order that is not kept would bring up what ran before: better no restart than that one.
    if (const std::string error = saveRestartOrder(m_store, order); !error.empty()) {
        BOARD_LOG(m_outbox, LogLevel::error,
                  "the board does not restart: the order cannot be kept in " << m_store.place() << ": "
                                                                             << error);
        return;
    }
    m_ordered = {{"code", order.code}, {"rank", order.rank}, {"loadModule", order.loadModule}};
    BOARD_LOG(m_outbox, LogLevel::info,
              "the board restarts in " << m_board.restart.noticeMs << " ms: code " << order.code << ", rank "
                                       << order.rank << ", label \"" << order.label << "\", to run \""
                                       << order.loadModule << "\", ordered from " << hex(client) << " by "
                                       << order.initiator);
    m_outbox.tell("LegacydControl",
                  encodeControl(controlNotice, 0,
                                {{"command", "restart"}, {"code", static_cast<std::uint16_t>(order.code)}}));
    const auto restart = [&outbox = m_outbox] {
        outbox.end(base::boardRestartStatus);
    };
    if (!m_outbox.runAfter(std::chrono::milliseconds(m_board.restart.noticeMs), restart)) {
        restart();
    }
}

void BoardRestart::addStatus(nlohmann::json& status) const
{
    status["restartOrder"] = m_ordered;
}

} // namespace merlow::board
