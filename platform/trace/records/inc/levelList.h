/// Lists of trace levels as people write them: "1,4", "none", "all".
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace merlow::trace {

struct LevelList {
    std::uint32_t mask = 0;
    std::string malformed; ///< the parts that are no level, comma-separated; empty when all is well
};

/// Levels 0 to 31 separated by commas, spaces around them allowed; "none" or nothing at all is no level,
/// "all" every one but `SCRY_OBJ_BIT`, which is a switch and no level. Malformed parts are left out of the
/// mask.
LevelList parseLevels(std::string_view text);

/// The levels of `mask` in rising order, as `parseLevels` reads them; "none" for 0.
std::string formatLevels(std::uint32_t mask);

} // namespace merlow::trace
