#include "merlowRestart.h"

#include "bci/bciRestart.h"
#include "brhCapabilities.h"
#include "brhRestart.h"
#include "bri.pb.h"

#include <algorithm>
#include <rushlog.h>

namespace bri = boardresourcehandler::bri;

namespace {

/// Of an order that names neither.
constexpr std::int16_t DEFAULT_RESTART_CODE = 401;
constexpr bri::RestartBoardFwd::RestartRankE DEFAULT_RESTART_RANK = bri::RestartBoardFwd::RANK_2;

/// The initiator flag that nobody's order changes.
constexpr std::uint16_t INITIATOR_FLAG_FIXED = 2;

/// The bits of the supported ranks; the last two are not in the order of the ranks.
struct RankBit {
    std::int16_t rank;
    unsigned int bit;
};
constexpr RankBit RANK_BITS[] = {{1, 0}, {2, 1}, {3, 2}, {4, 4}, {5, 3}};

bool isRankSupported(std::int16_t rank, std::uint32_t supportedRanks)
{
    return std::any_of(std::begin(RANK_BITS), std::end(RANK_BITS), [&](const RankBit& row) {
        return row.rank == rank && (supportedRanks & (1U << row.bit)) != 0;
    });
}

} // namespace

bool MerlowRestart::init()
{
    onSignal(TARN_BC_NOTIFY_RESTART_REQ, &MerlowRestart::handleNotifyRestartReq);
    onSignal(TARN_BC_RESTART_BOARD_FWD, &MerlowRestart::handleRestartBoardFwd);
    onSignal(TARN_BC_RESTART_BOARD_WITH_RANK_AND_LABEL_FWD, &MerlowRestart::handleRestartBoardRankLabelFwd);
    onSignal(TARN_BC_RESTART_BOARD_NOTIFICATION_IND, &MerlowRestart::handleRestartBoardNotificationInd);
    return true;
}

void MerlowRestart::handleNotifyRestartReq(const std::shared_ptr<mnet_msg>& msg)
{
    const auto req = readSignal<TarnBcNotifyRestartReqS>(*msg);
    if (!req) {
        return;
    }
    const std::string reason = textBehind<TarnBcNotifyRestartReqS>(*msg);
    SCRY_TRACE(4, reason);
    const mnet_mbox_id_t client = mnet_sender(msg.get());
    const BcSession* session = m_commonData.getClientSession(client);
    if (session == nullptr) {
        SCRY_TRACE(4, "ABN: No session for this client exists. Ignoring REQ!");
        return;
    }
    std::string error;
    if (BrhRestart::getInstance().notifyRestart(session->getUtcTimeSourceRef(), req->notifyValue, reason,
                                                error)) {
        sendToClient(client, answerTo<TarnBcNotifyRestartCfmS>(req->addressInfo));
        return;
    }
    auto rej = answerTo<TarnBcNotifyRestartRejS>(req->addressInfo);
    rej.errorCode = 1;
    copyStringToClearedArray(rej.errorDescription, sizeof(rej.errorDescription), error);
    sendToClient(client, rej);
}

void MerlowRestart::handleRestartBoardFwd(const std::shared_ptr<mnet_msg>& msg)
{
    const auto fwd = readSignal<TarnBcRestartBoardFwdS>(*msg);
    if (!fwd) {
        return;
    }
    if (m_commonData.getSelectLoadModule().empty()) {
        SCRY_OBJ_TRACE(5, "MerlowRestart::handleRestartBoardFwd() 'm_selectLoadModule' is empty.");
    }
    const std::string traceInfo = textBehind<TarnBcRestartBoardFwdS>(*msg);
    SCRY_TRACE(4, traceInfo);
    addPendingRestartInitiator({.clientRef = fwd->addressInfo.clientRef,
                                .serverRef = fwd->addressInfo.serverRef,
                                .restartCode = DEFAULT_RESTART_CODE});
    bri::RestartBoardFwd briFwd;
    briFwd.set_load_module(m_commonData.getSelectLoadModule());
    briFwd.set_trace_info(traceInfo);
    briFwd.set_restartcode(DEFAULT_RESTART_CODE);
    briFwd.set_restart_rank_v2(DEFAULT_RESTART_RANK);
    m_commonData.getBriClient().sendMessage(briFwd);
}

