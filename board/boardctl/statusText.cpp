#include "statusText.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <sstream>
#include <utility>

namespace merlow::board {

namespace {

using nlohmann::json;

/// The member as text; "-" when it is missing.
std::string textOf(const json& object, const char* name)
{
    if (!object.is_object() || !object.contains(name) || object[name].is_null()) {
        return "-";
    }
    const json& member = object[name];
    return member.is_string() ? member.get<std::string>() : member.dump();
}

const json& memberOf(const json& object, const char* name)
{
    static const json nothing;
    const auto found = object.is_object() ? object.find(name) : object.end();
    return object.is_object() && found != object.end() ? *found : nothing;
}

std::string numbersOf(const json& list)
{
    std::string text;
    for (const json& number : list) {
        text += (text.empty() ? "" : ", ") + number.dump();
    }
    return text.empty() ? "none" : text;
}

std::string utcText(const json& seconds)
{
    if (!seconds.is_number_integer()) {
        return "-";
    }
    const std::time_t time = seconds.get<std::time_t>();
    std::tm parts{};
    std::array<char, 32> text{};
    if (gmtime_r(&time, &parts) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &parts) == 0) {
        return seconds.dump();
    }
    return text.data();
}

void writeHeading(std::ostream& out, const json& status)
{
    out << textOf(status, "program") << " " << textOf(status, "version") << ", process "
        << textOf(status, "pid") << "\n";
}

void writePlans(std::ostream& out, const json& status)
{
    for (const json& plan : memberOf(status, "plans")) {
        out << "  planned: " << textOf(plan, "action") << " " << textOf(plan, "kind") << ", next "
            << textOf(plan, "count");
        if (plan.contains("ms")) {
            out << ", " << textOf(plan, "ms") << " ms";
        }
        if (plan.contains("cause")) {
            out << ", cause " << textOf(plan, "cause");
        }
        out << "\n";
    }
}

void writePadded(std::ostream& out, const std::string& text, std::size_t width, bool right)
{
    const std::string gap(text.size() < width ? width - text.size() : 0, ' ');
    out << (right ? gap + text : text + gap);
}

/// A line for each kind that came at all, a column for each count.
void writeFrames(std::ostream& out, const json& server)
{
    static constexpr std::array<const char*, 6> columns{"received", "malformed", "confirmed",
                                                        "rejected", "delayed",   "dropped"};
    constexpr std::size_t kindWidth = 36;
    constexpr std::size_t countWidth = 10;
    writePadded(out, "    frames", kindWidth, false);
    for (const char* column : columns) {
        writePadded(out, column, countWidth, true);
    }
    out << "\n";
    for (const auto& [kind, count] : memberOf(server, "received").items()) {
        if (count == 0) {
            continue;
        }
        writePadded(out, "    " + kind, kindWidth, false);
        for (const char* column : columns) {
            writePadded(out, textOf(memberOf(server, column), kind.c_str()), countWidth, true);
        }
        out << "\n";
    }
    out << "    dropped: " << textOf(server, "cutFrames") << " cut frames, "
        << textOf(server, "unknownFrames") << " unknown frames";
    if (server.contains("wrongReferences")) {
        out << ", " << textOf(server, "wrongReferences") << " with a wrong reference";
    }
    if (server.contains("tooLongFrames")) {
        out << ", " << textOf(server, "tooLongFrames") << " too long, " << textOf(server, "earlyFrames")
            << " before the connection was established";
    }
    out << "\n";
}

/// "lower -330, upper 550" for an object, "1, 2" for a list of numbers, "-" for nothing.
std::string valueText(const json& value)
{
    std::string text;
    const char* separator = value.is_array() && !value.empty() && value.front().is_object() ? "; " : ", ";
    if (value.is_object() || value.is_array()) {
        for (const auto& [key, inner] : value.items()) {
            text += (text.empty() ? "" : separator) + (value.is_object() ? key + " " : "") + valueText(inner);
        }
        return text.empty() ? "none" : text;
    }
    if (value.is_null()) {
        return "-";
    }
    return value.is_string() ? value.get<std::string>() : value.dump();
}

void writeKey(std::ostream& out, const std::string& key, const json& value)
{
    constexpr std::size_t keyWidth = 30;
    writePadded(out, "  " + key, keyWidth, false);
    out << " " << valueText(value) << "\n";
}

void writeFault(std::ostream& out, const json& fault)
{
    out << textOf(fault, "name") << " (" << textOf(fault, "id") << "), case " << textOf(fault, "case");
    for (const char* member : {"fan", "parent", "slot"}) {
        if (!memberOf(fault, member).is_null()) {
            out << ", " << member << " " << textOf(fault, member);
        }
    }
    out << (memberOf(fault, "measured") == true ? ", measured" : "");
    out << "\n";
}

void writeFaults(std::ostream& out, const json& server)
{
    for (const json& fault : memberOf(server, "faults")) {
        out << "    active fault ";
        writeFault(out, fault);
    }
    for (const json& subscriber : memberOf(server, "faultSubscribers")) {
        out << "    fault subscriber: connection " << textOf(subscriber, "connectionRef") << "\n";
    }
    const json& memory = memberOf(server, "faultMemory");
    if (const std::string error = textOf(memory, "error"); memory.is_object() && !error.empty()) {
        out << "    fault memory: " << textOf(memory, "place") << " " << error << "\n";
    }
}

/// "21.5" for 215.
std::string degreesOf(const json& object, const char* name)
{
    const json& tenths = memberOf(object, name);
    if (!tenths.is_number_integer()) {
        return "-";
    }
    std::array<char, 32> text{};
    (void)std::snprintf(text.data(), text.size(), "%.1f", tenths.get<double>() / 10);
    return text.data();
}

void writeTemperature(std::ostream& out, const json& sensor)
{
    out << textOf(sensor, "sensor") << " " << textOf(sensor, "name") << ": " << degreesOf(sensor, "tenths")
        << " (" << textOf(sensor, "source") << ")";
    if (!memberOf(sensor, "upper").is_null()) {
        out << ", limits " << degreesOf(sensor, "lower") << " to " << degreesOf(sensor, "upper")
            << ", hysteresis " << degreesOf(sensor, "hysteresis");
    }
    out << "\n";
}

/// "(*)" in the colour of the lamp, "( )" for a dark one.
std::string lampGlyph(const std::string& colour, bool flashes, bool isColoured)
{
    static constexpr std::array<std::pair<const char*, const char*>, 5> colours{
        {{"red", "31"}, {"green", "32"}, {"yellow", "33"}, {"blue", "34"}, {"white", "37"}}};
    if (colour == "off" || colour == "-") {
        return "( )";
    }
    for (const auto& [name, code] : colours) {
        if (isColoured && colour == name) {
            return std::string("\033[1;") + (flashes ? "5;" : "") + code + "m(*)\033[0m";
        }
    }
    return "(*)";
}

void writeLamps(std::ostream& out, const json& lamps, bool isColoured)
{
    const char* separator = "";
    for (const json& lamp : lamps) {
        const std::string colour = textOf(lamp, "colour");
        const bool flashes = memberOf(lamp, "flashes") == true;
        out << separator << textOf(lamp, "lamp") << " " << lampGlyph(colour, flashes, isColoured) << " "
            << colour << (flashes ? " flashing" : "");
        separator = "   ";
    }
    out << "\n";
}

void writeMmi(std::ostream& out, const json& server)
{
    if (const json& lamps = memberOf(server, "indicators"); lamps.is_array()) {
        out << "    lamps: ";
        writeLamps(out, lamps, false);
    }
    if (const json& maintenance = memberOf(server, "maintenance"); maintenance.is_object()) {
        out << "    maintenance state " << textOf(maintenance, "name")
            << (memberOf(maintenance, "serviceMan") == true ? ", a service man is at the unit" : "") << ", "
            << textOf(maintenance, "subscribers") << " subscribed\n";
    }
    if (const json& hereIAm = memberOf(server, "hereIAm"); hereIAm.is_object()) {
        out << "    Here I Am "
            << (memberOf(hereIAm, "on") == true ? "on for " + textOf(hereIAm, "leftMs") + " ms" : "off")
            << ", " << textOf(hereIAm, "subscribers") << " subscribed\n";
    }
}

void writeLogAndRestart(std::ostream& out, const json& server)
{
    const json& log = memberOf(server, "hardwareLog");
    if (const std::string error = textOf(log, "error"); log.is_object() && !error.empty()) {
        out << "    hardware log: " << textOf(log, "place") << ": " << error << "\n";
    }
    if (const json& order = memberOf(server, "restartOrder"); order.is_object()) {
        out << "    the board restarts: code " << textOf(order, "code") << ", rank " << textOf(order, "rank")
            << ", load module \"" << textOf(order, "loadModule") << "\"\n";
    }
}

void writeServer(std::ostream& out, const json& server)
{
    out << "  " << textOf(server, "mailboxName") << ", mailbox " << textOf(server, "mailbox")
        << ", revisions " << numbersOf(memberOf(server, "revisions")) << ", "
        << memberOf(server, "connections").size() << " of " << textOf(server, "maxConnections")
        << " connections\n";
    for (const json& connection : memberOf(server, "connections")) {
        out << "    connection " << textOf(connection, "ref") << ": client "
            << textOf(connection, "clientRef") << " at " << textOf(connection, "clientMailbox")
            << ", revision " << textOf(connection, "revision") << "\n";
    }
    for (const json& source : memberOf(server, "timeSources")) {
        out << "    time source " << textOf(source, "ref") << ": connection "
            << textOf(source, "connectionRef") << ", " << textOf(source, "accuracy") << ", told "
            << utcText(memberOf(source, "toldTime")) << "\n";
    }
    for (const json& user : memberOf(server, "users")) {
        out << "    MMI user " << textOf(user, "id") << ": connection " << textOf(user, "connectionRef")
            << ", " << textOf(user, "priority") << "\n";
    }
    if (const json& utcTime = memberOf(server, "utcTime"); utcTime.is_object()) {
        out << "    board time " << utcText(memberOf(utcTime, "now")) << ", " << textOf(utcTime, "offset")
            << " s off the system's, from "
            << (memberOf(utcTime, "believedSource") == 0 ? "no source"
                                                         : "time source " + textOf(utcTime, "believedSource"))
            << "\n";
    }
    writeFaults(out, server);
    for (const json& sensor : memberOf(server, "temperatures")) {
        out << "    temperature ";
        writeTemperature(out, sensor);
    }
    for (const json& measurement : memberOf(server, "measurements")) {
        out << "    measurement " << textOf(measurement, "ref") << ": connection "
            << textOf(measurement, "connectionRef") << ", every " << textOf(measurement, "period") << " s\n";
    }
    writeMmi(out, server);
    writeLogAndRestart(out, server);
    writeFrames(out, server);
}

} // namespace

