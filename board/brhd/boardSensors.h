/// The board's temperature sensors: the machine's where it has them, simulated ones otherwise.
#pragma once

#include "boardDescription.h"
#include "service.h"

#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

namespace merlow::board {

/// Temperatures are tenths of a degree Celsius. A sensor's limits are the temperature range of its number.
///
/// Simulated temperatures walk slowly and at random in the middle of their range. One of the machine that can
/// no longer be read stays as it was read last. An override stands until it is taken back.
class BoardSensors {
public:
    struct Sensor {
        SensorDescription description;
        std::optional<TemperatureRange> limits;
        std::string input;     ///< the machine's file; empty for a simulated one
        std::int32_t lowest;   ///< of the walk
        std::int32_t highest;  ///< of the walk
        std::int32_t measured; ///< what it would tell without an override
        std::optional<std::int32_t> override{};

        std::int32_t reading() const { return override.value_or(measured); }
    };

    /// `hwmonFolder` is the kernel's hwmon class; an empty one makes every sensor a simulated one.
    BoardSensors(const BoardDescription& board, std::string hwmonFolder, std::uint32_t seed);

    const std::vector<Sensor>& sensors() const { return m_sensors; }

    /// Measures once more: to be called once a second.
    void sample();

    /// Gives how many there were.
    std::size_t clearOverrides();

    /// {"action": "set", "sensor": NUMBER or NAME, "tenths": N}, {"action": "unset", "sensor": ...},
    /// {"action": "list"}
    ControlAnswer control(const nlohmann::json& request);

    nlohmann::json toJson() const;

private:
    Sensor* find(const std::string& sensor);

    std::string m_hwmonFolder;
    std::minstd_rand m_random;
    std::vector<Sensor> m_sensors;
};

/// "21.5" for 215.
std::string degreesText(std::int32_t tenths);

} // namespace merlow::board
