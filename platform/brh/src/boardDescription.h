/// What the unit has, as its board description tells.
#pragma once

#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>

namespace brh {

struct BoardDescription {
    std::set<std::uint16_t> capabilities{3, 24, 26, 28, 35, 36};
    std::string capabilityText = "MERLOW";
};

/// Why a board description can't be used.
class BadDescription : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Reads the file `path`, a regular one of at most 1 MiB. Throws BadDescription.
BoardDescription readBoardDescription(const std::string& path);

} // namespace brh
