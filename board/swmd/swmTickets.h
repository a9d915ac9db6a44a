/// Who may use the software store, and who waits for it.
#pragma once

#include "swmPeers.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace merlow::board {

struct SwmTicket {
    /// A component list on its way.
    struct Transfer {
        std::uint32_t procRef;
        std::string text;
        std::size_t sent = 0;
    };

    std::uint32_t number; ///< never 0
    ConnectionId connection;
    std::uint32_t procRef; ///< of the acquisition
    std::optional<Transfer> transfer{};
};

/// The tickets of the store in the order of their acquisition. The first one is active.
class SwmTickets {
public:
    enum class State : std::uint8_t { unknown, queued, active };

    /// The new ticket is the last one.
    const SwmTicket& add(ConnectionId connection, std::uint32_t procRef);
    /// Of a ticket as its connection sees it: that of another one is unknown.
    State stateOf(ConnectionId connection, std::uint32_t number) const;
    SwmTicket* active() { return m_queue.empty() ? nullptr : &m_queue.front(); }
    const std::deque<SwmTicket>& queue() const { return m_queue; }
    std::size_t countOf(ConnectionId connection) const;
    /// The number of the connection's ticket `number` or, when that is 0, of the first one that was acquired
    /// under `procRef`; 0 when there is none.
    std::uint32_t findFor(ConnectionId connection, std::uint32_t number, std::uint32_t procRef) const;
    void remove(std::uint32_t number);
    void removeAllOf(ConnectionId connection);

private:
    std::deque<SwmTicket> m_queue;
    std::uint32_t m_lastNumber = 0;
};

} // namespace merlow::board
