#pragma once

#include "fakeMnet.h"
#include "random.h"
#include "signal.h"

#include <deque>
#include <optional>
#include <string>

namespace sim {

using support::Received;

/// How a run treats its unit; drawn from the seed, so that some runs are calm and some are not. Percentages.
struct Weather {
    unsigned int serverShare = 45; ///< of the steps
    unsigned int refusals = 10;    ///< of requests that a neighbour answers
    unsigned int silence = 3;      ///< of requests that it never answers
    unsigned int lateness = 30;    ///< of answers
    unsigned int repeats = 3;      ///< of a neighbour's steps: what it said before, again
    unsigned int garbage = 3;      ///< of anybody's steps
    unsigned int deaths = 2;       ///< of all steps
    unsigned int strangers = 5;    ///< of clients' first words that are not for a connection
    std::uint64_t kinds = ~0ULL;   ///< of requests that clients send, one bit each

    static Weather drawn(Random& random);
    /// Everybody answers everything at once.
    static Weather calm();
};

/// A process with one mailbox beside the server.
class Peer {
public:
    /// Comes up under `name`, or, empty, without one.
    void start(const std::string& name);
    void die();
    [[nodiscard]] bool isUp() const { return m_mbox != MNET_MBOX_NONE; }
    [[nodiscard]] mnet_mbox_id_t mbox() const { return m_mbox; }
    [[nodiscard]] bool hasMessage() const;
    [[nodiscard]] std::optional<Received> receive() const;
    /// What is sent to nobody is lost.
    void send(const Bytes& bytes, mnet_mbox_id_t to) const;

private:
    support::FakeMnet::Process m_process = -1;
    mnet_mbox_id_t m_mbox = MNET_MBOX_NONE;
};

/// What a neighbour will say later, and what it said: so that it can be late, and repeat itself.
template <class Message> class Mouth {
public:
    static constexpr std::size_t remembered = 12;

    void willSay(Message message) { m_due.push_back(std::move(message)); }
    [[nodiscard]] bool hasDue() const { return !m_due.empty(); }
    /// One of those due, in no order.
    [[nodiscard]] Message takeDue(Random& random)
    {
        const auto it = m_due.begin() + random.below(m_due.size());
        Message message = std::move(*it);
        m_due.erase(it);
        return message;
    }
    void said(const Message& message)
    {
        m_said.push_back(message);
        if (m_said.size() > remembered) {
            m_said.pop_front();
        }
    }
    [[nodiscard]] const Message* repeat(Random& random) const
    {
        return m_said.empty() ? nullptr : &m_said[random.below(m_said.size())];
    }
    void clear()
    {
        m_due.clear();
        m_said.clear();
    }

private:
    std::deque<Message> m_due;
    std::deque<Message> m_said;
};

} // namespace sim
