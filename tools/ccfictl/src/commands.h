/// The commands of ccfictl.
#pragma once

#include "command.h"
#include "forwarder.h"

namespace merlow::ccfictl {

/// All commands, in the order in which help lists them.
tools::CommandTable<Forwarder> commandTable();

} // namespace merlow::ccfictl
