#pragma once

#include "peer.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace sim {

/// An application of the digital unit: connects, asks for all there is, and believes what it is told.
class Client {
public:
    void start() { m_peer.start(""); }
    void die();
    [[nodiscard]] bool isUp() const { return m_peer.isUp(); }
    [[nodiscard]] bool hasMessage() const { return m_peer.hasMessage(); }
    [[nodiscard]] mnet_mbox_id_t mbox() const { return m_peer.mbox(); }
    /// Takes a message, or says something.
    std::string act(Random& random, const Weather& weather);
    /// As a new process: asks for a connection.
    std::string connect(Random& random);
    /// Requests that make up a story; for mood 0, one of each kind.
    [[nodiscard]] static std::vector<unsigned int> kindsOf(unsigned int mood);
    static constexpr unsigned int numMoods = 5;
    /// Asks for something of a kind.
    std::string ask(unsigned int kind, Random& random);
    void takeAll();
    /// The public mailbox went: it asks for a connection anew, and knows of no faults.
    void onWithdrawn();
    /// The legacy server has let it in.
    [[nodiscard]] bool isConnected() const { return m_isConnected; }
    /// It has subscribed to the faults, and shows those that it was told of.
    [[nodiscard]] bool followsFaults() const { return m_followsFaults; }
    [[nodiscard]] const std::set<std::uint16_t>& shownFaults() const { return m_shownFaults; }

private:
    void onMessage(const Received& received);
    std::string say(const Bytes& bytes, Random& random, const Weather& weather);
    void countAnswer(std::uint32_t number);
    [[nodiscard]] Bytes establishment(Random& random);
    [[nodiscard]] Bytes request(unsigned int kind, Random& random);
    [[nodiscard]] Bytes hwLogEntry(Random& random, Signal signal) const;
    [[nodiscard]] Signal signal(std::uint32_t number, Random& random);

    Peer m_peer;
    bool m_isConnected = false;
    bool m_hasAsked = false;
    unsigned int m_mood = 0;
    std::map<std::uint32_t, unsigned int> m_asked; ///< requests that were not answered, by their number
    std::uint32_t m_serverRef = 300;
    std::uint32_t m_lastClientRef = 0;
    bool m_followsFaults = false;
    std::set<std::uint16_t> m_shownFaults;
};

} // namespace sim
