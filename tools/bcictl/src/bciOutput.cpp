#include "bciOutput.h"

#include "bci/bciRestart.h"
#include "faultSignals.h"
#include "hex.h"
#include "mmiStates.h"
#include "temperatures.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>

namespace merlow::bcictl {

namespace {

using tools::Fields;
using tools::signalName;

void tellRestart(tools::Output& output, const TarnBcRestartBoardNotificationIndS& ind)
{
    const auto flag = ind.initiatorFlag;
    output.event(
        "restart",
        output.names(TARN_BC_RESTART_BOARD_NOTIFICATION_IND) + "the board restarts, code " +
            std::to_string(ind.restartCode) +
            (flag == 0 ? ", ordered by this client" : ", initiatorFlag " + std::to_string(flag)) + ", " +
            referencesText(ind.addressInfo),
        withReferences(ind.addressInfo, {{"restartCode", ind.restartCode}, {"initiatorFlag", flag}}));
}

} // namespace

std::string referencesText(const TarnNodeCommonAddressInfoS& references)
{
    return "clientRef " + std::to_string(references.clientRef) + ", serverRef " +
           std::to_string(references.serverRef);
}

std::string timeText()
{
    using namespace std::chrono;
    const auto now = system_clock::now();
    const std::time_t seconds = system_clock::to_time_t(floor<std::chrono::seconds>(now));
    const auto thousandths = floor<milliseconds>(now) - floor<std::chrono::seconds>(now);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    std::array<char, 32> text{};
    const auto length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    (void)std::snprintf(text.data() + length, text.size() - length, ".%03dZ",
                        static_cast<int>(thousandths.count()));
    return text.data();
}

Fields withReferences(const TarnNodeCommonAddressInfoS& references, const Fields& more)
{
    Fields fields{{"clientRef", references.clientRef}, {"serverRef", references.serverRef}};
    fields.update(more);
    return fields;
}

std::string describeSignal(const tools::Signal& signal)
{
    const auto size = signal.bytes.size();
    std::string text = signalName(signal.number()) + ", " + std::to_string(size) + " bytes";
    if (size < 12) {
        return text + ", too short for its references\n" + tools::hexView(signal.bytes);
    }
    text += ", " + referencesText(signal.addressInfo());
    if (!signal.fields().empty()) {
        text += "\n" + tools::hexView(signal.fields());
    }
    return text;
}

Fields fieldsOf(const tools::Signal& signal)
{
    Fields fields{{"number", signal.number()}, {"size", signal.bytes.size()}};
    fields.update(withReferences(signal.addressInfo(), {{"hex", tools::toHex(signal.fields())}}));
    return fields;
}

void tellConnected(tools::Output& output, const TarnNodeCommonAddressInfoS& references)
{
    output.event("connected",
                 output.names(TARN_BC_CONN_ESTABLISH_REQ, TARN_BC_CONN_ESTABLISH_CFM) + "connected, " +
                     referencesText(references),
                 withReferences(references, Fields::object()));
}

void tellIndication(tools::Output& output, const tools::Signal& signal)
{
    if (const auto event = decodeFault(signal)) {
        tellFaultEvent(output, *event);
        return;
    }
    if (const auto temperatures = decodeTemperatures(signal)) {
        tellTemperatures(output, *temperatures);
        return;
    }
    if (signal.number() == TARN_BC_RESTART_BOARD_NOTIFICATION_IND) {
        if (const auto ind = tools::decode<TarnBcRestartBoardNotificationIndS>(signal)) {
            tellRestart(output, *ind);
            return;
        }
    }
    if (tellMmiIndication(output, signal)) {
        return;
    }
    Fields fields{{"signal", signalName(signal.number())}};
    fields.update(fieldsOf(signal));
    output.event("indication", "indication " + describeSignal(signal), fields);
}

} // namespace merlow::bcictl
