#include "merlowTemperature.h"

#include "bci/bciTemperature.h"
#include "bri.pb.h"

#include <algorithm>

namespace bri = boardresourcehandler::bri;

namespace {

/// Under which number a session keeps its measurement's procedure reference.
constexpr std::uint32_t MEASUREMENT = bri::TempMeasStartReq::MESSAGE_NUMBER;

constexpr const char* INVALID_PERIOD_TEXT = "Invalid hotSpotMeasurementPeriod: exp: 1 - 30";
constexpr const char* INVALID_REF_TEXT = "Internal error INVALID_TEMP_MEAS_REF";

// The causes of the three rejects are numbered differently.

const char* toText(bri::TempMeasStartRej::RejectCauseE cause)
{
    switch (cause) {
    case bri::TempMeasStartRej::INVALID_TIMER_PERIOD:
        return INVALID_PERIOD_TEXT;
    case bri::TempMeasStartRej::UNABLE_TO_START_TIMER:
        return "Unable to start hotSpot timer";
    default:
        return "Unknown";
    }
}

/// Empty for a cause of which clients learn nothing.
const char* toText(bri::TempMeasRestartRej::RejectCauseE cause)
{
    switch (cause) {
    case bri::TempMeasRestartRej::INVALID_TIMER_PERIOD:
        return INVALID_PERIOD_TEXT;
    case bri::TempMeasRestartRej::UNABLE_TO_RESTART_TIMER:
        return "Unable to restart hotSpot timer";
    case bri::TempMeasRestartRej::INVALID_TEMP_MEAS_REF:
        return INVALID_REF_TEXT;
    default:
        return "";
    }
}

const char* toText(bri::TempMeasStopRej::RejectCauseE cause)
{
    switch (cause) {
    case bri::TempMeasStopRej::INVALID_TEMP_MEAS_REF:
        return INVALID_REF_TEXT;
    case bri::TempMeasStopRej::UNABLE_TO_STOP_TIMER:
        return "Internal error UNABLE_TO_STOP_TIMER";
    default:
        return "Unknown";
    }
}

} // namespace

bool MerlowTemperature::init()
{
    BrhClient& briClient = m_commonData.getBriClient();
    onSignal(TARN_BC_TEMP_MEAS_START_REQ, &MerlowTemperature::handleTemperatureMeasStart);
    onFrame<bri::TempMeasStartCfm>(briClient, &MerlowTemperature::handleTempMeasStartCfm);
    onFrame<bri::TempMeasStartRej>(briClient, &MerlowTemperature::handleTempMeasStartRej);
    onFrame<bri::TempMeasRestartCfm>(briClient, &MerlowTemperature::handleTempMeasRestartCfm);
    onFrame<bri::TempMeasRestartRej>(briClient, &MerlowTemperature::handleTempMeasRestartRej);
    onFrame<bri::TempMeasStopCfm>(briClient, &MerlowTemperature::handleTempMeasStopCfm);
    onFrame<bri::TempMeasStopRej>(briClient, &MerlowTemperature::handleTempMeasStopRej);
    onFrame<bri::TempMeasInd>(briClient, &MerlowTemperature::handleTempMeasInd);
    return true;
}

void MerlowTemperature::onBcSessionLost(const BcSession& session)
{
    if (session.isProcedureRefInfoExist(MEASUREMENT)) {
        sendTempMeasStopReq(session);
    }
}

void MerlowTemperature::handleTemperatureMeasStart(const std::shared_ptr<mnet_msg>& msg)
{
    // A board without sensors refuses whoever asks, with references to answer to and before anything else.
    constexpr std::size_t referencesEnd = offsetof(TarnBcTempMeasStartReq, hotSpotMeasurementPeriod);
    if (mnet_size(msg.get()) < referencesEnd) {
        Bci::traceShortSignal(*msg, TARN_BC_TEMP_MEAS_START_REQ, referencesEnd);
        return;
    }
    BrhClient& briClient = m_commonData.getBriClient();
    const mnet_mbox_id_t client = mnet_sender(msg.get());
    if (!briClient.isCapabilityPresent(CAP_SUPPORT_TEMPERATURE_LEVEL_MEASUREMENT)) {
        sendRej(client, Bci::referencesOf(*msg), "Hotspots not supported");
        return;
    }
    const BcSession* const session = m_commonData.getClientSession(client);
    if (session == nullptr) {
        SCRY_TRACE(4, "ABN: No session for this client exists. Ignoring TarnBcTempMeasStartReq!");
        return;
    }
    const auto req = readSignal<TarnBcTempMeasStartReq>(*msg);
    if (!req) {
        return;
    }
    const unsigned int period = req->hotSpotMeasurementPeriod;
    if (!session->isProcedureRefInfoExist(MEASUREMENT)) {
        const auto procedureRef = sendTempMeasStartReq(period);
        briClient.addProcedureTransaction(transactionOf(*req, *msg, procedureRef, MEASUREMENT));
    } else if (period != 0) {
        sendTempMeasRestartReq(*session, period);
    } else {
        sendTempMeasStopReq(*session);
    }
}

