#include "briFaultHandler.h"

#include "bri.pb.h"
#include "faultManagerIf.h"
#include "merlowTracepoints.h"
#include "merlowUtil.h"

#include <algorithm>
#include <array>

namespace bri = boardresourcehandler::bri;

namespace {

constexpr std::uint16_t POWER_FAILURE = Merlow::TARN_CONST_FH_FAULT_ID_POWER_FAILURE;

struct DefinitionRow {
    bri::BriFaultId briFaultId;
    BriFaultDefinition definition;
};

/// EXTERNAL_FAN_HOST_DISCONNECTED has no row: it is a disconnected fan with a text of its own.
constexpr DefinitionRow DEFINITION_ROWS[] = {
    {bri::HW_FAULT, {"HW_FAULT", 0x0101, BriFaultDescTag::None}},
    {bri::HW_FAULT_FOR_EVALUATION_LTU_FAULT,
     {"HW_FAULT_FOR_EVALUATION_LTU_FAULT", 0x0300, BriFaultDescTag::LtuFault}},
    {bri::HW_FAULT_FOR_EVALUATION_INIT_FAULT,
     {"HW_FAULT_FOR_EVALUATION_INIT_FAULT", 0x0300, BriFaultDescTag::InitializationFailure}},
    {bri::HW_FAULT_FOR_EVALUATION, {"HW_FAULT_FOR_EVALUATION", 0x0300, BriFaultDescTag::InternalDcFault}},
    {bri::EXCEPTIONAL_TEMPERATURE_TOO_LOW,
     {"EXCEPTIONAL_TEMPERATURE_TOO_LOW", 0x0104, BriFaultDescTag::TemperatureTooLow}},
    {bri::EXCEPTIONAL_TEMPERATURE_TOO_HIGH,
     {"EXCEPTIONAL_TEMPERATURE_TOO_HIGH", 0x0103, BriFaultDescTag::TemperatureTooHigh}},
    {bri::EXTERNAL_FAN_DEGRADED, {"EXTERNAL_FAN_DEGRADED", 0x0704, BriFaultDescTag::FanDegraded}},
    {bri::EXTERNAL_FAN_FAILED, {"EXTERNAL_FAN_FAILED", 0x0705, BriFaultDescTag::FanFailed}},
    {bri::EXTERNAL_FAN_DISCONNECTED, {"EXTERNAL_FAN_DISCONNECTED", 0x0706, BriFaultDescTag::FanDisconnected}},
    {bri::POE_DEVICE_0_TEMP_EXC_HIGH,
     {"POE_DEVICE_0_TEMP_EXC_HIGH", 0x0103, BriFaultDescTag::TemperatureTooHigh}},
    {bri::POE_DEVICE_1_TEMP_EXC_HIGH,
     {"POE_DEVICE_1_TEMP_EXC_HIGH", 0x0103, BriFaultDescTag::TemperatureTooHigh}},
    {bri::EXTERNAL_POWER_SUPPLY_FAULT,
     {"EXTERNAL_POWER_SUPPLY_FAULT", POWER_FAILURE, BriFaultDescTag::PowerSupply}},
};

const BriFaultDefinition* findDefinition(unsigned int briFaultId)
{
    for (const DefinitionRow& row : DEFINITION_ROWS) {
        if (static_cast<unsigned int>(row.briFaultId) == briFaultId) {
            return &row.definition;
        }
    }
    return nullptr;
}

constexpr unsigned int INTERNAL_DC_FAULT_CASE = 317;

/// The text that the indication itself gives, or an empty one. Turns a lost fan host into a disconnected fan.
std::string getFaultDescription(bri::BriFaultId& id, const bri::FaultInd& ind)
{
    const auto& fan = ind.fan_product_info();
    std::string text;
    switch (id) {
    case bri::HW_FAULT:
        if (ind.fault_case() == INTERNAL_DC_FAULT_CASE) {
            text = "Internal DC fault";
        }
        break;
    case bri::EXTERNAL_FAN_FAILED:
        if (!ind.has_fan_product_info()) {
            break;
        }
        if (fan.has_fan_product_number()) {
            text += "Fan product number is " + fan.fan_product_number();
        } else {
            TP_ERROR("EXTERNAL_FAN_FAILED does not contain fan product number");
        }
        if (fan.has_fan_position_slot()) {
            text += ", Fan Position slot " + std::to_string(fan.fan_position_slot());
        } else {
            TP_ERROR("EXTERNAL_FAN_FAILED does not contain fan position slot");
        }
        break;
    case bri::EXTERNAL_FAN_DISCONNECTED:
        if (!ind.has_fan_product_info()) {
            break;
        }
        if (fan.has_fan_product_number()) {
            text = "Fan product number is " + fan.fan_product_number();
        } else {
            TP_ERROR("EXTERNAL_FAN_DISCONNECTED does not contain fan product number");
        }
        break;
    case bri::EXTERNAL_FAN_HOST_DISCONNECTED:
        if (!ind.has_fan_product_info()) {
            TP_ERROR("EXTERNAL_FAN_HOST_DISCONNECTED does not contain fan product info");
            break;
        }
        if (fan.has_fan_parent_product_number()) {
            text += "Contact lost with unit (" + fan.fan_parent_product_number() + ")";
        } else {
            TP_ERROR("EXTERNAL_FAN_HOST_DISCONNECTED does not contain fan parent product number");
        }
        if (fan.has_fan_product_number()) {
            text += " hosting the fan (" + fan.fan_product_number() + ") and external alarm ports";
        } else {
            TP_ERROR("EXTERNAL_FAN_HOST_DISCONNECTED does not contain fan product number");
        }
        id = bri::EXTERNAL_FAN_DISCONNECTED;
        break;
    default:
        break;
    }
    return text;
}

/// One class of faults in a coordination priority, and the digit with which a fault of it hides what follows.
struct PriorityDigit {
    int mask;
    int hiding;
};
constexpr std::array<PriorityDigit, 4> PRIORITY_DIGITS{
    {{0xF000, 0xA000}, {0x0F00, 0x0A00}, {0x00F0, 0x00A0}, {0x000F, 0x000A}}};

enum class Verdict {
    Beside,  ///< stands beside what comes after it
    Hides,   ///< stands, and nothing behind it does
    IsHidden ///< neither it nor anything behind it stands
};

Verdict judge(int previous, int priority)
{
    for (const PriorityDigit& digit : PRIORITY_DIGITS) {
        const int stronger = previous & digit.mask;
        const int own = priority & digit.mask;
        if (stronger != 0 && stronger < own) {
            return Verdict::IsHidden;
        }
        if (own == digit.hiding) {
            return Verdict::Hides;
        }
    }
    return Verdict::Beside;
}

} // namespace

