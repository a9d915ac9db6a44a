/// The announcement that stands, for the library and its tests alone.
#pragma once

#include <optional>
#include <string>

namespace brh {

struct RestartAnnouncement {
    unsigned int timeSource;
    unsigned int notifyValue;
    std::string reason;
};

std::optional<RestartAnnouncement> standingAnnouncement();

} // namespace brh
