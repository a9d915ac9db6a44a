/// What the reference board is: what its servers announce and tell of it.
#pragma once

#include <bri.pb.h>

namespace merlow::board {

/// The built-in board has everything that BRI can announce: two temperature ranges, two hot spots
/// (temperatures in tenths of a degree Celsius) and all five restart ranks.
boardresourcehandler::bri::GetCapabilitiesCfm builtInBriCapabilities();

/// The built-in unit and the container that it sits in, with every text that BRI can tell.
boardresourcehandler::bri::GetProductInfoCfm builtInProduct();
boardresourcehandler::bri::GetContainerPidCfm builtInContainer();

} // namespace merlow::board
