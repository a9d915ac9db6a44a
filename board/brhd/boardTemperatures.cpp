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
    // A fault that is left of an earlier process does not tell which sensors were beyond.
    for (Limit* const limit : {&m_upper, &m_lower}) {
        for (std::size_t number = 0;
             m_faults.measuredCase(limit->fault) && number < m_sensors.sensors().size(); ++number) {
            limit->beyond.insert(number);
        }
    }
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
    checkLimit(m_upper,
               [](std::int32_t reading, const TemperatureRange& limits) { return reading - limits.upper; });
    checkLimit(m_lower,
               [](std::int32_t reading, const TemperatureRange& limits) { return limits.lower - reading; });
}

void BoardTemperatures::checkLimit(Limit& limit, Excess excessOf)
{
    const auto& sensors = m_sensors.sensors();
    for (std::size_t number = 0; number < sensors.size(); ++number) {
        const auto& limits = sensors[number].limits;
        const std::int32_t excess = limits ? excessOf(sensors[number].reading(), *limits) : 0;
        if (!limits || (excess <= 0 && excess <= -limits->hysteresis)) {
            limit.beyond.erase(number);
        } else if (excess > 0) {
            limit.beyond.insert(number);
            if (!m_faults.measuredCase(limit.fault)) {
                // Refused for too many faults, it is tried again a second later.
                (void)m_faults.raiseMeasured(limit.fault, static_cast<std::uint32_t>(number));
            }
        }
    }
    if (limit.beyond.empty()) {
        m_faults.ceaseMeasured(limit.fault);
        return;
    }
    const auto named = m_faults.measuredCase(limit.fault);
    if (named && !limit.beyond.contains(*named) &&
        m_faults.raiseMeasured(limit.fault, static_cast<std::uint32_t>(*limit.beyond.begin()))) {
        m_faults.ceaseMeasured(limit.fault); // the first of them, so that there is one all the time
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
