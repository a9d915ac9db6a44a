#include "boardDescription.h"

#include "jsonFile.h"
#include "message.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace merlow::board {

using nlohmann::json;

namespace {

constexpr std::size_t largestFile = std::size_t{1} << 20U; // bytes; the platform reads no more either
constexpr std::size_t longestText = 255; // bytes; longer than any that clients are told whole
// bytes of a software's number, revision, and both with a character between: what clients have room for
constexpr std::size_t longestNumber = 27;
constexpr std::size_t longestRevision = 15;
constexpr std::size_t longestIdentity = 35;
constexpr std::size_t maxParameterSets = 32;     // more than clients are told of
constexpr std::int64_t largestParameter = 32767; // clients get 16 bits
constexpr std::size_t maxPlaces = 32;            // more than clients are told of
constexpr std::size_t longestPlace = 31;         // bytes
constexpr const char* machineSensors = "machine";
constexpr const char* simulatedSensors = "simulated";
constexpr std::int64_t longestNotice = 600'000;     // ms
constexpr std::int64_t longestHereIAm = 86'400'000; // ms
constexpr std::size_t maxLeds = 32;
constexpr std::int64_t largestBudget = 65536;
constexpr std::int64_t maxSlots = 64;
constexpr std::int64_t largestBlock = 262'000; // a message to the store's server has to hold it
constexpr std::int64_t largestModule = std::numeric_limits<std::uint32_t>::max();

/// The name of a member of the file, and of the struct.
template <class Struct, class Value> struct Member {
    const char* key;
    Value Struct::*member;
};

constexpr Member<ProductData, BoardText> productTexts[] = {
    {"productionDate", &ProductData::productionDate},
    {"name", &ProductData::name},
    {"number", &ProductData::number},
    {"revision", &ProductData::revision},
    {"manufacturer", &ProductData::manufacturer},
    {"serialNumber", &ProductData::serialNumber},
    {"extendedMarketName", &ProductData::extendedMarketName},
};

constexpr Member<ContainerData, BoardText> containerTexts[] = {
    {"productionDate", &ContainerData::productionDate},
    {"name", &ContainerData::name},
    {"number", &ContainerData::number},
    {"revision", &ContainerData::revision},
    {"manufacturer", &ContainerData::manufacturer},
    {"serialNumber", &ContainerData::serialNumber},
};

template <class Struct> struct Parameter {
    const char* key;
    std::int32_t Struct::*member;
    std::int64_t least = -largestParameter - 1;
};

constexpr Parameter<TemperatureRange> rangeNumbers[] = {
    {"lower", &TemperatureRange::lower},
    {"upper", &TemperatureRange::upper},
    {"hysteresis", &TemperatureRange::hysteresis, 0},
};

constexpr Parameter<Hotspot> hotspotNumbers[] = {
    {"sensor", &Hotspot::sensor},
    {"threshold", &Hotspot::threshold},
    {"hysteresis", &Hotspot::hysteresis, 0},
};

constexpr Member<BmmiDescription, bool> bmmiCapabilities[] = {
    {"SUPPORT_UNIT_FAULT_INDICATOR", &BmmiDescription::supportUnitFaultIndicator},
    {"HERE_I_AM", &BmmiDescription::hereIAm},
    {"COMMON_MMI", &BmmiDescription::commonMmi},
};

const std::vector<std::string> lampColours{"green", "yellow", "red", "blue", "white"};

/// The index of the name that `node` is; `kind` is what they name.
std::size_t indexOf(const JsonNode& node, const std::string& path, const std::vector<std::string>& names,
                    const std::string& kind = "capability")
{
    const auto found = std::find(names.begin(), names.end(), jsonText(node, path, longestText));
    if (found == names.end()) {
        throw JsonMistake(node.line, path,
                          node.value.dump() + " is no " + kind + "; there are " + commaList(names));
    }
    return static_cast<std::size_t>(found - names.begin());
}

/// Appends what a list may hold once only.
template <class Value>
void addOnce(std::vector<Value>& values, Value value, const JsonNode& node, const std::string& path)
{
    if (std::find(values.begin(), values.end(), value) != values.end()) {
        throw JsonMistake(node.line, path, node.value.dump() + " is there twice");
    }
    values.push_back(value);
}

/// A text or null; `standing` when the member is left out.
BoardText readText(JsonSection& file, const char* key, BoardText standing)
{
    const JsonNode* const node = file.take(key);
    if (node == nullptr) {
        return standing;
    }
    return node->value.is_null() ? std::nullopt
                                 : std::optional(jsonText(*node, file.pathOf(key), longestText));
}

template <class Struct, class Texts> void readTexts(JsonSection& file, Struct& texts, const Texts& members)
{
    for (const auto& [key, member] : members) {
        texts.*member = readText(file, key, texts.*member);
    }
}

/// What was beyond one limit must be back before it reaches the other.
void checkSet(JsonSection& section, const TemperatureRange& range)
{
    if (range.upper < range.lower) {
        throw JsonMistake(section.require("upper").line, section.pathOf("upper"), "is below the lower limit");
    }
    if (range.hysteresis > range.upper - range.lower) {
        throw JsonMistake(section.require("hysteresis").line, section.pathOf("hysteresis"),
                          std::to_string(range.hysteresis) +
                              " is wider than from the lower limit to the upper, " +
                              std::to_string(range.upper - range.lower));
    }
}

void checkSet(JsonSection& /*section*/, const Hotspot& /*hotspot*/) {}

/// A list of objects that have all of the numbers.
template <class Struct, class Numbers>
void readSets(JsonSection& file, const char* name, std::vector<Struct>& sets, const Numbers& members)
{
    std::vector<Struct> read;
    const bool there = file.list(name, maxParameterSets, [&](const JsonNode& node, const std::string& path) {
        JsonSection section(node, path);
        Struct set;
        for (const auto& [key, member, least] : members) {
            set.*member = static_cast<std::int32_t>(
                jsonNumber(section.require(key), section.pathOf(key), least, largestParameter));
        }
        section.finish();
        checkSet(section, set);
        read.push_back(set);
    });
    if (there) {
        sets = std::move(read);
    }
}

void readBri(JsonSection& file, BriDescription& bri)
{
    std::vector<std::uint32_t> capabilities;
    const auto read = [&](const JsonNode& node, const std::string& path) {
        addOnce(capabilities, static_cast<std::uint32_t>(indexOf(node, path, briCapabilityNames)), node,
                path);
    };
    if (file.list("capabilities", briCapabilityNames.size(), read)) {
        bri.capabilities = std::move(capabilities);
    }
    readSets(file, "temperatureRanges", bri.temperatureRanges, rangeNumbers);
    readSets(file, "hotspots", bri.hotspots, hotspotNumbers);
}

LedMapping readLed(const JsonNode& node, const std::string& path)
{
    JsonSection section(node, path);
    LedMapping mapping;
    mapping.lamp = static_cast<std::uint32_t>(
        indexOf(section.require("lamp"), section.pathOf("lamp"), lampNames, "lamp"));
    if (const JsonNode* colour = section.take("colour")) {
        mapping.colour =
            lampColours.at(indexOf(*colour, section.pathOf("colour"), lampColours, "colour of a lamp"));
    }
    const JsonNode& led = section.require("led");
    mapping.led = jsonText(led, section.pathOf("led"), longestText);
    if (mapping.led.empty() || mapping.led.front() == '.' || mapping.led.find('/') != std::string::npos) {
        throw JsonMistake(led.line, section.pathOf("led"), "is no name of an LED");
    }
    section.finish();
    return mapping;
}

void readLeds(JsonSection& file, std::vector<LedMapping>& leds)
{
    std::vector<LedMapping> read;
    const bool there = file.list("leds", maxLeds, [&](const JsonNode& node, const std::string& path) {
        LedMapping mapping = readLed(node, path);
        const auto isSame = [&mapping](const LedMapping& other) {
            return other.led == mapping.led;
        };
        if (std::any_of(read.begin(), read.end(), isSame)) { // the lamps would fight over it
            throw JsonMistake(node.line, path + ".led", "\"" + mapping.led + "\" is there twice");
        }
        read.push_back(std::move(mapping));
    });
    if (there) {
        leds = std::move(read);
    }
}

void readBmmi(JsonSection& file, BmmiDescription& bmmi)
{
    file.number("hereIAmMs", 1, longestHereIAm, bmmi.hereIAmMs);
    readLeds(file, bmmi.leds);
    std::vector<std::string> names;
    for (const auto& [key, member] : bmmiCapabilities) {
        names.emplace_back(key);
    }
    std::vector<std::size_t> capabilities;
    const auto read = [&](const JsonNode& node, const std::string& path) {
        addOnce(capabilities, indexOf(node, path, names), node, path);
    };
    if (file.list("capabilities", names.size(), read)) {
        for (const auto& [key, member] : bmmiCapabilities) {
            bmmi.*member = false;
        }
        for (const std::size_t index : capabilities) {
            bmmi.*bmmiCapabilities[index].member = true;
        }
    }
}

void readRestart(JsonSection& file, RestartDescription& restart)
{
    constexpr std::int64_t lastRank = 5;
    std::vector<std::uint32_t> ranks;
    const auto read = [&](const JsonNode& node, const std::string& path) {
        addOnce(ranks, static_cast<std::uint32_t>(jsonNumber(node, path, 1, lastRank)), node, path);
    };
    if (file.list("ranks", lastRank, read)) {
        restart.ranks = std::move(ranks);
    }
    file.number("noticeMs", 0, longestNotice, restart.noticeMs);
}

/// A sensor is named by its name or its number, so that no name may look like a number.
std::string placeName(JsonSection& file)
{
    const JsonNode& node = file.require("name");
    std::string name = jsonText(node, file.pathOf("name"), longestPlace);
    if (name.empty() || parseNumber(name)) {
        throw JsonMistake(node.line, file.pathOf("name"), "must be a text that is no number");
    }
    return name;
}

void readTemperature(JsonSection& file, TemperatureDescription& temperature)
{
    if (const JsonNode* sensors = file.take("sensors")) {
        const std::string text = jsonText(*sensors, file.pathOf("sensors"), longestText);
        if (text != machineSensors && text != simulatedSensors) {
            throw JsonMistake(sensors->line, file.pathOf("sensors"),
                              "must be \"machine\" or \"simulated\", not " + sensors->value.dump());
        }
        temperature.simulated = text == simulatedSensors;
    }
    std::vector<SensorDescription> places;
    const auto read = [&places](const JsonNode& node, const std::string& path) {
        JsonSection section(node, path);
        SensorDescription place{placeName(section), readText(section, "chip", {}),
                                readText(section, "label", {})};
        section.finish();
        if (place.label && !place.chip) {
            throw JsonMistake(node.line, path, "has a label and no chip that it is of");
        }
        if (std::any_of(places.begin(), places.end(),
                        [&place](const SensorDescription& known) { return known.name == place.name; })) {
            throw JsonMistake(node.line, path, "\"" + place.name + "\" is there twice");
        }
        places.push_back(std::move(place));
    };
    if (file.list("places", maxPlaces, read)) {
        temperature.places = std::move(places);
    }
}

void readHardwareLog(JsonSection& file, HardwareLogDescription& log)
{
    file.number("budgetBytes", 1, largestBudget, log.budgetBytes);
    const JsonNode* own = file.take("budgetBytesOf");
    if (own == nullptr) {
        return;
    }
    const JsonSection section(*own, file.pathOf("budgetBytesOf"));
    for (const JsonNode& node : own->children) {
        const auto number = parseNumber(node.name);
        if (!number || *number > maxLogNumber || std::to_string(*number) != node.name) {
            throw JsonMistake(node.line, section.pathOf(node.name),
                              "is no number of a log, \"0\" to \"999\"");
        }
        log.budgetBytesOf[*number] =
            static_cast<std::uint32_t>(jsonNumber(node, section.pathOf(node.name), 1, largestBudget));
    }
}

/// Part of a software's identity: it stands in names of files, in "NUMBER_REVISION" and in XML.
std::string identityText(JsonSection& file, const char* key, std::size_t most, const std::string& marks)
{
    const JsonNode& node = file.require(key);
    std::string text = jsonText(node, file.pathOf(key), most);
    const auto isKnown = [&](char c) {
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
               marks.find(c) != std::string::npos;
    };
    if (text.empty() || !std::all_of(text.begin(), text.end(), isKnown)) {
        throw JsonMistake(node.line, file.pathOf(key),
                          "must be made of letters, digits and \"" + marks + "\"");
    }
    return text;
}

SoftwareIdentity readIdentity(const JsonNode& node, const std::string& path)
{
    JsonSection section(node, path);
    SoftwareIdentity identity;
    identity.number = identityText(section, "number", longestNumber, "-./");
    identity.revision = identityText(section, "revision", longestRevision, "-.");
    section.finish();
    if (identity.number.size() + 1 + identity.revision.size() > longestIdentity) {
        throw JsonMistake(node.line, path,
                          "number and revision have more than " + std::to_string(longestIdentity - 1) +
                              " bytes together");
    }
    return identity;
}

void readStore(JsonSection& file, StoreDescription& store)
{
    file.number("slots", 1, maxSlots, store.slots);
    file.number("blockBytes", 1, largestBlock, store.blockBytes);
    file.number("moduleBytes", 1, largestModule, store.moduleBytes);
    if (const JsonNode* preinstalled = file.take("preinstalled")) {
        store.preinstalled = preinstalled->value.is_null()
                                 ? std::nullopt
                                 : std::optional(readIdentity(*preinstalled, file.pathOf("preinstalled")));
    }
}

void readPlatform(JsonSection& file, BoardDescription& board)
{
    // The platform takes a file without the list for a malformed one.
    const JsonNode& list = file.require("capabilities");
    board.capabilities.clear();
    constexpr std::size_t most = std::size_t{std::numeric_limits<std::uint16_t>::max()} + 1;
    const auto& ids = jsonList(list, "capabilities", most);
    for (std::size_t index = 0; index < ids.size(); ++index) {
        board.capabilities.push_back(static_cast<std::uint16_t>(
            jsonNumber(ids[index], "capabilities[" + std::to_string(index) + "]", 0, most - 1)));
    }
    if (const JsonNode* text = file.take("capabilityText")) {
        board.capabilityText = jsonText(*text, "capabilityText", longestText);
    }
}

BoardDescription readBoard(const JsonNode& root)
{
    BoardDescription board;
    JsonSection file(root, "");
    file.section("product", [&](JsonSection& section) { readTexts(section, board.product, productTexts); });
    file.section("container",
                 [&](JsonSection& section) { readTexts(section, board.container, containerTexts); });
    readPlatform(file, board);
    file.section("bri", [&](JsonSection& section) { readBri(section, board.bri); });
    file.section("bmmi", [&](JsonSection& section) { readBmmi(section, board.bmmi); });
    file.section("restart", [&](JsonSection& section) { readRestart(section, board.restart); });
    file.section("temperature", [&](JsonSection& section) { readTemperature(section, board.temperature); });
    file.section("hardwareLog", [&](JsonSection& section) { readHardwareLog(section, board.hardwareLog); });
    file.section("store", [&](JsonSection& section) { readStore(section, board.store); });
    file.finish();
    return board;
}

/// The whole of a regular file; what is wrong otherwise.
std::string readFile(const std::string& name, std::string& text)
{
    // Non-blocking, so that a pipe in the file's place does not stop the program before it is refused.
    const int fd = open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    const auto reason = [](int error) {
        return std::generic_category().message(error);
    };
    if (fd < 0) {
        return reason(errno);
    }
    std::string error;
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        error = reason(errno);
    } else if (!S_ISREG(status.st_mode)) {
        error = "not a regular file";
    } else {
        text.resize(largestFile + 1);
        std::size_t length = 0;
        ssize_t got = 1;
        while (got != 0 && length < text.size() && error.empty()) {
            got = read(fd, text.data() + length, text.size() - length);
            if (got >= 0) {
                length += static_cast<std::size_t>(got);
            } else if (errno != EINTR) {
                error = reason(errno);
            }
        }
        text.resize(length);
        if (length > largestFile) {
            error = "larger than " + std::to_string(largestFile) + " bytes";
        }
    }
    close(fd);
    return error;
}

