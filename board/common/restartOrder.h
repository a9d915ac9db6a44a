/// A restart of the board that was ordered, as it is handed over to what starts next: brhd takes the order
/// and saves it, swmd finds it at its start and runs the module that it names.
#pragma once

#include "stateFile.h"

#include <cstdint>
#include <optional>
#include <string>

namespace merlow::board {

struct RestartOrder {
    std::int32_t code = 0;
    std::uint32_t rank = 0;
    std::string label;
    std::string loadModule; ///< to run from then on, as "NUMBER_REVISION"; empty for the one that runs now
    std::string initiator;  ///< who gave the order, for people
    std::int64_t time = 0;  ///< when it was given, in ms since 1970, UTC

    bool operator==(const RestartOrder&) const = default;
};

/// The last order that was given; brhd alone writes it.
StateFile givenRestartOrder();
/// The last order for which brhd ended, so that the board restarts once for it; brhd alone writes it.
StateFile carriedOutRestartOrder();
/// The last order whose module was found or missed at a start; swmd alone writes it. So a start that follows
/// no new order leaves what runs as it is.
StateFile servedRestartOrder();

struct LoadedRestartOrder {
    std::optional<RestartOrder> order; ///< nothing when none was ever saved
    std::string error;                 ///< why what was saved cannot be read; empty when it can
};

/// A field that is missing has its default; one of another type is an error.
LoadedRestartOrder loadRestartOrder(StateStore& store);
/// The given order, unless it is the one that was done last.
LoadedRestartOrder pendingRestartOrder(StateStore& given, StateStore& done);
/// The order outlives a loss of power once this has succeeded. Gives what went wrong, empty when nothing did.
[[nodiscard]] std::string saveRestartOrder(StateStore& store, const RestartOrder& order);

} // namespace merlow::board
