/// What the tools make of what a unit, its neighbours or their users say.
#include "bciOutput.h"
#include "capabilityRecords.h"
#include "faultSignals.h"
#include "groups.h"
#include "hex.h"
#include "levelList.h"
#include "partTargets.h"
#include "statusText.h"
#include "temperatures.h"
#include "words.h"

#include <algorithm>
#include <cstring>
#include <sstream>

namespace fuzz {

using namespace merlow;

namespace {

void requireHarmless(const std::string& text)
{
    require(std::all_of(text.begin(), text.end(),
                        [](char c) { return (c >= ' ' && c <= '~') || c == '\n' || c == '\t'; }),
            "a signal does not steer the terminal");
}

/// What some commands make of their answers.
void tellAnswers(const tools::Signal& signal)
{
    using Decoder = std::optional<bcictl::Told> (*)(const tools::Signal&);
    for (const Decoder decode :
         {&bcictl::decodeCapabilities, &bcictl::decodeIndicators, &bcictl::decodeIdentity}) {
        if (const auto told = decode(signal)) {
            static_cast<void>(told->fields.dump(-1, ' ', false, nlohmann::json::error_handler_t::strict));
            requireHarmless(told->text);
        }
    }
    if (const auto rejection = tools::decodeReject(signal)) {
        requireHarmless(rejection->errorDescription);
    }
    if (const auto entries = bcictl::hwLogEntriesIn(signal)) {
        for (const std::string& entry : *entries) {
            requireHarmless(entry);
        }
    }
    requireHarmless(bcictl::listText(signal.fields()));
    if (const auto size = bcictl::blockSizeIn(signal)) {
        require(*size > 0 && *size <= 8U << 20U, "a block has a size, and there is memory for it");
    }
}

} // namespace

/// A signal to bcictl, told for people and for programs.
void runClientSignals(Input& input)
{
    tools::Signal signal;
    const SchemaMessage& row = input.message(bciSchema());
    signal.bytes = input.bodyToEnd();
    if (signal.bytes.size() >= sizeof(row.number)) {
        std::memcpy(signal.bytes.data(), &row.number, sizeof(row.number));
    }
    for (const bool json : {false, true}) {
        std::ostringstream out;
        tools::Output output(out, out, {.program = "bcictl", .json = json, .verbose = true});
        bcictl::tellIndication(output, signal);
        requireHarmless(out.str());
    }
    static_cast<void>(bcictl::describeSignal(signal));
    static_cast<void>(bcictl::fieldsOf(signal).dump());
    tellAnswers(signal);
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
