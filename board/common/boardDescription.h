/// What the reference board is: the JSON file that `MERLOW_BOARD_FILE` names, or the built-in board.
///
/// docs/board.md has its keys. The platform reads the same file for what the unit can do
/// (`getCapabilitiesV2`), so those two keys stand at its top level.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace merlow::board {

/// A text that is nothing is one that the board does not tell.
using BoardText = std::optional<std::string>;

/// The unit; defaults are the built-in one's.
struct ProductData {
    BoardText productionDate = "20240131";
    BoardText name = "MLU 3020";
    BoardText number = "QDA 704 1/1";
    BoardText revision = "R1A";
    BoardText manufacturer = "Merlow";
    BoardText serialNumber = "M000000001";
    BoardText extendedMarketName = "Merlow Reference Unit 3020";

    bool operator==(const ProductData&) const = default;
};

/// What the unit sits in.
struct ContainerData {
    BoardText productionDate = "20240115";
    BoardText name = "MLU Cabinet 2";
    BoardText number = "MRB 200 2/1";
    BoardText revision = "R2B";
    BoardText manufacturer = "Merlow";
    BoardText serialNumber = "C000000001";

    bool operator==(const ContainerData&) const = default;
};

/// Tenths of a degree Celsius.
struct TemperatureRange {
    std::int32_t lower = 0;
    std::int32_t upper = 0;
    std::int32_t hysteresis = 0;

    bool operator==(const TemperatureRange&) const = default;
};

/// `sensor` is a number of a sensor, the others tenths of a degree Celsius.
struct Hotspot {
    std::int32_t sensor = 0;
    std::int32_t threshold = 0;
    std::int32_t hysteresis = 0;

    bool operator==(const Hotspot&) const = default;
};

/// What BRI announces.
struct BriDescription {
    /// Indices in `briCapabilityNames`, in the order of the file.
    std::vector<std::uint32_t> capabilities{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    std::vector<TemperatureRange> temperatureRanges{{-330, 550, 20}, {0, 850, 30}};
    std::vector<Hotspot> hotspots{{0, 850, 30}, {1, 950, 30}};

    bool operator==(const BriDescription&) const = default;
};

/// A lamp of the board that an LED of the machine shows.
struct LedMapping {
    std::uint32_t lamp = 0; ///< its index in `lampNames`
    BoardText colour;       ///< the one that lights the LED; without one all do
    std::string led;        ///< its name in the kernel's LED class

    bool operator==(const LedMapping&) const = default;
};

/// What BMMI announces, and how the board's MMI behaves.
struct BmmiDescription {
    bool supportUnitFaultIndicator = true;
    bool hereIAm = true;
    bool commonMmi = true;
    std::uint32_t hereIAmMs = 60'000; ///< after which Here I Am ends by itself
    std::vector<LedMapping> leds{};

    bool operator==(const BmmiDescription&) const = default;
};

struct RestartDescription {
    std::vector<std::uint32_t> ranks{1, 2, 3, 4, 5}; ///< that the board has, in the order of the file
    std::uint32_t noticeMs = 1000; ///< from the order, which clients are told of, to the restart

    bool operator==(const RestartDescription&) const = default;
};

/// An entry takes its bytes and one more. The default is what one reading by a client can carry.
struct HardwareLogDescription {
    std::uint32_t budgetBytes = 424;                      ///< of each log that has none of its own
    std::map<std::uint32_t, std::uint32_t> budgetBytesOf; ///< by number

    std::uint32_t budgetOf(std::uint32_t log) const;
    bool operator==(const HardwareLogDescription&) const = default;
};

/// What names a load module.
struct SoftwareIdentity {
    std::string number;
    std::string revision;

    bool operator==(const SoftwareIdentity&) const = default;
};

/// The software store.
struct StoreDescription {
    std::uint32_t slots = 4;               ///< for modules that are loaded; the preinstalled one has its own
    std::uint32_t blockBytes = 65536;      ///< that the store wants a module to be loaded in
    std::uint32_t moduleBytes = 536870912; ///< the largest module that is taken
    std::optional<SoftwareIdentity> preinstalled = SoftwareIdentity{"QXR7041162/15", "R91KT"};

    bool operator==(const StoreDescription&) const = default;
};

/// A place whose temperature the board measures; its number is that of its place in the list.
struct SensorDescription {
    std::string name;
    BoardText chip;  ///< of the machine, by its name in the kernel's hwmon class; without one it is simulated
    BoardText label; ///< of the chip's sensor; without one it is the first

    bool operator==(const SensorDescription&) const = default;
};

struct TemperatureDescription {
    bool simulated = false; ///< all of them, whatever the machine has
    std::vector<SensorDescription> places{{"board", {}, {}}, {"processor", "coretemp", "Package id 0"}};

    bool operator==(const TemperatureDescription&) const = default;
};

struct BoardDescription {
    ProductData product;
    ContainerData container;
    std::vector<std::uint16_t> capabilities{3, 24, 26, 28, 35, 36}; ///< ids that the platform announces
    std::string capabilityText = "MERLOW";                          ///< that of id 35
    BriDescription bri;
    BmmiDescription bmmi;
    RestartDescription restart;
    TemperatureDescription temperature;
    HardwareLogDescription hardwareLog;
    StoreDescription store;

    bool operator==(const BoardDescription&) const = default;
};

constexpr std::uint32_t maxLogNumber = 999;

/// The names of BRI's capabilities in the file, by their value in the schema.
extern const std::vector<std::string> briCapabilityNames;

/// The names of the board's lamps in the file.
constexpr std::size_t lampCount = 5;
extern const std::vector<std::string> lampNames;

/// A description and where it came from, or what is wrong with it.
struct LoadedBoard {
    BoardDescription description;
    std::string file;  ///< its name; empty for the built-in one
    std::string error; ///< "FILE:LINE: KEY: REASON" or "FILE: REASON"; empty when there is none

    /// For people: the built-in one, or that of a file.
    std::string origin() const;
};

/// The description that is in force. Reads the file that `MERLOW_BOARD_FILE` names; without the variable, or
/// with an empty one, it is the built-in one.
LoadedBoard loadBoardDescription();

/// The description that `text`, the content of `file`, spells.
LoadedBoard parseBoardDescription(const std::string& text, const std::string& file);

/// In the form of the file, with all keys.
nlohmann::json toJson(const BoardDescription& board);

} // namespace merlow::board
