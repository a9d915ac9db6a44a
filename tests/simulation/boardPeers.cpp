#include "boardPeers.h"

#include "bmmi.pb.h"
#include "bri.pb.h"

#include <algorithm>

namespace sim {

namespace bri = boardresourcehandler::bri;
namespace bmmi = boardresourcehandler::bmmi;

namespace {

/// No message parses this.
constexpr const char* unparsable = "\x08";

constexpr std::size_t maxFollowed = 8;

} // namespace

void BoardPeer::die()
{
    m_peer.die();
    m_mouth.clear();
    m_server = MNET_MBOX_NONE;
    m_clientRef = 0;
    forget();
}

std::string BoardPeer::act(Random& random, const Weather& weather)
{
    if (m_clientRef != 0 && random.chance(weather.garbage)) {
        const std::uint32_t number = (random.chance(50) ? 0x1707570U : 0x170772DU) + random.below(70);
        const Bytes frame = support::makeFrame(
            number, random.below(40), random.chance(80) ? m_clientRef : random.below(200), unparsable);
        Bytes cut = frame;
        cut.resize(random.chance(50) ? frame.size() : 4 + random.below(9));
        m_peer.send(cut, m_server);
        return m_name + " sends garbage " + support::messageToHex(cut);
    }
    if (random.chance(weather.repeats)) {
        if (const Bytes* frame = m_mouth.repeat(random)) {
            m_peer.send(*frame, m_server);
            return m_name + " repeats " + support::messageToHex(*frame);
        }
    }
    if (m_mouth.hasDue() && (random.chance(40) || !m_peer.hasMessage())) {
        const Bytes frame = m_mouth.takeDue(random);
        sayFrame(frame);
        return m_name + " says late " + support::messageToHex(frame);
    }
    if (const auto received = m_peer.receive()) {
        m_server = received->sender;
        const Bytes& bytes = received->bytes;
        onRequest({.number = received->msgNo,
                   .procedureRef = wordAt(bytes, 4),
                   .body = std::string(bytes.begin() + 12, bytes.end())},
                  random, weather);
        return m_name + " takes " + support::messageToHex(bytes);
    }
    if (m_clientRef != 0) {
        indicate(random);
    }
    return m_name + " may indicate something";
}

void BoardPeer::sayFrame(const Bytes& frame)
{
    m_peer.send(frame, m_server);
    m_mouth.said(frame);
}

void BoardPeer::say(std::uint32_t number, std::uint32_t procedureRef, const std::string& body)
{
    sayFrame(support::makeFrame(number, procedureRef, m_clientRef, body));
}

void BoardPeer::later(std::uint32_t number, std::uint32_t procedureRef, const std::string& body)
{
    m_mouth.willSay(support::makeFrame(number, procedureRef, m_clientRef, body));
}

void BoardPeer::settleWith(std::uint32_t number, const Request& request,
                           const google::protobuf::MessageLite& message, Random& random,
                           const Weather& weather)
{
    if (random.chance(weather.silence)) {
        return;
    }
    if (random.chance(weather.lateness)) {
        later(number, request.procedureRef, message.SerializeAsString());
    } else {
        say(number, request.procedureRef, message.SerializeAsString());
    }
}

// BRI

namespace {

bri::GetCapabilitiesCfm briCapabilities(Random& random)
{
    bri::GetCapabilitiesCfm cfm;
    for (int value = 0; value <= 13; ++value) {
        if (random.chance(80)) {
            cfm.add_capabilities(static_cast<bri::GetCapabilitiesCfm::CapabilityType>(value));
        }
    }
    cfm.set_supported_restart_ranks(random.below(32));
    return cfm;
}

bri::GetProductInfoCfm productInfo(Random& random)
{
    bri::GetProductInfoCfm cfm;
    if (random.chance(85)) {
        cfm.set_production_date("20261121");
    }
    cfm.set_product_name(random.chance(50) ? "KPX 40" : "UNIT 7");
    cfm.set_product_number("QXR7041162/15");
    cfm.set_product_revision("R91KT");
    cfm.set_serial_number("S000000017");
    if (random.chance(70)) {
        cfm.set_extended_market_name("A unit with a longer name");
    }
    return cfm;
}

bri::GetContainerPidCfm containerPid(Random& random)
{
    bri::GetContainerPidCfm cfm;
    if (random.chance(70)) {
        cfm.set_production_date("20261121");
    }
    cfm.set_container_name("CABINET 3");
    cfm.set_product_number("QXR7041163/1");
    cfm.set_product_revision("P1A");
    cfm.set_serial_number("C1");
    return cfm;
}

} // namespace

void BriPeer::forget()
{
    m_measurements.clear();
    m_faultProcedure = 0;
}

void BriPeer::onRequest(const Request& request, Random& random, const Weather& weather)
{
    switch (request.number) {
    case bri::ConnEstablishReq::MESSAGE_NUMBER:
        onConnect<bri::ConnEstablishCfm, bri::ConnEstablishRej>(request, random, weather);
        break;
    case bri::GetCapabilitiesReq::MESSAGE_NUMBER:
        if (random.chance(weather.refusals / 5)) {
            say(bri::GetCapabilitiesRej::MESSAGE_NUMBER, request.procedureRef, "");
        } else {
            later(bri::GetCapabilitiesCfm::MESSAGE_NUMBER, request.procedureRef,
                  briCapabilities(random).SerializeAsString());
        }
        break;
    case bri::GetProductInfoReq::MESSAGE_NUMBER:
        settle(request, productInfo(random), bri::GetProductInfoRej(), random, weather);
        break;
    case bri::GetContainerPidReq::MESSAGE_NUMBER:
        settle(request, containerPid(random), bri::GetContainerPidRej(), random, weather);
        break;
    case bri::SubscribeFaultsReq::MESSAGE_NUMBER:
        m_faultProcedure = request.procedureRef;
        say(bri::SubscribeFaultsCfm::MESSAGE_NUMBER, request.procedureRef, "");
        break;
    case bri::RegisterUtcTimeSourceReq::MESSAGE_NUMBER: {
        bri::RegisterUtcTimeSourceCfm cfm;
        if (!random.chance(weather.garbage)) {
            cfm.set_utc_time_source_ref(1 + random.below(1000));
        }
        settle(request, cfm, bri::RegisterUtcTimeSourceRej(), random, weather);
        break;
    }
    case bri::UnregisterUtcTimeSourceReq::MESSAGE_NUMBER:
        settle(request, bri::UnregisterUtcTimeSourceCfm(), bri::UnregisterUtcTimeSourceRej(), random,
               weather);
        break;
    case bri::SetUtcTimeReq::MESSAGE_NUMBER:
        settle(request, bri::SetUtcTimeCfm(), bri::SetUtcTimeRej(), random, weather);
        break;
    case bri::HwLogSetReq::MESSAGE_NUMBER:
        settle(request, bri::HwLogSetCfm(), bri::HwLogSetRej(), random, weather);
        break;
    case bri::StoreNodeConfigEntryReq::MESSAGE_NUMBER:
        settle(request, bri::StoreNodeConfigEntryCfm(), bri::StoreNodeConfigEntryRej(), random, weather);
        break;
    case bri::HwLogGetReq::MESSAGE_NUMBER: {
        bri::HwLogGetCfm cfm;
        for (unsigned int i = random.below(30); i > 0; --i) {
            cfm.add_entries("an entry of the log");
        }
        bri::HwLogGetRej rej;
        if (!random.chance(weather.garbage)) {
            rej.set_errortype(static_cast<bri::HwLogGetRej::ErrorType>(random.below(3)));
        }
        settle(request, cfm, rej, random, weather);
        break;
    }
    case bri::TempMeasStartReq::MESSAGE_NUMBER: {
        bri::TempMeasStartCfm cfm;
        cfm.set_temp_meas_ref(1 + random.below(100));
        if (m_measurements.size() < maxFollowed) {
            m_measurements.push_back(request.procedureRef);
        }
        settle(request, cfm, bri::TempMeasStartRej(), random, weather);
        break;
    }
    case bri::TempMeasRestartReq::MESSAGE_NUMBER:
        settle(request, bri::TempMeasRestartCfm(), bri::TempMeasRestartRej(), random, weather);
        break;
    case bri::TempMeasStopReq::MESSAGE_NUMBER:
        settle(request, bri::TempMeasStopCfm(), bri::TempMeasStopRej(), random, weather);
        if (random.chance(80)) { // else it goes on for a while
            std::erase(m_measurements, request.procedureRef);
        }
        break;
    default: // a restart order has no answer
        break;
    }
}

std::string BriPeer::fault(Random& random, bool isRaise) const
{
    const auto id = static_cast<bri::BriFaultId>(random.below(14));
    if (!isRaise) {
        bri::FaultCeaseInd ind;
        ind.set_fault_id(id);
        return ind.SerializeAsString();
    }
    bri::FaultInd ind;
    ind.set_fault_id(id);
    ind.set_fault_case(random.chance(20) ? 317 : random.below(3));
    if (random.chance(60)) {
        ind.mutable_fan_product_info()->set_fan_product_number("QXR1/" + std::to_string(random.below(3)));
        ind.mutable_fan_product_info()->set_fan_position_slot(static_cast<int>(random.below(4)));
    }
    return ind.SerializeAsString();
}

void BriPeer::indicate(Random& random)
{
    if (!m_measurements.empty() && random.chance(40)) {
        bri::TempMeasInd ind;
        for (unsigned int i = random.below(12); i > 0; --i) {
            ind.add_temperatures(static_cast<int>(random.below(100)));
        }
        say(bri::TempMeasInd::MESSAGE_NUMBER, random.of(m_measurements), ind.SerializeAsString());
    } else if (m_faultProcedure != 0) {
        const bool isRaise = random.chance(50);
        say(isRaise ? std::uint32_t{bri::FaultInd::MESSAGE_NUMBER}
                    : std::uint32_t{bri::FaultCeaseInd::MESSAGE_NUMBER},
            m_faultProcedure, fault(random, isRaise));
    }
}

// BMMI

void BmmiPeer::onRequest(const Request& request, Random& random, const Weather& weather)
{
    switch (request.number) {
    case bmmi::ConnEstablishReq::MESSAGE_NUMBER:
        onConnect<bmmi::ConnEstablishCfm, bmmi::ConnEstablishRej>(request, random, weather);
        break;
    case bmmi::GetCapabilitiesReq::MESSAGE_NUMBER: {
        bmmi::GetCapabilitiesCfm cfm;
        cfm.mutable_cap_common_mmi();
        if (random.chance(weather.refusals / 5)) {
            say(bmmi::GetCapabilitiesRej::MESSAGE_NUMBER, request.procedureRef, "");
        } else {
            later(bmmi::GetCapabilitiesCfm::MESSAGE_NUMBER, request.procedureRef, cfm.SerializeAsString());
        }
        break;
    }
    case bmmi::RegisterMmiUserReq::MESSAGE_NUMBER: {
        bmmi::RegisterMmiUserCfm cfm;
        if (!random.chance(weather.garbage)) {
            cfm.set_mmi_user_id(++m_lastUser);
        }
        settle(request, cfm, bmmi::RegisterMmiUserRej(), random, weather);
        break;
    }
    case bmmi::UnregisterMmiUserReq::MESSAGE_NUMBER:
        settle(request, bmmi::UnregisterMmiUserCfm(), bmmi::UnregisterMmiUserRej(), random, weather);
        break;
    case bmmi::SetMaintStateReq::MESSAGE_NUMBER: {
        bmmi::SetMaintStateRej rej;
        if (random.chance(80)) {
            rej.set_error_code(static_cast<bmmi::SetMaintStateRej::ErrorCode>(random.below(5)));
        }
        settle(request, bmmi::SetMaintStateCfm(), rej, random, weather);
        break;
    }
    case bmmi::SubscribeMaintStateReq::MESSAGE_NUMBER:
        if (m_followers.size() < maxFollowed) {
            m_followers.push_back({.procedureRef = request.procedureRef, .ofHereIAm = false});
        }
        settle(request, bmmi::SubscribeMaintStateCfm(), bmmi::SubscribeMaintStateRej(), random, weather);
        break;
    case bmmi::SetVisualIndicationReq::MESSAGE_NUMBER:
        settle(request, bmmi::SetVisualIndicationCfm(), bmmi::SetVisualIndicationRej(), random, weather);
        break;
    case bmmi::GetVisualIndicationReq::MESSAGE_NUMBER: {
        bmmi::GetVisualIndicationCfm cfm;
        if (random.chance(70)) {
            cfm.set_support_unit_fault_state(
                static_cast<bmmi::GetVisualIndicationCfm::SupportUnitFaultState>(1 + random.below(3)));
        }
        settle(request, cfm, bmmi::GetVisualIndicationRej(), random, weather);
        break;
    }
    case bmmi::SubscribeHereIAmStateReq::MESSAGE_NUMBER:
        if (m_followers.size() < maxFollowed) {
            m_followers.push_back({.procedureRef = request.procedureRef, .ofHereIAm = true});
        }
        settle(request, bmmi::SubscribeHereIAmStateCfm(), bmmi::SubscribeHereIAmStateRej(), random, weather);
        break;
    case bmmi::OrderHereIAmReq::MESSAGE_NUMBER: {
        bmmi::OrderHereIAmCfm cfm;
        cfm.set_status(random.below(3));
        settle(request, cfm, bmmi::OrderHereIAmRej(), random, weather);
        break;
    }
    default:
        break;
    }
}

void BmmiPeer::indicate(Random& random)
{
    if (m_followers.empty()) {
        return;
    }
    const Follower& follower = random.of(m_followers);
    if (follower.ofHereIAm) {
        bmmi::HereIAmStateInd ind;
        if (random.chance(90)) {
            ind.set_state(random.below(4));
        }
        say(bmmi::HereIAmStateInd::MESSAGE_NUMBER, follower.procedureRef, ind.SerializeAsString());
        return;
    }
    bmmi::MaintStateInd ind;
    if (random.chance(90)) {
        ind.set_maint_state(static_cast<bmmi::MaintStateInd::MaintState>(random.below(6)));
    }
    say(bmmi::MaintStateInd::MESSAGE_NUMBER, follower.procedureRef, ind.SerializeAsString());
}

} // namespace sim
