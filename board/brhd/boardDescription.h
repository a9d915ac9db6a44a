/// What the reference board is: what its servers announce.
#pragma once

#include <bri.pb.h>

namespace merlow::board {

/// The built-in board has everything that BRI can announce: two temperature ranges, two hot spots
/// (temperatures in tenths of a degree Celsius) and all five restart ranks.
boardresourcehandler::bri::GetCapabilitiesCfm builtInBriCapabilities();

} // namespace merlow::board
