#pragma once

#include "faultManagerIf.h"

#include <functional>
#include <map>
#include <vector>

namespace Merlow {

/// The active faults, grouped by priority: a fault hides those of lower groups, and of a pair that excludes
/// each other the one that came first is shown. Counts the raises of each id. Knows nothing of signals.
///
/// An id is absent, stored and hidden, or stored and shown. The ids are bounded: outside the hierarchy only
/// the board's own are taken. Nothing is kept beyond the object. Server thread only.
class __attribute__((visibility("default"))) FaultManager : public FaultManagerIf {
public:
    /// A larger value is a more important fault.
    enum class FaultPriority : int {
        OUTSIDE = 0, ///< neither hides nor is hidden by arrival
        MINOR = 1,   ///< the same
        DEGRADED = 2,
        HARDWARE = 3,
        TEMPERATURE = 4,
    };

    void subscribeForFaultNotifications(const std::function<void(Merlow::FaultData, unsigned int)>& raised,
                                        const std::function<void(Merlow::FaultData)>& ceased) override;
    bool addFault(Merlow::FaultData& data) override;
    void removeFault(unsigned short faultId) override;
    void sendActiveFaults(unsigned int mbox) override;
    [[nodiscard]] std::string getIwdFaultIdString(unsigned short faultId) override;
    [[nodiscard]] std::string traceIwdFaultId(unsigned short faultId) override;

private:
    using Group = std::vector<ActiveFault>; ///< in the order of arrival

    [[nodiscard]] static FaultPriority getFaultPriority(unsigned short faultId);
    /// Null when the id is not active. Good until the next change of the groups.
    [[nodiscard]] ActiveFault* getActiveFault(unsigned short faultId);
    /// A higher group holds a fault, shown or not.
    [[nodiscard]] bool isHigherPriorityFaultActive(FaultPriority priority) const;
    /// The other fault of an exclusive pair; null when it is not active or there is no pair.
    [[nodiscard]] ActiveFault* getExclusiveFault(const ActiveFault& fault);

    [[nodiscard]] bool addSoftwareFault(const FaultData& data) const;
    [[nodiscard]] bool addPowerLowFault(const FaultData& data) const;
    [[nodiscard]] bool addBasicFault(const FaultData& data);
    ActiveFault& addActiveFault(FaultPriority priority, const FaultData& data);
    /// The removed fault, or the invalid one.
    ActiveFault removeActiveFault(FaultPriority priority, unsigned short faultId);

    void reportFault(const ActiveFault& fault);
    void sendFaultInd(const ActiveFault& fault, unsigned int mbox);
    void sendFaultCeaseInd(const ActiveFault& fault);
    /// Raises the shown faults of the next lower group that holds any. A fault that was hidden does not come
    /// back by this; one that stayed shown is raised twice.
    void reportLowerPriorityFaults(FaultPriority priority);
    void ceaseLowerPriorityFaults(FaultPriority priority);

    std::function<void(Merlow::FaultData, unsigned int)> m_raised;
    std::function<void(Merlow::FaultData)> m_ceased;
    std::map<FaultPriority, Group, std::greater<>> m_activeFaults; ///< an emptied group stays
};

/// Stands for the indicator that a fault is to switch; there is none to switch yet.
void setVisualIndication();

} // namespace Merlow
