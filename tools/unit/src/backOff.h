/// How long to wait before what has ended is started again.
#pragma once

#include <algorithm>
#include <chrono>

namespace merlow::unit {

/// The wait doubles with each end in a row, up to a limit. What has lived for a while begins anew.
class BackOff {
public:
    using milliseconds = std::chrono::milliseconds;

    static constexpr milliseconds first{100};
    static constexpr milliseconds longest{10000};
    static constexpr milliseconds settled{10000}; ///< a life of this length is no failure to stay up

    /// The wait before the next start, after an end that came `lifetime` after the last one.
    milliseconds afterEnd(milliseconds lifetime)
    {
        m_endsInARow = lifetime >= settled ? 1 : m_endsInARow + 1;
        m_wait = m_endsInARow == 1 ? first : std::min(2 * m_wait, longest);
        return m_wait;
    }

    /// Ends without a life of `settled` between them.
    [[nodiscard]] unsigned endsInARow() const { return m_endsInARow; }

    void reset() { m_endsInARow = 0; }

private:
    unsigned m_endsInARow = 0;
    milliseconds m_wait{0};
};

} // namespace merlow::unit