std::string brhdStatusText(const json& status)
{
    std::ostringstream out;
    writeHeading(out, status);
    writeServer(out, memberOf(status, "bri"));
    writeServer(out, memberOf(status, "bmmi"));
    writePlans(out, status);
    return out.str();
}

std::string legacydStatusText(const json& status)
{
    std::ostringstream out;
    writeHeading(out, status);
    out << "  " << textOf(status, "mailboxName") << ", mailbox " << textOf(status, "mailbox") << ", "
        << memberOf(status, "connections").size() << " connections\n";
    for (const json& connection : memberOf(status, "connections")) {
        out << "    connection " << textOf(connection, "serverRef") << ": client "
            << textOf(connection, "clientRef") << " at " << textOf(connection, "clientMailbox")
            << ", revision " << textOf(connection, "protocolRev") << "\n";
    }
    out << "    connections " << textOf(status, "confirmed") << " confirmed, " << textOf(status, "rejected")
        << " rejected; signals " << textOf(status, "echoed") << " echoed, "
        << textOf(status, "answeredByRule") << " answered by rules, " << textOf(status, "delayed")
        << " delayed, " << textOf(status, "dropped") << " dropped; " << textOf(status, "tooShort")
        << " too short, " << textOf(status, "strayAnswers") << " stray connection answers\n";
    for (const auto& [kind, count] : memberOf(status, "received").items()) {
        out << "    " << kind << " received " << count << "\n";
    }
    for (const json& rule : memberOf(status, "rules")) {
        out << "  rule: " << textOf(rule, "signal") << " is answered with " << textOf(rule, "number")
            << " and " << textOf(rule, "fieldBytes") << " bytes of fields\n";
    }
    writePlans(out, status);
    return out.str();
}

