/// A neighbour's status as text for people.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace merlow::board {

/// `status` as brhd or legacyd gives it. Lines that end with a newline; members that are missing leave gaps,
/// never an error.
std::string brhdStatusText(const nlohmann::json& status);
std::string legacydStatusText(const nlohmann::json& status);

/// The board's active faults, one a line.
std::string faultsText(const nlohmann::json& faults);

/// The kinds that a neighbour answers, one a line.
std::string kindsText(const nlohmann::json& kinds);

} // namespace merlow::board