template <class Struct, class Texts> json textsToJson(const Struct& texts, const Texts& members)
{
    json object = json::object();
    for (const auto& [key, member] : members) {
        object[key] = texts.*member ? json(*(texts.*member)) : json();
    }
    return object;
}

template <class Struct, class Numbers>
json setsToJson(const std::vector<Struct>& sets, const Numbers& members)
{
    json list = json::array();
    for (const Struct& set : sets) {
        json object;
        for (const auto& number : members) {
            object[number.key] = set.*number.member;
        }
        list.push_back(std::move(object));
    }
    return list;
}

json briToJson(const BriDescription& bri)
{
    json names = json::array();
    for (const std::uint32_t capability : bri.capabilities) {
        names.push_back(briCapabilityNames.at(capability));
    }
    return {{"capabilities", std::move(names)},
            {"temperatureRanges", setsToJson(bri.temperatureRanges, rangeNumbers)},
            {"hotspots", setsToJson(bri.hotspots, hotspotNumbers)}};
}

json bmmiToJson(const BmmiDescription& bmmi)
{
    json names = json::array();
    for (const auto& [key, member] : bmmiCapabilities) {
        if (bmmi.*member) {
            names.push_back(key);
        }
    }
    json leds = json::array();
    for (const LedMapping& mapping : bmmi.leds) {
        json led{{"lamp", lampNames.at(mapping.lamp)}, {"led", mapping.led}};
        if (mapping.colour) {
            led["colour"] = *mapping.colour;
        }
        leds.push_back(std::move(led));
    }
    return {{"capabilities", std::move(names)}, {"hereIAmMs", bmmi.hereIAmMs}, {"leds", std::move(leds)}};
}

