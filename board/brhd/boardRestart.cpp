#include "boardRestart.h"

#include "control.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
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

BoardRestart::BoardRestart(const BoardDescription& board, Clock clock, StateStore& given,
                           StateStore& carriedOut, Outbox& outbox)
    : m_board(board), m_clock(std::move(clock)), m_given(given), m_carriedOut(carriedOut), m_outbox(outbox)
{
}

void BoardRestart::begin()
{
    LoadedRestartOrder left = pendingRestartOrder(m_given, m_carriedOut);
    if (!left.error.empty()) {
        BOARD_LOG(m_outbox, LogLevel::error,
                  "the last restart order in " << m_given.place() << " cannot be read: " << left.error);
    }
    if (left.order) {
        BOARD_LOG(m_outbox, LogLevel::info,
                  "a restart was ordered by " << left.order->initiator << " and did not come");
        m_isLeftOver = true;
        carryOut(std::move(*left.order));
    }
}

std::string BoardRestart::objectionTo(const bri::RestartBoardFwd& fwd) const
{
    if (m_order) {
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
    RestartOrder order{fwd.restartcode(),
                       static_cast<std::uint32_t>(rank),
                       fwd.label().substr(0, maxTextSize),
                       fwd.load_module(),
                       initiator,
                       m_clock()};
    // An order that is not kept would bring up what ran before: better no restart than that one.
    if (const std::string error = saveRestartOrder(m_given, order); !error.empty()) {
        BOARD_LOG(m_outbox, LogLevel::error,
                  "the board does not restart: the order cannot be kept in " << m_given.place() << ": "
                                                                             << error);
        return;
    }
    BOARD_LOG(m_outbox, LogLevel::info, "a restart is ordered from " << hex(client));
    m_isLeftOver = false;
    carryOut(std::move(order));
}

void BoardRestart::carryOut(RestartOrder order)
{
    BOARD_LOG(m_outbox, LogLevel::info,
              "the board restarts in " << m_board.restart.noticeMs << " ms: code " << order.code << ", rank "
                                       << order.rank << ", label \"" << order.label << "\", to run \""
                                       << order.loadModule << "\", ordered by " << order.initiator);
    m_order = std::move(order);
    m_isNoticeOver = false;
    m_areClientsTold = false;
    const unsigned number = ++m_orders;
    m_outbox.ask("LegacydControl", encodeControl(controlRequest, number,
                                                 {{"command", "restart"},
                                                  {"code", static_cast<std::uint16_t>(m_order->code)}}));
    const std::chrono::milliseconds notice(m_board.restart.noticeMs);
    const auto endNotice = [this, number] {
        m_isNoticeOver = number == m_orders;
        if (m_isNoticeOver && m_areClientsTold) {
            restart();
        }
    };
    const auto endPatience = [this, number] {
        if (number == m_orders) {
            restart();
        }
    };
    if (!m_outbox.runAfter(notice, endNotice) || !m_outbox.runAfter(notice + tellingPatience, endPatience)) {
        restart();
    }
}

void BoardRestart::clientsAreTold()
{
    m_areClientsTold = true;
    if (m_isNoticeOver) {
        restart();
    }
}

void BoardRestart::restart()
{
    ++m_orders;
    m_isNoticeOver = false;
    if (const std::string error = saveRestartOrder(m_carriedOut, *m_order); !error.empty()) {
        BOARD_LOG(m_outbox, LogLevel::error,
                  "that the board restarts cannot be kept in " << m_carriedOut.place() << ": " << error);
        if (m_isLeftOver) { // each process would find it left over, and restart the board once more
            m_order.reset();
            return;
        }
    }
    m_outbox.end(base::boardRestartStatus);
}

void BoardRestart::addStatus(nlohmann::json& status) const
{
    status["restartOrder"] = nullptr;
    if (m_order) {
        status["restartOrder"] = {
            {"code", m_order->code}, {"rank", m_order->rank}, {"loadModule", m_order->loadModule}};
    }
}

} // namespace merlow::board
