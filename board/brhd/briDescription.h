/// What the board is, as BRI's messages tell it.
#pragma once

#include "boardDescription.h"

#include <bri.pb.h>

namespace merlow::board {

boardresourcehandler::bri::GetCapabilitiesCfm briCapabilitiesOf(const BoardDescription& board);

/// A text that the board does not tell is an absent field.
boardresourcehandler::bri::GetProductInfoCfm productOf(const ProductData& data);
boardresourcehandler::bri::GetContainerPidCfm containerOf(const ContainerData& data);

} // namespace merlow::board