std::string swmdStatusText(const json& status)
{
    std::ostringstream out;
    writeHeading(out, status);
    out << "  " << textOf(status, "address") << ", revisions " << numbersOf(memberOf(status, "revisions"))
        << ", " << memberOf(status, "connections").size() << " connections, at most "
        << textOf(status, "maxConnections") << " established\n";
    for (const json& connection : memberOf(status, "connections")) {
        out << "    connection " << textOf(connection, "ref") << ": "
            << (memberOf(connection, "revision") == 0 ? "not established"
                                                      : "revision " + textOf(connection, "revision"))
            << "\n";
    }
    for (const json& ticket : memberOf(status, "tickets")) {
        out << "    ticket " << textOf(ticket, "ticket") << ": connection " << textOf(ticket, "connection")
            << (memberOf(ticket, "active") == true ? ", active" : ", waits") << "\n";
    }
    const json& store = memberOf(status, "store");
    out << "  store " << textOf(store, "place") << ", " << textOf(store, "slots") << " slots\n";
    for (const json& module : memberOf(store, "modules")) {
        out << "    slot " << textOf(module, "slot") << ": " << textOf(module, "software") << ", "
            << textOf(module, "type") << ", " << textOf(module, "size") << " bytes, "
            << textOf(module, "status") << ", " << textOf(module, "access")
            << (memberOf(module, "running") == true ? ", running" : "") << "\n";
    }
    if (store.contains("loadedBytes")) {
        out << "    a load is on its way, " << textOf(store, "loadedBytes") << " bytes so far\n";
    }
    if (const std::string lastLoad = textOf(store, "lastLoad"); !lastLoad.empty() && lastLoad != "-") {
        out << "    the last load: " << lastLoad << "\n";
    }
    writeFrames(out, status);
    writePlans(out, status);
    return out.str();
}

