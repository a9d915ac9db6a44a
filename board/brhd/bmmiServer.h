/// The BMMI server of the reference board: capabilities, MMI users, and what these may do: order the
/// maintenance state, switch the indicators, have the unit show itself.
#pragma once

#include "boardDescription.h"
#include "brhServer.h"
#include "hereIAm.h"
#include "indicators.h"
#include "maintState.h"
#include "mmiSubscribers.h"
#include "refTable.h"

#include <bmmi.pb.h>

namespace merlow::board {

class BmmiServer : public BrhServer {
public:
    BmmiServer(BrhServerConfig config, const BmmiDescription& description, LedClass leds, Outbox& outbox,
               AnswerPlans& plans);

    /// To be called once the board has come up.
    void begin() { m_indicators.begin(); }

    /// {}: the lamps.
    ControlAnswer controlLeds() const;
    /// {"present": BOOL}: somebody comes to the unit or leaves it.
    ControlAnswer controlServiceMan(const nlohmann::json& request);

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
    BrhAnswer handleSetMaintStateReq(const Connection& connection,
                                     const boardresourcehandler::bmmi::SetMaintStateReq& req);
    BrhAnswer handleSubscribeMaintStateReq(const Connection& connection,
                                           const boardresourcehandler::bmmi::SubscribeMaintStateReq& req);
    BrhAnswer handleSetVisualIndicationReq(const Connection& connection,
                                           const boardresourcehandler::bmmi::SetVisualIndicationReq& req);
    BrhAnswer handleGetVisualIndicationReq(const Connection& connection,
                                           const boardresourcehandler::bmmi::GetVisualIndicationReq& req);
    BrhAnswer handleOrderHereIAmReq(const Connection& connection,
                                    const boardresourcehandler::bmmi::OrderHereIAmReq& req);
    BrhAnswer handleSubscribeHereIAmStateReq(const Connection& connection,
                                             const boardresourcehandler::bmmi::SubscribeHereIAmStateReq& req);

    void tellMaintState(const Connection& connection, std::uint32_t procedureRef);
    void tellMaintState();
    void tellHereIAmState(const Connection& connection, std::uint32_t procedureRef);
    void tellHereIAmState();

    bool isUser(const Connection& connection, std::uint32_t id)
    {
        return m_users.find(connection.ref, id) != nullptr;
    }
    void connectionEnded(const Connection& connection) override;

    const BmmiDescription m_description;
    RefTable<Priority> m_users; ///< by user id
    Indicators m_indicators;
    MaintState m_maintState;
    MmiSubscribers m_maintStateSubscribers;
    HereIAm m_hereIAm;
    MmiSubscribers m_hereIAmSubscribers;
};

} // namespace merlow::board
