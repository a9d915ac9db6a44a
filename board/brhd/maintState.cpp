#include "maintState.h"

#include <algorithm>
#include <array>
#include <utility>

namespace merlow::board {

namespace {

constexpr std::array<std::pair<MaintState::State, MaintState::State>, 6> transitions{{
    {MaintState::normal, MaintState::requested},
    {MaintState::requested, MaintState::normal},
    {MaintState::requested, MaintState::ongoing},
    {MaintState::ongoing, MaintState::workDone},
    {MaintState::workDone, MaintState::normal},
    {MaintState::workDone, MaintState::requested},
}};

constexpr std::array<const char*, 5> names{"normal", "requested", "ongoing", "done", "serviceman"};

} // namespace

const char* MaintState::name() const
{
    return names.at(static_cast<std::size_t>(state()));
}

MaintState::Outcome MaintState::order(State state)
{
    if (m_isServiceManPresent) {
        return Outcome::serviceManPresent;
    }
    if (state == m_ordered) {
        return Outcome::done;
    }
    if (std::find(transitions.begin(), transitions.end(), std::pair(m_ordered, state)) == transitions.end()) {
        return Outcome::illegalTransition;
    }
    m_ordered = state;
    return Outcome::done;
}

} // namespace merlow::board