unsigned int MerlowTemperature::sendTempMeasStartReq(unsigned int period) const
{
    bri::TempMeasStartReq briReq;
    briReq.set_timer_period(period);
    return m_commonData.getBriClient().sendMessage(briReq);
}

void MerlowTemperature::sendTempMeasRestartReq(const BcSession& session, unsigned int period) const
{
    bri::TempMeasRestartReq briReq;
    briReq.set_temp_meas_ref(session.getTempMeasRef());
    briReq.set_timer_period(period);
    m_commonData.getBriClient().sendMessage(briReq, session.getProcedureRef(MEASUREMENT));
}

void MerlowTemperature::sendTempMeasStopReq(const BcSession& session) const
{
    bri::TempMeasStopReq briReq;
    briReq.set_temp_meas_ref(session.getTempMeasRef());
    m_commonData.getBriClient().sendMessage(briReq, session.getProcedureRef(MEASUREMENT));
}

std::optional<MerlowTemperature::Transaction>
MerlowTemperature::findTransaction(unsigned int procedureRef, const char* answer, const char* request) const
{
    const Transaction* const transaction =
        m_commonData.getBriClient().searchTransactionProcedure(procedureRef);
    if (transaction == nullptr) {
        SCRY_TRACE(4, "ABN: " << answer << ", no matching " << request << " procedureRef was found");
        return std::nullopt;
    }
    return *transaction;
}

BcSession* MerlowTemperature::findSession(const Transaction& transaction) const
{
    BcSession* const session = m_commonData.getClientSession(transaction.clientMbox);
    if (session == nullptr) {
        SCRY_TRACE(4, "ABN: BC session for mailboxID 0x" << std::hex << transaction.clientMbox
                                                         << "not found, ignore signal");
    }
    return session;
}

void MerlowTemperature::sendCfm(const Transaction& transaction) const
{
    sendToClient(transaction.clientMbox, answerTo<TarnBcTempMeasStartCfmS>(transaction.addressInfo()));
}

void MerlowTemperature::sendRej(mnet_mbox_id_t client, const TarnNodeCommonAddressInfoS& references,
                                const char* text) const
{
    auto rej = answerTo<TarnBcTempMeasStartRejS>(references);
    rej.errorCode = 1;
    copyStringToClearedArray(rej.errorDescription, sizeof(rej.errorDescription), text);
    sendToClient(client, rej);
}

void MerlowTemperature::handleTempMeasStartCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briCfm = readFrame<bri::TempMeasStartCfm>(*msg);
    if (!briCfm) {
        return;
    }
    const auto transaction =
        findTransaction(briCfm->procedureRef, "BRI_TEMP_MEAS_START_CFM", "BRI_TEMP_MEAS_START_REQ");
    if (!transaction) {
        return;
    }
    BcSession* const session = findSession(*transaction);
    if (session == nullptr) {
        return; // the board goes on measuring, and the transaction stays for what it indicates
    }
    session->setTempMeasRef(briCfm->message.temp_meas_ref());
    session->addProcedureRefInfo(MEASUREMENT, briCfm->procedureRef);
    if (session->getProcedureRef(MEASUREMENT) != briCfm->procedureRef) {
        // A second start while the first was open: no stop will end this transaction.
        m_commonData.getBriClient().abandonTransaction(briCfm->procedureRef);
    }
    sendCfm(*transaction);
}

void MerlowTemperature::handleTempMeasStartRej(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briRej = readFrame<bri::TempMeasStartRej>(*msg);
    if (!briRej) {
        return;
    }
    const auto transaction =
        findTransaction(briRej->procedureRef, "BRI_TEMP_MEAS_START_REJ", "BRI_TEMP_MEAS_START_REQ");
    if (!transaction) {
        return;
    }
    m_commonData.getBriClient().removeTransactionProcedure(briRej->procedureRef);
    if (m_commonData.getClientSession(transaction->clientMbox) == nullptr) {
        SCRY_OBJ_TRACE(5, "MerlowTemperature:handleTempMeasStartRej() received BRI_TEMP_MEAS_START_REJ, "
                          "session was deleted for procedureRef("
                              << briRej->procedureRef << ")");
        return;
    }
    sendRej(transaction->clientMbox, transaction->addressInfo(), toText(briRej->message.reject_cause()));
}

