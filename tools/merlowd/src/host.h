/// The host process of the server: starts it, watches it, reports on it, stops it.
#pragma once

#include "watch.h"

#include <chrono>
#include <string>

namespace merlow::merlowd {

/// What a result code of the server means.
std::string meaningOf(int result);

/// Reports go to standard error, one line each, and to the service manager if there is one. Belongs to the
/// main thread, and has SIGTERM and SIGINT blocked there before the server's thread comes.
class Host {
public:
    ~Host();

    /// Runs the server until a signal asks for its end (0), or it could not start or ended by itself (1).
    [[nodiscard]] int run();

private:
    using TimePoint = std::chrono::steady_clock::time_point;

    [[nodiscard]] bool prepare();
    [[nodiscard]] bool startServer();
    [[nodiscard]] int watchServer();
    /// False when the server is no more.
    [[nodiscard]] bool handle(Watch::Change change);
    void sayWhatIsWaitedFor();
    [[nodiscard]] int stopServer();
    [[nodiscard]] int millisecondsToNextWord() const;

    Watch m_watch;
    TimePoint m_startDeadline;
    TimePoint m_nextWord;
    int m_signalFd = -1;
    bool m_wasPublished = false;
};

} // namespace merlow::merlowd
