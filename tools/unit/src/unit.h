/// A whole unit on one machine: its parts, started in order, watched, ended in order.
#pragma once

#include "notifySocket.h"
#include "part.h"

#include <chrono>
#include <list>
#include <optional>
#include <string>
#include <vector>

namespace merlow::unit {

/// Runs until a signal asks for the end, a part dies, or the command is done. One thread, which has SIGINT,
/// SIGTERM, SIGHUP and SIGCHLD blocked.
class Unit {
public:
    struct Settings {
        std::string programDir; ///< where the parts' programs are
        std::string logFile;    ///< gets what the parts say; empty: that goes where the unit's goes
        std::vector<std::string>
            command; ///< runs once the unit is up, and the unit ends with it; may be empty
        std::chrono::seconds patience{30}; ///< for the start of a unit that is to run a command
    };

    explicit Unit(Settings settings);
    ~Unit();
    Unit(const Unit&) = delete;
    Unit& operator=(const Unit&) = delete;

    /// 0 when all went well up to the end that was asked for, the command's exit status if that is another,
    /// else 1.
    [[nodiscard]] int run();

private:
    enum class State { starting, up, ending };
    using TimePoint = std::chrono::steady_clock::time_point;

    [[nodiscard]] bool openDescriptors();
    [[nodiscard]] bool startParts();
    void watch();
    void handleSignals();
    void handleReports();
    void handleDeaths();
    void handleDeath(const Part& part, int waitStatus);
    void becomeUp();
    void sayHowToGoOn() const;
    void fail(const std::string& text);
    void end();
    void endPart(Part& part);
    /// Waits until `part` is over or the time is up; a second request to end cuts the wait short.
    void awaitEnd(Part& part, std::chrono::milliseconds limit);

    Settings m_settings;
    NotifySocket m_notifySocket;
    std::list<Part> m_parts; ///< in the order of their start
    Part* m_host = nullptr;  ///< the one that tells when the unit is up
    std::optional<Part> m_command;
    State m_state = State::starting;
    TimePoint m_startedAt = std::chrono::steady_clock::now();
    std::string m_lastStatus = "nothing yet";
    int m_signalFd = -1;
    int m_logFd = -1;
    int m_result = 0;
    bool m_isInHurry = false;
};

} // namespace merlow::unit
