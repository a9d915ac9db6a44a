#include "boardTemperatures.h"

#include <chrono>
#include <utility>
#include <vector>

namespace merlow::board {

namespace bri = boardresourcehandler::bri;
using nlohmann::json;

BoardTemperatures::BoardTemperatures(BoardSensors sensors, BoardFaults& faults, Outbox& outbox, Send send)
    : m_sensors(std::move(sensors)), m_faults(faults), m_outbox(outbox), m_send(std::move(send))
{
}

void BoardTemperatures::begin()
{
    checkLimits();
    work();
}

void BoardTemperatures::work()
{
    if (!m_outbox.runAfter(std::chrono::seconds(1), [this] {
            m_sensors.sample();
            checkLimits();
            serveMeasurements();
            work();
        })) {
        BOARD_LOG(m_outbox, LogLevel::error, "the board's clock has stopped: no temperature is measured");
    }
}

void BoardTemperatures::checkLimits()
{
    checkLimit(bri::EXCEPTIONAL_TEMPERATURE_TOO_HIGH,
               [](std::int32_t reading, const TemperatureRange& limits) { return reading - limits.upper; });
    checkLimit(bri::EXCEPTIONAL_TEMPERATURE_TOO_LOW,
               [](std::int32_t reading, const TemperatureRange& limits) { return limits.lower - reading; });
}

void BoardTemperatures::checkLimit(FaultId id, Excess excessOf)
{
    const auto& sensors = m_sensors.sensors();
    bool isAllBack = true;
    for (std::size_t number = 0; number < sensors.size(); ++number) {
        const auto& limits = sensors[number].limits;
        if (!limits) {
            continue;
        }
        const std::int32_t excess = excessOf(sensors[number].reading(), *limits);
        isAllBack = isAllBack && excess <= -limits->hysteresis;
        if (excess > 0 && !m_faults.isMeasured(id)) {
            // Refused for too many faults, it is tried again a second later.
            (void)m_faults.raiseMeasured(id, static_cast<std::uint32_t>(number));
        }
    }
    if (isAllBack) {
        m_faults.ceaseMeasured(id);
    }
}

void BoardTemperatures::serveMeasurements()
{
    bri::TempMeasInd ind;
    for (const BoardSensors::Sensor& sensor : m_sensors.sensors()) {
        ind.add_temperatures(sensor.reading());
    }
    m_measurements.forEach([&](Measurement& measurement) {
        if (--measurement.left == 0) {
            measurement.left = measurement.period;
            m_send(measurement.connection, measurement.procedureRef, ind);
        }
    });
}

std::optional<std::uint32_t> BoardTemperatures::start(const BrhConnection& connection, std::uint32_t period)
{
    return m_measurements.add(connection.ref, {connection, 0, period, period});
}

void BoardTemperatures::confirmed(std::uint32_t connectionRef, std::uint32_t ref, std::uint32_t procedureRef)
{
    if (Measurement* const measurement = m_measurements.find(connectionRef, ref)) {
        measurement->procedureRef = procedureRef;
    }
}

bool BoardTemperatures::restart(std::uint32_t connectionRef, std::uint32_t ref, std::uint32_t period)
{
    Measurement* const measurement = m_measurements.find(connectionRef, ref);
    if (measurement == nullptr) {
        return false;
    }
    measurement->period = period;
    measurement->left = period;
    return true;
}

bool BoardTemperatures::stop(std::uint32_t connectionRef, std::uint32_t ref)
{
    return m_measurements.remove(connectionRef, ref);
}

void BoardTemperatures::connectionEnded(std::uint32_t connectionRef)
{
    m_measurements.removeAllOf(connectionRef);
}

ControlAnswer BoardTemperatures::control(const json& request)
{
    ControlAnswer answer = m_sensors.control(request);
    checkLimits();
    return answer;
}

std::size_t BoardTemperatures::clear()
{
    const std::size_t count = m_sensors.clearOverrides();
    checkLimits();
    return count;
}

void BoardTemperatures::addStatus(json& status) const
{
    status["temperatures"] = m_sensors.toJson();
    json& measurements = status["measurements"] = json::array();
    for (const auto& [ref, entry] : m_measurements.entries()) {
        measurements.push_back({{"ref", ref},
                                {"connectionRef", entry.connectionRef},
                                {"procedureRef", entry.value.procedureRef},
                                {"period", entry.value.period}});
    }
}

} // namespace merlow::board
