/// The BRI server of the reference board: capabilities, product and container data, UTC time, faults,
/// temperatures, the hardware log and restarts.
#pragma once

#include "boardClock.h"
#include "boardDescription.h"
#include "boardFaults.h"
#include "boardRestart.h"
#include "boardTemperatures.h"
#include "brhServer.h"
#include "hardwareLog.h"

#include <bri.pb.h>

namespace merlow::board {

/// What of the board outlives the process.
struct BoardStores {
    StateStore& faults;
    StateStore& restartOrder;
    StateStore& carriedOutRestart;
    std::string hardwareLog; ///< the path of its database, or SqliteDatabase::inMemory
};

class BriServer : public BrhServer {
public:
    /// `board` and the stores live longer. `systemClock` gives milliseconds since 1970.
    BriServer(BrhServerConfig config, const BoardDescription& board, BoardSensors sensors,
              const BoardRestart::Clock& systemClock, BoardStores stores, Outbox& outbox, AnswerPlans& plans);

    /// Goes on where the process before this one ended.
    void begin();

    BoardFaults& faults() { return m_faults; }
    BoardTemperatures& temperatures() { return m_temperatures; }
    BoardRestart& restart() { return m_restart; }
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
    BrhAnswer handleHwLogSetReq(const Connection& connection,
                                const boardresourcehandler::bri::HwLogSetReq& req);
    BrhAnswer handleHwLogGetReq(const Connection& connection,
                                const boardresourcehandler::bri::HwLogGetReq& req);
    BrhAnswer handleStoreNodeConfigEntryReq(const Connection& connection,
                                            const boardresourcehandler::bri::StoreNodeConfigEntryReq& req);
    void handleRestartBoardFwd(const Connection& connection,
                               const boardresourcehandler::bri::RestartBoardFwd& fwd);

    void connectionEnded(const Connection& connection) override;

    const BoardDescription& m_board;
    BoardClock m_clock;
    BoardFaults m_faults;
    BoardTemperatures m_temperatures;
    HardwareLog m_hardwareLog;
    BoardRestart m_restart;
};

} // namespace merlow::board
