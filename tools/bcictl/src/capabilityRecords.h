/// What the unit can do, as bcictl shows it.
#pragma once

#include "bciOutput.h"

#include <optional>

namespace merlow::bcictl {

/// A line for each record, in their order; nothing for a signal that does not hold the records that it
/// announces.
std::optional<Told> decodeCapabilities(const tools::Signal& signal);

} // namespace merlow::bcictl
