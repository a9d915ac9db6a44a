#include "boardSensors.h"

#include "control.h"
#include "hwmon.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace merlow::board {

using nlohmann::json;
using Result = ControlAnswer::Result;

namespace {

constexpr TemperatureRange rangeWithoutLimits{0, 500, 0};

/// As a simulated one: it has not been looked for in the machine yet.
BoardSensors::Sensor sensorOf(const BoardDescription& board, std::size_t number)
{
    BoardSensors::Sensor sensor{board.temperature.places[number], {}, "", 0, 0, 0};
    const auto& ranges = board.bri.temperatureRanges;
    if (number < ranges.size()) {
        sensor.limits = ranges[number];
    }
    // Well within the limits, hysteresis and all: a simulated board is healthy until somebody breaks it.
    const TemperatureRange range = sensor.limits.value_or(rangeWithoutLimits);
    const std::int32_t span = std::max(range.upper - range.lower, 0);
    sensor.lowest = range.lower + span * 3 / 10;
    sensor.highest = range.lower + span * 8 / 10;
    sensor.measured = range.lower + span * 6 / 10;
    return sensor;
}

} // namespace

std::string degreesText(std::int32_t tenths)
{
    constexpr std::int32_t tenthsInDegree = 10;
    return (tenths < 0 ? "-" : "") + std::to_string(std::abs(tenths / tenthsInDegree)) + "." +
           std::to_string(std::abs(tenths % tenthsInDegree));
}

BoardSensors::BoardSensors(const BoardDescription& board, std::string hwmonFolder, std::uint32_t seed)
    : m_hwmonFolder(std::move(hwmonFolder)), m_random(seed)
{
    for (std::size_t number = 0; number < board.temperature.places.size(); ++number) {
        Sensor sensor = sensorOf(board, number);
        const SensorDescription& description = sensor.description;
        if (!board.temperature.simulated && !m_hwmonFolder.empty() && description.chip) {
            const std::string input = findHwmonInput(m_hwmonFolder, *description.chip, description.label);
            if (const auto measured = readHwmonInput(input)) {
                sensor.input = input;
                sensor.measured = *measured;
            }
        }
        m_sensors.push_back(std::move(sensor));
    }
}

void BoardSensors::sample()
{
    for (Sensor& sensor : m_sensors) {
        if (sensor.input.empty()) {
            const auto step = static_cast<std::int32_t>(m_random() % 3) - 1;
            sensor.measured = std::clamp(sensor.measured + step, sensor.lowest, sensor.highest);
            continue;
        }
        auto measured = readHwmonInput(sensor.input);
        if (!measured) {
            // Chips have other numbers after their driver came back.
            const std::string input =
                findHwmonInput(m_hwmonFolder, *sensor.description.chip, sensor.description.label);
            measured = readHwmonInput(input);
            sensor.input = measured ? input : sensor.input;
        }
        sensor.measured = measured.value_or(sensor.measured);
    }
}

std::size_t BoardSensors::clearOverrides()
{
    std::size_t count = 0;
    for (Sensor& sensor : m_sensors) {
        count += sensor.override ? 1 : 0;
        sensor.override.reset();
    }
    return count;
}

BoardSensors::Sensor* BoardSensors::find(const std::string& sensor)
{
    if (const auto number = parseNumber(sensor); number && *number < m_sensors.size()) {
        return &m_sensors[*number];
    }
    const auto found = std::find_if(m_sensors.begin(), m_sensors.end(), [&sensor](const Sensor& candidate) {
        return candidate.description.name == sensor;
    });
    return found == m_sensors.end() ? nullptr : &*found;
}

ControlAnswer BoardSensors::control(const json& request)
{
    const std::string action = textMember(request, "action").value_or("");
    if (action == "list") {
        return {Result::done, "", toJson()};
    }
    if (action != "set" && action != "unset") {
        return {Result::usage, "the action is none of set, unset, list", {}};
    }
    const std::string wanted = textMember(request, "sensor").value_or("");
    Sensor* const sensor = find(wanted);
    if (sensor == nullptr) {
        std::vector<std::string> names;
        for (const Sensor& known : m_sensors) {
            names.push_back(known.description.name);
        }
        return {Result::notFound,
                "\"" + wanted + "\" is no sensor; there are " +
                    (names.empty() ? std::string("none") : commaList(names)),
                {}};
    }
    const std::string& name = sensor->description.name;
    if (action == "unset") {
        sensor->override.reset();
        return {Result::done, name + " measures again, " + degreesText(sensor->reading()), {}};
    }
    constexpr std::int64_t most = 32767; // readings have 16 bits
    const json tenths = request.value("tenths", json());
    if (!tenths.is_number_integer() || tenths.get<std::int64_t>() < -most - 1 ||
        tenths.get<std::int64_t>() > most) {
        return {Result::usage, "the temperature must be from -3276.8 to 3276.7 degrees", {}};
    }
    sensor->override = tenths.get<std::int32_t>();
    return {Result::done, name + " is at " + degreesText(sensor->reading()), {}};
}

json BoardSensors::toJson() const
{
    json list = json::array();
    for (std::size_t number = 0; number < m_sensors.size(); ++number) {
        const Sensor& sensor = m_sensors[number];
        json object{{"sensor", number},
                    {"name", sensor.description.name},
                    {"tenths", sensor.reading()},
                    {"source", sensor.override        ? "set"
                               : sensor.input.empty() ? "simulated"
                                                      : sensor.input}};
        if (sensor.limits) {
            object["lower"] = sensor.limits->lower;
            object["upper"] = sensor.limits->upper;
            object["hysteresis"] = sensor.limits->hysteresis;
        }
        list.push_back(std::move(object));
    }
    return list;
}

} // namespace merlow::board
