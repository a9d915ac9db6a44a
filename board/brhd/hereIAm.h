/// Here I Am: the unit makes itself seen, for a while.
#pragma once

#include "outbox.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <utility>

namespace merlow::board {

/// On until it is stopped or its time is over. Started again while it is on, it has its whole time again.
class HereIAm {
public:
    /// As it is told to clients.
    enum class State : std::uint8_t { on = 1, off = 2 };

    /// `onOver` is called when it has ended by itself.
    HereIAm(std::chrono::milliseconds duration, Outbox& outbox, std::function<void()> onOver)
        : m_duration(duration), m_outbox(outbox), m_onOver(std::move(onOver))
    {
    }

    State state() const { return m_state; }
    std::chrono::milliseconds duration() const { return m_duration; }
    /// Until it ends by itself; 0 when it is off.
    std::chrono::milliseconds left() const;

    /// False, and nothing has changed, when its end could not be seen to.
    [[nodiscard]] bool start();
    void stop() { m_state = State::off; }

private:
    bool checkAfter(std::chrono::milliseconds delay);
    void check();

    const std::chrono::milliseconds m_duration;
    Outbox& m_outbox;
    std::function<void()> m_onOver;
    State m_state = State::off;
    std::chrono::milliseconds m_end{0}; ///< on the board's clock
    /// One check at a time, however often it is started and stopped meanwhile.
    bool m_isCheckDue = false;
};

} // namespace merlow::board
