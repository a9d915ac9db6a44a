#pragma once

#include "briCurrentFaults.h"
#include "merlowComponent.h"

/// The board's faults: translates them into the clients' numbering and decides which of them stand towards
/// the fault manager, since one cause makes the board tell of several.
///
///   bri::FaultInd, bri::FaultCeaseInd -> coordination -> the fault manager's addFault, removeFault
///
/// Coordination runs after every event, and all its ceases go out before all its raises. Talks to no client,
/// and sends nothing to the board: the connection's component subscribes. What is active outlives the loss of
/// the board's server. Server thread only.
class BriFaultHandler : public MerlowComponent {
public:
    using MerlowComponent::MerlowComponent;

    bool init() override;

    /// Entries that are held, active and reported ones.
    [[nodiscard]] std::size_t getNumFaults()
    {
        return m_currentFaults.getActiveFaults().size() + m_currentFaults.getReportedFaults().size();
    }

private:
    void handleBriSubscribeFaultsCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleBriFaultInd(const std::shared_ptr<mnet_msg>& msg);
    void handleBriFaultCeaseInd(const std::shared_ptr<mnet_msg>& msg);

    /// The supervision of power drops has taken this fault over.
    [[nodiscard]] bool isFaultSuppressed(unsigned int briFaultId, unsigned short iwdFaultId) const;
    void coordinateFaults();
    void runFaultCoordination();
    void reportNotReportedFaults();
    void reportFault(const BriActiveFault& fault);
    void reportCeasedFault(const BriActiveFault& fault);

    BriCurrentFaults m_currentFaults;
};
