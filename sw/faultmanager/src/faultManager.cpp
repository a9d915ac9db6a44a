#include "faultManager.h"

#include "merlowTracepoints.h"

#include <algorithm>
#include <sstream>

namespace Merlow {

namespace {

using Priority = FaultManager::FaultPriority;

enum class Treatment {
    Basic,
    VisualThenBasic,
    Software,
    PowerLow,
};

constexpr std::uint16_t NO_PARTNER = 0;

struct FaultRow {
    const char* name; ///< null: none
    std::uint16_t faultId;
    std::uint16_t partner; ///< of two partners, the one that came first is shown
    Priority priority;
    Treatment treatment;
};

#define NAMED(id) #id, id
/// Every id that is more than a plain fault of the board outside the hierarchy.
constexpr FaultRow FAULT_ROWS[] = {
    {NAMED(TARN_CONST_FH_FAULT_ID_HW_FAULT), TARN_CONST_FH_FAULT_ID_HWF_FOR_EVALUATION, Priority::HARDWARE,
     Treatment::VisualThenBasic},
    {NAMED(TARN_CONST_FH_FAULT_ID_EXCEPTIONAL_TEMPERATURE_TOO_HIGH),
     TARN_CONST_FH_FAULT_ID_EXCEPTIONAL_TEMPERATURE_TOO_LOW, Priority::TEMPERATURE, Treatment::Basic},
    {NAMED(TARN_CONST_FH_FAULT_ID_EXCEPTIONAL_TEMPERATURE_TOO_LOW),
     TARN_CONST_FH_FAULT_ID_EXCEPTIONAL_TEMPERATURE_TOO_HIGH, Priority::TEMPERATURE, Treatment::Basic},
    {NAMED(TARN_CONST_FH_FAULT_ID_POWER_FAILURE), NO_PARTNER, Priority::OUTSIDE, Treatment::Basic},
    {NAMED(TARN_CONST_FH_FAULT_ID_HWF_FOR_EVALUATION), TARN_CONST_FH_FAULT_ID_HW_FAULT, Priority::HARDWARE,
     Treatment::VisualThenBasic},
    {nullptr, TARN_CONST_FH_FAULT_ID_SW_ERROR, NO_PARTNER, Priority::OUTSIDE, Treatment::Software},
    {nullptr, 0x0502, NO_PARTNER, Priority::DEGRADED, Treatment::Basic},
    {nullptr, 0x0521, NO_PARTNER, Priority::DEGRADED, Treatment::VisualThenBasic},
    {nullptr, 0x0522, NO_PARTNER, Priority::OUTSIDE, Treatment::Software},
    {nullptr, 0x0703, NO_PARTNER, Priority::MINOR, Treatment::Basic},
    {NAMED(TARN_CONST_FH_FAULT_ID_FAN_DEGRADED), NO_PARTNER, Priority::OUTSIDE, Treatment::Basic},
    {NAMED(TARN_CONST_FH_FAULT_ID_FAN_FAILED), NO_PARTNER, Priority::OUTSIDE, Treatment::Basic},
    {NAMED(TARN_CONST_FH_FAULT_ID_FAN_DISCONNECTED), NO_PARTNER, Priority::OUTSIDE, Treatment::Basic},
    {nullptr, 0x0710, NO_PARTNER, Priority::OUTSIDE, Treatment::PowerLow},
    {nullptr, 0x0711, NO_PARTNER, Priority::OUTSIDE, Treatment::PowerLow},
};
#undef NAMED

constexpr FaultRow PLAIN_FAULT{nullptr, 0, NO_PARTNER, Priority::OUTSIDE, Treatment::Basic};

const FaultRow& rowOf(unsigned short faultId)
{
    for (const FaultRow& row : FAULT_ROWS) {
        if (row.faultId == faultId) {
            return row;
        }
    }
    return PLAIN_FAULT;
}

/// These and all above them hide what is lower.
constexpr Priority LOWEST_HIDING = Priority::DEGRADED;

} // namespace

void FaultManager::subscribeForFaultNotifications(
    const std::function<void(Merlow::FaultData, unsigned int)>& raised,
    const std::function<void(Merlow::FaultData)>& ceased)
{
    m_raised = raised;
    m_ceased = ceased;
}

bool FaultManager::addFault(Merlow::FaultData& data)
{
    TP_TRACE6("addFault " << toString(data));
    if (data.faultId == TARN_CONST_FH_FAULT_ID_LINK_ERROR) {
        data.faultId = TARN_CONST_FH_FAULT_ID_SW_ERROR;
        TP_TRACE6("remap TARN_CONST_FH_FAULT_ID_LINK_ERROR to TARN_CONST_FH_FAULT_ID_SW_ERROR!");
    }
    switch (rowOf(data.faultId).treatment) {
    case Treatment::Software:
        return addSoftwareFault(data);
    case Treatment::PowerLow:
        return addPowerLowFault(data);
    case Treatment::VisualThenBasic:
        setVisualIndication();
        break;
    case Treatment::Basic:
        break;
    }
    return addBasicFault(data);
}

void FaultManager::removeFault(unsigned short faultId)
{
    TP_TRACE6("removeFault 0x" << std::hex << faultId);
    const FaultPriority priority = getFaultPriority(faultId);
    ActiveFault* const fault = getActiveFault(faultId);
    if (fault == nullptr) {
        TP_ERROR("The fault has not been activated ID = 0x" << std::hex << faultId);
        return;
    }
    if (fault->numOfSources >= 2) {
        --fault->numOfSources;
        TP_TRACE6("faultId: 0x" << std::hex << faultId << std::dec
                                << ", cannot be ceased, numOfSources = " << fault->numOfSources);
        return;
    }
    const ActiveFault removed = removeActiveFault(priority, faultId);
    if (removed.source == FaultSource::NONE) {
        TP_ERROR("Could not remove fault, faultId = 0x" << std::hex << faultId);
        return;
    }
    sendFaultCeaseInd(removed); // also of a fault that was hidden
    if (priority < LOWEST_HIDING) {
        return;
    }
    if (ActiveFault* const exclusive = getExclusiveFault(removed)) {
        reportFault(*exclusive);
        exclusive->reported = true;
    }
    reportLowerPriorityFaults(priority);
}

void FaultManager::sendActiveFaults(unsigned int mbox)
{
    for (const auto& [priority, group] : m_activeFaults) {
        for (const ActiveFault& fault : group) {
            if (fault.reported) {
                sendFaultInd(fault, mbox);
            }
        }
    }
}

std::string FaultManager::getIwdFaultIdString(unsigned short faultId)
{
    const char* const name = rowOf(faultId).name;
    return name == nullptr ? "UNKNOWN FAULT" : name;
}

std::string FaultManager::traceIwdFaultId(unsigned short faultId)
{
    std::ostringstream text;
    text << getIwdFaultIdString(faultId) << " (0x" << std::hex << faultId << ")";
    return text.str();
}

FaultManager::FaultPriority FaultManager::getFaultPriority(unsigned short faultId)
{
    return rowOf(faultId).priority;
}

ActiveFault* FaultManager::getActiveFault(unsigned short faultId)
{
    for (auto& [priority, group] : m_activeFaults) {
        for (ActiveFault& fault : group) {
            if (fault.faultId == faultId) {
                return &fault;
            }
        }
    }
    return nullptr;
}

bool FaultManager::isHigherPriorityFaultActive(FaultPriority priority) const
{
    return std::any_of(m_activeFaults.begin(), m_activeFaults.end(), [priority](const auto& entry) {
        return entry.first > priority && !entry.second.empty();
    });
}

ActiveFault* FaultManager::getExclusiveFault(const ActiveFault& fault)
{
    const std::uint16_t partner = rowOf(fault.faultId).partner;
    return partner == NO_PARTNER ? nullptr : getActiveFault(partner);
}

bool FaultManager::addSoftwareFault(const FaultData& /*data*/) const
{
    TP_TRACE6("Placeholder for adding software fault");
    return true;
}

bool FaultManager::addPowerLowFault(const FaultData& /*data*/) const
{
    TP_TRACE6("Placeholder for adding power low fault");
    return true;
}

void setVisualIndication()
{
    TP_TRACE6("Placeholder for setVisualIndication");
}

bool FaultManager::addBasicFault(const FaultData& data)
{
    TP_TRACE6("Entering " << __PRETTY_FUNCTION__);
    const FaultPriority priority = getFaultPriority(data.faultId);
    if (priority == FaultPriority::OUTSIDE && data.source != FaultSource::BRI) {
        TP_ERROR("Unsupported fault ID = 0x" << std::hex << data.faultId
                                             << ", fault source = " << data.source);
        return false;
    }
    if (ActiveFault* const known = getActiveFault(data.faultId)) {
        TP_TRACE6(getIwdFaultIdString(data.faultId) << " is already active");
        ++known->numOfSources;
        return true;
    }
    ActiveFault& added = addActiveFault(priority, data);
    if (priority >= LOWEST_HIDING) {
        if (isHigherPriorityFaultActive(priority)) {
            return true;
        }
        const ActiveFault* const exclusive = getExclusiveFault(added);
        if (exclusive != nullptr && exclusive->reported) {
            return true;
        }
        ceaseLowerPriorityFaults(priority);
    }
    reportFault(added);
    added.reported = true;
    return true;
}

ActiveFault& FaultManager::addActiveFault(FaultPriority priority, const FaultData& data)
{
    return m_activeFaults[priority].emplace_back(data);
}

ActiveFault FaultManager::removeActiveFault(FaultPriority priority, unsigned short faultId)
{
    Group& group = m_activeFaults[priority];
    const auto it = std::find_if(group.begin(), group.end(),
                                 [faultId](const ActiveFault& fault) { return fault.faultId == faultId; });
    if (it == group.end()) {
        return g_invalidActiveFault;
    }
    ActiveFault removed = std::move(*it);
    group.erase(it);
    return removed;
}

void FaultManager::reportFault(const ActiveFault& fault)
{
    sendFaultInd(fault, ALL_SUBSCRIBERS);
}

void FaultManager::sendFaultInd(const ActiveFault& fault, unsigned int mbox)
{
    if (!m_raised) {
        TP_ERROR("No subscriber for raised fault, faultId: " << traceIwdFaultId(fault.faultId)
                                                             << ", faultCase: " << fault.faultCase);
        return;
    }
    m_raised(FaultData(fault), mbox);
}

void FaultManager::sendFaultCeaseInd(const ActiveFault& fault)
{
    if (!m_ceased) {
        TP_ERROR("No subscriber for ceased fault, faultId: " << traceIwdFaultId(fault.faultId)
                                                             << ", faultCase: " << fault.faultCase);
        return;
    }
    m_ceased(FaultData(fault));
}

void FaultManager::reportLowerPriorityFaults(FaultPriority priority)
{
    const auto lower =
        std::find_if(m_activeFaults.begin(), m_activeFaults.end(), [priority](const auto& entry) {
            return entry.first < priority && !entry.second.empty();
        });
    if (lower == m_activeFaults.end()) {
        return;
    }
    for (const ActiveFault& fault : lower->second) {
        if (fault.reported) {
            reportFault(fault);
        }
    }
}

void FaultManager::ceaseLowerPriorityFaults(FaultPriority priority)
{
    for (auto it = m_activeFaults.rbegin(); it != m_activeFaults.rend() && it->first < priority; ++it) {
        for (ActiveFault& fault : it->second) {
            if (fault.reported) {
                sendFaultCeaseInd(fault);
                fault.reported = false;
            }
        }
    }
}

} // namespace Merlow
