/// The host process of the server: starts it, watches it, reports on it, stops it.
#pragma once

#include "watch.h"

#include <chrono>
#include <optional>
#include <string>

namespace merlow::merlowd {

/// What a result code of the server means.
std::string meaningOf(int result);

/// The server as its host handles it.
class Server {
public:
    virtual ~Server() = default;
    /// False when it could not be started. Failures after that show in its mailboxes.
    [[nodiscard]] virtual bool start() = 0;
    /// Asks it to end, waits for that, and gives its result code.
    [[nodiscard]] virtual int stop() = 0;
};

/// How long the host waits before it gives up.
struct Patience {
    std::chrono::milliseconds start{10000}; ///< for the private mailbox
    std::chrono::milliseconds stop{
        10000}; ///< for the server's end; then the process ends without its consent
};

/// Reports go to standard error, one line each, and to the service manager if there is one. Belongs to the
/// main thread, and has SIGTERM and SIGINT blocked there before the server's thread comes.
class Host {
public:
    explicit Host(Server& server, Patience patience = {}) : m_server(server), m_patience(patience) {}
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    /// Runs the server until a signal asks for its end (0), or it could not start or ended by itself (1).
    [[nodiscard]] int run();

private:
    using TimePoint = std::chrono::steady_clock::time_point;

    [[nodiscard]] bool prepare();
    /// No other unit has this one's place.
    [[nodiscard]] bool isAlone();
    /// The process's exit status when it ends before the SWM server is there.
    [[nodiscard]] std::optional<int> awaitSwmServer();
    [[nodiscard]] bool startServer();
    [[nodiscard]] int watchServer();
    /// False when the server is no more.
    [[nodiscard]] bool handle(Watch::Change change);
    void sayWhatIsWaitedFor();
    [[nodiscard]] int stopServer();
    [[nodiscard]] int resultOfServer();
    [[nodiscard]] int millisecondsToNextWord() const;

    Server& m_server;
    Patience m_patience;
    Watch m_watch;
    TimePoint m_startDeadline;
    TimePoint m_nextWord;
    int m_signalFd = -1;
    bool m_wasPublished = false;
};

} // namespace merlow::merlowd
