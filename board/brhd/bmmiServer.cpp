#include "bmmiServer.h"

#include <utility>

namespace merlow::board {

namespace bmmi = boardresourcehandler::bmmi;

BmmiServer::BmmiServer(BrhServerConfig config, const BmmiDescription& description, LedClass leds,
                       Outbox& outbox, AnswerPlans& plans)
    : BrhServer("bmmi::", bmmi::ServerMetadata().name(), std::move(config), outbox, plans),
      m_description(description), m_indicators(description.leds, std::move(leds), outbox),
      m_hereIAm(std::chrono::milliseconds(description.hereIAmMs), outbox, [this] { tellHereIAmState(); })
{
    onConnEstablish<bmmi::ConnEstablishReq, bmmi::ConnEstablishCfm, bmmi::ConnEstablishRej>();
    onRequest<bmmi::GetCapabilitiesReq, bmmi::GetCapabilitiesRej>(&BmmiServer::handleGetCapabilitiesReq);
    onRequest<bmmi::RegisterMmiUserReq, bmmi::RegisterMmiUserRej>(&BmmiServer::handleRegisterMmiUserReq);
    onRequest<bmmi::UnregisterMmiUserReq, bmmi::UnregisterMmiUserRej>(
        &BmmiServer::handleUnregisterMmiUserReq);
    onRequest<bmmi::SetMaintStateReq, bmmi::SetMaintStateRej>(&BmmiServer::handleSetMaintStateReq);
    onRequest<bmmi::SubscribeMaintStateReq, bmmi::SubscribeMaintStateRej>(
        &BmmiServer::handleSubscribeMaintStateReq);
    onRequest<bmmi::SetVisualIndicationReq, bmmi::SetVisualIndicationRej>(
        &BmmiServer::handleSetVisualIndicationReq);
    onRequest<bmmi::GetVisualIndicationReq, bmmi::GetVisualIndicationRej>(
        &BmmiServer::handleGetVisualIndicationReq);
    onRequest<bmmi::OrderHereIAmReq, bmmi::OrderHereIAmRej>(&BmmiServer::handleOrderHereIAmReq);
    onRequest<bmmi::SubscribeHereIAmStateReq, bmmi::SubscribeHereIAmStateRej>(
        &BmmiServer::handleSubscribeHereIAmStateReq);
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
    m_maintStateSubscribers.userGone(connection.ref, id);
    m_hereIAmSubscribers.userGone(connection.ref, id);
    return confirmWith(bmmi::UnregisterMmiUserCfm());
}

void BmmiServer::connectionEnded(const Connection& connection)
{
    m_users.removeAllOf(connection.ref);
    m_maintStateSubscribers.connectionEnded(connection.ref);
    m_hereIAmSubscribers.connectionEnded(connection.ref);
}

// The maintenance state

BrhAnswer BmmiServer::handleSetMaintStateReq(const Connection& connection, const bmmi::SetMaintStateReq& req)
{
    bmmi::SetMaintStateRej rej;
    if (!isUser(connection, req.mmi_user_id()) || !req.has_maint_state()) {
        rej.set_error_code(bmmi::SetMaintStateRej::UNSPECIFIED);
        return rejectWith(rej);
    }
    const MaintState::State before = m_maintState.state();
    switch (m_maintState.order(static_cast<MaintState::State>(req.maint_state()))) {
    case MaintState::Outcome::illegalTransition:
        rej.set_error_code(bmmi::SetMaintStateRej::ILLEGAL_TRANSITION);
        return rejectWith(rej);
    case MaintState::Outcome::serviceManPresent:
        rej.set_error_code(bmmi::SetMaintStateRej::SERVICE_MAN_PRESENT);
        return rejectWith(rej);
    case MaintState::Outcome::done:
        break;
    }
    BrhAnswer answer = confirmWith(bmmi::SetMaintStateCfm());
    if (m_maintState.state() != before) {
        answer.afterwards = [this](std::uint32_t) {
            tellMaintState();
        };
    }
    return answer;
}

BrhAnswer BmmiServer::handleSubscribeMaintStateReq(const Connection& connection,
                                                   const bmmi::SubscribeMaintStateReq& req)
{
    const std::uint32_t userId = req.mmi_user_id();
    if (!isUser(connection, userId) || m_maintStateSubscribers.isFull(connection.ref)) {
        return rejectWith(bmmi::SubscribeMaintStateRej());
    }
    BrhAnswer answer = confirmWith(bmmi::SubscribeMaintStateCfm());
    answer.afterwards = [this, connection, userId](std::uint32_t procedureRef) {
        m_maintStateSubscribers.add(connection, userId, procedureRef);
        tellMaintState(connection, procedureRef);
    };
    return answer;
}

void BmmiServer::tellMaintState(const Connection& connection, std::uint32_t procedureRef)
{
    bmmi::MaintStateInd ind;
    ind.set_maint_state(m_maintState.state());
    outbox().send(mailbox(), connection.mailbox,
                  encodeFrame(bmmi::MaintStateInd::MESSAGE_NUMBER, procedureRef, connection.clientRef, ind));
}

void BmmiServer::tellMaintState()
{
    m_maintStateSubscribers.forEach([this](const Connection& connection, std::uint32_t procedureRef) {
        tellMaintState(connection, procedureRef);
    });
}

ControlAnswer BmmiServer::controlServiceMan(const nlohmann::json& request)
{
    const auto isPresent = request.find("present");
    if (isPresent == request.end() || !isPresent->is_boolean()) {
        return {ControlAnswer::Result::usage, "\"present\" must be true or false", {}};
    }
    const bool wasPresent = m_maintState.isServiceManPresent();
    m_maintState.setServiceMan(isPresent->get<bool>());
    if (m_maintState.isServiceManPresent() != wasPresent) {
        tellMaintState();
    }
    return {ControlAnswer::Result::done,
            std::string(m_maintState.isServiceManPresent() ? "a service man is at the unit"
                                                           : "no service man is at the unit") +
                ", maintenance state " + m_maintState.name(),
            {}};
}

// The indicators

BrhAnswer BmmiServer::handleSetVisualIndicationReq(const Connection& connection,
                                                   const bmmi::SetVisualIndicationReq& req)
{
    if (!isUser(connection, req.mmi_user_id()) || !req.has_visual_state()) {
        return rejectWith(bmmi::SetVisualIndicationRej());
    }
    m_indicators.set(req.visual_state());
    return confirmWith(bmmi::SetVisualIndicationCfm());
}

BrhAnswer BmmiServer::handleGetVisualIndicationReq(const Connection& connection,
                                                   const bmmi::GetVisualIndicationReq& req)
{
    if (!isUser(connection, req.mmi_user_id())) {
        return rejectWith(bmmi::GetVisualIndicationRej());
    }
    return confirmWith(m_indicators.read());
}

ControlAnswer BmmiServer::controlLeds() const
{
    return {ControlAnswer::Result::done, "the lamps", m_indicators.toJson()};
}

// Here I Am

BrhAnswer BmmiServer::handleOrderHereIAmReq(const Connection& connection, const bmmi::OrderHereIAmReq& req)
{
    const bool starts = req.order() == bmmi::OrderHereIAmReq::START;
    const HereIAm::State before = m_hereIAm.state();
    if (!isUser(connection, req.mmi_user_id()) || !req.has_order() || (starts && !m_hereIAm.start())) {
        return rejectWith(bmmi::OrderHereIAmRej());
    }
    bmmi::OrderHereIAmCfm cfm;
    if (starts) {
        cfm.set_text("on for " + std::to_string(m_hereIAm.duration().count()) + " ms");
    } else {
        m_hereIAm.stop();
        cfm.set_text("off");
    }
    cfm.set_status(static_cast<std::uint32_t>(m_hereIAm.state()));
    BrhAnswer answer = confirmWith(std::move(cfm));
    if (m_hereIAm.state() != before) {
        answer.afterwards = [this](std::uint32_t) {
            tellHereIAmState();
        };
    }
    return answer;
}

BrhAnswer BmmiServer::handleSubscribeHereIAmStateReq(const Connection& connection,
                                                     const bmmi::SubscribeHereIAmStateReq& req)
{
    const std::uint32_t userId = req.mmi_user_id();
    if (!isUser(connection, userId) || m_hereIAmSubscribers.isFull(connection.ref)) {
        return rejectWith(bmmi::SubscribeHereIAmStateRej());
    }
    BrhAnswer answer = confirmWith(bmmi::SubscribeHereIAmStateCfm());
    answer.afterwards = [this, connection, userId](std::uint32_t procedureRef) {
        m_hereIAmSubscribers.add(connection, userId, procedureRef);
        tellHereIAmState(connection, procedureRef);
    };
    return answer;
}

void BmmiServer::tellHereIAmState(const Connection& connection, std::uint32_t procedureRef)
{
    bmmi::HereIAmStateInd ind;
    ind.set_state(static_cast<std::uint32_t>(m_hereIAm.state()));
    outbox().send(
        mailbox(), connection.mailbox,
        encodeFrame(bmmi::HereIAmStateInd::MESSAGE_NUMBER, procedureRef, connection.clientRef, ind));
}

void BmmiServer::tellHereIAmState()
{
    m_hereIAmSubscribers.forEach([this](const Connection& connection, std::uint32_t procedureRef) {
        tellHereIAmState(connection, procedureRef);
    });
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
    status["indicators"] = m_indicators.toJson();
    status["maintenance"] = {{"state", m_maintState.state()},
                             {"name", m_maintState.name()},
                             {"serviceMan", m_maintState.isServiceManPresent()},
                             {"subscribers", m_maintStateSubscribers.count()}};
    status["hereIAm"] = {{"on", m_hereIAm.state() == HereIAm::State::on},
                         {"leftMs", m_hereIAm.left().count()},
                         {"subscribers", m_hereIAmSubscribers.count()}};
    return status;
}

} // namespace merlow::board
