#include "faultSignals.h"

#include "bciOutput.h"

#include "bci/bciFaults.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

namespace merlow::bcictl {

namespace {

using tools::Fields;

struct FaultName {
    std::uint16_t id;
    std::string_view name;
};

constexpr std::array faultNames{
    FaultName{0x0101, "HW_FAULT"},
    FaultName{0x0103, "EXCEPTIONAL_TEMPERATURE_TOO_HIGH"},
    FaultName{0x0104, "EXCEPTIONAL_TEMPERATURE_TOO_LOW"},
    FaultName{0x0108, "POWER_FAILURE"},
    FaultName{0x0300, "HWF_FOR_EVALUATION"},
    FaultName{0x0301, "SW_ERROR"},
    FaultName{0x0302, "LINK_ERROR"},
    FaultName{0x0704, "FAN_DEGRADED"},
    FaultName{0x0705, "FAN_FAILED"},
    FaultName{0x0706, "FAN_DISCONNECTED"},
};

std::string textOf(const FaultEvent& event)
{
    std::array<char, 8> id{};
    (void)std::snprintf(id.data(), id.size(), "0x%04x", static_cast<unsigned>(event.faultId));
    std::string text =
        std::string(id.data()) + " " + faultName(event.faultId) + ", case " + std::to_string(event.faultCase);
    if (!event.description.empty()) {
        text += ", \"" + event.description + "\"";
    }
    return text + ", " + referencesText(event.references);
}

Fields eventFields(const FaultEvent& event)
{
    Fields fields{
        {"faultId", event.faultId}, {"faultName", faultName(event.faultId)}, {"faultCase", event.faultCase}};
    if (event.isRaise) {
        fields["faultDescription"] = event.description;
    }
    fields.update(withReferences(event.references, Fields::object()));
    return fields;
}

} // namespace

std::optional<FaultEvent> decodeFault(const tools::Signal& signal)
{
    if (signal.number() == TARN_BC_FAULT_IND) {
        if (const auto ind = tools::decode<TarnBcFaultIndS>(signal)) {
            return FaultEvent{true, ind->faultId, ind->faultCase, tools::textOf(ind->faultDescription),
                              ind->addressInfo};
        }
    }
    if (signal.number() == TARN_BC_FAULTCEASE_IND) {
        if (const auto ind = tools::decode<TarnBcFaultceaseIndS>(signal)) {
            return FaultEvent{false, ind->faultId, ind->faultCase, "", ind->addressInfo};
        }
    }
    return std::nullopt;
}

std::string faultName(std::uint16_t faultId)
{
    const auto* const found = std::find_if(faultNames.begin(), faultNames.end(),
                                           [faultId](const FaultName& row) { return row.id == faultId; });
    return found != faultNames.end() ? std::string(found->name) : "UNKNOWN_FAULT";
}

void tellFaultEvent(tools::Output& output, const FaultEvent& event)
{
    const std::string time = timeText();
    Fields fields{{"time", time}};
    fields.update(eventFields(event));
    const std::uint32_t number = event.isRaise ? TARN_BC_FAULT_IND : TARN_BC_FAULTCEASE_IND;
    output.event(event.isRaise ? "faultRaised" : "faultCeased",
                 output.names(number) + time + (event.isRaise ? " raised " : " ceased ") + textOf(event),
                 fields);
}

void tellActiveFault(tools::Output& output, const FaultEvent& event)
{
    output.event("faultActive", output.names(TARN_BC_FAULT_IND) + "active " + textOf(event),
                 eventFields(event));
}

} // namespace merlow::bcictl
