#pragma once

#include "merlowComponent.h"

/// Periodic measurement of the board's temperatures, one for each session.
///
///   TARN_BC_TEMP_MEAS_START_REQ
///     nothing runs       -> bri::TempMeasStartReq
///     a period is given  -> bri::TempMeasRestartReq
///     the period is 0    -> bri::TempMeasStopReq
///   each one's answer    -> TARN_BC_TEMP_MEAS_START_CFM or TARN_BC_TEMP_MEAS_START_REJ
///   bri::TempMeasInd     -> TARN_BC_TEMP_MEAS_IND
///   session lost         -> bri::TempMeasStopReq
///
/// One transaction, that of the start, serves the whole measurement: its procedure reference goes with the
/// restarts, the stop and the readings, and its references with every answer. It ends with a refused start or
/// a confirmed stop. That a measurement runs is known by that procedure reference in the session. Server
/// thread only.
class MerlowTemperature : public MerlowComponent {
public:
    using MerlowComponent::MerlowComponent;

    bool init() override;
    void onBcSessionLost(const BcSession& session) override;

private:
    using Transaction = BrhClient::ProcedureTransaction;

    void handleTemperatureMeasStart(const std::shared_ptr<mnet_msg>& msg);
    void handleTempMeasStartCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleTempMeasStartRej(const std::shared_ptr<mnet_msg>& msg);
    void handleTempMeasRestartCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleTempMeasRestartRej(const std::shared_ptr<mnet_msg>& msg);
    void handleTempMeasStopCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleTempMeasStopRej(const std::shared_ptr<mnet_msg>& msg);
    void handleTempMeasInd(const std::shared_ptr<mnet_msg>& msg);

    /// The procedure reference that was used; 0 when nothing was sent.
    unsigned int sendTempMeasStartReq(unsigned int period) const;
    void sendTempMeasRestartReq(const BcSession& session, unsigned int period) const;
    void sendTempMeasStopReq(const BcSession& session) const;

    /// A copy; nothing, and a trace that names answer and request, when there is none.
    [[nodiscard]] std::optional<Transaction> findTransaction(unsigned int procedureRef, const char* answer,
                                                             const char* request) const;
    /// Null, and a trace, when the session has gone.
    [[nodiscard]] BcSession* findSession(const Transaction& transaction) const;
    void sendCfm(const Transaction& transaction) const;
    void sendRej(mnet_mbox_id_t client, const TarnNodeCommonAddressInfoS& references, const char* text) const;
};
