#include "briServer.h"

#include "briDescription.h"

#include <utility>

namespace merlow::board {

namespace bri = boardresourcehandler::bri;

namespace {

std::optional<TimeAccuracy> accuracyOf(const bri::RegisterUtcTimeSourceReq& req)
{
    if (!req.has_accuracy()) {
        return std::nullopt;
    }
    return req.accuracy() == bri::RegisterUtcTimeSourceReq::NORMAL ? TimeAccuracy::normal
                                                                   : TimeAccuracy::reduced;
}

/// The log of the node configuration, which has its own request.
constexpr std::uint32_t nodeConfigLog = 2;

template <class Request> bool namesLog(const Request& req)
{
    return req.has_log_id() && req.log_id() <= maxLogNumber;
}

template <class Request> HardwareLog::Addition additionOf(const Request& req)
{
    return {req.log_id(), req.log_label(), std::nullopt, {req.entries().begin(), req.entries().end()}};
}

} // namespace

BriServer::BriServer(BrhServerConfig config, const BoardDescription& board, BoardSensors sensors,
                     const BoardRestart::Clock& systemClock, BoardStores stores, Outbox& outbox,
                     AnswerPlans& plans)
    : BrhServer("bri::", bri::BriServerMetadata().name(), std::move(config), outbox, plans), m_board(board),
      m_clock([systemClock] { return systemClock() / 1000; }),
      m_faults(stores.faults, outbox,
               [this](const Connection& connection, std::uint32_t procedureRef, std::uint32_t number,
                      const google::protobuf::Message& message) {
                   this->outbox().send(mailbox(), connection.mailbox,
                                       encodeFrame(number, procedureRef, connection.clientRef, message));
               }),
      m_temperatures(
          std::move(sensors), m_faults, outbox,
          [this](const Connection& connection, std::uint32_t procedureRef, const bri::TempMeasInd& ind) {
              this->outbox().send(
                  mailbox(), connection.mailbox,
                  encodeFrame(bri::TempMeasInd::MESSAGE_NUMBER, procedureRef, connection.clientRef, ind));
          }),
      m_hardwareLog(std::move(stores.hardwareLog), board.hardwareLog, outbox),
      m_restart(board, systemClock, stores.restartOrder, stores.carriedOutRestart, outbox)
{
    onConnEstablish<bri::ConnEstablishReq, bri::ConnEstablishCfm, bri::ConnEstablishRej>();
    onRequest<bri::GetCapabilitiesReq, bri::GetCapabilitiesRej>(&BriServer::handleGetCapabilitiesReq);
    onRequest<bri::RegisterUtcTimeSourceReq, bri::RegisterUtcTimeSourceRej>(
        &BriServer::handleRegisterUtcTimeSourceReq);
    onRequest<bri::UnregisterUtcTimeSourceReq, bri::UnregisterUtcTimeSourceRej>(
        &BriServer::handleUnregisterUtcTimeSourceReq);
    onRequest<bri::SetUtcTimeReq, bri::SetUtcTimeRej>(&BriServer::handleSetUtcTimeReq);
    onRequest<bri::SubscribeFaultsReq>(&BriServer::handleSubscribeFaultsReq);
    onRequest<bri::GetProductInfoReq, bri::GetProductInfoRej>(&BriServer::handleGetProductInfoReq);
    onRequest<bri::GetContainerPidReq, bri::GetContainerPidRej>(&BriServer::handleGetContainerPidReq);
    onRequest<bri::TempMeasStartReq, bri::TempMeasStartRej>(&BriServer::handleTempMeasStartReq);
    onRequest<bri::TempMeasRestartReq, bri::TempMeasRestartRej>(&BriServer::handleTempMeasRestartReq);
    onRequest<bri::TempMeasStopReq, bri::TempMeasStopRej>(&BriServer::handleTempMeasStopReq);
    onRequest<bri::HwLogSetReq, bri::HwLogSetRej>(&BriServer::handleHwLogSetReq);
    onRequest<bri::HwLogGetReq, bri::HwLogGetRej>(&BriServer::handleHwLogGetReq);
    onRequest<bri::StoreNodeConfigEntryReq, bri::StoreNodeConfigEntryRej>(
        &BriServer::handleStoreNodeConfigEntryReq);
    onOrder<bri::RestartBoardFwd>(&BriServer::handleRestartBoardFwd);
}

void BriServer::begin()
{
    m_faults.load();
    m_temperatures.begin();
    m_hardwareLog.begin();
    m_restart.begin();
}

BrhAnswer BriServer::handleGetCapabilitiesReq(const Connection& /*connection*/,
                                              const bri::GetCapabilitiesReq& /*req*/)
{
    return confirmWith(briCapabilitiesOf(m_board));
}

BrhAnswer BriServer::handleGetProductInfoReq(const Connection& /*connection*/,
                                             const bri::GetProductInfoReq& /*req*/)
{
    return confirmWith(productOf(m_board.product));
}

BrhAnswer BriServer::handleGetContainerPidReq(const Connection& /*connection*/,
                                              const bri::GetContainerPidReq& /*req*/)
{
    return confirmWith(containerOf(m_board.container));
}

BrhAnswer BriServer::handleRegisterUtcTimeSourceReq(const Connection& connection,
                                                    const bri::RegisterUtcTimeSourceReq& req)
{
    const auto accuracy = accuracyOf(req);
    const auto ref = accuracy ? m_clock.registerSource(connection.ref, *accuracy) : std::nullopt;
    if (!ref) {
        return rejectWith(bri::RegisterUtcTimeSourceRej());
    }
    bri::RegisterUtcTimeSourceCfm cfm;
    cfm.set_utc_time_source_ref(*ref);
    return confirmWith(std::move(cfm));
}

BrhAnswer BriServer::handleUnregisterUtcTimeSourceReq(const Connection& connection,
                                                      const bri::UnregisterUtcTimeSourceReq& req)
{
    // A client whose registration was refused unregisters 0: there is nothing to free, and nothing is wrong.
    const std::uint32_t ref = req.utc_time_source_ref();
    if (ref != 0 && !m_clock.unregisterSource(connection.ref, ref)) {
        return rejectWith(bri::UnregisterUtcTimeSourceRej());
    }
    return confirmWith(bri::UnregisterUtcTimeSourceCfm());
}

BrhAnswer BriServer::handleSetUtcTimeReq(const Connection& connection, const bri::SetUtcTimeReq& req)
{
    if (!req.has_utc_time() || !m_clock.setTime(connection.ref, req.utc_time_source_ref(), req.utc_time())) {
        return rejectWith(bri::SetUtcTimeRej());
    }
    return confirmWith(bri::SetUtcTimeCfm());
}

BrhAnswer BriServer::handleSubscribeFaultsReq(const Connection& connection,
                                              const bri::SubscribeFaultsReq& /*req*/)
{
    BrhAnswer answer = confirmWith(bri::SubscribeFaultsCfm());
    answer.afterwards = [this, connection](std::uint32_t procedureRef) {
        m_faults.subscribe(connection, procedureRef);
    };
    return answer;
}

BrhAnswer BriServer::handleTempMeasStartReq(const Connection& connection, const bri::TempMeasStartReq& req)
{
    bri::TempMeasStartRej rej;
    if (!BoardTemperatures::isPeriod(req.timer_period())) {
        rej.set_reject_cause(bri::TempMeasStartRej::INVALID_TIMER_PERIOD);
        return rejectWith(std::move(rej));
    }
    const auto ref = m_temperatures.start(connection, req.timer_period());
    if (!ref) {
        rej.set_reject_cause(bri::TempMeasStartRej::UNABLE_TO_START_TIMER);
        return rejectWith(std::move(rej));
    }
    bri::TempMeasStartCfm cfm;
    cfm.set_temp_meas_ref(*ref);
    BrhAnswer answer = confirmWith(std::move(cfm));
    answer.afterwards = [this, connectionRef = connection.ref, ref = *ref](std::uint32_t procedureRef) {
        m_temperatures.confirmed(connectionRef, ref, procedureRef);
    };
    return answer;
}

BrhAnswer BriServer::handleTempMeasRestartReq(const Connection& connection,
                                              const bri::TempMeasRestartReq& req)
{
    bri::TempMeasRestartRej rej;
    if (!BoardTemperatures::isPeriod(req.timer_period())) {
        rej.set_reject_cause(bri::TempMeasRestartRej::INVALID_TIMER_PERIOD);
        return rejectWith(std::move(rej));
    }
    if (!m_temperatures.restart(connection.ref, req.temp_meas_ref(), req.timer_period())) {
        rej.set_reject_cause(bri::TempMeasRestartRej::INVALID_TEMP_MEAS_REF);
        return rejectWith(std::move(rej));
    }
    return confirmWith(bri::TempMeasRestartCfm());
}

BrhAnswer BriServer::handleTempMeasStopReq(const Connection& connection, const bri::TempMeasStopReq& req)
{
    if (!m_temperatures.stop(connection.ref, req.temp_meas_ref())) {
        bri::TempMeasStopRej rej;
        rej.set_reject_cause(bri::TempMeasStopRej::INVALID_TEMP_MEAS_REF);
        return rejectWith(std::move(rej));
    }
    return confirmWith(bri::TempMeasStopCfm());
}

BrhAnswer BriServer::handleHwLogSetReq(const Connection& /*connection*/, const bri::HwLogSetReq& req)
{
    if (!namesLog(req) || req.log_id() == nodeConfigLog || !m_hardwareLog.append(additionOf(req))) {
        return rejectWith(bri::HwLogSetRej());
    }
    return confirmWith(bri::HwLogSetCfm());
}

BrhAnswer BriServer::handleStoreNodeConfigEntryReq(const Connection& /*connection*/,
                                                   const bri::StoreNodeConfigEntryReq& req)
{
    HardwareLog::Addition addition = additionOf(req);
    addition.serverRef = req.server_ref();
    if (!namesLog(req) || req.log_id() != nodeConfigLog || !req.has_server_ref() ||
        !m_hardwareLog.append(addition)) {
        return rejectWith(bri::StoreNodeConfigEntryRej());
    }
    return confirmWith(bri::StoreNodeConfigEntryCfm());
}

BrhAnswer BriServer::handleHwLogGetReq(const Connection& /*connection*/, const bri::HwLogGetReq& req)
{
    const auto entries = namesLog(req) ? m_hardwareLog.read(req.log_id()) : std::nullopt;
    if (!entries) {
        bri::HwLogGetRej rej;
        rej.set_errortype(namesLog(req) ? bri::HwLogGetRej::READ_FAILED
                                        : bri::HwLogGetRej::LOG_ID_OUT_OF_RANGE);
        return rejectWith(std::move(rej));
    }
    bri::HwLogGetCfm cfm;
    cfm.mutable_entries()->Add(entries->begin(), entries->end());
    return confirmWith(std::move(cfm));
}

void BriServer::handleRestartBoardFwd(const Connection& connection, const bri::RestartBoardFwd& fwd)
{
    m_restart.order(connection.mailbox, fwd);
}

void BriServer::connectionEnded(const Connection& connection)
{
    m_clock.connectionEnded(connection.ref);
    m_faults.connectionEnded(connection.ref);
    m_temperatures.connectionEnded(connection.ref);
}

void BriServer::clientGone(MailboxId mailbox)
{
    BrhServer::clientGone(mailbox);
    m_faults.clientGone(mailbox);
}

nlohmann::json BriServer::status() const
{
    nlohmann::json status = BrhServer::status();
    nlohmann::json sources = nlohmann::json::array();
    for (const auto& [ref, entry] : m_clock.sources().entries()) {
        const BoardClock::Source& source = entry.value;
        sources.push_back(
            {{"ref", ref},
             {"connectionRef", entry.connectionRef},
             {"accuracy", source.accuracy == TimeAccuracy::normal ? "NORMAL" : "REDUCED"},
             {"toldTime", source.toldTime ? nlohmann::json(*source.toldTime) : nlohmann::json()}});
    }
    status["timeSources"] = std::move(sources);
    status["utcTime"] = {
        {"now", m_clock.now()}, {"offset", m_clock.offset()}, {"believedSource", m_clock.believedSource()}};
    m_faults.addStatus(status);
    m_temperatures.addStatus(status);
    status["hardwareLog"] = m_hardwareLog.status();
    m_restart.addStatus(status);
    return status;
}

} // namespace merlow::board