json temperatureToJson(const TemperatureDescription& temperature)
{
    const auto valueOf = [](const BoardText& text) {
        return text ? json(*text) : json();
    };
    json places = json::array();
    for (const SensorDescription& place : temperature.places) {
        places.push_back(
            {{"name", place.name}, {"chip", valueOf(place.chip)}, {"label", valueOf(place.label)}});
    }
    return {{"sensors", temperature.simulated ? simulatedSensors : machineSensors},
            {"places", std::move(places)}};
}

json hardwareLogToJson(const HardwareLogDescription& log)
{
    json own = json::object();
    for (const auto& [number, budget] : log.budgetBytesOf) {
        own[std::to_string(number)] = budget;
    }
    return {{"budgetBytes", log.budgetBytes}, {"budgetBytesOf", std::move(own)}};
}

json storeToJson(const StoreDescription& store)
{
    json preinstalled;
    if (store.preinstalled) {
        preinstalled = {{"number", store.preinstalled->number}, {"revision", store.preinstalled->revision}};
    }
    return {{"slots", store.slots},
            {"blockBytes", store.blockBytes},
            {"moduleBytes", store.moduleBytes},
            {"preinstalled", std::move(preinstalled)}};
}

} // namespace

const std::vector<std::string> briCapabilityNames{
    "UTC_TIME",
    "HW_LOG",
    "PRODUCT_INVENTORY",
    "CONTAINER_PID",
    "INTEGRATED_HW_CATEGORY_1",
    "MARKET_PID",
    "EXTENDED_MARKET_PID",
    "NOTIFY_RESTART",
    "TEMPERATURE_LEVEL_MEASUREMENT",
    "CLIMATE_CONTROL",
    "RESTART_NOTIFICATION",
    "RESTART_RANK_LABEL",
    "EVENT_HISTORY",
};