bool BriFaultHandler::init()
{
    MerlowUtil::registerMessageNames({
        {bri::SubscribeFaultsCfm::MESSAGE_NUMBER, "bri::SubscribeFaultsCfm"},
        {bri::FaultInd::MESSAGE_NUMBER, "bri::FaultInd"},
        {bri::FaultCeaseInd::MESSAGE_NUMBER, "bri::FaultCeaseInd"},
    });
    BrhClient& briClient = m_commonData.getBriClient();
    onFrame<bri::SubscribeFaultsCfm>(briClient, &BriFaultHandler::handleBriSubscribeFaultsCfm);
    onFrame<bri::FaultInd>(briClient, &BriFaultHandler::handleBriFaultInd);
    onFrame<bri::FaultCeaseInd>(briClient, &BriFaultHandler::handleBriFaultCeaseInd);
    return true;
}

void BriFaultHandler::handleBriSubscribeFaultsCfm(const std::shared_ptr<mnet_msg>& msg)
{
    TP_REC_SIG(msg->msgNo, "Received signal " << MerlowUtil::traceReceivedMsg(msg.get()));
}

void BriFaultHandler::handleBriFaultInd(const std::shared_ptr<mnet_msg>& msg)
{
    TP_REC_SIG(msg->msgNo, "Received signal " << MerlowUtil::traceReceivedMsg(msg.get()));
    const auto ind = readFrame<bri::FaultInd>(*msg);
    if (!ind) {
        TP_ERROR("Failed to decode message: " << MerlowUtil::getMsgName(msg.get()));
        return;
    }
    if (!ind->message.has_fault_id()) {
        TP_ERROR(MerlowUtil::getMsgName(msg.get()) << "does not contain fault_id");
        return;
    }
    if (!ind->message.has_fault_case()) {
        TP_ERROR(MerlowUtil::getMsgName(msg.get()) << "does not contain fault_case");
        return;
    }
    bri::BriFaultId briFaultId = ind->message.fault_id();
    const std::string description = getFaultDescription(briFaultId, ind->message);
    const auto id = static_cast<unsigned int>(briFaultId);
    const BriFaultDefinition* definition = findDefinition(id);
    if (definition == nullptr) {
        TP_ERROR("briFaultId: " << id << " is not supported");
        return;
    }
    if (isFaultSuppressed(id, definition->iwdFaultId)) {
        TP_INFO("Fault suppressed, faultId: " << definition->name);
    } else {
        const unsigned int faultCase = ind->message.fault_case();
        TP_INFO("ABN:Local fault, faultId:" << definition->name
                                            << ", interface:BCI, faultCase:" << faultCase);
        BriActiveFault fault(*definition, id, faultCase);
        fault.setFaultDescription(description);
        m_currentFaults.addActiveFault(fault);
        TP_TRACE6("new active fault: " << fault.traceFault());
    }
    coordinateFaults();
}

