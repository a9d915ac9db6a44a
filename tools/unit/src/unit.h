/// A whole unit on one machine: its parts, started in order, kept up, ended in order.
#pragma once

#include "backOff.h"
#include "notifySocket.h"
#include "part.h"

#include <chrono>
#include <list>
#include <optional>
#include <string>
#include <vector>

namespace merlow::unit {

/// Runs until a signal asks for the end, the command is done, or the unit cannot come up. One thread, which
/// has SIGINT, SIGTERM, SIGHUP and SIGCHLD blocked.
///
///   a part ends            it is started again after a while, a longer one with each end in a row
///   the software server    the same, and the host behind it, which connects to it only once
///   a part ends with       all parts are ended and started again
///   boardRestartStatus
///
/// Before the unit was up, a neighbour that ends by itself ends the unit: it would do so again. The host may
/// have been too quick for its neighbours, so that it has some attempts.
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
    using milliseconds = std::chrono::milliseconds;

    struct Supervised {
        explicit Supervised(Part child) : part(std::move(child)) {}

        Part part;
        TimePoint startedAt{};
        BackOff backOff;
        std::optional<TimePoint> startAgainAt; ///< it has ended, and this is when it comes back
        bool isToEnd = false;                  ///< its end is what it was asked for
    };

    [[nodiscard]] bool openDescriptors();
    [[nodiscard]] bool startParts();
    [[nodiscard]] bool start(Supervised& supervised);
    void watch();
    /// Until something is to be done without a signal or a report; nothing for never.
    [[nodiscard]] std::optional<milliseconds> timeLeft() const;
    void handleSignals();
    void handleReports();
    void handleDeaths();
    void handleDeath(Supervised& supervised, int waitStatus);
    void startLater(Supervised& supervised, const std::string& whatHappened);
    [[nodiscard]] bool isHopeless(const Supervised& supervised, int waitStatus) const;
    void startDueParts();
    void startAgain(Supervised& supervised);
    void restartBoard();
    void becomeUp();
    void sayHowToGoOn() const;
    [[nodiscard]] std::string whereItsWordsAre() const;
    void fail(const std::string& text);
    void end();
    void endSupervised(Supervised& supervised);
    void endPart(Part& part);
    /// Waits until `part` is over or the time is up; a second request to end cuts the wait short.
    void awaitEnd(Part& part, milliseconds limit);

    Settings m_settings;
    NotifySocket m_notifySocket;
    std::list<Supervised> m_parts; ///< in the order of their start
    Supervised* m_host = nullptr;  ///< the one that tells when the unit is up
    std::optional<Part> m_command;
    State m_state = State::starting;
    TimePoint m_startedAt = std::chrono::steady_clock::now();
    TimePoint m_downSince{}; ///< when the host, once up, ended or was asked to
    bool m_doesBoardRestart = false;
    TimePoint m_boardStartedAt = m_startedAt;
    BackOff m_boardBackOff;
    std::string m_lastStatus = "nothing yet";
    int m_signalFd = -1;
    int m_logFd = -1;
    int m_result = 0;
    bool m_isInHurry = false;
};

} // namespace merlow::unit
