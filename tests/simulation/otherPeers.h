/// The neighbours other than the board: the SWM server, the legacy server, and a process that forwards
/// faults.
#pragma once

#include "peer.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace google::protobuf {
class MessageLite;
}

namespace sim {

/// The SWM server at its end of the connection.
class SwmPeer {
public:
    void start();
    /// Closes its connection and takes no new one.
    void die();
    [[nodiscard]] bool isUp() const { return m_isUp; }
    [[nodiscard]] bool hasWork() const;
    std::string act(Random& random, const Weather& weather);

private:
    using Frame = std::vector<std::uint8_t>;

    void onRequest(const Frame& frame, Random& random, const Weather& weather);
    void onListAck(std::uint32_t procRef, const Frame& frame);
    void say(const Frame& frame);
    void answer(std::uint32_t number, std::uint32_t procRef, const google::protobuf::MessageLite& message,
                Random& random, const Weather& weather);
    template <class Cfm, class Rej>
    void settle(std::uint32_t procRef, const Cfm& cfm, const Rej& rej, Random& random, const Weather& weather)
    {
        if (random.chance(weather.refusals)) {
            answer(Rej::MESSAGE_NUMBER, procRef, rej, random, weather);
        } else {
            answer(Cfm::MESSAGE_NUMBER, procRef, cfm, random, weather);
        }
    }

    bool m_isUp = false;
    std::uint32_t m_lastTicket = 0;
    std::map<std::uint32_t, unsigned int> m_lists; ///< pieces still to come, by procedure
    Mouth<Frame> m_mouth;
};

/// The older board controller: confirms connections, answers what it is asked, and speaks up now and then.
class LegacyPeer {
public:
    void start() { m_peer.start("LegacyMerlow"); }
    void die();
    [[nodiscard]] bool isUp() const { return m_peer.isUp(); }
    [[nodiscard]] bool hasWork() const { return m_peer.hasMessage() || m_mouth.hasDue(); }
    std::string act(Random& random, const Weather& weather);

private:
    struct Letter {
        mnet_mbox_id_t to;
        Bytes bytes;
    };
    std::string say(const Letter& letter);

    Peer m_peer;
    Mouth<Letter> m_mouth;
    std::vector<mnet_mbox_id_t> m_clones;
    std::uint32_t m_served = 0;
};

/// A process of the unit that forwards its faults.
class CcfiPeer {
public:
    void start() { m_peer.start(""); }
    void die();
    [[nodiscard]] bool isUp() const { return m_peer.isUp(); }
    std::string act(Random& random, const Weather& weather);

private:
    Peer m_peer;
    std::vector<std::uint32_t> m_connections; ///< the server's references
    std::uint32_t m_lastProcedure = 0;
};

} // namespace sim
