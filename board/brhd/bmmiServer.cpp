#include "bmmiServer.h"

#include <utility>

namespace merlow::board {

namespace bmmi = boardresourcehandler::bmmi;

BmmiServer::BmmiServer(BrhServerConfig config, const BmmiDescription& description, Outbox& outbox,
                       AnswerPlans& plans)
    : BrhServer("bmmi::", bmmi::ServerMetadata().name(), std::move(config), outbox, plans),
      m_description(description)
{
    onConnEstablish<bmmi::ConnEstablishReq, bmmi::ConnEstablishCfm, bmmi::ConnEstablishRej>();
    onRequest<bmmi::GetCapabilitiesReq, bmmi::GetCapabilitiesRej>(&BmmiServer::handleGetCapabilitiesReq);
    onRequest<bmmi::RegisterMmiUserReq, bmmi::RegisterMmiUserRej>(&BmmiServer::handleRegisterMmiUserReq);
    onRequest<bmmi::UnregisterMmiUserReq, bmmi::UnregisterMmiUserRej>(
        &BmmiServer::handleUnregisterMmiUserReq);
}

BrhAnswer BmmiServer::handleGetCapabilitiesReq(const Connection& /*connection*/,
                                               const bmmi::GetCapabilitiesReq& /*req*/)
{
    bmmi::GetCapabilitiesCfm cfm;
    if (m_description.supportUnitFaultIndicator) {
        cfm.mutable_cap_support_unit_fault_indicator();
    }
    if (m_description.hereIAm) {
        cfm.mutable_cap_here_i_am_support();
    }
    if (m_description.commonMmi) {
        cfm.mutable_cap_common_mmi();
    }
    return confirmWith(std::move(cfm));
}

BrhAnswer BmmiServer::handleRegisterMmiUserReq(const Connection& connection,
                                               const bmmi::RegisterMmiUserReq& req)
{
    const auto id = req.has_priority() ? m_users.add(connection.ref, req.priority()) : std::nullopt;
    if (!id) {
        return rejectWith(bmmi::RegisterMmiUserRej());
    }
    bmmi::RegisterMmiUserCfm cfm;
    cfm.set_mmi_user_id(*id);
    return confirmWith(std::move(cfm));
}

BrhAnswer BmmiServer::handleUnregisterMmiUserReq(const Connection& connection,
                                                 const bmmi::UnregisterMmiUserReq& req)
{
    // A client whose registration was refused unregisters 0: there is nothing to free, and nothing is wrong.
    const std::uint32_t id = req.mmi_user_id();
    if (id != 0 && !m_users.remove(connection.ref, id)) {
        return rejectWith(bmmi::UnregisterMmiUserRej());
    }
    return confirmWith(bmmi::UnregisterMmiUserCfm());
}

void BmmiServer::connectionEnded(const Connection& connection)
{
    m_users.removeAllOf(connection.ref);
}

nlohmann::json BmmiServer::status() const
{
    nlohmann::json status = BrhServer::status();
    nlohmann::json users = nlohmann::json::array();
    for (const auto& [id, entry] : m_users.entries()) {
        users.push_back({{"id", id},
                         {"connectionRef", entry.connectionRef},
                         {"priority", bmmi::RegisterMmiUserReq::Priority_Name(entry.value)}});
    }
    status["users"] = std::move(users);
    return status;
}

} // namespace merlow::board
