/// Records by which backends and the platform announce what the unit can do.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// Ids of the records. Where the meaning of an id lies with the board alone its name is its number.
enum CapSupport_en : std::uint16_t {
    CAP_SUPPORT_2 = 2,
    CAP_SUPPORT_3 = 3,
    CAP_SUPPORT_COMMON_MMI = 7,
    CAP_SUPPORT_22 = 22,
    CAP_SUPPORT_SPECIAL_INDICATOR = 23,
    CAP_SUPPORT_24 = 24,
    CAP_SUPPORT_26 = 26,
    CAP_SUPPORT_28 = 28,
    CAP_SUPPORT_32 = 32,
    CAP_SUPPORT_33 = 33,
    CAP_SUPPORT_HERE_I_AM = 34,
    CAP_SUPPORT_TEXT = 35,
    CAP_SUPPORT_36 = 36,
    CAP_SUPPORT_UTC_TIME = 37,
    CAP_SUPPORT_HW_LOG = 38,
    CAP_SUPPORT_PRODUCT_INVENTORY = 39,
    CAP_SUPPORT_CONTAINER_PID = 40,
    CAP_SUPPORT_INTEGRATED_HW_CATEGORY_1 = 41,
    CAP_SUPPORT_MARKET_PID = 42,
    CAP_SUPPORT_EXTENDED_MARKET_PID = 43,
    CAP_SUPPORT_NOTIFY_RESTART = 44,
    CAP_SUPPORT_TEMPERATURE_LEVEL_MEASUREMENT = 46,
    CAP_SUPPORT_CLIMATE_CONTROL = 47,
    CAP_SUPPORT_RESTART_NOTIFICATION = 48,
    CAP_SUPPORT_RESTART_RANK_LABEL = 49,
    CAP_SUPPORT_EVENT_HISTORY = 50,
};

/// The record of an id that has nothing more to tell, and the base of those that have.
struct __attribute__((visibility("default"))) Capability {
    CapSupport_en id;

    explicit Capability(CapSupport_en capId) : id(capId) {}
    virtual ~Capability();
};

/// The record of id 35. The text may be empty, and of any length.
struct __attribute__((visibility("default"))) TextCapability : Capability {
    std::string text;

    explicit TextCapability(std::string capText) : Capability(CAP_SUPPORT_TEXT), text(std::move(capText)) {}
    ~TextCapability() override;
};

/// Appends to `capabilities` a record for each of `wanted` that the unit has, in the order of `wanted`. The
/// answer is the same for each `serverRef`. Any thread may call it.
///
/// What the unit has stands in the JSON file that the environment variable `MERLOW_BOARD_FILE` names, read
/// anew at each call: "capabilities" is the list of ids, "capabilityText" the text of id 35 ("MERLOW" if it
/// is left out); other keys are left to others. Without the variable it is 3, 24, 26, 28, 35 with the text
/// "MERLOW", and 36. So it is with a file that is missing, unreadable, larger than 1 MiB or malformed, which
/// the remote log tells with the reason.
__attribute__((visibility("default"))) void
getCapabilitiesV2(std::vector<std::shared_ptr<Capability>>& capabilities, int serverRef,
                  std::vector<CapSupport_en> wanted);
