/// One fault of the board: how it reads to clients, and how strong it is against the board's other faults.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

/// Selects a fixed text that describes a fault to clients.
enum class BriFaultDescTag : std::uint32_t {
    None = 0,
    TemperatureTooHigh = 1,
    TemperatureTooLow = 2,
    FanDegraded = 3,
    FanDisconnected = 4,
    FanFailed = 5,
    PowerSupply = 6,
    LtuFault = 7,
    InitializationFailure = 8,
    InternalDcFault = 9,
};

/// What a fault of the board is to clients.
struct BriFaultDefinition {
    const char* name; ///< the board's own
    std::uint16_t iwdFaultId;
    BriFaultDescTag faultDescTag;
};

/// What stands of a reported fault at the fault manager.
enum class BriFaultReportState : std::uint32_t {
    Pending = 0,
    Reported = 1,
    CeaseCandidate = 2,
    Delete = 3,
};

/// "PENDING", "REPORTED", "CEASE_CANDIDATE", "DELETE", or "INVALID_VALUE(9)".
std::ostream& operator<<(std::ostream& out, BriFaultReportState state);

class BriActiveFault {
public:
    BriActiveFault(const BriFaultDefinition& definition, unsigned int briFaultId, unsigned int faultCase);

    [[nodiscard]] std::uint32_t getBriFaultId() const { return m_briFaultId; }
    [[nodiscard]] const std::string& getBriFaultIdString() const { return m_briFaultIdString; }
    [[nodiscard]] std::uint32_t getFaultCase() const { return m_faultCase; }
    [[nodiscard]] std::uint16_t getIwdFaultId() const { return m_iwdFaultId; }
    /// Four hexadecimal digits, one for each class of faults; the smaller number is the stronger fault.
    [[nodiscard]] int getPriority() const { return m_priority; }
    [[nodiscard]] BriFaultReportState getFaultState() const { return m_faultState; }
    [[nodiscard]] const std::string& getFaultDescription() const { return m_faultDescription; }
    [[nodiscard]] bool isMarkedDelete() const { return m_markedDelete; }
    /// A digit of the priority is 0xA: the fault hides all weaker ones.
    [[nodiscard]] bool isHiding() const;

    void markAsDelete() { m_markedDelete = true; }
    /// An empty text stands for the fault's fixed text, or its name where it has none.
    void setFaultDescription(const std::string& text);
    void setFaultState(BriFaultReportState state);
    /// Reported: a cease is due unless the coordination finds it again. Pending: it was never sent.
    void setCeaseCandidate();

    /// "BriFaultId = HW_FAULT, faultId = 0x101, faultCase = 317".
    [[nodiscard]] std::string traceFault() const;

    /// The stronger one first, of equally strong ones the smaller id.
    bool operator<(const BriActiveFault& other) const;

private:
    std::uint32_t m_briFaultId;
    std::string m_briFaultIdString;
    std::uint32_t m_faultCase;
    std::uint16_t m_iwdFaultId;
    int m_priority;
    BriFaultDescTag m_faultDescTag;
    std::string m_faultDescription;
    BriFaultReportState m_faultState{BriFaultReportState::Pending};
    bool m_markedDelete{false};
};

[[nodiscard]] inline bool isBriFaultReadyToBeDeleted(const BriActiveFault& fault)
{
    return fault.isMarkedDelete();
}
