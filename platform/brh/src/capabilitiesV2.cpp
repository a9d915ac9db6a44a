#include "capabilitiesV2.h"

#include "boardDescription.h"
#include "noCancel.h"
#include "rushlog.h"

#include <cstdlib>

Capability::~Capability() = default;
TextCapability::~TextCapability() = default;

namespace {

brh::BoardDescription boardDescription()
{
    const char* path = std::getenv("MERLOW_BOARD_FILE");
    if (path == nullptr || *path == '\0') {
        return {};
    }
    try {
        return brh::readBoardDescription(path);
    } catch (const brh::BadDescription& reason) {
        const std::string text = "Board description " + std::string(path) +
                                 " can't be used, the built-in one is: " + reason.what();
        rushlog_log("Platform,Brh", text.c_str());
        return {};
    }
}

} // namespace

void getCapabilitiesV2(std::vector<std::shared_ptr<Capability>>& capabilities, int /*serverRef*/,
                       std::vector<CapSupport_en> wanted) // NOLINT(performance-unnecessary-value-param)
{
    const merlow::base::NoCancel noCancel;
    const auto board = boardDescription();
    for (const auto id : wanted) {
        if (board.capabilities.count(id) == 0) {
            continue;
        }
        if (id == CAP_SUPPORT_TEXT) {
            capabilities.push_back(std::make_shared<TextCapability>(board.capabilityText));
        } else {
            capabilities.push_back(std::make_shared<Capability>(id));
        }
    }
}
