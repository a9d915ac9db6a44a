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

} // namespace merlow::board
