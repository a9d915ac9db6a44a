#include "client.h"

#include "bci/bciSignals.h"
#include "ledger.h"

#include <algorithm>
#include <array>

namespace sim {

using support::FakeMnet;

namespace {

/// What a client says without more than its references.
constexpr std::uint32_t plainRequests[] = {
    TARN_BC_AUDIT_REQ,
    TARN_BC_ENABLE_OPERATION_REQ,
    TARN_BC_DISABLE_OPERATION_REQ,
    TARN_BC_GET_CAPABILITIES_REQ,
    TARN_BC_LINK_SUPERVISION_REQ,
    TARN_BC_GET_HW_PID_REQ,
    TARN_BC_GET_CONTAINER_PID_REQ,
    TARN_BC_GET_MARKET_NAME_PID_REQ,
    TARN_BC_GET_EXTENDED_MARKET_NAME_REQ,
    TARN_BC_GET_VISUAL_INDICATION_REQ,
    TARN_BC_GET_SPECIAL_INDICATOR_REQ,
    TARN_BC_SUBSCRIBE_MAINT_STATE_REQ,
    TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_REQ,
    TARN_BC_GET_RUNNING_LMC_REQ,
    TARN_BC_SUBSCRIBE_FAULTS_REQ,
    TARN_BC_SUBSCRIBE_FAULTS_REQ,
    TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REQ,
    TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_REQ,
    TARN_BC_SW_COMP_LIST_REQ,
    TARN_BC_LMC_END_REQ,
};
constexpr unsigned int numPlain = std::size(plainRequests);
/// Requests with more than that, behind the plain ones.
enum Kind : unsigned int {
    kSetUtcTime = numPlain,
    kHwLogGet,
    kHwLogSet,
    kTempMeas,
    kSelectMmi,
    kSetMaintState,
    kSetVisual,
    kOrderHereIAm,
    kNotifyRestart,
    kRestart,
    kRestartWithRank,
    kAcquire,
    kRelease,
    kLmcInit,
    kLmcData,
    kSelectLmc,
    kSwCompListAck,
    numKinds
};

/// Requests with one answer each, and their answers; 0 for a missing one.
struct Exchange {
    std::uint32_t request;
    std::uint32_t confirm;
    std::uint32_t reject;
};
constexpr Exchange exchanges[] = {
    {TARN_BC_AUDIT_REQ, TARN_BC_AUDIT_CFM, 0},
    {TARN_BC_ENABLE_OPERATION_REQ, TARN_BC_ENABLE_OPERATION_CFM, TARN_BC_ENABLE_OPERATION_REJ},
    {TARN_BC_DISABLE_OPERATION_REQ, TARN_BC_DISABLE_OPERATION_CFM, TARN_BC_DISABLE_OPERATION_REJ},
    {TARN_BC_GET_CAPABILITIES_REQ, TARN_BC_GET_CAPABILITIES_CFM, 0},
    {TARN_BC_LINK_SUPERVISION_REQ, 0, TARN_BC_LINK_SUPERVISION_REJ},
    {TARN_BC_GET_HW_PID_REQ, TARN_BC_GET_HW_PID_CFM, TARN_BC_GET_HW_PID_REJ},
    {TARN_BC_GET_CONTAINER_PID_REQ, TARN_BC_GET_CONTAINER_PID_CFM, TARN_BC_GET_CONTAINER_PID_REJ},
    {TARN_BC_GET_MARKET_NAME_PID_REQ, TARN_BC_GET_MARKET_NAME_PID_CFM, TARN_BC_GET_MARKET_NAME_PID_REJ},
    {TARN_BC_GET_EXTENDED_MARKET_NAME_REQ, TARN_BC_GET_EXTENDED_MARKET_NAME_CFM,
     TARN_BC_GET_EXTENDED_MARKET_NAME_REJ},
    {TARN_BC_GET_VISUAL_INDICATION_REQ, TARN_BC_GET_VISUAL_INDICATION_CFM, TARN_BC_GET_VISUAL_INDICATION_REJ},
    {TARN_BC_GET_SPECIAL_INDICATOR_REQ, TARN_BC_GET_SPECIAL_INDICATOR_CFM, TARN_BC_GET_SPECIAL_INDICATOR_REJ},
    {TARN_BC_SET_VISUAL_INDICATION_REQ, TARN_BC_SET_VISUAL_INDICATION_CFM, TARN_BC_SET_VISUAL_INDICATION_REJ},
    {TARN_BC_SET_MAINT_STATE_REQ, TARN_BC_SET_MAINT_STATE_CFM, TARN_BC_SET_MAINT_STATE_REJ},
    {TARN_BC_SELECT_MMI_REQ, TARN_BC_SELECT_MMI_CFM, TARN_BC_SELECT_MMI_REJ},
    {TARN_BC_SET_UTC_TIME_REQ, TARN_BC_SET_UTC_TIME_CFM, TARN_BC_SET_UTC_TIME_REJ},
    {TARN_BC_HWLOG_GET_REQ, TARN_BC_HWLOG_GET_CFM, TARN_BC_HWLOG_GET_REJ},
    {TARN_BC_HWLOG_SET_REQ, TARN_BC_HWLOG_SET_CFM, TARN_BC_HWLOG_SET_REJ},
    {TARN_BC_NOTIFY_RESTART_REQ, TARN_BC_NOTIFY_RESTART_CFM, TARN_BC_NOTIFY_RESTART_REJ},
    {TARN_BC_SUBSCRIBE_FAULTS_REQ, TARN_BC_SUBSCRIBE_FAULTS_CFM, 0},
    {TARN_BC_GET_RUNNING_LMC_REQ, TARN_BC_GET_RUNNING_LMC_CFM, TARN_BC_GET_RUNNING_LMC_REJ},
};

constexpr unsigned int plain(std::uint32_t number)
{
    unsigned int kind = 0;
    while (plainRequests[kind] != number) {
        ++kind;
    }
    return kind;
}

/// What belongs together: a client in the mood for it gets further than chance would take it.
const std::array<std::vector<unsigned int>, Client::numMoods> moods{{
    {},
    {kAcquire, kAcquire, kLmcInit, kLmcInit, kLmcData, kLmcData, kLmcData, plain(TARN_BC_LMC_END_REQ),
     kRelease},
    {kAcquire, kSelectLmc, plain(TARN_BC_SW_COMP_LIST_REQ), kSwCompListAck, kSwCompListAck,
     plain(TARN_BC_GET_RUNNING_LMC_REQ), kRestart},
    {plain(TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_REQ), kOrderHereIAm, kOrderHereIAm, kOrderHereIAm,
     plain(TARN_BC_SUBSCRIBE_MAINT_STATE_REQ), kSetMaintState, kSetMaintState, kSetVisual, kSetVisual,
     plain(TARN_BC_GET_VISUAL_INDICATION_REQ)},
    {kTempMeas, kTempMeas, kTempMeas, kSetUtcTime, kHwLogGet, kHwLogSet},
}};

/// Procedures of several steps have the same references in each.
constexpr bool isOfSoftware(std::uint32_t number)
{
    return (number >= TARN_BC_LMC_INIT_REQ && number < TARN_BC_GET_RUNNING_LMC_REQ) ||
           number == TARN_BC_ACQUIRE_RESOURCE_REQ || number == TARN_BC_RELEASE_RESOURCE_REQ;
}

constexpr bool isOfFaults(std::uint32_t number)
{
    return number == TARN_BC_SUBSCRIBE_FAULTS_REQ ||
           number == TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REQ ||
           number == TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_REQ;
}

std::string moduleName(Random& random)
{
    return "QXR7041162/" + std::to_string(random.below(3)) + "_R" + std::to_string(1 + random.below(3)) + "A";
}

} // namespace

void Client::die()
{
    m_peer.die();
    m_asked.clear();
    onWithdrawn();
}

void Client::onWithdrawn()
{
    m_isConnected = false;
    m_hasAsked = false;
    m_followsFaults = false;
    m_shownFaults.clear();
}

Signal Client::signal(std::uint32_t number, Random& random)
{
    Signal signal(number);
    std::uint32_t clientRef = ++m_lastClientRef;
    if (isOfSoftware(number)) {
        clientRef = 1000;
    } else if (isOfFaults(number)) {
        clientRef = 2000 + (random.chance(10) ? 1 : 0);
    }
    signal.u32(clientRef).u32(random.chance(95) ? m_serverRef : 100 + random.below(300));
    return signal;
}

Bytes Client::establishment(Random& random)
{
    m_hasAsked = true;
    m_mood = random.below(moods.size());
    return Signal(TARN_BC_CONN_ESTABLISH_REQ)
        .u32(++m_lastClientRef)
        .u32(random.chance(40) ? 100 : 300)
        .u16(1 + random.below(3))
        .u16(0)
        .bytes();
}

Bytes Client::hwLogEntry(Random& random, Signal signal) const
{
    signal.text("label").upTo(28).u32(random.chance(10) ? 2000 : random.below(4));
    const unsigned int count = random.below(4);
    signal.u32(random.chance(90) ? count : count + 1);
    for (unsigned int i = 0; i < count; ++i) {
        signal.text("entry " + std::to_string(i));
    }
    return signal.upTo(460).bytes();
}

Bytes Client::request(unsigned int kind, Random& random)
{
    if (kind < numPlain) {
        return signal(plainRequests[kind], random).bytes();
    }
    switch (kind) {
    case kSetUtcTime:
        return signal(TARN_BC_SET_UTC_TIME_REQ, random).u32(random.below(100000)).bytes();
    case kHwLogGet:
        return signal(TARN_BC_HWLOG_GET_REQ, random).u32(random.below(5)).bytes();
    case kHwLogSet:
        return hwLogEntry(random, signal(TARN_BC_HWLOG_SET_REQ, random));
    case kTempMeas:
        return signal(TARN_BC_TEMP_MEAS_START_REQ, random)
            .u8(random.chance(40) ? 0 : random.below(32))
            .bytes();
    case kSelectMmi:
        return signal(TARN_BC_SELECT_MMI_REQ, random).u32(random.below(3)).bytes();
    case kSetMaintState:
        return signal(TARN_BC_SET_MAINT_STATE_REQ, random).u32(random.below(6)).bytes();
    case kSetVisual: {
        constexpr unsigned int lamps[] = {0x0010, 0x0110, 0x0331, 0x0411, 0x0312, 0};
        return signal(TARN_BC_SET_VISUAL_INDICATION_REQ, random).u16(random.of(lamps)).bytes();
    }
    case kOrderHereIAm:
        return signal(TARN_BC_ORDE_HERE_I_AM_REQ, random).u16(random.below(4)).bytes();
    case kNotifyRestart:
        return signal(TARN_BC_NOTIFY_RESTART_REQ, random)
            .u32(random.below(3))
            .text(random.chance(80) ? "upgrade" : "")
            .bytes();
    case kRestart:
        return signal(TARN_BC_RESTART_BOARD_FWD, random).text("ordered").bytes();
    case kRestartWithRank:
        return signal(TARN_BC_RESTART_BOARD_WITH_RANK_AND_LABEL_FWD, random)
            .u16(400 + random.below(3))
            .u16(random.below(7))
            .text("ordered")
            .upTo(156)
            .text("label")
            .bytes();
    case kAcquire:
        return signal(TARN_BC_ACQUIRE_RESOURCE_REQ, random).u16(1 + random.below(2)).u16(0).bytes();
    case kRelease:
        return signal(TARN_BC_RELEASE_RESOURCE_REQ, random).u16(1 + random.below(2)).u16(0).bytes();
    case kLmcInit:
        return signal(TARN_BC_LMC_INIT_REQ, random).text(moduleName(random)).bytes();
    case kLmcData: {
        Signal block = signal(TARN_BC_LMC_DATA, random);
        const unsigned int size = random.below(40);
        return block.u16(random.below(5)).u16(0).u32(size).upTo(20 + size + random.below(2)).bytes();
    }
    case kSelectLmc:
        return signal(TARN_BC_SELECT_LMC_REQ, random).text(moduleName(random)).bytes();
    default:
        return signal(TARN_BC_SW_COMP_LIST_ACK, random).u32(random.chance(20) ? 1 : 0).bytes();
    }
}

std::string Client::act(Random& random, const Weather& weather)
{
    if (m_peer.hasMessage() && random.chance(60)) {
        const auto received = m_peer.receive();
        onMessage(*received);
        if (weather.garbage == 0) { // else a neighbour may have answered for another request
            countAnswer(received->msgNo);
        }
        return "A client takes " + support::messageToHex(received->bytes);
    }
    if (random.chance(10) && m_hasAsked) {
        // What the server does not know is the legacy server's.
        return say(signal(0x165A500 + random.below(8), random).upTo(12 + random.below(30)).bytes(), random,
                   weather);
    }
    if (!m_hasAsked ? !random.chance(weather.strangers) : random.chance(3)) {
        return say(establishment(random), random, weather);
    }
    if (!m_isConnected && !random.chance(20)) {
        return "A client waits for its connection";
    }
    unsigned int kind = random.below(numKinds);
    const auto& mood = moods[m_mood];
    if (!mood.empty() && random.chance(80)) {
        kind = random.of(mood);
    }
    while (((weather.kinds >> kind) & 1U) == 0) {
        kind = (kind + 1) % numKinds;
    }
    return say(request(kind, random), random, weather);
}

std::string Client::say(const Bytes& whole, Random& random, const Weather& weather)
{
    const mnet_mbox_id_t server = FakeMnet::instance().find("Merlow");
    if (server == MNET_MBOX_NONE) {
        return "A client finds no server";
    }
    Bytes bytes = whole;
    if (random.chance(weather.garbage)) {
        if (random.chance(50)) {
            bytes.resize(4 + random.below(bytes.size()));
        } else {
            bytes[4 + random.below(bytes.size() - 4)] = static_cast<std::uint8_t>(random.next());
        }
    }
    ++m_asked[numberOf(bytes)];
    m_peer.send(bytes, server);
    return "A client says " + support::messageToHex(bytes);
}

void Client::countAnswer(std::uint32_t number)
{
    const auto* const exchange =
        std::find_if(std::begin(exchanges), std::end(exchanges),
                     [number](const Exchange& one) { return one.confirm == number || one.reject == number; });
    if (exchange != std::end(exchanges) && m_asked[exchange->request]-- == 0) {
        throw Violation("A client was answered more often than it has asked: " +
                        std::string(findBciSignal(number)->name));
    }
}

std::string Client::connect(Random& random)
{
    die();
    start();
    return say(establishment(random), random, Weather::calm());
}

std::vector<unsigned int> Client::kindsOf(unsigned int mood)
{
    std::vector<unsigned int> kinds = moods.at(mood);
    for (unsigned int kind = 0; mood == 0 && kind < numKinds; ++kind) {
        kinds.push_back(kind);
    }
    return kinds;
}

std::string Client::ask(unsigned int kind, Random& random)
{
    return say(request(kind, random), random, Weather::calm());
}

void Client::takeAll()
{
    while (const auto received = m_peer.receive()) {
        onMessage(*received);
    }
}

void Client::onMessage(const Received& received)
{
    switch (received.msgNo) {
    case TARN_BC_CONN_ESTABLISH_CFM:
        m_isConnected = true;
        m_serverRef = wordAt(received.bytes, 8);
        break;
    case TARN_BC_CONN_ESTABLISH_REJ:
        m_isConnected = false;
        m_hasAsked = false;
        break;
    case TARN_BC_SUBSCRIBE_FAULTS_CFM:
        // What was sent before the server withdrew is of no use any more.
        m_followsFaults = FakeMnet::instance().exists(received.sender);
        m_shownFaults.clear();
        break;
    case TARN_BC_FAULT_IND:
        m_shownFaults.insert(halfAt(received.bytes, 12));
        break;
    case TARN_BC_FAULTCEASE_IND:
        m_shownFaults.erase(halfAt(received.bytes, 12));
        break;
    default:
        break;
    }
}

} // namespace sim
