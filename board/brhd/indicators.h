/// The board's indicators: lamps that clients switch and read.
#pragma once

#include "boardDescription.h"
#include "ledClass.h"
#include "outbox.h"

#include <array>
#include <bmmi.pb.h>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace merlow::board {

/// Each lamp shows one of its visual states. Clients set a state by one number and read back another, and
/// not all that can be set can be told apart when it is read. Lamps that the board description maps to LEDs
/// of the machine switch those as well; an LED that cannot be switched changes nothing else.
class Indicators {
public:
    using VisualizedState = boardresourcehandler::bmmi::SetVisualIndicationReq::VisualizedState;

    /// As the board comes up: the lamp of group 1 is green, the others are dark.
    Indicators(std::vector<LedMapping> mappings, LedClass leds, Log& log);

    /// Switches the LEDs as the lamps are.
    void begin();
    void set(VisualizedState state);
    /// What clients read back.
    boardresourcehandler::bmmi::GetVisualIndicationCfm read() const;

    /// A list: {"lamp": NAME, "state": N, "colour": COLOUR, "flashes": BOOL}, colour "off" for a dark one,
    /// and "leds", a list of {"led": NAME, "error": TEXT}, for a lamp that has any.
    nlohmann::json toJson() const;

private:
    void switchLeds(std::uint32_t lamp);

    std::array<VisualizedState, lampCount> m_shown;
    std::vector<LedMapping> m_mappings;
    std::vector<std::string> m_errors; ///< for each mapping; empty for none
    LedClass m_leds;
    Log& m_log;
};

} // namespace merlow::board
