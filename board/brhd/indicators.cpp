#include "indicators.h"

#include <nlohmann/json.hpp>
#include <utility>

namespace merlow::board {

namespace bmmi = boardresourcehandler::bmmi;

namespace {

/// Indices in `lampNames`.
enum Lamp : std::uint8_t { group0, group1, group3, group4, supportUnit };

/// What a visual state does to its lamp, and as which of the lamp's own states it is read back.
struct Look {
    Lamp lamp;
    const char* colour;
    bool flashes;
    int readState; ///< 0 for a lamp that is not read
};

/// By visual state, from 1 on.
constexpr std::array<Look, 20> looks{{
    {group1, "green", false, bmmi::GetVisualIndicationCfm::GROUP_1_STATE_5},
    {group1, "green", true, bmmi::GetVisualIndicationCfm::GROUP_1_STATE_6},
    {group1, "yellow", false, bmmi::GetVisualIndicationCfm::GROUP_1_STATE_1},
    {group1, "yellow", true, bmmi::GetVisualIndicationCfm::GROUP_1_STATE_2},
    {group1, "red", false, bmmi::GetVisualIndicationCfm::GROUP_1_STATE_3},
    {group1, "red", true, bmmi::GetVisualIndicationCfm::GROUP_1_STATE_3},
    {group1, "blue", false, bmmi::GetVisualIndicationCfm::GROUP_1_STATE_4},
    {group1, "blue", true, bmmi::GetVisualIndicationCfm::GROUP_1_STATE_4},
    {group4, "off", false, bmmi::GetVisualIndicationCfm::GROUP_4_STATE_2},
    {group4, "green", false, bmmi::GetVisualIndicationCfm::GROUP_4_STATE_1},
    {group3, "off", false, bmmi::GetVisualIndicationCfm::GROUP_3_STATE_2},
    {group3, "green", false, bmmi::GetVisualIndicationCfm::GROUP_3_STATE_1},
    {group3, "yellow", false, bmmi::GetVisualIndicationCfm::GROUP_3_STATE_4},
    {group3, "yellow", true, bmmi::GetVisualIndicationCfm::GROUP_3_STATE_4},
    {group3, "red", false, bmmi::GetVisualIndicationCfm::GROUP_3_STATE_3},
    {group3, "red", true, bmmi::GetVisualIndicationCfm::GROUP_3_STATE_3},
    {supportUnit, "off", false, bmmi::GetVisualIndicationCfm::SUPPORT_UNIT_FAULT_STATE_1},
    {supportUnit, "red", false, bmmi::GetVisualIndicationCfm::SUPPORT_UNIT_FAULT_STATE_2},
    {group0, "off", false, 0},
    {group0, "white", false, 0},
}};

const Look& lookOf(Indicators::VisualizedState state)
{
    return looks.at(static_cast<std::size_t>(state - bmmi::SetVisualIndicationReq::VISUALIZED_STATE_1));
}

/// Whether the LED is lit by a lamp that looks like this.
Light lightOf(const LedMapping& mapping, const Look& look)
{
    const std::string colour = look.colour;
    if (colour == "off" || (mapping.colour && *mapping.colour != colour)) {
        return Light::dark;
    }
    return look.flashes ? Light::flashing : Light::lit;
}

} // namespace

Indicators::Indicators(std::vector<LedMapping> mappings, LedClass leds, Log& log)
    : m_shown{bmmi::SetVisualIndicationReq::VISUALIZED_STATE_19,
              bmmi::SetVisualIndicationReq::VISUALIZED_STATE_1,
              bmmi::SetVisualIndicationReq::VISUALIZED_STATE_11,
              bmmi::SetVisualIndicationReq::VISUALIZED_STATE_9,
              bmmi::SetVisualIndicationReq::VISUALIZED_STATE_17},
      m_mappings(std::move(mappings)), m_errors(m_mappings.size()), m_leds(std::move(leds)), m_log(log)
{
}

void Indicators::begin()
{
    for (std::uint32_t lamp = 0; lamp < lampCount; ++lamp) {
        switchLeds(lamp);
    }
}

void Indicators::set(VisualizedState state)
{
    const Lamp lamp = lookOf(state).lamp;
    m_shown.at(lamp) = state;
    switchLeds(lamp);
}

void Indicators::switchLeds(std::uint32_t lamp)
{
    for (std::size_t index = 0; index < m_mappings.size(); ++index) {
        const LedMapping& mapping = m_mappings[index];
        if (mapping.lamp != lamp) {
            continue;
        }
        m_errors[index] = m_leds.show(mapping.led, lightOf(mapping, lookOf(m_shown.at(lamp))));
        if (!m_errors[index].empty()) {
            BOARD_LOG(m_log, LogLevel::abnormal,
                      "ABN: cannot switch the LED " << mapping.led << ": " << m_errors[index]);
        }
    }
}

bmmi::GetVisualIndicationCfm Indicators::read() const
{
    using Cfm = bmmi::GetVisualIndicationCfm;
    const auto readState = [this](Lamp lamp) {
        return lookOf(m_shown.at(lamp)).readState;
    };
    Cfm cfm;
    cfm.set_group_4_state(static_cast<Cfm::Group4State>(readState(group4)));
    cfm.set_group_1_state(static_cast<Cfm::Group1State>(readState(group1)));
    cfm.set_group_3_state(static_cast<Cfm::Group3State>(readState(group3)));
    cfm.set_support_unit_fault_state(static_cast<Cfm::SupportUnitFaultState>(readState(supportUnit)));
    return cfm;
}

nlohmann::json Indicators::toJson() const
{
    nlohmann::json lamps = nlohmann::json::array();
    for (std::size_t lamp = 0; lamp < lampCount; ++lamp) {
        const VisualizedState state = m_shown.at(lamp);
        lamps.push_back({{"lamp", lampNames.at(lamp)},
                         {"state", state},
                         {"colour", lookOf(state).colour},
                         {"flashes", lookOf(state).flashes}});
    }
    for (std::size_t index = 0; index < m_mappings.size(); ++index) {
        const LedMapping& mapping = m_mappings[index];
        lamps.at(mapping.lamp)["leds"].push_back({{"led", mapping.led}, {"error", m_errors[index]}});
    }
    return lamps;
}

} // namespace merlow::board
