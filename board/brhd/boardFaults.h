/// The board's faults: what is active, who wants to know, and what they have been told.
#pragma once

#include "brhServer.h"
#include "stateStore.h"

#include <bri.pb.h>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace merlow::board {

struct BoardFault {
    boardresourcehandler::bri::BriFaultId id;
    std::uint32_t faultCase = 0;
    std::optional<std::string> fan{};    ///< the fan's product number
    std::optional<std::string> parent{}; ///< that of the unit that hosts the fan
    std::optional<std::int32_t> slot{};  ///< where the fan is
    bool measured = false;               ///< raised by the board's own sensors

    boardresourcehandler::bri::FaultInd indication() const;
    /// The id by which clients know it: a lost host of a fan is to them the disconnected fan that its
    /// indication describes. One that describes none they do not know by another id.
    boardresourcehandler::bri::BriFaultId clientsId() const;
};

/// Active faults in the order in which they were raised; the same fault may be raised more than once.
///
///   subscription -> cease of all that the client was told before, indication of all that is active
///   raise        -> indication to all subscribers
///   cease        -> cease to all subscribers; the first one raised with the id goes
///
/// Clients keep faults when the connection or this process goes, and count one that they are told again as
/// another. So what a client was told is remembered until its mailbox goes, over the end of this process too:
/// saved before a client is told of a fault, and after it is told of a cease. A death in between makes the
/// next subscription cease what the client does not have, which it passes over.
class BoardFaults {
public:
    /// More are refused.
    static constexpr std::size_t maxActive = 256;
    /// Clients without a subscription of which it is remembered what they were told; beyond that one of them
    /// is forgotten.
    static constexpr std::size_t maxRemembered = 256;

    /// Sends to a subscriber, with the reference of its subscription.
    using Send = std::function<void(const BrhConnection&, std::uint32_t procedureRef, std::uint32_t number,
                                    const google::protobuf::Message&)>;

    BoardFaults(StateStore& store, Outbox& outbox, Send send);

    /// Goes on where the process before this one ended.
    void load();

    /// The client's connection gets all faults from here on, those that are active first.
    void subscribe(const BrhConnection& connection, std::uint32_t procedureRef);
    void connectionEnded(std::uint32_t connectionRef);
    void clientGone(MailboxId mailbox);

    /// Faults that the board's own sensors raise and cease: the case of the first with this id, if there is
    /// one.
    [[nodiscard]] std::optional<std::uint32_t> measuredCase(boardresourcehandler::bri::BriFaultId id) const;
    /// False when there are too many faults already.
    [[nodiscard]] bool raiseMeasured(boardresourcehandler::bri::BriFaultId id, std::uint32_t faultCase);
    /// The first one with this id.
    void ceaseMeasured(boardresourcehandler::bri::BriFaultId id);

    /// {"action": "raise", "id": ID or NAME, "case": N, "fan": T, "parent": T, "slot": N},
    /// {"action": "cease", "id": ID or NAME}, {"action": "list"}
    ControlAnswer control(const nlohmann::json& request);

    /// Adds "faults", "faultSubscribers" and "faultMemory".
    void addStatus(nlohmann::json& status) const;

private:
    using FaultId = boardresourcehandler::bri::BriFaultId;
    using FaultIds = std::vector<FaultId>;
    /// Who a client is, whatever its connection: mailbox and reference.
    using ClientKey = std::pair<MailboxId, std::uint32_t>;

    struct Subscriber {
        BrhConnection connection;
        std::uint32_t procedureRef;
    };

    ControlAnswer raise(const nlohmann::json& request);
    ControlAnswer cease(const nlohmann::json& request);
    /// False when there are too many.
    [[nodiscard]] bool add(const BoardFault& fault);
    void remove(std::vector<BoardFault>::iterator ceased);

    void sendRaise(const Subscriber& subscriber, const BoardFault& fault) const;
    void sendCease(const Subscriber& subscriber, FaultId clientsId) const;
    static ClientKey keyOf(const BrhConnection& connection)
    {
        return {connection.mailbox, connection.clientRef};
    }
    /// All subscribers have been told, or are about to be, what is active; saves that.
    void remember();
    void forgetOneTooMany();
    void save();
    bool read(const std::string& text);

    StateStore& m_store;
    Outbox& m_outbox;
    Send m_send;
    std::vector<BoardFault> m_active;
    std::map<std::uint32_t, Subscriber> m_subscribers; ///< by connection
    std::map<ClientKey, FaultIds> m_told;              ///< the clients' ids, none of the lists empty
    std::string m_error; ///< why the last load or save failed; empty when it did not
};

} // namespace merlow::board
