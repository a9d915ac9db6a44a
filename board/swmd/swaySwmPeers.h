#pragma once

#include "delayQueue.h"
#include "swmPeers.h"

#include <map>
#include <memory>
#include <set>
#include <string>
#include <sway.h>

namespace merlow::board {

class SwmServer;

/// The SWM server's connections as message sockets on the event loop of the calling thread.
///
/// A connection that cannot take what it is sent is closed: its client does not read, and would never hear of
/// it otherwise.
class SwaySwmPeers : public SwmPeers {
public:
    explicit SwaySwmPeers(Log& log);
    ~SwaySwmPeers() override;
    SwaySwmPeers(const SwaySwmPeers&) = delete;
    SwaySwmPeers& operator=(const SwaySwmPeers&) = delete;

    /// Listens, and serves connections from here on with `server`, which outlives this object's service.
    /// Gives what went wrong, empty when nothing did.
    [[nodiscard]] std::string serve(const std::string& address, SwmServer& server);

    void send(ConnectionId to, BytesView frame) override;
    void sendAfter(std::chrono::milliseconds delay, ConnectionId to, Bytes frame) override;
    void close(ConnectionId connection) override;
    [[nodiscard]] bool logs(LogLevel level) const override { return m_log.logs(level); }
    void log(LogLevel level, const char* file, unsigned line, const std::string& text) override
    {
        m_log.log(level, file, line, text);
    }

private:
    struct CloseSocket {
        void operator()(sway_socket* socket) const { sway_close(socket); }
    };
    using Socket = std::unique_ptr<sway_socket, CloseSocket>;
    struct Delayed {
        ConnectionId to;
        Bytes frame;
    };

    /// At a time, established or not; one more is closed at once.
    static constexpr std::size_t maxSockets = 256;

    void handleListener();
    void handleConnection(ConnectionId connection);
    void endBroken();

    Log& m_log;
    SwmServer* m_server = nullptr;
    Socket m_listener;
    std::map<ConnectionId, Socket> m_sockets;
    std::set<ConnectionId> m_broken; ///< to be ended when the server is done with what it has in hand
    ConnectionId m_lastConnection = 0;
    Bytes m_frame; ///< what is received
    DelayQueue<Delayed> m_delayed;
};

} // namespace merlow::board
