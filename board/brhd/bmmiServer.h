/// The BMMI server of the reference board: capabilities and MMI users.
#pragma once

#include "boardDescription.h"
#include "brhServer.h"
#include "refTable.h"

#include <bmmi.pb.h>

namespace merlow::board {

class BmmiServer : public BrhServer {
public:
    BmmiServer(BrhServerConfig config, const BmmiDescription& description, Outbox& outbox,
               AnswerPlans& plans);

    nlohmann::json status() const override;

private:
    using Connection = BrhConnection;
    using Priority = boardresourcehandler::bmmi::RegisterMmiUserReq::Priority;

    BrhAnswer handleGetCapabilitiesReq(const Connection& connection,
                                       const boardresourcehandler::bmmi::GetCapabilitiesReq& req);
    BrhAnswer handleRegisterMmiUserReq(const Connection& connection,
                                       const boardresourcehandler::bmmi::RegisterMmiUserReq& req);
    BrhAnswer handleUnregisterMmiUserReq(const Connection& connection,
                                         const boardresourcehandler::bmmi::UnregisterMmiUserReq& req);

    void connectionEnded(const Connection& connection) override;

    const BmmiDescription m_description;
    RefTable<Priority> m_users; ///< by user id
};

} // namespace merlow::board
