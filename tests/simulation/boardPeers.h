#pragma once

#include "peer.h"

#include <map>
#include <string>
#include <vector>

namespace google::protobuf {
class MessageLite;
}

namespace sim {

/// What the servers of BRI and BMMI have in common: a connection, answers, and indications.
class BoardPeer {
public:
    explicit BoardPeer(std::string name) : m_name(std::move(name)) {}
    virtual ~BoardPeer() = default;
    BoardPeer(const BoardPeer&) = delete;
    BoardPeer& operator=(const BoardPeer&) = delete;

    [[nodiscard]] bool isUp() const { return m_peer.isUp(); }
    [[nodiscard]] bool hasWork() const { return m_peer.hasMessage() || m_mouth.hasDue(); }
    void start() { m_peer.start(m_name); }
    void die();
    /// One step of its own; gives what it did, for the trace.
    std::string act(Random& random, const Weather& weather);

protected:
    struct Request {
        std::uint32_t number;
        std::uint32_t procedureRef;
        std::string body;
    };

    /// Answers what it knows.
    virtual void onRequest(const Request& request, Random& random, const Weather& weather) = 0;
    /// Says something of its own accord, if it has anybody to say it to.
    virtual void indicate(Random& random) = 0;
    virtual void forget() = 0;

    void say(std::uint32_t number, std::uint32_t procedureRef, const std::string& body);
    void later(std::uint32_t number, std::uint32_t procedureRef, const std::string& body);
    /// Confirms or rejects, now or later.
    template <class Cfm, class Rej>
    void settle(const Request& request, const Cfm& cfm, const Rej& rej, Random& random,
                const Weather& weather)
    {
        if (random.chance(weather.refusals)) {
            settleWith(Rej::MESSAGE_NUMBER, request, rej, random, weather);
        } else {
            settleWith(Cfm::MESSAGE_NUMBER, request, cfm, random, weather);
        }
    }
    void settleWith(std::uint32_t number, const Request& request,
                    const google::protobuf::MessageLite& message, Random& random, const Weather& weather);
    template <class Cfm, class Rej>
    void onConnect(const Request& request, Random& random, const Weather& weather)
    {
        m_clientRef = request.procedureRef;
        Cfm cfm;
        cfm.set_selected_protocol_revision(1);
        if (random.chance(weather.refusals / 5)) {
            say(Rej::MESSAGE_NUMBER, m_clientRef, "");
        } else {
            m_peer.send(support::makeFrame(Cfm::MESSAGE_NUMBER, m_clientRef, 1 + random.below(1000),
                                           cfm.SerializeAsString()),
                        m_server);
        }
    }

private:
    void sayFrame(const Bytes& frame);

    std::string m_name;
    Peer m_peer;
    mnet_mbox_id_t m_server = MNET_MBOX_NONE;
    std::uint32_t m_clientRef = 0;
    Mouth<Bytes> m_mouth;
};

class BriPeer : public BoardPeer {
public:
    BriPeer() : BoardPeer("BriServer") {}

private:
    void onRequest(const Request& request, Random& random, const Weather& weather) override;
    void indicate(Random& random) override;
    void forget() override;
    [[nodiscard]] std::string fault(Random& random, bool isRaise) const;

    std::vector<std::uint32_t> m_measurements; ///< by procedure
    std::uint32_t m_faultProcedure = 0;
};

class BmmiPeer : public BoardPeer {
public:
    BmmiPeer() : BoardPeer("BmmiServer") {}

private:
    void onRequest(const Request& request, Random& random, const Weather& weather) override;
    void indicate(Random& random) override;
    void forget() override { m_followers.clear(); }

    struct Follower {
        std::uint32_t procedureRef;
        bool ofHereIAm;
    };
    std::vector<Follower> m_followers;
    std::uint32_t m_lastUser = 0;
};

} // namespace sim
