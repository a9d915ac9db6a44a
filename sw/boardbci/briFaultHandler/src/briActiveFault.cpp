#include "briActiveFault.h"

#include "merlowTracepoints.h"

#include <array>
#include <sstream>
#include <tuple>

namespace {

struct PriorityRow {
    std::uint16_t iwdFaultId;
    int priority;
};
/// An id without a row has priority 0.
constexpr PriorityRow PRIORITY_ROWS[] = {
    {0x0704, 0x0001}, {0x0705, 0x0001}, {0x0706, 0x0001}, {0x0108, 0x0001},
    {0x0103, 0x1A00}, {0x0104, 0x1A00}, {0x0101, 0x1A01}, {0x0300, 0x1A01},
};

int priorityOf(std::uint16_t iwdFaultId)
{
    for (const PriorityRow& row : PRIORITY_ROWS) {
        if (row.iwdFaultId == iwdFaultId) {
            return row.priority;
        }
    }
    return 0;
}

constexpr std::array DESCRIPTIONS{
    "", // no fixed text
    "Temperature is too high.",
    "Temperature is too low.",
    "RU External Fan Degraded",
    "RU External Fan Disconnected",
    "RU External Fan Failed",
    "External power supply fault",
    "LTU Fault",
    "Initialization failure",
    "Internal DC fault",
};

} // namespace

std::ostream& operator<<(std::ostream& out, BriFaultReportState state)
{
    static constexpr std::array names{"PENDING", "REPORTED", "CEASE_CANDIDATE", "DELETE"};
    const auto number = static_cast<std::uint32_t>(state);
    if (number < names.size()) {
        return out << names[number];
    }
    return out << "INVALID_VALUE(" + std::to_string(number) + ")";
}

BriActiveFault::BriActiveFault(const BriFaultDefinition& definition, unsigned int briFaultId,
                               unsigned int faultCase)
    : m_briFaultId(briFaultId), m_briFaultIdString(definition.name), m_faultCase(faultCase),
      m_iwdFaultId(definition.iwdFaultId), m_priority(priorityOf(definition.iwdFaultId)),
      m_faultDescTag(definition.faultDescTag)
{
}

bool BriActiveFault::isHiding() const
{
    for (const unsigned int shift : {0U, 4U, 8U, 12U}) {
        if (((static_cast<unsigned int>(m_priority) >> shift) & 0xFU) == 0xAU) {
            return true;
        }
    }
    return false;
}

void BriActiveFault::setFaultDescription(const std::string& text)
{
    if (!text.empty()) {
        m_faultDescription = text;
        return;
    }
    if (m_faultDescTag == BriFaultDescTag::None) {
        m_faultDescription = m_briFaultIdString;
        return;
    }
    const auto tag = static_cast<std::uint32_t>(m_faultDescTag);
    if (tag < DESCRIPTIONS.size()) {
        m_faultDescription = DESCRIPTIONS[tag];
    }
    if (m_faultDescription.empty()) {
        TP_ERROR("fault description text not found for briFaultId:" << m_briFaultIdString
                                                                    << ", faultDescTag:" << tag);
    }
}

void BriActiveFault::setFaultState(BriFaultReportState state)
{
    TP_TRACE7(traceFault() << ", state " << m_faultState << " -> " << state);
    m_faultState = state;
}

void BriActiveFault::setCeaseCandidate()
{
    if (m_faultState == BriFaultReportState::Reported) {
        setFaultState(BriFaultReportState::CeaseCandidate);
    } else if (m_faultState == BriFaultReportState::Pending) {
        setFaultState(BriFaultReportState::Delete);
    }
}

std::string BriActiveFault::traceFault() const
{
    std::ostringstream text;
    text << "BriFaultId = " << m_briFaultIdString << ", faultId = 0x" << std::hex << m_iwdFaultId << std::dec
         << ", faultCase = " << m_faultCase;
    return text.str();
}

bool BriActiveFault::operator<(const BriActiveFault& other) const
{
    return std::tie(m_priority, m_iwdFaultId) < std::tie(other.m_priority, other.m_iwdFaultId);
}
