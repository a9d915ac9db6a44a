#include "briFaultModel.h"

#include <map>

namespace model {

namespace {

struct Definition {
    std::uint16_t iwdFaultId;
    int priority;
    std::string text;
};

const std::map<int, Definition> definitions{
    {0, {0x0101, 0x1A01, "HW_FAULT"}},
    {1, {0x0300, 0x1A01, "LTU Fault"}},
    {2, {0x0300, 0x1A01, "Initialization failure"}},
    {3, {0x0300, 0x1A01, "Internal DC fault"}},
    {4, {0x0104, 0x1A00, "Temperature is too low."}},
    {5, {0x0103, 0x1A00, "Temperature is too high."}},
    {6, {0x0704, 0x0001, "RU External Fan Degraded"}},
    {7, {0x0705, 0x0001, "RU External Fan Failed"}},
    {8, {0x0706, 0x0001, "RU External Fan Disconnected"}},
    {9, {0x0103, 0x1A00, "Temperature is too high."}},
    {10, {0x0103, 0x1A00, "Temperature is too high."}},
    {11, {0x0108, 0x0001, "External power supply fault"}},
};

std::string descriptionOf(int& id, const Indication& indication)
{
    if (id == 0 && *indication.faultCase == 317) {
        return "Internal DC fault";
    }
    if (!indication.fan) {
        return "";
    }
    const FanInfo& fan = *indication.fan;
    std::string text;
    if (id == 7) {
        if (fan.productNumber) {
            text += "Fan product number is " + *fan.productNumber;
        }
        if (fan.slot) {
            text += ", Fan Position slot " + std::to_string(*fan.slot);
        }
    }
    if (id == 8 && fan.productNumber) {
        text += "Fan product number is " + *fan.productNumber;
    }
    if (id == 12) {
        if (fan.parentProductNumber) {
            text += "Contact lost with unit (" + *fan.parentProductNumber + ")";
        }
        if (fan.productNumber) {
            text += " hosting the fan (" + *fan.productNumber + ") and external alarm ports";
        }
        id = 8;
    }
    return text;
}

} // namespace

void BriFaults::indicate(const Indication& indication)
{
    if (!indication.faultId || !indication.faultCase) {
        return;
    }
    int id = *indication.faultId;
    const std::string description = descriptionOf(id, indication);
    const auto definition = definitions.find(id);
    if (definition == definitions.end()) {
        return;
    }
    if (!(m_powerDropSupervision && id == 11 && definition->second.iwdFaultId == 0x0108)) {
        m_active.push_back({.briFaultId = id,
                            .faultCase = *indication.faultCase,
                            .iwdFaultId = definition->second.iwdFaultId,
                            .priority = definition->second.priority,
                            .description = description.empty() ? definition->second.text : description,
                            .state = State::pending,
                            .markedDelete = false});
    }
    runFaultCoordination();
    removeFaultsReadyToBeDeleted();
}

void BriFaults::cease(int faultId)
{
    for (Entry& fault : m_active) {
        if (fault.briFaultId == faultId) {
            fault.markedDelete = true;
            runFaultCoordination();
            removeFaultsReadyToBeDeleted();
            return;
        }
    }
}

void BriFaults::runFaultCoordination()
{
    const int mask[4] = {0xF000, 0x0F00, 0x00F0, 0x000F};
    const int hiding[4] = {0xA000, 0x0A00, 0x00A0, 0x000A};
    // 1
    for (Entry& fault : m_reported) {
        if (fault.state == State::reported) {
            fault.state = State::ceaseCandidate;
        } else if (fault.state == State::pending) {
            fault.state = State::deleted;
        }
    }
    // 2: the sort of a list is stable
    m_active.sort([](const Entry& a, const Entry& b) {
        return a.priority != b.priority ? a.priority < b.priority : a.iwdFaultId < b.iwdFaultId;
    });
    // 3
    int previous = 0;
    // 4
    bool left = false;
    for (const Entry& fault : m_active) {
        if (fault.markedDelete) {
            continue;
        }
        for (int i = 0; i < 4 && !left; ++i) {
            const int a = previous & mask[i];
            const int b = fault.priority & mask[i];
            if (a != 0 && a < b) {
                left = true;
            } else if (b == hiding[i]) {
                updateReportedFaults(fault);
                left = true;
            }
        }
        if (left) {
            break;
        }
        previous = fault.priority;
        addReportedFault(fault);
    }
    // 5
    reportNotReportedFaults();
}

void BriFaults::updateReportedFaults(const Entry& fault)
{
    for (Entry& entry : m_reported) {
        if (entry.faultCase == fault.faultCase && entry.iwdFaultId == fault.iwdFaultId) {
            if (entry.state == State::ceaseCandidate) {
                entry.state = State::reported;
            } else if (entry.state == State::deleted) {
                entry.state = State::pending;
            }
            return;
        }
    }
    addReportedFault(fault);
}

void BriFaults::addReportedFault(const Entry& fault)
{
    m_reported.push_back(fault);
}

void BriFaults::reportNotReportedFaults()
{
    for (Entry& fault : m_reported) {
        if (fault.state == State::ceaseCandidate) {
            m_calls.push_back(removalOf(fault.iwdFaultId));
            fault.state = State::deleted;
        }
    }
    for (Entry& fault : m_reported) {
        if (fault.state == State::pending) {
            m_calls.push_back(
                raiseOf(fault.iwdFaultId, static_cast<std::uint16_t>(fault.faultCase), fault.description));
            fault.state = State::reported;
        }
    }
}

void BriFaults::removeFaultsReadyToBeDeleted()
{
    m_active.remove_if([](const Entry& fault) { return fault.markedDelete; });
    m_reported.remove_if([](const Entry& fault) { return fault.markedDelete; });
}

} // namespace model