void BriFaultHandler::handleBriFaultCeaseInd(const std::shared_ptr<mnet_msg>& msg)
{
    TP_REC_SIG(msg->msgNo, "Received signal " << MerlowUtil::traceReceivedMsg(msg.get()));
    const auto ind = readFrame<bri::FaultCeaseInd>(*msg);
    if (!ind) {
        TP_ERROR("Failed to decode message: " << MerlowUtil::getMsgName(msg.get()));
        return;
    }
    if (!ind->message.has_fault_id()) {
        TP_ERROR(MerlowUtil::getMsgName(msg.get()) << "does not contain fault_id");
        return;
    }
    const auto id = static_cast<unsigned int>(ind->message.fault_id());
    auto& active = m_currentFaults.getActiveFaults();
    // A fault that was indicated twice needs two ceases.
    const auto it = std::find_if(active.begin(), active.end(),
                                 [id](const BriActiveFault& fault) { return fault.getBriFaultId() == id; });
    if (it == active.end()) {
        TP_INFO("no active fault found, faultId =" << id);
        return;
    }
    it->markAsDelete();
    coordinateFaults();
}

bool BriFaultHandler::isFaultSuppressed(unsigned int briFaultId, unsigned short iwdFaultId) const
{
    return m_commonData.isPdsFaultsEnabled() && briFaultId == bri::EXTERNAL_POWER_SUPPLY_FAULT &&
           iwdFaultId == POWER_FAILURE;
}

void BriFaultHandler::coordinateFaults()
{
    runFaultCoordination();
    m_currentFaults.removeFaultsReadyToBeDeleted();
    m_currentFaults.forgetCeasedFaults();
}

void BriFaultHandler::runFaultCoordination()
{
    m_currentFaults.markAllReportedFaultsAsCeaseCandidates();
    m_currentFaults.sortActiveFaults();
    int previous = 0;
    for (const BriActiveFault& fault : m_currentFaults.getActiveFaults()) {
        if (fault.isMarkedDelete()) {
            continue;
        }
        const Verdict verdict = judge(previous, fault.getPriority());
        if (verdict == Verdict::IsHidden) {
            TP_TRACE6("suppressing " << fault.getBriFaultIdString() << " and lower priority faults");
            break;
        }
        if (verdict == Verdict::Hides) {
            TP_TRACE6("suppressing lower priority fault by " << fault.traceFault());
            m_currentFaults.updateReportedFaults(fault);
            break;
        }
        // A new entry each time: its predecessor is ceased, so the fault is told of anew at every event.
        previous = fault.getPriority();
        m_currentFaults.addReportedFault(fault);
    }
    reportNotReportedFaults();
}

void BriFaultHandler::reportNotReportedFaults()
{
    for (BriActiveFault& fault : m_currentFaults.getReportedFaults()) {
        if (fault.getFaultState() == BriFaultReportState::CeaseCandidate) {
            reportCeasedFault(fault);
            fault.setFaultState(BriFaultReportState::Delete);
        }
    }
    for (BriActiveFault& fault : m_currentFaults.getReportedFaults()) {
        if (fault.getFaultState() == BriFaultReportState::Pending) {
            reportFault(fault);
            fault.setFaultState(BriFaultReportState::Reported);
        }
    }
}

void BriFaultHandler::reportFault(const BriActiveFault& fault)
{
    Merlow::FaultData data(Merlow::FaultSource::BRI, fault.getIwdFaultId(),
                           static_cast<std::uint16_t>(fault.getFaultCase() & 0xFFFFU),
                           fault.getFaultDescription());
    TP_TRACE6("raised fault sent to FaultManager, " << fault.traceFault());
    m_commonData.getFaultManager().addFault(data);
}

void BriFaultHandler::reportCeasedFault(const BriActiveFault& fault)
{
    TP_TRACE6("ceased fault sent to FaultManager, " << fault.traceFault());
    m_commonData.getFaultManager().removeFault(fault.getIwdFaultId());
}
