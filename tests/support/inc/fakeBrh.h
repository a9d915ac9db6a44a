/// The board resource handler's library in memory.
#pragma once

#include <capabilitiesV2.h>
#include <optional>
#include <string>
#include <vector>

namespace support {

/// What the unit has and what was announced.
struct FakeBrh {
    struct Announcement {
        unsigned int timeSource;
        unsigned int notifyValue;
        std::string reason;
    };

    static FakeBrh& instance();
    void reset() { *this = FakeBrh(); }

    std::vector<unsigned int> capabilities{3, 24, 26, 28, 35, 36};
    std::string capabilityText = "MERLOW";
    std::vector<int> capabilityCalls;              ///< the server references that were asked for
    std::vector<CapSupport_en> wantedCapabilities; ///< of the last call
    std::optional<Announcement> announcement;
    unsigned int notifyCalls = 0;
    unsigned int resetCalls = 0;
};

} // namespace support
