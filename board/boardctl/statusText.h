/// A neighbour's status as text for people.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace merlow::board {

/// `status` as brhd or legacyd gives it. Lines that end with a newline; members that are missing leave gaps,
/// never an error.
std::string brhdStatusText(const nlohmann::json& status);
std::string legacydStatusText(const nlohmann::json& status);
std::string swmdStatusText(const nlohmann::json& status);

/// The board's active faults, one a line.
std::string faultsText(const nlohmann::json& faults);

/// The board's sensors, one a line.
std::string temperaturesText(const nlohmann::json& temperatures);

/// The lamps in a row, then what is wrong with LEDs that show them. `isColoured`: for a terminal that has
/// colours.
std::string ledsText(const nlohmann::json& lamps, bool isColoured);

/// A board description in the form of its file: one key a line. `origin` says where it came from.
std::string descriptionText(const std::string& origin, const nlohmann::json& description);

/// The kinds that a neighbour answers, one a line.
std::string kindsText(const nlohmann::json& kinds);

} // namespace merlow::board
