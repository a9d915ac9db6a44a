#include "bmmi.pb.h"
#include "bri.pb.h"
#include "ledgerFrames.h"

#include <algorithm>

namespace sim {

namespace {

namespace bri = boardresourcehandler::bri;
namespace bmmi = boardresourcehandler::bmmi;

constexpr std::uint32_t measuring = bri::TempMeasStartReq::MESSAGE_NUMBER;
constexpr std::uint32_t followingMaintState = bmmi::SubscribeMaintStateReq::MESSAGE_NUMBER;
constexpr std::uint32_t followingHereIAm = bmmi::SubscribeHereIAmStateReq::MESSAGE_NUMBER;

std::uint32_t procedureOf(const Session& session, std::uint32_t key)
{
    const auto found = session.procedures.find(key);
    return found == session.procedures.end() ? 0 : found->second;
}

} // namespace

// Frames and transactions

void Ledger::onSignal(std::uint32_t number, const Handler& handler)
{
    m_signals[number] = [number, handler](const Event& event) {
        if (event.bytes.size() >= bciSizeOf(number)) {
            handler(event);
        }
    };
}

Transaction Ledger::transactionOf(const Event& event, std::uint32_t data)
{
    return {.client = event.sender, .refs = refsOf(event), .data = data};
}

const Transaction* Ledger::find(Backend& backend, const Event& event) const
{
    const auto found = backend.open.find(wordAt(event.bytes, 4));
    return found == backend.open.end() ? nullptr : &found->second;
}

std::optional<Transaction> Ledger::take(Backend& backend, const Event& event)
{
    const Transaction* found = find(backend, event);
    if (found == nullptr) {
        return {};
    }
    const Transaction transaction = *found;
    backend.open.erase(wordAt(event.bytes, 4));
    return transaction;
}

// Connections

void Ledger::onNotify(Backend& backend, const Event& event)
{
    if (!event.isNotice) {
        return;
    }
    if (backend.server != MNET_MBOX_NONE) {
        backend.server = MNET_MBOX_NONE;
        backend.isConnected = false;
        return;
    }
    backend.server = event.sender;
    bri::ConnEstablishReq req; // the same for both but for its number
    req.add_supported_protocol_revisions(1);
    const std::string body = req.SerializeAsString();
    if (!backend.isConnected) {
        m_expected.push_back(
            {.to = backend.server,
             .from = m_private,
             .number =
                 std::uint32_t{&backend == &m_bri ? std::uint32_t{bri::ConnEstablishReq::MESSAGE_NUMBER}
                                                  : std::uint32_t{bmmi::ConnEstablishReq::MESSAGE_NUMBER}},
             .whole = {},
             .size = 12 + body.size(),
             .tail = {body.begin(), body.end()},
             .backend = &backend,
             .procedureRef = backend.clientRef,
             .connectionRef = backend.clientRef,
             .opens = {}});
    }
}

void Ledger::registerSession(const Session& session)
{
    bri::RegisterUtcTimeSourceReq time;
    time.set_accuracy(isGsm(session.refs) ? bri::RegisterUtcTimeSourceReq::REDUCED
                                          : bri::RegisterUtcTimeSourceReq::NORMAL);
    ask(m_bri, time, 0, Transaction{.client = session.mbox, .refs = session.refs});
    bmmi::RegisterMmiUserReq user;
    user.set_priority(bmmi::RegisterMmiUserReq::NORMAL);
    ask(m_bmmi, user, 0, Transaction{.client = session.mbox, .refs = session.refs});
}

void Ledger::unregisterSession(const Session& session)
{
    if (const auto procedure = procedureOf(session, measuring)) {
        bri::TempMeasStopReq stop;
        stop.set_temp_meas_ref(session.measurement);
        ask(m_bri, stop, procedure);
    }
    bri::UnregisterUtcTimeSourceReq time;
    time.set_utc_time_source_ref(session.timeSource);
    ask(m_bri, time);
    m_bmmi.open.erase(procedureOf(session, followingMaintState));
    bmmi::UnregisterMmiUserReq user;
    user.set_mmi_user_id(session.mmiUser);
    ask(m_bmmi, user);
    closeSoftware(session.refs.server);
    m_bmmi.open.erase(procedureOf(session, followingHereIAm));
    unsubscribe(session.mbox);
}

void Ledger::addBoardHandlers()
{
    onConfirm<bri::ConnEstablishCfm>(m_bri, [this] {
        ask(m_bri, bri::GetProductInfoReq());
        ask(m_bri, bri::GetContainerPidReq());
        ask(m_bri, bri::GetCapabilitiesReq());
        ask(m_bri, bri::SubscribeFaultsReq());
    });
    onConfirm<bmmi::ConnEstablishCfm>(m_bmmi, [this] { ask(m_bmmi, bmmi::GetCapabilitiesReq()); });
    onFrame<bri::GetCapabilitiesCfm>(m_bri, [this](const Event&, const bri::GetCapabilitiesCfm& cfm) {
        for (const int capability : cfm.capabilities()) {
            m_boardCapabilities.insert(capability);
            if (capability == bri::GetCapabilitiesCfm::RESTART_RANK_LABEL && !m_restartRanks) {
                m_restartRanks = cfm.supported_restart_ranks();
            }
        }
        m_bri.hasCapabilities = true;
        checkPublication();
    });
    onFrame<bmmi::GetCapabilitiesCfm>(m_bmmi, [this](const Event&, const bmmi::GetCapabilitiesCfm&) {
        m_bmmi.hasCapabilities = true;
        checkPublication();
    });
    // These change nothing: refused connections, answers to what has no transaction, link supervision.
    m_frameNumbers.insert({0x170772F, 0x1707732, 0x1707572, 0x170757F, 0x1707737, 0x1707738, 0x1707584,
                           0x1707585, 0x1707754, 0x170775C, 0x170775D, 0x170775F, 0x1707760, 0x1707762,
                           0x1707763, 0x170776E, 0x170776F, 0x1707771, 0x1707772, 0x1707774, 0x1707775});
    addTimeHandlers();
    addPidHandlers();
    addHwLogHandlers();
    addTemperatureHandlers();
    addRestartHandlers();
}

// Time

void Ledger::addTimeHandlers()
{
    onFrame<bri::RegisterUtcTimeSourceCfm>(
        m_bri, [this](const Event& event, const bri::RegisterUtcTimeSourceCfm& cfm) {
            const auto transaction = take(m_bri, event);
            Session* session = transaction ? sessionOf(transaction->client) : nullptr;
            if (session != nullptr && cfm.has_utc_time_source_ref()) {
                session->timeSource = cfm.utc_time_source_ref();
                session->timeAnswered = true;
                releaseConfirm(*session);
            }
        });
    onFrame<bri::RegisterUtcTimeSourceRej>(
        m_bri, [this](const Event& event, const bri::RegisterUtcTimeSourceRej&) {
            const auto transaction = take(m_bri, event);
            if (Session* session = transaction ? sessionOf(transaction->client) : nullptr) {
                session->timeAnswered = true;
                releaseConfirm(*session);
            }
        });
    onSignal(TARN_BC_SET_UTC_TIME_REQ, [this](const Event& event) {
        if (const Session* session = sessionOf(event.sender)) {
            bri::SetUtcTimeReq req;
            req.set_utc_time_source_ref(session->timeSource);
            req.set_utc_time(wordAt(event.bytes, 12));
            ask(m_bri, req, 0, transactionOf(event, 0));
        }
    });
    endsWith<bri::SetUtcTimeCfm, bri::SetUtcTimeRej>(m_bri, TARN_BC_SET_UTC_TIME_CFM,
                                                     TARN_BC_SET_UTC_TIME_REJ);
}

// Product identity

void Ledger::askPid(const Event& event, bool canServe, std::uint32_t confirmNo)
{
    if (sessionOf(event.sender) == nullptr) {
        return;
    }
    if (canServe) {
        answer(event.sender, confirmNo, refsOf(event));
    } else if (event.number == TARN_BC_GET_CONTAINER_PID_REQ) {
        ask(m_bri, bri::GetContainerPidReq(), 0, transactionOf(event, event.number));
    } else {
        ask(m_bri, bri::GetProductInfoReq(), 0, transactionOf(event, event.number));
    }
}

void Ledger::onProductInfo(const Transaction& transaction, bool isReject)
{
    if (sessionOf(transaction.client) == nullptr) {
        return;
    }
    bool canServe = !isReject;
    switch (transaction.data) {
    case TARN_BC_GET_HW_PID_REQ:
        canServe = canServe && m_isProductComplete;
        break;
    case TARN_BC_GET_MARKET_NAME_PID_REQ:
        canServe = canServe && m_isProductComplete && m_hasMarketName;
        break;
    case TARN_BC_GET_EXTENDED_MARKET_NAME_REQ:
        canServe = canServe && m_hasMarketName;
        break;
    default: // opened by another request
        return;
    }
    // Confirm and reject follow their request.
    if (canServe) {
        answer(transaction.client, transaction.data + 1, transaction.refs);
    } else {
        reject(transaction.client, transaction.data + 2, transaction.refs);
    }
}

void Ledger::addPidHandlers()
{
    onSignal(TARN_BC_GET_HW_PID_REQ,
             [this](const Event& event) { askPid(event, m_isProductComplete, TARN_BC_GET_HW_PID_CFM); });
    onSignal(TARN_BC_GET_MARKET_NAME_PID_REQ, [this](const Event& event) {
        askPid(event, m_isProductComplete && m_hasMarketName, TARN_BC_GET_MARKET_NAME_PID_CFM);
    });
    onSignal(TARN_BC_GET_EXTENDED_MARKET_NAME_REQ, [this](const Event& event) {
        askPid(event, m_hasMarketName, TARN_BC_GET_EXTENDED_MARKET_NAME_CFM);
    });
    onSignal(TARN_BC_GET_CONTAINER_PID_REQ, [this](const Event& event) {
        askPid(event, m_isContainerComplete, TARN_BC_GET_CONTAINER_PID_CFM);
    });
    onFrame<bri::GetProductInfoCfm>(m_bri, [this](const Event& event, const bri::GetProductInfoCfm& cfm) {
        if (cfm.has_product_name()) {
            m_productName = cfm.product_name();
        }
        m_isProductComplete = cfm.has_production_date() && cfm.has_product_name() &&
                              cfm.has_product_number() && cfm.has_product_revision() &&
                              cfm.has_serial_number();
        m_hasMarketName = cfm.has_extended_market_name();
        if (const auto transaction = take(m_bri, event)) {
            onProductInfo(*transaction, false);
        }
    });
    onFrame<bri::GetProductInfoRej>(m_bri, [this](const Event& event, const bri::GetProductInfoRej&) {
        if (const auto transaction = take(m_bri, event)) {
            onProductInfo(*transaction, true);
        }
    });
    onFrame<bri::GetContainerPidCfm>(m_bri, [this](const Event& event, const bri::GetContainerPidCfm& cfm) {
        m_isContainerComplete = cfm.has_production_date() && cfm.has_container_name() &&
                                cfm.has_product_number() && cfm.has_product_revision() &&
                                cfm.has_serial_number();
        const auto transaction = take(m_bri, event);
        if (transaction && sessionOf(transaction->client) != nullptr) {
            if (m_isContainerComplete) {
                answer(transaction->client, TARN_BC_GET_CONTAINER_PID_CFM, transaction->refs);
            } else {
                reject(transaction->client, TARN_BC_GET_CONTAINER_PID_REJ, transaction->refs);
            }
        }
    });
    onFrame<bri::GetContainerPidRej>(m_bri, [this](const Event& event, const bri::GetContainerPidRej&) {
        const auto transaction = take(m_bri, event);
        if (transaction && sessionOf(transaction->client) != nullptr) {
            reject(transaction->client, TARN_BC_GET_CONTAINER_PID_REJ, transaction->refs);
        }
    });
}

bool Ledger::isKpx(Refs refs) const
{
    return isGsm(refs) && m_isProductComplete && m_productName.rfind("KPX", 0) == 0;
}

// The hardware log

void Ledger::onHwLogSet(const Event& event)
{
    if (sessionOf(event.sender) == nullptr || event.bytes.size() < 12) {
        return;
    }
    const std::uint32_t logId = wordAt(event.bytes, 28);
    if (logId > 999) {
        reject(event.sender, TARN_BC_HWLOG_SET_REJ, refsOf(event), 2);
        return;
    }
    if (event.bytes.size() < bciSizeOf(TARN_BC_HWLOG_SET_REQ)) {
        reject(event.sender, TARN_BC_HWLOG_SET_REJ, refsOf(event));
        return;
    }
    const std::uint32_t length = wordAt(event.bytes, 32);
    std::vector<std::string> entries;
    for (std::size_t at = 36; entries.size() < length && at < 460;) {
        entries.push_back(textAt(event.bytes, at, event.bytes.size()));
        at += entries.back().size() + 1;
        if (entries.back().empty()) {
            break;
        }
    }
    if (entries.size() != length || (length != 0 && entries.back().empty())) {
        reject(event.sender, TARN_BC_HWLOG_SET_REJ, refsOf(event));
        return;
    }
    const auto fill = [&](auto req) {
        req.set_log_label(textAt(event.bytes, 12, 28));
        req.set_log_id(logId);
        for (const std::string& entry : entries) {
            req.add_entries(entry);
        }
        return req;
    };
    if (logId == 2) {
        auto req = fill(bri::StoreNodeConfigEntryReq());
        req.set_server_ref(static_cast<std::int32_t>(refsOf(event).server));
        ask(m_bri, req, 0, transactionOf(event, event.number));
    } else {
        ask(m_bri, fill(bri::HwLogSetReq()), 0, transactionOf(event, event.number));
    }
}

void Ledger::addHwLogHandlers()
{
    m_signals[TARN_BC_HWLOG_SET_REQ] = [this](const Event& event) {
        onHwLogSet(event);
    };
    endsWith<bri::HwLogSetCfm, bri::HwLogSetRej>(m_bri, TARN_BC_HWLOG_SET_CFM, TARN_BC_HWLOG_SET_REJ);
    endsWith<bri::StoreNodeConfigEntryCfm, bri::StoreNodeConfigEntryRej>(m_bri, TARN_BC_HWLOG_SET_CFM,
                                                                         TARN_BC_HWLOG_SET_REJ);
    // Whoever asks is asked for; without a session its transaction stays.
    onSignal(TARN_BC_HWLOG_GET_REQ, [this](const Event& event) {
        bri::HwLogGetReq req;
        req.set_log_id(wordAt(event.bytes, 12));
        ask(m_bri, req, 0, transactionOf(event, event.number));
    });
    onFrame<bri::HwLogGetCfm>(m_bri, [this](const Event& event, const bri::HwLogGetCfm&) {
        const Transaction* transaction = find(m_bri, event);
        if (transaction != nullptr && sessionOf(transaction->client) != nullptr) {
            answer(transaction->client, TARN_BC_HWLOG_GET_CFM, transaction->refs);
            m_bri.open.erase(wordAt(event.bytes, 4));
        }
    });
    onFrame<bri::HwLogGetRej>(m_bri, [this](const Event& event, const bri::HwLogGetRej& rej) {
        const Transaction* transaction = find(m_bri, event);
        if (transaction != nullptr && sessionOf(transaction->client) != nullptr && rej.has_errortype()) {
            reject(transaction->client, TARN_BC_HWLOG_GET_REJ, transaction->refs,
                   rej.errortype() == bri::HwLogGetRej::LOG_ID_OUT_OF_RANGE ? 2 : 1);
            m_bri.open.erase(wordAt(event.bytes, 4));
        }
    });
}

// Temperatures

void Ledger::onTempMeasStart(const Event& event)
{
    if (event.bytes.size() < 12) {
        return;
    }
    if (m_boardCapabilities.count(bri::GetCapabilitiesCfm::TEMPERATURE_LEVEL_MEASUREMENT) == 0) {
        reject(event.sender, TARN_BC_TEMP_MEAS_START_REJ, refsOf(event));
        return;
    }
    const Session* session = sessionOf(event.sender);
    if (session == nullptr || event.bytes.size() < bciSizeOf(TARN_BC_TEMP_MEAS_START_REQ)) {
        return;
    }
    const unsigned int period = event.bytes[12];
    const std::uint32_t running = procedureOf(*session, measuring);
    if (session->procedures.count(measuring) == 0) {
        bri::TempMeasStartReq req;
        req.set_timer_period(period);
        if (!ask(m_bri, req, 0, transactionOf(event, measuring))) {
            m_bri.open.emplace(0, transactionOf(event, measuring)); // kept all the same
        }
    } else if (period != 0) {
        bri::TempMeasRestartReq req;
        req.set_temp_meas_ref(session->measurement);
        req.set_timer_period(period);
        ask(m_bri, req, running);
    } else {
        bri::TempMeasStopReq req;
        req.set_temp_meas_ref(session->measurement);
        ask(m_bri, req, running);
    }
}

void Ledger::addTemperatureHandlers()
{
    m_signals[TARN_BC_TEMP_MEAS_START_REQ] = [this](const Event& event) {
        onTempMeasStart(event);
    };
    onFrame<bri::TempMeasStartCfm>(m_bri, [this](const Event& event, const bri::TempMeasStartCfm& cfm) {
        const Transaction* transaction = find(m_bri, event);
        Session* session = transaction == nullptr ? nullptr : sessionOf(transaction->client);
        if (session != nullptr) {
            session->measurement = cfm.temp_meas_ref();
            session->procedures.emplace(measuring, wordAt(event.bytes, 4));
            answer(transaction->client, TARN_BC_TEMP_MEAS_START_CFM, transaction->refs);
        }
    });
    onFrame<bri::TempMeasStartRej>(m_bri, [this](const Event& event, const bri::TempMeasStartRej&) {
        const auto transaction = take(m_bri, event);
        if (transaction && sessionOf(transaction->client) != nullptr) {
            reject(transaction->client, TARN_BC_TEMP_MEAS_START_REJ, transaction->refs);
        }
    });
    staysWith<bri::TempMeasRestartCfm, bri::TempMeasRestartRej>(m_bri, TARN_BC_TEMP_MEAS_START_CFM,
                                                                TARN_BC_TEMP_MEAS_START_REJ);
    // An indication finds its way as an answer does.
    staysWith<bri::TempMeasInd, bri::TempMeasStopRej>(m_bri, TARN_BC_TEMP_MEAS_IND,
                                                      TARN_BC_TEMP_MEAS_START_REJ);
    onFrame<bri::TempMeasStopCfm>(m_bri, [this](const Event& event, const bri::TempMeasStopCfm&) {
        const auto transaction = take(m_bri, event);
        if (Session* session = transaction ? sessionOf(transaction->client) : nullptr) {
            answer(transaction->client, TARN_BC_TEMP_MEAS_START_CFM, transaction->refs);
            session->procedures.erase(measuring);
            session->measurement = 0;
        }
    });
}

// Restart

void Ledger::addRestartHandlers()
{
    onSignal(TARN_BC_RESTART_BOARD_FWD, [this](const Event& event) {
        bri::RestartBoardFwd fwd;
        fwd.set_load_module(m_selectedModule);
        fwd.set_trace_info(textAt(event.bytes, 12, event.bytes.size()));
        fwd.set_restartcode(401);
        fwd.set_restart_rank_v2(bri::RestartBoardFwd::RANK_2);
        m_restartInitiators.insert({refsOf(event), 401});
        ask(m_bri, fwd);
    });
    onSignal(TARN_BC_RESTART_BOARD_WITH_RANK_AND_LABEL_FWD, [this](const Event& event) {
        const unsigned int rank = halfAt(event.bytes, 14);
        constexpr unsigned int bits[] = {0, 0, 1, 2, 4, 3};
        if (!m_restartRanks || rank < 1 || rank > 5 || (*m_restartRanks >> bits[rank] & 1U) == 0) {
            return;
        }
        const int code = static_cast<std::int16_t>(halfAt(event.bytes, 12));
        bri::RestartBoardFwd fwd;
        fwd.set_load_module(m_selectedModule);
        fwd.set_trace_info(textAt(event.bytes, 16, 156));
        fwd.set_restartcode(code);
        fwd.set_label(textAt(event.bytes, 156, event.bytes.size()));
        fwd.set_restart_rank_v2(static_cast<bri::RestartBoardFwd::RestartRankE>(rank));
        m_restartInitiators.insert({refsOf(event), code});
        ask(m_bri, fwd);
    });
}

} // namespace sim
