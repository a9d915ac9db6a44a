/// The board's temperatures: who has them measured, and what becomes of one that is out of bounds.
#pragma once

#include "boardFaults.h"
#include "boardSensors.h"
#include "brhServer.h"
#include "refTable.h"

#include <bri.pb.h>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

namespace merlow::board {

/// Works once a second of the board's clock: measures, looks after the limits, then serves the measurements
/// whose period is over.
///
///   a reading above its upper limit  -> the fault EXCEPTIONAL_TEMPERATURE_TOO_HIGH, its case is the sensor
///   a reading below its lower limit  -> the fault EXCEPTIONAL_TEMPERATURE_TOO_LOW
///   that sensor is back by its hysteresis -> the fault ceases, or is another sensor's that is still beyond
///
/// A measurement ends when it is stopped or with its connection.
class BoardTemperatures {
public:
    static constexpr std::uint32_t longestPeriod = 30; // seconds; the shortest is 1

    struct Measurement {
        BrhConnection connection;
        std::uint32_t procedureRef = 0; ///< of the start; 0 until that is confirmed
        std::uint32_t period = 0;       ///< seconds
        std::uint32_t left = 0;         ///< seconds until the next reading
    };

    /// Sends to a client under the reference of its measurement.
    using Send = std::function<void(const BrhConnection&, std::uint32_t procedureRef,
                                    const boardresourcehandler::bri::TempMeasInd&)>;

    /// `faults` lives longer.
    BoardTemperatures(BoardSensors sensors, BoardFaults& faults, Outbox& outbox, Send send);

    /// From here on it works.
    void begin();

    static bool isPeriod(std::uint32_t period) { return period >= 1 && period <= longestPeriod; }
    /// The new measurement's reference; nothing when the connection has too many. The period is a good one.
    std::optional<std::uint32_t> start(const BrhConnection& connection, std::uint32_t period);
    /// The start has been answered: readings go out under this reference from here on.
    void confirmed(std::uint32_t connectionRef, std::uint32_t ref, std::uint32_t procedureRef);
    /// False for a reference that the connection does not hold. The period, a good one, begins anew.
    [[nodiscard]] bool restart(std::uint32_t connectionRef, std::uint32_t ref, std::uint32_t period);
    /// False for a reference that the connection does not hold.
    [[nodiscard]] bool stop(std::uint32_t connectionRef, std::uint32_t ref);
    void connectionEnded(std::uint32_t connectionRef);

    /// As `BoardSensors::control`; what it changes counts at once.
    ControlAnswer control(const nlohmann::json& request);
    /// Takes all overrides back; gives how many there were.
    std::size_t clear();

    /// Adds "temperatures" and "measurements".
    void addStatus(nlohmann::json& status) const;

private:
    using FaultId = boardresourcehandler::bri::BriFaultId;

    /// By how much a reading is beyond a limit.
    using Excess = std::int32_t (*)(std::int32_t reading, const TemperatureRange& limits);

    /// One direction.
    struct Limit {
        FaultId fault;
        std::set<std::size_t> beyond; ///< the sensors that went beyond and are not back by their hysteresis
    };

    void work();
    void checkLimits();
    void checkLimit(Limit& limit, Excess excessOf);
    void serveMeasurements();

    BoardSensors m_sensors;
    BoardFaults& m_faults;
    Outbox& m_outbox;
    Send m_send;
    Limit m_upper{boardresourcehandler::bri::EXCEPTIONAL_TEMPERATURE_TOO_HIGH, {}};
    Limit m_lower{boardresourcehandler::bri::EXCEPTIONAL_TEMPERATURE_TOO_LOW, {}};
    RefTable<Measurement> m_measurements;
};

} // namespace merlow::board