std::string faultsText(const json& faults)
{
    std::ostringstream out;
    for (const json& fault : faults) {
        writeFault(out, fault);
    }
    return faults.empty() ? "no active faults\n" : out.str();
}

std::string temperaturesText(const json& temperatures)
{
    std::ostringstream out;
    for (const json& sensor : temperatures) {
        writeTemperature(out, sensor);
    }
    return temperatures.empty() ? "no sensors\n" : out.str();
}

std::string ledsText(const json& lamps, bool isColoured)
{
    std::ostringstream out;
    writeLamps(out, lamps, isColoured);
    for (const json& lamp : lamps) {
        for (const json& led : memberOf(lamp, "leds")) {
            if (const std::string error = textOf(led, "error"); !error.empty()) {
                out << textOf(lamp, "lamp") << " cannot switch the LED " << textOf(led, "led") << ": "
                    << error << "\n";
            }
        }
    }
    return out.str();
}

std::string descriptionText(const std::string& origin, const json& description)
{
    std::ostringstream out;
    out << origin << "\n";
    for (const auto& [key, value] : description.items()) {
        if (!value.is_object()) {
            writeKey(out, key, value);
            continue;
        }
        for (const auto& [member, inner] : value.items()) {
            writeKey(out, std::string(key).append(".").append(member), inner);
        }
    }
    return out.str();
}

std::string kindsText(const json& kinds)
{
    std::ostringstream out;
    for (const json& kind : kinds) {
        out << textOf(kind, "kind") << ": delay, drop";
        if (memberOf(kind, "canAbort") == true) {
            out << ", abort";
        }
        if (memberOf(kind, "canRefuse") == true) {
            out << ", refuse";
        }
        std::string causes;
        for (const json& cause : memberOf(kind, "causes")) {
            causes += (causes.empty() ? "" : ", ") + (cause.is_string() ? cause.get<std::string>() : "");
        }
        if (!causes.empty()) {
            out << " (causes " << causes << (memberOf(kind, "freeCause") == true ? ", or any text" : "")
                << ")";
        }
        out << "\n";
    }
    return out.str();
}

} // namespace merlow::board
