#include "mmiStates.h"

#include "bciOutput.h"

#include "bci/bciHereIAm.h"
#include "bci/bciMaintState.h"
#include "bci/bciVisual.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace merlow::bcictl {

namespace {

using tools::Fields;

constexpr std::array maintStateRows{
    StateName{0, "normal"},  StateName{1, "serviceman"}, StateName{2, "requested"},
    StateName{3, "ongoing"}, StateName{4, "done"},
};

constexpr std::array ledStateRows{
    StateName{0x0010, "group0-off"},
    StateName{0x0011, "group0-white"},
    StateName{0x0060, "support-unit-no-fault"},
    StateName{0x0061, "support-unit-fault"},
    StateName{0x0110, "group1-green"},
    StateName{0x0111, "group1-green-flashing"},
    StateName{0x0120, "group1-yellow"},
    StateName{0x0121, "group1-yellow-flashing"},
    StateName{0x0130, "group1-red"},
    StateName{0x0131, "group1-red-flashing"},
    StateName{0x0140, "group1-blue"},
    StateName{0x0141, "group1-blue-flashing"},
    StateName{0x0310, "group3-off"},
    StateName{0x0311, "group3-green"},
    StateName{0x0312, "group3-green-flashing"},
    StateName{0x0313, "group3-green-flickering"},
    StateName{0x0320, "group3-yellow"},
    StateName{0x0321, "group3-yellow-flashing"},
    StateName{0x0331, "group3-red"},
    StateName{0x0332, "group3-red-flashing"},
    StateName{0x0410, "group4-off"},
    StateName{0x0411, "group4-green"},
};

constexpr std::array faultIndicatorRows{StateName{1, "no-fault"}, StateName{4, "fault"}};
constexpr std::array hereIAmRows{StateName{1, "on"}, StateName{2, "off"}};

/// What a signal says: "maintenance state requested (2)", and the same for programs.
struct Change {
    const char* event;
    std::string text;
    Fields fields;
};

std::optional<Change> changeIn(const tools::Signal& signal)
{
    if (signal.number() == TARN_BC_SET_MAINT_STATE_IND) {
        if (const auto ind = tools::decode<TarnBcSetMaintStateIndS>(signal)) {
            return Change{"maintState",
                          "maintenance state " + stateText(maintStates, ind->maintState),
                          {{"maintState", ind->maintState},
                           {"maintStateName", stateName(maintStates, ind->maintState)}}};
        }
    }
    if (signal.number() == TARN_BC_HERE_I_AM_STATE_IND) {
        if (const auto ind = tools::decode<TarnBcHereIAmStateIndS>(signal)) {
            return Change{"hereIAmState",
                          "Here I Am " + stateText(hereIAmStates, ind->state),
                          {{"state", ind->state}, {"stateName", stateName(hereIAmStates, ind->state)}}};
        }
    }
    return std::nullopt;
}

} // namespace

const StateNames maintStates = maintStateRows;
const StateNames ledStates = ledStateRows;
const StateNames faultIndicatorStates = faultIndicatorRows;
const StateNames hereIAmStates = hereIAmRows;

std::string stateName(StateNames states, std::uint32_t value)
{
    const auto found = std::find_if(states.begin(), states.end(),
                                    [value](const StateName& state) { return state.value == value; });
    return found != states.end() ? found->name : "unknown";
}

std::string stateText(StateNames states, std::uint32_t value)
{
    return stateName(states, value) + " (" + std::to_string(value) + ")";
}

std::string ledStateText(StateNames states, std::uint16_t value)
{
    std::array<char, 10> number{};
    (void)std::snprintf(number.data(), number.size(), " (0x%04x)", static_cast<unsigned>(value));
    return stateName(states, value) + number.data();
}

std::optional<std::uint32_t> stateValue(StateNames states, std::string_view text, std::uint32_t largest)
{
    const auto found = std::find_if(states.begin(), states.end(),
                                    [text](const StateName& state) { return state.name == text; });
    if (found != states.end()) {
        return found->value;
    }
    const auto number = tools::parseNumber(text);
    return number && *number <= largest ? number : std::nullopt;
}

std::string nameList(StateNames states)
{
    std::string list;
    for (const StateName& state : states) {
        list += (list.empty() ? "" : ", ") + std::string(state.name);
    }
    return list;
}

bool tellMmiIndication(tools::Output& output, const tools::Signal& signal)
{
    const auto change = changeIn(signal);
    if (!change) {
        return false;
    }
    const std::string time = timeText();
    Fields fields{{"time", time}};
    fields.update(change->fields);
    fields.update(withReferences(signal.addressInfo(), Fields::object()));
    output.event(change->event,
                 output.names(signal.number()) + time + " " + change->text + ", " +
                     referencesText(signal.addressInfo()),
                 fields);
    return true;
}

} // namespace merlow::bcictl
