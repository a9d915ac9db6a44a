#include "merlowBri.h"

#include "brhCapabilities.h"
#include "bri.pb.h"

namespace bri = boardresourcehandler::bri;

namespace {

constexpr unsigned int BRI_SERVER_NOTIFY = 0x17075AD;
constexpr unsigned int BRI_PROTOCOL_REVISION = 1;

/// The second field goes first: clients have always seen it so.
TemperatureLevelMeasurement::Params toTemperatureParams(const bri::GetCapabilitiesCfm& cfm)
{
    TemperatureLevelMeasurement::Params params;
    for (const auto& param : cfm.temperature_level_measurement_params()) {
        params.push_back(
            std::make_shared<temperatureLevelMeasurementParam_st>(temperatureLevelMeasurementParam_st{
                .upperLevel = static_cast<std::int16_t>(param.upper_level()),
                .lowerLevel = static_cast<std::int16_t>(param.lower_level()),
                .hysteresis = static_cast<std::int16_t>(param.hysteresis()),
            }));
    }
    return params;
}

ClimateControl::Params toHotspotParams(const bri::GetCapabilitiesCfm& cfm)
{
    ClimateControl::Params params;
    for (const auto& param : cfm.hotspot_params()) {
        params.push_back(std::make_shared<hotspotParam_st>(hotspotParam_st{
            .sensor = static_cast<std::int16_t>(param.sensor()),
            .threshold = static_cast<std::int16_t>(param.threshold()),
            .hysteresis = static_cast<std::int16_t>(param.hysteresis()),
        }));
    }
    return params;
}

template <class C> std::shared_ptr<Capability> makePlain(const bri::GetCapabilitiesCfm& /*cfm*/)
{
    return std::make_shared<C>();
}

struct CapabilityRow {
    bri::GetCapabilitiesCfm::CapabilityType type;
    const char* trace; ///< null: none
    std::shared_ptr<Capability> (*make)(const bri::GetCapabilitiesCfm&);
};

constexpr CapabilityRow CAPABILITY_ROWS[] = {
    {bri::GetCapabilitiesCfm::UTC_TIME, "adding 'Utc Time' Capability", makePlain<UtcTime>},
    {bri::GetCapabilitiesCfm::HW_LOG, "adding 'Hw Log' Capability", makePlain<HwLogSupport>},
    {bri::GetCapabilitiesCfm::PRODUCT_INVENTORY, "adding 'Product Inventory' Capability",
     makePlain<ProductInventory>},
    {bri::GetCapabilitiesCfm::CONTAINER_PID, "adding 'ContainerPid' Capability", makePlain<ContainerPid>},
    {bri::GetCapabilitiesCfm::INTEGRATED_HW_CATEGORY_1, "adding 'IntegratedHwCategory_1' Capability",
     makePlain<IntegratedHwCategory_1>},
    {bri::GetCapabilitiesCfm::MARKET_PID, "adding 'MarketPid' Capability", makePlain<MarketPid>},
    {bri::GetCapabilitiesCfm::EXTENDED_MARKET_PID, "adding 'ExtendedMarketPid' Capability",
     makePlain<ExtendedMarketPid>},
    {bri::GetCapabilitiesCfm::NOTIFY_RESTART, "adding 'NotifyRestart' Capability", makePlain<NotifyRestart>},
    {bri::GetCapabilitiesCfm::TEMPERATURE_LEVEL_MEASUREMENT,
     "adding 'TemperatureLevelMeasurement' Capability",
     [](const bri::GetCapabilitiesCfm& cfm) -> std::shared_ptr<Capability> {
         return std::make_shared<TemperatureLevelMeasurement>(toTemperatureParams(cfm));
     }},
    {bri::GetCapabilitiesCfm::CLIMATE_CONTROL, "adding 'ClimateControl' Capability",
     [](const bri::GetCapabilitiesCfm& cfm) -> std::shared_ptr<Capability> {
         return std::make_shared<ClimateControl>(toHotspotParams(cfm));
     }},
    {bri::GetCapabilitiesCfm::RESTART_NOTIFICATION, "adding 'RestartNotification' Capability",
     makePlain<RestartNotificationSupport>},
    {bri::GetCapabilitiesCfm::RESTART_RANK_LABEL, "adding 'RestartRankLabel' Capability",
     [](const bri::GetCapabilitiesCfm& cfm) -> std::shared_ptr<Capability> {
         return std::make_shared<RestartRankLabelSupport>(cfm.supported_restart_ranks());
     }},
    {bri::GetCapabilitiesCfm::EVENT_HISTORY, nullptr, makePlain<EventHistorySupport>},
};

const CapabilityRow* findRow(int type)
{
    for (const auto& row : CAPABILITY_ROWS) {
        if (row.type == type) {
            return &row;
        }
    }
    return nullptr;
}

} // namespace