void MerlowRestart::handleRestartBoardRankLabelFwd(const std::shared_ptr<mnet_msg>& msg)
{
    const auto fwd = readSignal<TarnBcRestartBoardWithRankAndLabelFwdS>(*msg);
    if (!fwd) {
        return;
    }
    if (m_commonData.getSelectLoadModule().empty()) {
        SCRY_OBJ_TRACE(5, "MerlowRestart::handleRestartBoardRankLabelFwd() 'm_selectLoadModule' is empty.");
    }
    const std::string traceInfo = Bci::textOf(fwd->traceInfo);
    SCRY_TRACE(4, traceInfo);
    rushlog_log(RUSHLOG_CATEGORY, "Ordered Cold Restart Received");
    BrhClient& briClient = m_commonData.getBriClient();
    if (!briClient.isCapabilityPresent(CAP_SUPPORT_RESTART_RANK_LABEL)) {
        return;
    }
    if (!isRankSupported(fwd->restartRank, supportedRestartRanks())) {
        SCRY_TRACE(
            4, "ABN: Requested restart rank "
                   << fwd->restartRank
                   << " in restart signal TARN_BC_RESTART_BOARD_WITH_RANK_AND_LABEL_FWD is not supported!");
        return;
    }
    addPendingRestartInitiator({.clientRef = fwd->addressInfo.clientRef,
                                .serverRef = fwd->addressInfo.serverRef,
                                .restartCode = fwd->restartCode});
    bri::RestartBoardFwd briFwd;
    briFwd.set_load_module(m_commonData.getSelectLoadModule());
    briFwd.set_trace_info(traceInfo);
    briFwd.set_restartcode(fwd->restartCode);
    briFwd.set_label(textBehind<TarnBcRestartBoardWithRankAndLabelFwdS>(*msg));
    briFwd.set_restart_rank_v2(static_cast<bri::RestartBoardFwd::RestartRankE>(fwd->restartRank));
    briClient.sendMessage(briFwd);
}

void MerlowRestart::handleRestartBoardNotificationInd(const std::shared_ptr<mnet_msg>& msg)
{
    auto ind = readSignal<TarnBcRestartBoardNotificationIndS>(*msg);
    if (!ind) {
        return;
    }
    const PendingRestartInitiatorS initiator{.clientRef = ind->addressInfo.clientRef,
                                             .serverRef = ind->addressInfo.serverRef,
                                             .restartCode = ind->restartCode};
    if (ind->initiatorFlag != INITIATOR_FLAG_FIXED &&
        std::find(m_pendingRestartInitiators.begin(), m_pendingRestartInitiators.end(), initiator) !=
            m_pendingRestartInitiators.end()) {
        ind->initiatorFlag = 0;
    }
    const mnet_mbox_id_t fwdMbox = mnet_receiver(msg.get());
    const BcSession* session = m_commonData.getSessionFromFwdMbox(fwdMbox);
    if (session == nullptr) {
        SCRY_TRACE(4, "ABN: No session for forward mailbox 0x"
                          << std::hex << fwdMbox << ". Ignoring TARN_BC_RESTART_BOARD_NOTIFICATION_IND.");
        return;
    }
    sendToClient(session->mailboxId, *ind);
}

void MerlowRestart::addPendingRestartInitiator(const PendingRestartInitiatorS& initiator)
{
    // Equal ones are found as well by one entry; it takes the place of the latest.
    m_pendingRestartInitiators.erase(
        std::remove(m_pendingRestartInitiators.begin(), m_pendingRestartInitiators.end(), initiator),
        m_pendingRestartInitiators.end());
    m_pendingRestartInitiators.push_back(initiator);
    if (m_pendingRestartInitiators.size() > maxPendingRestartInitiators) {
        if (!std::exchange(m_initiatorCapTraced, true)) {
            SCRY_TRACE(4, "ABN: More than " << maxPendingRestartInitiators
                                            << " initiators of restarts: the oldest go");
        }
        m_pendingRestartInitiators.erase(m_pendingRestartInitiators.begin());
    }
}

std::uint32_t MerlowRestart::supportedRestartRanks() const
{
    std::vector<std::shared_ptr<Capability>> capabilities;
    m_commonData.getBriClient().getCapabilities(capabilities);
    // Of several announcements the first one counts.
    const auto record = std::find_if(capabilities.begin(), capabilities.end(), [](const auto& capability) {
        return capability->id == CAP_SUPPORT_RESTART_RANK_LABEL;
    });
    if (record == capabilities.end()) {
        return 0;
    }
    const auto* ranks = dynamic_cast<const RestartRankLabelSupport*>(record->get());
    return ranks != nullptr ? ranks->supportedRestartRanks : 0;
}
