#include "briCurrentFaults.h"

#include "merlowTracepoints.h"

#include <algorithm>

void BriCurrentFaults::updateReportedFaults(const BriActiveFault& fault)
{
    TP_ENTERING();
    const auto it =
        std::find_if(m_reportedFaults.begin(), m_reportedFaults.end(), [&fault](const BriActiveFault& entry) {
            return entry.getFaultCase() == fault.getFaultCase() &&
                   entry.getIwdFaultId() == fault.getIwdFaultId();
        });
    if (it == m_reportedFaults.end()) {
        TP_TRACE6("adding new pending fault, " << fault.traceFault());
        addReportedFault(fault);
    } else if (it->getFaultState() == BriFaultReportState::CeaseCandidate) {
        it->setFaultState(BriFaultReportState::Reported);
    } else if (it->getFaultState() == BriFaultReportState::Delete) {
        it->setFaultState(BriFaultReportState::Pending);
    }
}

void BriCurrentFaults::sortActiveFaults()
{
    std::stable_sort(m_activeFaults.begin(), m_activeFaults.end());
}

void BriCurrentFaults::markAllReportedFaultsAsCeaseCandidates()
{
    for (BriActiveFault& fault : m_reportedFaults) {
        fault.setCeaseCandidate();
    }
}

void BriCurrentFaults::removeFaultsReadyToBeDeleted()
{
    std::erase_if(m_activeFaults, isBriFaultReadyToBeDeleted);
    std::erase_if(m_reportedFaults, isBriFaultReadyToBeDeleted);
}

void BriCurrentFaults::forgetCeasedFaults()
{
    const auto isCeased = [](const BriActiveFault& fault) {
        return fault.getFaultState() == BriFaultReportState::Delete;
    };
    std::erase_if(m_reportedFaults,
                  [&](const BriActiveFault& fault) { return isCeased(fault) && !fault.isHiding(); });
    auto kept =
        static_cast<std::size_t>(std::count_if(m_reportedFaults.begin(), m_reportedFaults.end(),
                                               [](const BriActiveFault& fault) { return fault.isHiding(); }));
    if (kept <= maxKeptPlaces) {
        return;
    }
    if (!m_capTraced) {
        m_capTraced = true;
        TP_INFO("ABN: More than " << maxKeptPlaces
                                  << " ceased board faults of different cases. Forgetting the oldest ones.");
    }
    std::erase_if(m_reportedFaults, [&](const BriActiveFault& fault) {
        if (kept <= maxKeptPlaces || !isCeased(fault)) {
            return false;
        }
        --kept;
        return true;
    });
}
