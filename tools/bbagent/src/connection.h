#pragma once

#include "report.h"

#include <bbbciConnEstablish.h>
#include <bbBciEnableOperation.h>
#include <bbBciFaults.h>
#include <bbBciGetCapabilities.h>
#include <bbBciHwFaultLabel.h>
#include <faultManager.h>

namespace merlow::bbagent {

/// The faults of the watched unit as this side's own fault manager shows them; tells which it does not take.
class Faults : public Merlow::FaultManager {
public:
    explicit Faults(Report& report);
    bool addFault(Merlow::FaultData& data) override;

private:
    void tell(const std::string& event, const Merlow::FaultData& fault);

    Report& m_report;
};

/// One life of a connection to the watched unit: the procedures, one after the other, and the faults. A new
/// connection needs a new object, since what the unit raises again would only be counted.
class Connection {
public:
    /// `onRejected` is called when the unit refuses a step; it may not destroy the object.
    Connection(mnet_mbox_id_t unit, Report& report, std::function<void()> onRejected);

private:
    void onConnected(const TarnNodeCommonAddressInfoS& address);
    void onCapabilities(const std::vector<Merlow::BbBci::CapabilityInfo>& capabilities);
    void onSubscribed();
    void onLabelsSubscribed();
    /// What to do when the unit refuses `step`.
    [[nodiscard]] std::function<void()> rejected(const std::string& step);

    mnet_mbox_id_t m_unit;
    Report& m_report;
    std::function<void()> m_onRejected;
    TarnNodeCommonAddressInfoS m_address{};
    Faults m_faults;
    Merlow::BbBci::BbbciConnEstablish m_establish;
    Merlow::BbBci::BbBciGetCapabilities m_capabilities;
    Merlow::BbBci::BbBciFaults m_subscription{m_faults};
    Merlow::BbBci::BbBciHwFaultLabel m_labelSubscription{m_faults};
    Merlow::BbBci::BbBciEnableOperation m_enable;
};

} // namespace merlow::bbagent
