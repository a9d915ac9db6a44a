/// The BRI server of the reference board: capabilities, product and container data, UTC time, faults
/// and temperatures.
#pragma once

#include "boardClock.h"
#include "boardDescription.h"
#include "boardFaults.h"
#include "boardTemperatures.h"
#include "brhServer.h"

#include <bri.pb.h>

namespace merlow::board {

class BriServer : public BrhServer {
public:
    /// `board` lives longer.
    BriServer(BrhServerConfig config, const BoardDescription& board, BoardSensors sensors,
              BoardClock::SystemClock systemClock, StateStore& store, Outbox& outbox, AnswerPlans& plans);

    BoardFaults& faults() { return m_faults; }
    BoardTemperatures& temperatures() { return m_temperatures; }
    void begin();
    void clientGone(MailboxId mailbox) override;

    nlohmann::json status() const override;

private:
    using Connection = BrhConnection;

    BrhAnswer handleGetCapabilitiesReq(const Connection& connection,
                                       const boardresourcehandler::bri::GetCapabilitiesReq& req);
    BrhAnswer handleGetProductInfoReq(const Connection& connection,
                                      const boardresourcehandler::bri::GetProductInfoReq& req);
    BrhAnswer handleGetContainerPidReq(const Connection& connection,
                                       const boardresourcehandler::bri::GetContainerPidReq& req);
    BrhAnswer handleRegisterUtcTimeSourceReq(const Connection& connection,
                                             const boardresourcehandler::bri::RegisterUtcTimeSourceReq& req);
    BrhAnswer
    handleUnregisterUtcTimeSourceReq(const Connection& connection,
                                     const boardresourcehandler::bri::UnregisterUtcTimeSourceReq& req);
    BrhAnswer handleSetUtcTimeReq(const Connection& connection,
                                  const boardresourcehandler::bri::SetUtcTimeReq& req);
    BrhAnswer handleSubscribeFaultsReq(const Connection& connection,
                                       const boardresourcehandler::bri::SubscribeFaultsReq& req);
    BrhAnswer handleTempMeasStartReq(const Connection& connection,
                                     const boardresourcehandler::bri::TempMeasStartReq& req);
    BrhAnswer handleTempMeasRestartReq(const Connection& connection,
                                       const boardresourcehandler::bri::TempMeasRestartReq& req);
    BrhAnswer handleTempMeasStopReq(const Connection& connection,
                                    const boardresourcehandler::bri::TempMeasStopReq& req);

    void connectionEnded(const Connection& connection) override;

    const BoardDescription& m_board;
    BoardClock m_clock;
    BoardFaults m_faults;
    BoardTemperatures m_temperatures;
};

} // namespace merlow::board
