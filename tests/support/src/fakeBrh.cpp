#include "fakeBrh.h"

#include "shortage.h"

#include <algorithm>
#include <brhRestart.h>

namespace support {

FakeBrh& FakeBrh::instance()
{
    static FakeBrh brh;
    return brh;
}

} // namespace support

using support::FakeBrh;

Capability::~Capability() = default;
TextCapability::~TextCapability() = default;

void getCapabilitiesV2(std::vector<std::shared_ptr<Capability>>& capabilities, int serverRef,
                       std::vector<CapSupport_en> wanted)
{
    const support::shortage::Pause pause;
    auto& brh = FakeBrh::instance();
    brh.capabilityCalls.push_back(serverRef);
    brh.wantedCapabilities = wanted;
    for (const auto id : wanted) {
        if (std::find(brh.capabilities.begin(), brh.capabilities.end(), id) == brh.capabilities.end()) {
            continue;
        }
        if (id == CAP_SUPPORT_TEXT) {
            capabilities.push_back(std::make_shared<TextCapability>(brh.capabilityText));
        } else {
            capabilities.push_back(std::make_shared<Capability>(id));
        }
    }
}

BrhRestart& BrhRestart::getInstance()
{
    const support::shortage::Pause pause;
    static BrhRestart restart;
    return restart;
}

bool BrhRestart::notifyRestart(unsigned int timeSource, unsigned int notifyValue, std::string reason,
                               std::string& error)
{
    const support::shortage::Pause pause;
    auto& brh = FakeBrh::instance();
    ++brh.notifyCalls;
    if (reason.empty()) {
        error = "Reason for restart missing";
        return false;
    }
    brh.announcement = {.timeSource = timeSource, .notifyValue = notifyValue, .reason = std::move(reason)};
    return true;
}

void BrhRestart::reset()
{
    const support::shortage::Pause pause;
    auto& brh = FakeBrh::instance();
    ++brh.resetCalls;
    brh.announcement.reset();
}