const std::vector<std::string> lampNames{"group0", "group1", "group3", "group4", "supportUnit"};

std::uint32_t HardwareLogDescription::budgetOf(std::uint32_t log) const
{
    const auto own = budgetBytesOf.find(log);
    return own == budgetBytesOf.end() ? budgetBytes : own->second;
}

std::string LoadedBoard::origin() const
{
    return file.empty() ? "the built-in board description" : "the board description in " + file;
}

LoadedBoard loadBoardDescription()
{
    const char* name = std::getenv("MERLOW_BOARD_FILE");
    if (name == nullptr || *name == '\0') {
        return {};
    }
    std::string text;
    if (const std::string error = readFile(name, text); !error.empty()) {
        return {{}, name, name + (": " + error)};
    }
    return parseBoardDescription(text, name);
}

LoadedBoard parseBoardDescription(const std::string& text, const std::string& file)
{
    try {
        return {readBoard(parseJson(text)), file, ""};
    } catch (const JsonMistake& mistake) {
        return {{}, file, file + ":" + mistake.what()};
    }
}

json toJson(const BoardDescription& board)
{
    return {{"product", textsToJson(board.product, productTexts)},
            {"container", textsToJson(board.container, containerTexts)},
            {"capabilities", board.capabilities},
            {"capabilityText", board.capabilityText},
            {"bri", briToJson(board.bri)},
            {"bmmi", bmmiToJson(board.bmmi)},
            {"restart", {{"ranks", board.restart.ranks}, {"noticeMs", board.restart.noticeMs}}},
            {"temperature", temperatureToJson(board.temperature)},
            {"hardwareLog", hardwareLogToJson(board.hardwareLog)},
            {"store", storeToJson(board.store)}};
}

} // namespace merlow::board
