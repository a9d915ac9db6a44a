#pragma once

#include <cstdint>
#include <vector>

namespace Merlow::BbBci {

/// One capability of another board controller as its confirm carried it.
struct CapabilityInfo {
    std::int16_t tag{0};             ///< which capability it is; `bci/bciCapabilities.h` has the numbers
    std::vector<std::uint8_t> value; ///< what follows the record's own number and size, in network order
};

} // namespace Merlow::BbBci
