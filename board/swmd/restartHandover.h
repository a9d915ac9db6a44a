#pragma once

#include "loadModule.h"
#include "restartOrder.h"

#include <optional>
#include <string>
#include <vector>

namespace merlow::board {

/// What the last restart order asks of this start of the store, once. Both stores outlive it.
class RestartHandover {
public:
    RestartHandover(StateStore& given, StateStore& served) : m_given(given), m_served(served) {}

    /// The module to run from this start on; nothing when no order waits, or when it names none. `said` gets
    /// a line for people.
    [[nodiscard]] std::optional<loadmodule::SoftwareId> begin(std::vector<std::string>& said);
    /// The store has settled what runs: later starts leave it at that.
    void settled(std::vector<std::string>& said);

private:
    StateStore& m_given;
    StateStore& m_served;
    std::optional<RestartOrder> m_order; ///< that waits
};

} // namespace merlow::board
