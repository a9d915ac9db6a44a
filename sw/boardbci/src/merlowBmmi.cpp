#include "merlowBmmi.h"

#include "bmmi.pb.h"
#include "brhCapabilities.h"

namespace bmmi = boardresourcehandler::bmmi;

namespace {

constexpr unsigned int BMMI_SERVER_NOTIFY = 0x17075BD;
constexpr unsigned int BMMI_PROTOCOL_REVISION = 1;

} // namespace

bool MerlowBmmi::init()
{
    auto& subscription = MnetMessageSubscriptionCustom::getInstance();
    BrhClient& bmmiClient = m_commonData.getBmmiClient();
    const std::string serverName = bmmi::ServerMetadata().name();
    SCRY_OBJ_TRACE(5, "Merlow is locating " << serverName);
    bmmiClient.locateServer<bmmi::ConnEstablishCfm>(&subscription, serverName, BMMI_SERVER_NOTIFY);
    bmmiClient.addHandler(&subscription, BMMI_SERVER_NOTIFY,
                          [this](const std::shared_ptr<mnet_msg>& msg) { handleBmmiServerLocate(msg); });
    onFrame<bmmi::ConnEstablishCfm>(bmmiClient, &MerlowBmmi::handleBmmiConnEstablishCfm);
    onFrame<bmmi::ConnEstablishRej>(bmmiClient, &MerlowBmmi::handleBmmiConnEstablishRej);
    onFrame<bmmi::GetCapabilitiesCfm>(bmmiClient, &MerlowBmmi::handleBmmiGetCapabilitiesCfm);
    onFrame<bmmi::GetCapabilitiesRej>(bmmiClient, &MerlowBmmi::handleBmmiGetCapabilitiesRej);
    return true;
}

bool MerlowBmmi::isReadyToPublish() const
{
    const BrhClient& bmmiClient = m_commonData.getBmmiClient();
    const bool isConnected = bmmiClient.isConnected();
    const bool areCapabilitiesReceived = bmmiClient.areCapabilitiesReceived();
    if (isConnected && areCapabilitiesReceived) {
        return true;
    }
    SCRY_TRACE(4, "MerlowBmmi is not ready to publish."
                      << (isConnected ? "" : " Client is not connected.")
                      << (areCapabilitiesReceived ? "" : " Capabilities have not been received."));
    return false;
}

std::string MerlowBmmi::getComponentName() const
{
    return "MerlowBmmi";
}

void MerlowBmmi::handleBmmiServerLocate(const std::shared_ptr<mnet_msg>& /*msg*/)
{
    BrhClient& bmmiClient = m_commonData.getBmmiClient();
    if (!bmmiClient.isServerFound()) {
        SCRY_TRACE(4, "ABN: The Merlow has lost the connection to the BMMI Server");
        return;
    }
    SCRY_OBJ_TRACE(5, "BMMI Server has come online : sending request to establish connection");
    bmmi::ConnEstablishReq bmmiReq;
    bmmiReq.add_supported_protocol_revisions(BMMI_PROTOCOL_REVISION);
    bmmiClient.sendConnEstablishReq(bmmiReq);
}

void MerlowBmmi::handleBmmiConnEstablishCfm(const std::shared_ptr<mnet_msg>& /*msg*/)
{
    BrhClient& bmmiClient = m_commonData.getBmmiClient();
    if (!bmmiClient.isConnected()) {
        return;
    }
    SCRY_OBJ_TRACE(5, "bmmi::ConnEstablishCfm from BMMI server has selected protocol revision #"
                          << bmmiClient.getSelectedProtocolRevision());
    bmmiClient.sendMessage(bmmi::GetCapabilitiesReq());
}

void MerlowBmmi::handleBmmiConnEstablishRej(const std::shared_ptr<mnet_msg>& msg)
{
    const auto bmmiRej = readFrame<bmmi::ConnEstablishRej>(*msg);
    if (!bmmiRej) {
        return;
    }
    if (bmmiRej->message.has_reason()) {
        SCRY_TRACE(4, "ABN: Merlow connection to the BMMI Server has been rejected: "
                          << bmmi::ConnEstablishRej::RejectReason_Name(bmmiRej->message.reason()));
    } else {
        SCRY_TRACE(4,
                   "ABN: Merlow connection to the BMMI Server has been rejected: reason not set by server");
    }
}

void MerlowBmmi::handleBmmiGetCapabilitiesCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto bmmiCfm = readFrame<bmmi::GetCapabilitiesCfm>(*msg);
    if (!bmmiCfm) {
        return;
    }
    BrhClient& bmmiClient = m_commonData.getBmmiClient();
    if (bmmiCfm->message.has_cap_support_unit_fault_indicator()) {
        SCRY_OBJ_TRACE(5, " adding 'Support Unit Fault Indicator' Capability");
        bmmiClient.addCapability(
            std::make_shared<SpecialIndicator>(std::vector<std::string>{"Support Unit Fault Indicator"}));
    }
    if (bmmiCfm->message.has_cap_here_i_am_support()) {
        SCRY_OBJ_TRACE(5, " adding 'Here I Am' Capability");
        bmmiClient.addCapability(std::make_shared<HereIAm>());
    }
    if (bmmiCfm->message.has_cap_common_mmi()) {
        SCRY_OBJ_TRACE(5, " adding 'Common MMI' Capability");
        bmmiClient.addCapability(std::make_shared<CommonMmi>());
    }
    bmmiClient.setCapabilitiesReceived();
    if (m_checkComponents) {
        m_checkComponents();
    }
}

void MerlowBmmi::handleBmmiGetCapabilitiesRej(const std::shared_ptr<mnet_msg>& /*msg*/)
{
    SCRY_TRACE(1, "The BMMI Server failed to get the capabilities");
}
