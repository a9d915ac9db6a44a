/// A fault as its producers report it and as the fault manager keeps it.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

namespace Merlow {

/// Who reports a fault.
enum class FaultSource : std::uint32_t {
    BRI = 0,
    BB_BCI = 1,
    CCFI = 2,
    NONE = 3, ///< no source: marks the invalid fault
};

/// "BRI", "BB_BCI", "CCFI", "NONE", or "INVALID_VALUE(9)".
__attribute__((visibility("default"))) std::ostream& operator<<(std::ostream& out, FaultSource source);

/// Fault ids that have a name in the interface to the clients.
enum FaultId : std::uint16_t {
    TARN_CONST_FH_FAULT_ID_HW_FAULT = 0x0101,
    TARN_CONST_FH_FAULT_ID_EXCEPTIONAL_TEMPERATURE_TOO_HIGH = 0x0103,
    TARN_CONST_FH_FAULT_ID_EXCEPTIONAL_TEMPERATURE_TOO_LOW = 0x0104,
    TARN_CONST_FH_FAULT_ID_POWER_FAILURE = 0x0108,
    TARN_CONST_FH_FAULT_ID_HWF_FOR_EVALUATION = 0x0300,
    TARN_CONST_FH_FAULT_ID_SW_ERROR = 0x0301,
    TARN_CONST_FH_FAULT_ID_LINK_ERROR = 0x0302,
    TARN_CONST_FH_FAULT_ID_FAN_DEGRADED = 0x0704,
    TARN_CONST_FH_FAULT_ID_FAN_FAILED = 0x0705,
    TARN_CONST_FH_FAULT_ID_FAN_DISCONNECTED = 0x0706,
};

class __attribute__((visibility("default"))) FaultData {
public:
    FaultData() = default;
    FaultData(FaultSource faultSource, std::uint16_t id, std::uint16_t caseNumber, std::string description,
              std::uint32_t recovery = 0, std::string label = {});
    virtual ~FaultData() = default;
    FaultData(const FaultData&) = default;
    FaultData(FaultData&&) = default;
    FaultData& operator=(const FaultData&) = default;
    FaultData& operator=(FaultData&&) = default;

    FaultSource source{FaultSource::NONE};
    std::uint16_t faultId{0};
    std::uint16_t faultCase{0}; ///< the producer's own number, passed through
    std::string faultDescription;
    std::uint32_t recoveryTime{0}; ///< as the producer gave it; 0 from producers that know none
    std::string hwFaultLabel;      ///< empty from producers that know none
};

/// "faultId: 0x705, faultDescription: TEXT, faultCase: 3, recoveryTime: 0, hwFaultLabel: empty".
[[nodiscard]] __attribute__((visibility("default"))) std::string toString(const FaultData& data);

/// A fault that is in the fault manager.
class __attribute__((visibility("default"))) ActiveFault : public FaultData {
public:
    ActiveFault() = default;
    explicit ActiveFault(const FaultData& data) : FaultData(data), numOfSources(1) {}

    std::uint32_t numOfSources{0}; ///< raises that no removal has matched yet
    bool reported{false};          ///< a raise of it stands at the consumer
};

/// What stands for "no fault": its source is NONE.
extern const ActiveFault g_invalidActiveFault;

} // namespace Merlow
