#include "swmTickets.h"

#include <algorithm>

namespace merlow::board {

const SwmTicket& SwmTickets::add(ConnectionId connection, std::uint32_t procRef)
{
    do {
        ++m_lastNumber;
    } while (m_lastNumber == 0 || std::any_of(m_queue.begin(), m_queue.end(), [this](const auto& ticket) {
                 return ticket.number == m_lastNumber;
             }));
    return m_queue.emplace_back(SwmTicket{m_lastNumber, connection, procRef});
}

SwmTickets::State SwmTickets::stateOf(ConnectionId connection, std::uint32_t number) const
{
    for (const SwmTicket& ticket : m_queue) {
        if (ticket.number == number && ticket.connection == connection) {
            return &ticket == &m_queue.front() ? State::active : State::queued;
        }
    }
    return State::unknown;
}

std::size_t SwmTickets::countOf(ConnectionId connection) const
{
    return static_cast<std::size_t>(std::count_if(
        m_queue.begin(), m_queue.end(), [&](const auto& ticket) { return ticket.connection == connection; }));
}

std::uint32_t SwmTickets::findFor(ConnectionId connection, std::uint32_t number, std::uint32_t procRef) const
{
    const auto found = std::find_if(m_queue.begin(), m_queue.end(), [&](const auto& ticket) {
        return ticket.connection == connection &&
               (number != 0 ? ticket.number == number : ticket.procRef == procRef);
    });
    return found == m_queue.end() ? 0 : found->number;
}

void SwmTickets::remove(std::uint32_t number)
{
    std::erase_if(m_queue, [number](const SwmTicket& ticket) { return ticket.number == number; });
}

void SwmTickets::removeAllOf(ConnectionId connection)
{
    std::erase_if(m_queue, [connection](const SwmTicket& ticket) { return ticket.connection == connection; });
}

} // namespace merlow::board
