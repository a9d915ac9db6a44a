#include "faultData.h"

#include <array>
#include <sstream>
#include <utility>

namespace Merlow {

const ActiveFault g_invalidActiveFault;

std::ostream& operator<<(std::ostream& out, FaultSource source)
{
    static constexpr std::array names{"BRI", "BB_BCI", "CCFI", "NONE"};
    const auto number = static_cast<std::uint32_t>(source);
    if (number < names.size()) {
        return out << names[number];
    }
    return out << "INVALID_VALUE(" + std::to_string(number) + ")";
}

FaultData::FaultData(FaultSource faultSource, std::uint16_t id, std::uint16_t caseNumber,
                     std::string description, std::uint32_t recovery, std::string label)
    : source(faultSource), faultId(id), faultCase(caseNumber), faultDescription(std::move(description)),
      recoveryTime(recovery), hwFaultLabel(std::move(label))
{
}

std::string toString(const FaultData& data)
{
    std::ostringstream text;
    text << "faultId: 0x" << std::hex << data.faultId << std::dec
         << ", faultDescription: " << data.faultDescription << ", faultCase: " << data.faultCase
         << ", recoveryTime: " << data.recoveryTime
         << ", hwFaultLabel: " << (data.hwFaultLabel.empty() ? "empty" : data.hwFaultLabel);
    return text.str();
}

} // namespace Merlow
