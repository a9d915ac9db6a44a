/// The BRI server of the reference board: capabilities, product and container data, UTC time and faults.
#pragma once

#include "boardClock.h"
#include "boardDescription.h"
#include "boardFaults.h"
#include "brhServer.h"

#include <bri.pb.h>

namespace merlow::board {

class BriServer : public BrhServer {
public:
    /// `board` lives longer.
    BriServer(BrhServerConfig config, const BoardDescription& board, BoardClock::SystemClock systemClock,
              StateStore& store, Outbox& outbox, AnswerPlans& plans);

    BoardFaults& faults() { return m_faults; }
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

    void connectionEnded(const Connection& connection) override;

    const BoardDescription& m_board;
    BoardClock m_clock;
    BoardFaults m_faults;
};

} // namespace merlow::board
