#include "connection.h"

#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>

namespace merlow::bbagent {

namespace {

std::string sourceName(Merlow::FaultSource source)
{
    std::ostringstream name;
    name << source;
    return name.str();
}

/// "0x0103 EXCEPTIONAL_TEMPERATURE_TOO_HIGH".
std::string faultName(std::uint16_t id, const std::string& constant)
{
    static const std::string prefix = "TARN_CONST_FH_FAULT_ID_";
    std::ostringstream text;
    text << "0x" << std::hex << std::setw(4) << std::setfill('0') << id << " "
         << (constant.starts_with(prefix) ? constant.substr(prefix.size()) : constant);
    return text.str();
}

} // namespace

Faults::Faults(Report& report) : m_report(report)
{
    subscribeForFaultNotifications(
        [this](const Merlow::FaultData& fault, unsigned int) { tell("raised", fault); },
        [this](const Merlow::FaultData& fault) { tell("ceased", fault); });
}

bool Faults::addFault(Merlow::FaultData& data)
{
    const bool taken = FaultManager::addFault(data);
    if (!taken) {
        tell("refused", data);
    }
    return taken;
}

void Faults::tell(const std::string& event, const Merlow::FaultData& fault)
{
    m_report.tell(event,
                  event + " " + faultName(fault.faultId, getIwdFaultIdString(fault.faultId)) + ", case " +
                      std::to_string(fault.faultCase) + ", source " + sourceName(fault.source) +
                      (fault.faultDescription.empty() ? "" : ": " + fault.faultDescription),
                  {{"faultId", fault.faultId},
                   {"name", getIwdFaultIdString(fault.faultId)},
                   {"case", fault.faultCase},
                   {"source", sourceName(fault.source)},
                   {"description", fault.faultDescription},
                   {"recoveryTime", fault.recoveryTime},
                   {"hwFaultLabel", fault.hwFaultLabel}});
}

Connection::Connection(mnet_mbox_id_t unit, Report& report, std::function<void()> onRejected)
    : m_unit(unit), m_report(report), m_onRejected(std::move(onRejected)), m_faults(report)
{
    m_establish.initialize();
    m_capabilities.initialize();
    m_subscription.initialize();
    m_labelSubscription.initialize();
    m_enable.initialize();
    m_establish.sendConnEstablishReq(
        m_unit, [this](const TarnNodeCommonAddressInfoS& address) { onConnected(address); },
        rejected("the connection"));
}

std::function<void()> Connection::rejected(const std::string& step)
{
    return [this, step] {
        m_report.tell("rejected", "the unit refuses " + step, {{"step", step}});
        m_onRejected();
    };
}

void Connection::onConnected(const TarnNodeCommonAddressInfoS& address)
{
    m_address = address;
    m_report.tell("connected",
                  "connected, client reference " + std::to_string(address.clientRef) + ", server reference " +
                      std::to_string(address.serverRef),
                  {{"clientRef", address.clientRef}, {"serverRef", address.serverRef}});
    m_capabilities.sendGetCapabilitiesReq(
        m_unit, m_address,
        [this](const std::vector<Merlow::BbBci::CapabilityInfo>& capabilities) {
            onCapabilities(capabilities);
        },
        rejected("its capabilities"));
}

void Connection::onCapabilities(const std::vector<Merlow::BbBci::CapabilityInfo>& capabilities)
{
    std::string text = "capabilities";
    auto numbers = nlohmann::json::array();
    for (const auto& capability : capabilities) {
        text += " " + std::to_string(capability.tag);
        numbers.push_back(capability.tag);
    }
    m_report.tell("capabilities", text, {{"numbers", numbers}});
    m_subscription.sendSubscribeFaultsReq(
        m_unit, m_address, [this] { onSubscribed(); }, rejected("its faults"));
}

void Connection::onSubscribed()
{
    m_report.tell("subscribed", "subscribed to faults");
    // With the references of the first subscription this one would end it.
    const TarnNodeCommonAddressInfoS address{.clientRef = m_address.clientRef + 1,
                                             .serverRef = m_address.serverRef};
    m_labelSubscription.sendSubscribeHwFaultLabelReq(
        m_unit, address, [this] { onLabelsSubscribed(); }, rejected("its faults with labels"));
}

void Connection::onLabelsSubscribed()
{
    m_report.tell("labelsSubscribed", "subscribed to faults with labels");
    m_enable.sendEnableOperationReq(
        m_unit, m_address, [this] { m_report.tell("enabled", "operation enabled"); }, rejected("operation"));
}

} // namespace merlow::bbagent
