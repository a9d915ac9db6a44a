#include "hereIAm.h"

#include <algorithm>
#include <utility>

namespace merlow::board {

using std::chrono::milliseconds;

milliseconds HereIAm::left() const
{
    return m_state == State::on ? std::max(m_end - m_outbox.now(), milliseconds(0)) : milliseconds(0);
}

bool HereIAm::start()
{
    if (!m_isCheckDue && !checkAfter(m_duration)) {
        return false;
    }
    m_end = m_outbox.now() + m_duration;
    m_state = State::on;
    return true;
}

bool HereIAm::checkAfter(milliseconds delay)
{
    m_isCheckDue = m_outbox.runAfter(delay, [this] { check(); });
    return m_isCheckDue;
}

void HereIAm::check()
{
    m_isCheckDue = false;
    if (m_state == State::off) {
        return;
    }
    // Started again since the check was ordered, it goes on, unless nothing could end it then.
    if (left() > milliseconds(0) && checkAfter(left())) {
        return;
    }
    stop();
    m_onOver();
}

} // namespace merlow::board
