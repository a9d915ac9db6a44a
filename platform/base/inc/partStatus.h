/// Exit statuses by which a part of a unit tells its supervisor more than how it fared.
#pragma once

namespace merlow::base {

/// The board restarts: every part of the unit is to be ended and started again.
constexpr int boardRestartStatus = 86;

} // namespace merlow::base
