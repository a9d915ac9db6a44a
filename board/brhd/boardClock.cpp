#include "boardClock.h"

#include <algorithm>

namespace merlow::board {

std::optional<std::uint32_t> BoardClock::registerSource(std::uint32_t connectionRef, TimeAccuracy accuracy)
{
    return m_sources.add(connectionRef, Source{accuracy, std::nullopt});
}

bool BoardClock::unregisterSource(std::uint32_t connectionRef, std::uint32_t ref)
{
    const bool removed = m_sources.remove(connectionRef, ref);
    forgetBelievedIfGone();
    return removed;
}

bool BoardClock::setTime(std::uint32_t connectionRef, std::uint32_t ref, std::uint32_t utcTime)
{
    Source* source = m_sources.find(connectionRef, ref);
    if (source == nullptr) {
        return false;
    }
    source->toldTime = utcTime;
    if (!isBetterTold(source->accuracy)) {
        m_offset = static_cast<std::int64_t>(utcTime) - m_systemClock();
        m_believedSource = ref;
    }
    return true;
}

void BoardClock::connectionEnded(std::uint32_t connectionRef)
{
    m_sources.removeAllOf(connectionRef);
    forgetBelievedIfGone();
}

bool BoardClock::isBetterTold(TimeAccuracy accuracy) const
{
    const auto& entries = m_sources.entries();
    return std::any_of(entries.begin(), entries.end(), [accuracy](const auto& entry) {
        const Source& source = entry.second.value;
        return source.toldTime && source.accuracy < accuracy;
    });
}

void BoardClock::forgetBelievedIfGone()
{
    if (!m_sources.entries().contains(m_believedSource)) {
        m_believedSource = 0;
    }
}

} // namespace merlow::board
