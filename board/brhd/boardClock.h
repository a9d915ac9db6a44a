/// The board's time of day and the sources that tell it.
#pragma once

#include "refTable.h"

#include <cstdint>
#include <functional>
#include <optional>

namespace merlow::board {

/// How far a source can be trusted; the smaller the better.
enum class TimeAccuracy : std::uint8_t { normal = 1, reduced = 2 };

/// Keeps the board's time as an offset to the system's clock, which it reads and never sets.
///
/// The board believes a time when no source of better accuracy has told one: of equally accurate sources the
/// last to speak counts, a less accurate one is heard (and its request is confirmed) but not believed. When
/// the better source is unregistered, the clock goes on as it was set and the next source to speak counts.
class BoardClock {
public:
    struct Source {
        TimeAccuracy accuracy;
        std::optional<std::uint32_t> toldTime; ///< the last time it told, in seconds since 1970
    };

    /// Gives the system's time in seconds since 1970.
    using SystemClock = std::function<std::int64_t()>;

    explicit BoardClock(SystemClock systemClock) : m_systemClock(std::move(systemClock)) {}

    /// The new source's reference; nothing when the connection has too many.
    std::optional<std::uint32_t> registerSource(std::uint32_t connectionRef, TimeAccuracy accuracy);
    /// False for a reference that the connection does not hold.
    [[nodiscard]] bool unregisterSource(std::uint32_t connectionRef, std::uint32_t ref);
    /// The source `ref` tells `utcTime`. False for a reference that the connection does not hold.
    [[nodiscard]] bool setTime(std::uint32_t connectionRef, std::uint32_t ref, std::uint32_t utcTime);
    void connectionEnded(std::uint32_t connectionRef);

    /// The board's time in seconds since 1970; the system's until a source was believed.
    std::int64_t now() const { return m_systemClock() + m_offset; }
    std::int64_t offset() const { return m_offset; }
    /// The source whose time the board has, or 0: none yet, or it is gone.
    std::uint32_t believedSource() const { return m_believedSource; }
    const RefTable<Source>& sources() const { return m_sources; }

private:
    bool isBetterTold(TimeAccuracy accuracy) const;
    void forgetBelievedIfGone();

    SystemClock m_systemClock;
    RefTable<Source> m_sources;
    std::int64_t m_offset = 0;
    std::uint32_t m_believedSource = 0;
};

} // namespace merlow::board
