/// The records by which the servers of BRI and BMMI announce what they can do.
#pragma once

#include "capabilitiesV2.h"

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// A record that says no more than its id.
template <CapSupport_en Id> struct PlainCapability : Capability {
    PlainCapability() : Capability(Id) {}
};

// BRI
using UtcTime = PlainCapability<CAP_SUPPORT_UTC_TIME>;
using HwLogSupport = PlainCapability<CAP_SUPPORT_HW_LOG>;
using ProductInventory = PlainCapability<CAP_SUPPORT_PRODUCT_INVENTORY>;
using ContainerPid = PlainCapability<CAP_SUPPORT_CONTAINER_PID>;
using IntegratedHwCategory_1 = PlainCapability<CAP_SUPPORT_INTEGRATED_HW_CATEGORY_1>;
using MarketPid = PlainCapability<CAP_SUPPORT_MARKET_PID>;
using ExtendedMarketPid = PlainCapability<CAP_SUPPORT_EXTENDED_MARKET_PID>;
using NotifyRestart = PlainCapability<CAP_SUPPORT_NOTIFY_RESTART>;
using RestartNotificationSupport = PlainCapability<CAP_SUPPORT_RESTART_NOTIFICATION>;
using EventHistorySupport = PlainCapability<CAP_SUPPORT_EVENT_HISTORY>;

/// One parameter set, its fields in the order in which clients see them.
struct temperatureLevelMeasurementParam_st {
    std::int16_t upperLevel;
    std::int16_t lowerLevel;
    std::int16_t hysteresis;
};

struct TemperatureLevelMeasurement : Capability {
    using Params = std::vector<std::shared_ptr<temperatureLevelMeasurementParam_st>>;
    explicit TemperatureLevelMeasurement(Params parameters)
        : Capability(CAP_SUPPORT_TEMPERATURE_LEVEL_MEASUREMENT), params(std::move(parameters))
    {
    }
    Params params;
};

/// One parameter set, its fields in the order in which clients see them.
struct hotspotParam_st {
    std::int16_t sensor;
    std::int16_t threshold;
    std::int16_t hysteresis;
};

struct ClimateControl : Capability {
    using Params = std::vector<std::shared_ptr<hotspotParam_st>>;
    explicit ClimateControl(Params parameters)
        : Capability(CAP_SUPPORT_CLIMATE_CONTROL), params(std::move(parameters))
    {
    }
    Params params;
};

struct RestartRankLabelSupport : Capability {
    explicit RestartRankLabelSupport(std::uint32_t ranks)
        : Capability(CAP_SUPPORT_RESTART_RANK_LABEL), supportedRestartRanks(ranks)
    {
    }
    std::uint32_t supportedRestartRanks; ///< a bit mask
};

// BMMI
using HereIAm = PlainCapability<CAP_SUPPORT_HERE_I_AM>;
using CommonMmi = PlainCapability<CAP_SUPPORT_COMMON_MMI>;

struct SpecialIndicator : Capability {
    explicit SpecialIndicator(std::vector<std::string> names)
        : Capability(CAP_SUPPORT_SPECIAL_INDICATOR), indicators(std::move(names))
    {
    }
    std::vector<std::string> indicators;
};
