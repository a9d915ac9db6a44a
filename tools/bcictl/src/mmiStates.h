/// The numeric states of the unit's MMI, their names, and the signals that tell of a change.
#pragma once

#include "bciClient.h"
#include "output.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace merlow::bcictl {

struct StateName {
    std::uint16_t value;
    const char* name;
};

using StateNames = std::span<const StateName>;

/// Maintenance states; one of them is only told, never taken.
extern const StateNames maintStates;
/// States that the lamps are set to, and those of the groups 1, 3 and 4 as they are read back.
extern const StateNames ledStates;
/// States of an indicator that stands for a fault, as it is read.
extern const StateNames faultIndicatorStates;
extern const StateNames hereIAmStates;

/// "unknown" for a state that has none.
std::string stateName(StateNames states, std::uint32_t value);

/// "requested (2)".
std::string stateText(StateNames states, std::uint32_t value);
/// "group1-green (0x0110)".
std::string ledStateText(StateNames states, std::uint16_t value);

/// The value of a state by its name, or a number of at most `largest`.
std::optional<std::uint32_t> stateValue(StateNames states, std::string_view text, std::uint32_t largest);

/// All names, for help.
std::string nameList(StateNames states);

/// Tells a change of the maintenance state or of Here I Am, with the time; false for any other signal, or one
/// that is shorter than its layout.
bool tellMmiIndication(tools::Output& output, const tools::Signal& signal);

} // namespace merlow::bcictl
