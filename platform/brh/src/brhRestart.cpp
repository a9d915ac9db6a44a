#include "brhRestart.h"

#include "restartAnnouncement.h"

#include <mutex>
#include <utility>

namespace brh {

namespace {

struct Board {
    std::mutex mutex;
    std::optional<RestartAnnouncement> announcement;
};

/// Never destroyed: static destructors may still announce or reset.
Board& board()
{
    static Board& instance = *new Board;
    return instance;
}

} // namespace

std::optional<RestartAnnouncement> standingAnnouncement()
{
    const std::lock_guard lock(board().mutex);
    return board().announcement;
}

} // namespace brh

BrhRestart& BrhRestart::getInstance()
{
    static BrhRestart& instance = *new BrhRestart;
    return instance;
}

bool BrhRestart::notifyRestart(unsigned int timeSource, unsigned int notifyValue, std::string reason,
                               std::string& error)
{
    if (reason.empty()) {
        error = "Reason for restart missing";
        return false;
    }
    const std::lock_guard lock(brh::board().mutex);
    brh::board().announcement = brh::RestartAnnouncement{timeSource, notifyValue, std::move(reason)};
    return true;
}

void BrhRestart::reset()
{
    const std::lock_guard lock(brh::board().mutex);
    brh::board().announcement.reset();
}
