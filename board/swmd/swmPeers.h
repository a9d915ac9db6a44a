/// Who is connected to the SWM server, as its protocol logic sees them: numbered connections that take
/// frames.
#pragma once

#include "message.h"
#include "outbox.h"

#include <chrono>
#include <cstdint>

namespace merlow::board {

/// Never used again, also for a later connection of the same client.
using ConnectionId = std::uint32_t;

/// The daemon implements it on message sockets, the unit tests in memory. Nothing here calls the server back:
/// that a connection has ended it hears later, once. What is sent to a connection that is gone is lost.
class SwmPeers : public Log {
public:
    virtual void send(ConnectionId to, BytesView frame) = 0;
    /// Frames without a delay overtake it.
    virtual void sendAfter(std::chrono::milliseconds delay, ConnectionId to, Bytes frame) = 0;
    /// Ends a connection. The server does not hear of it again.
    virtual void close(ConnectionId connection) = 0;
};

} // namespace merlow::board
