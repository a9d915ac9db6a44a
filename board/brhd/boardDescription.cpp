#include "boardDescription.h"

namespace merlow::board {

namespace bri = boardresourcehandler::bri;

namespace {

struct TemperatureRange {
    int lowerLevel;
    int upperLevel;
    int hysteresis;
};
constexpr TemperatureRange temperatureRanges[] = {{-330, 550, 20}, {0, 850, 30}};

struct Hotspot {
    int sensor;
    int threshold;
    int hysteresis;
};
constexpr Hotspot hotspots[] = {{0, 850, 30}, {1, 950, 30}};

constexpr unsigned allRestartRanks = 0x1F; // a bit for each of five

} // namespace

bri::GetCapabilitiesCfm builtInBriCapabilities()
{
    bri::GetCapabilitiesCfm capabilities;
    for (int value = bri::GetCapabilitiesCfm::UTC_TIME; value <= bri::GetCapabilitiesCfm::EVENT_HISTORY;
         ++value) {
        capabilities.add_capabilities(static_cast<bri::GetCapabilitiesCfm::CapabilityType>(value));
    }
    for (const TemperatureRange& range : temperatureRanges) {
        auto* param = capabilities.add_temperature_level_measurement_params();
        param->set_lower_level(range.lowerLevel);
        param->set_upper_level(range.upperLevel);
        param->set_hysteresis(range.hysteresis);
    }
    for (const Hotspot& hotspot : hotspots) {
        auto* param = capabilities.add_hotspot_params();
        param->set_sensor(hotspot.sensor);
        param->set_threshold(hotspot.threshold);
        param->set_hysteresis(hotspot.hysteresis);
    }
    capabilities.set_supported_restart_ranks(allRestartRanks);
    return capabilities;
}

bri::GetProductInfoCfm builtInProduct()
{
    bri::GetProductInfoCfm product;
    product.set_production_date("20240131");
    product.set_product_name("MRU 4415");
    product.set_product_number("MRC 441 5/1");
    product.set_product_revision("R1A");
    product.set_manufacturer("Merlow");
    product.set_serial_number("M000000001");
    product.set_extended_market_name("Merlow Reference Unit 4415");
    return product;
}

bri::GetContainerPidCfm builtInContainer()
{
    bri::GetContainerPidCfm container;
    container.set_production_date("20240115");
    container.set_container_name("MRU Cabinet 2");
    container.set_product_number("MRB 200 2/1");
    container.set_product_revision("R2B");
    container.set_manufacturer("Merlow");
    container.set_serial_number("C000000001");
    return container;
}

} // namespace merlow::board