bool MerlowBri::init()
{
    auto& subscription = MnetMessageSubscriptionCustom::getInstance();
    BrhClient& briClient = m_commonData.getBriClient();
    const std::string serverName = bri::BriServerMetadata().name();
    SCRY_OBJ_TRACE(5, "Merlow is locating " << serverName);
    briClient.locateServer<bri::ConnEstablishCfm>(&subscription, serverName, BRI_SERVER_NOTIFY);
    briClient.addHandler(&subscription, BRI_SERVER_NOTIFY,
                         [this](const std::shared_ptr<mnet_msg>& msg) { handleBriServerLocate(msg); });
    onFrame<bri::ConnEstablishCfm>(briClient, &MerlowBri::handleBriConnEstablishCfm);
    onFrame<bri::ConnEstablishRej>(briClient, &MerlowBri::handleBriConnEstablishRej);
    onFrame<bri::GetCapabilitiesCfm>(briClient, &MerlowBri::handleBriGetCapabilitiesCfm);
    onFrame<bri::GetCapabilitiesRej>(briClient, &MerlowBri::handleBriGetCapabilitiesRej);
    return true;
}

bool MerlowBri::isReadyToPublish() const
{
    const BrhClient& briClient = m_commonData.getBriClient();
    const bool isConnected = briClient.isConnected();
    const bool areCapabilitiesReceived = briClient.areCapabilitiesReceived();
    if (isConnected && areCapabilitiesReceived) {
        return true;
    }
    SCRY_TRACE(4, "MerlowBri is not ready to publish."
                      << (isConnected ? "" : " Client is not connected.")
                      << (areCapabilitiesReceived ? "" : " Capabilities have not been received."));
    return false;
}

std::string MerlowBri::getComponentName() const
{
    return "MerlowBri";
}

void MerlowBri::handleBriServerLocate(const std::shared_ptr<mnet_msg>& /*msg*/)
{
    BrhClient& briClient = m_commonData.getBriClient();
    if (!briClient.isServerFound()) {
        SCRY_TRACE(4, "ABN: The Merlow has lost the connection to the BRI Server");
        return;
    }
    SCRY_OBJ_TRACE(5, "BRI Server has come online : sending request to establish connection");
    bri::ConnEstablishReq briReq;
    briReq.add_supported_protocol_revisions(BRI_PROTOCOL_REVISION);
    briClient.sendConnEstablishReq(briReq);
}

void MerlowBri::handleBriConnEstablishCfm(const std::shared_ptr<mnet_msg>& /*msg*/)
{
    BrhClient& briClient = m_commonData.getBriClient();
    if (!briClient.isConnected()) {
        return;
    }
    SCRY_OBJ_TRACE(5, "bri::ConnEstablishCfm from BRI server has selected protocol revision #"
                          << briClient.getSelectedProtocolRevision());
    briClient.sendMessage(bri::GetProductInfoReq());
    briClient.sendMessage(bri::GetContainerPidReq());
    briClient.sendMessage(bri::GetCapabilitiesReq());
    briClient.sendMessage(bri::SubscribeFaultsReq());
}

void MerlowBri::handleBriConnEstablishRej(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briRej = readFrame<bri::ConnEstablishRej>(*msg);
    if (!briRej) {
        return;
    }
    if (briRej->message.has_reason()) {
        SCRY_TRACE(4, "ABN: Merlow connection to the BRI Server has been rejected: "
                          << bri::ConnEstablishRej::RejectReason_Name(briRej->message.reason()));
    } else {
        SCRY_TRACE(4, "ABN: bri::ConnEstablishRej provided no reason");
    }
}

void MerlowBri::handleBriGetCapabilitiesCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto briCfm = readFrame<bri::GetCapabilitiesCfm>(*msg);
    if (!briCfm) {
        return;
    }
    SCRY_REC_SIG(msg.get(), "handleBriGetCapabilitiesCfm");
    BrhClient& briClient = m_commonData.getBriClient();
    for (const int type : briCfm->message.capabilities()) {
        const CapabilityRow* row = findRow(type);
        if (row == nullptr) {
            SCRY_TRACE(4, "MerlowBri::handleBriGetCapabilitiesCfm got unhandled CAP: " << type);
            continue;
        }
        if (row->trace != nullptr) {
            SCRY_OBJ_TRACE(5, row->trace);
        }
        briClient.addCapability(row->make(briCfm->message));
    }
    briClient.setCapabilitiesReceived();
    if (m_checkComponents) {
        m_checkComponents();
    }
}

void MerlowBri::handleBriGetCapabilitiesRej(const std::shared_ptr<mnet_msg>& /*msg*/)
{
    SCRY_TRACE(1, "MerlowBri::handleBriGetCapabilitiesRej(), Unable to get BriServer Capabilities");
}