void MerlowTemperature::handleTempMeasRestartCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briCfm = readFrame<bri::TempMeasRestartCfm>(*msg);
    if (!briCfm) {
        return;
    }
    const auto transaction =
        findTransaction(briCfm->procedureRef, "BRI_TEMP_MEAS_RESTART_CFM", "BRI_TEMP_MEAS_RESTART_REQ");
    if (!transaction || findSession(*transaction) == nullptr) {
        return;
    }
    sendCfm(*transaction);
}

void MerlowTemperature::handleTempMeasRestartRej(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briRej = readFrame<bri::TempMeasRestartRej>(*msg);
    if (!briRej) {
        return;
    }
    const auto cause = briRej->message.reject_cause();
    SCRY_OBJ_TRACE(5, "MerlowTemperature:handleTempMeasRestartRej() "
                          << bri::TempMeasRestartRej::RejectCauseE_Name(cause));
    // It names the stop's reject: those who read these traces know it so.
    const auto transaction =
        findTransaction(briRej->procedureRef, "BRI_TEMP_MEAS_STOP_REJ", "BRI_TEMP_MEAS_RESTART_REQ");
    if (!transaction || findSession(*transaction) == nullptr) {
        return;
    }
    sendRej(transaction->clientMbox, transaction->addressInfo(), toText(cause));
}

void MerlowTemperature::handleTempMeasStopCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briCfm = readFrame<bri::TempMeasStopCfm>(*msg);
    if (!briCfm) {
        return;
    }
    const auto transaction =
        findTransaction(briCfm->procedureRef, "BRI_TEMP_MEAS_STOP_CFM", "BRI_TEMP_MEAS_STOP_REQ");
    if (!transaction) {
        return;
    }
    m_commonData.getBriClient().removeTransactionProcedure(briCfm->procedureRef);
    BcSession* const session = m_commonData.getClientSession(transaction->clientMbox);
    if (session == nullptr) {
        SCRY_OBJ_TRACE(5, "MerlowTemperature:handleTempMeasStopCfm() received BRI_TEMP_MEAS_STOP_CFM, "
                          "session was deleted for procedureRef("
                              << briCfm->procedureRef << ")");
        return;
    }
    sendCfm(*transaction);
    session->deleteProcedureRefInfo(MEASUREMENT);
    session->setTempMeasRef(0);
}

void MerlowTemperature::handleTempMeasStopRej(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briRej = readFrame<bri::TempMeasStopRej>(*msg);
    if (!briRej) {
        return;
    }
    const auto transaction =
        findTransaction(briRej->procedureRef, "BRI_TEMP_MEAS_STOP_REJ", "BRI_TEMP_MEAS_STOP_REQ");
    if (!transaction) {
        return;
    }
    if (m_commonData.getClientSession(transaction->clientMbox) == nullptr) {
        // It names the confirm: those who read these traces know it so.
        SCRY_OBJ_TRACE(5, "MerlowTemperature:handleTempMeasStopRej() received BRI_TEMP_MEAS_STOP_CFM, "
                          "session was deleted for procedureRef("
                              << briRej->procedureRef << ")");
        return;
    }
    sendRej(transaction->clientMbox, transaction->addressInfo(), toText(briRej->message.reject_cause()));
}

void MerlowTemperature::handleTempMeasInd(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briInd = readFrame<bri::TempMeasInd>(*msg);
    if (!briInd) {
        return;
    }
    const Transaction* const transaction =
        m_commonData.getBriClient().searchTransactionProcedure(briInd->procedureRef);
    if (transaction == nullptr) {
        SCRY_OBJ_TRACE(5, "The transaction for procedureRef "
                              << briInd->procedureRef << " does not exist. Ignoring bri::TempMeasInd");
        return;
    }
    if (m_commonData.getClientSession(transaction->clientMbox) == nullptr) {
        SCRY_TRACE(4, "ABN: The client session for mailbox 0x"
                          << std::hex << transaction->clientMbox
                          << " does not exist. Ignoring bri::TempMeasInd");
        return;
    }
    const auto& temperatures = briInd->message.temperatures();
    auto ind = answerTo<TarnBcTempMeasIndS>(transaction->addressInfo());
    const int count = std::min<int>(temperatures.size(), TarnBcTempMeasIndS::maxReadings);
    ind.numberOfReadings = static_cast<std::uint16_t>(count);
    for (int i = 0; i < count; ++i) {
        ind.readings[i] = static_cast<std::uint16_t>(temperatures[i]);
    }
    sendToClient(transaction->clientMbox, ind);
}
