/// What the tools make of what a unit, its neighbours or their users say.
#include "bciOutput.h"
#include "capabilityRecords.h"
#include "faultSignals.h"
#include "hex.h"
#include "levelList.h"
#include "partTargets.h"
#include "statusText.h"
#include "temperatures.h"
#include "words.h"

#include "bci/bciSignals.h"

#include <cstring>
#include <sstream>

namespace fuzz {

using namespace merlow;

/// A signal to bcictl, told for people and for programs.
void runClientSignals(Input& input)
{
    tools::Signal signal;
    const BciSignal& row = input.of(BCI_SIGNALS);
    signal.bytes = input.rest();
    if (signal.bytes.size() >= sizeof(row.number)) {
        std::memcpy(signal.bytes.data(), &row.number, sizeof(row.number));
    }
    for (const bool json : {false, true}) {
        std::ostringstream out;
        tools::Output output(out, out, {.program = "bcictl", .json = json, .verbose = true});
        bcictl::tellIndication(output, signal);
        require(out.str().find_first_of("\x1b\r\x07") == std::string::npos,
                "a signal does not steer the terminal");
    }
    static_cast<void>(bcictl::describeSignal(signal));
    static_cast<void>(bcictl::fieldsOf(signal).dump());
    if (const auto told = bcictl::decodeCapabilities(signal)) {
        static_cast<void>(told->fields.dump(-1, ' ', false, nlohmann::json::error_handler_t::strict));
        require(told->text.find('\x1b') == std::string::npos, "a signal does not steer the terminal");
    }
    if (const auto rejection = tools::decodeReject(signal)) {
        require(rejection->errorDescription.find('\x1b') == std::string::npos,
                "a signal does not steer the terminal");
    }
    if (auto temperatures = bcictl::decodeTemperatures(signal)) {
        bcictl::TemperaturePlot plot(input.u8(), 20);
        plot.add(*temperatures);
        for (auto& tenths : temperatures->tenths) {
            tenths = static_cast<std::int16_t>(~tenths);
        }
        plot.add(*temperatures);
        static_cast<void>(plot.text());
    }
}

/// What a neighbour says of itself, to boardctl.
void runStatus(Input& input)
{
    const auto status = nlohmann::json::parse(input.restAsText(), nullptr, false);
    if (!status.is_object() && !status.is_array()) {
        return;
    }
    static_cast<void>(board::brhdStatusText(status));
    static_cast<void>(board::legacydStatusText(status));
    static_cast<void>(board::swmdStatusText(status));
    static_cast<void>(board::faultsText(status));
    static_cast<void>(board::temperaturesText(status));
    static_cast<void>(board::ledsText(status, true));
    static_cast<void>(board::descriptionText("file", status));
    static_cast<void>(board::kindsText(status));
}

/// What people type.
void runWords(Input& input)
{
    const std::string text = input.restAsText();
    static_cast<void>(tools::splitWords(text));
    if (const auto bytes = tools::parseHex(text)) {
        require(tools::parseHex(tools::toHex(*bytes)) == bytes, "what was written can be read");
        static_cast<void>(tools::hexView(*bytes));
    }
    if (const auto number = tools::parseSignalNumber(text)) {
        require(tools::parseSignalNumber(tools::signalName(*number)) == number, "a signal's name is its own");
    }
    const auto levels = trace::parseLevels(text);
    const auto again = trace::parseLevels(trace::formatLevels(levels.mask));
    require(again.mask == levels.mask && again.malformed.empty(), "what was written can be read");
}

} // namespace fuzz
