/// The BRI server of the reference board: capabilities and UTC time.
#pragma once

#include "boardClock.h"
#include "brhServer.h"

#include <bri.pb.h>

namespace merlow::board {

/// Product data, container data and faults are asked for by clients that cannot take an answer yet: a frame
/// that a client does not know would pass on as if it came from a client of its own. These requests are
/// counted and left unanswered.
class BriServer : public BrhServer {
public:
    BriServer(BrhServerConfig config, BoardClock::SystemClock systemClock, Outbox& outbox,
              AnswerPlans& plans);

    nlohmann::json status() const override;

private:
    using Connection = BrhConnection;

    BrhAnswer handleGetCapabilitiesReq(const Connection& connection,
                                       const boardresourcehandler::bri::GetCapabilitiesReq& req);
    BrhAnswer handleRegisterUtcTimeSourceReq(const Connection& connection,
                                             const boardresourcehandler::bri::RegisterUtcTimeSourceReq& req);
    BrhAnswer
    handleUnregisterUtcTimeSourceReq(const Connection& connection,
                                     const boardresourcehandler::bri::UnregisterUtcTimeSourceReq& req);
    BrhAnswer handleSetUtcTimeReq(const Connection& connection,
                                  const boardresourcehandler::bri::SetUtcTimeReq& req);

    void connectionEnded(const Connection& connection) override;

    BoardClock m_clock;
};

} // namespace merlow::board
