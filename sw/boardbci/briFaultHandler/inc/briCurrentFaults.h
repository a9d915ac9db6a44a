#pragma once

#include "briActiveFault.h"

#include <cstddef>
#include <vector>

/// What the board says is raised, and what has gone to the fault manager. A reported entry is a copy: a later
/// change of the active one does not reach it.
///
/// A ceased entry of a hiding fault keeps its place in the reported list, which decides in what order later
/// ceases and raises go out. Entries of other faults are never looked for again and go once they are ceased.
class BriCurrentFaults {
public:
    /// What is kept for its place when the board's fault cases never repeat.
    static constexpr std::size_t maxKeptPlaces = 4096;

    [[nodiscard]] std::vector<BriActiveFault>& getActiveFaults() { return m_activeFaults; }
    [[nodiscard]] std::vector<BriActiveFault>& getReportedFaults() { return m_reportedFaults; }

    void addActiveFault(const BriActiveFault& fault) { m_activeFaults.push_back(fault); }
    void addReportedFault(const BriActiveFault& fault) { m_reportedFaults.push_back(fault); }
    /// The first reported entry of the same case and id stays reported, or is to be raised again; without one
    /// the fault becomes a new entry.
    void updateReportedFaults(const BriActiveFault& fault);
    /// The strongest first; equally strong ones of one id in the order of their arrival.
    void sortActiveFaults();
    void markAllReportedFaultsAsCeaseCandidates();
    void removeFaultsReadyToBeDeleted();
    /// After a coordination: lets go of ceased entries that nothing looks for, and of the oldest ceased ones
    /// beyond `maxKeptPlaces`.
    void forgetCeasedFaults();

private:
    std::vector<BriActiveFault> m_activeFaults;
    std::vector<BriActiveFault> m_reportedFaults;
    bool m_capTraced{false};
};
