#pragma once

#include "answerPlans.h"
#include "service.h"
#include "swmPeers.h"
#include "swmTickets.h"
#include "swStore.h"

#include <functional>
#include <google/protobuf/message.h>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <swmi.pb.h>
#include <vector>

namespace merlow::board {

struct SwmServerConfig {
    std::set<std::uint32_t> revisions{1};
    std::size_t maxConnections = 64; ///< that are established
    std::int32_t blockSize = 65536;  ///< bytes of a load's blocks that clients are asked to keep to
    std::size_t listPiece = 1024;    ///< bytes of a piece of the component list
    std::vector<loadmodule::SoftwareId> bootSoftware{};
};

/// The SWM server's side of the software management interface.
///
///   new connection --ConnEstablishReq--> established, or rejected with a reason
///   established --AcquireResourceReq--> a ticket in the queue --its turn comes--> AcquireResourceInd, active
///   active --PushLoadInitReq--> loading --PushLoadEndReq--> valid module, or nothing
///   active --SwCompListReq--> a piece of the list for each acknowledgement
///
/// What a connection held ends with it: its tickets, its load, its list; then the next ticket is active.
/// Frames that cannot be served leave a line in the log and a count. A body that does not parse counts as far
/// as it does; what is missing reads as its default.
///
/// Thread: one only.
class SwmServer {
public:
    /// `store`, `peers` and `plans` outlive the server.
    SwmServer(SwmServerConfig config, SwStore& store, SwmPeers& peers, AnswerPlans& plans);
    SwmServer(const SwmServer&) = delete;
    SwmServer& operator=(const SwmServer&) = delete;

    void connected(ConnectionId connection);
    /// `frame` is one message of the connection, and valid as long as the call.
    void receive(ConnectionId connection, BytesView frame);
    /// One message of the connection was longer than any may be, and is lost.
    void receivedTooLong(ConnectionId connection);
    void ended(ConnectionId connection);

    /// Ends one connection. False for an unknown one.
    [[nodiscard]] bool loseConnection(ConnectionId connection);
    /// Ends all connections; gives how many there were.
    std::size_t loseAllConnections();

    nlohmann::json status() const;
    std::vector<AnswerKind> kinds() const;
    std::optional<AnswerKind> findKind(const std::string& name) const;

private:
    struct Counters {
        std::uint64_t received = 0;
        std::uint64_t malformed = 0; ///< of the received: the body did not parse
        std::uint64_t confirmed = 0;
        std::uint64_t rejected = 0;
        std::uint64_t delayed = 0; ///< of the confirmed and rejected
        std::uint64_t dropped = 0; ///< of the confirmed and rejected: lost on purpose
    };
    struct Row;
    /// A request in hand.
    struct Turn {
        ConnectionId connection;
        std::uint32_t procRef;
        Row& row;
        std::optional<AnswerPlan> plan;
    };
    struct Row {
        std::string kind;
        std::unique_ptr<google::protobuf::Message> request; ///< what is received is parsed into it
        const google::protobuf::Message* reject = nullptr;  ///< default instance; null when there is none
        std::uint32_t rejectNumber = 0;
        std::function<void(Turn&)> handle; ///< empty for what the server sends by itself
        Counters counters;
    };

    /// Of one connection; more are refused.
    static constexpr std::size_t maxTickets = 4096;

    template <class Request, class Reject> void onRequest(void (SwmServer::*handler)(Turn&, const Request&));
    template <class Request> Row& onRequest(void (SwmServer::*handler)(Turn&, const Request&));

    void handleConnEstablishReq(Turn& turn, const swm::ConnEstablishReq& req);
    void handleGetCapabilitiesReq(Turn& turn, const swm::GetCapabilitiesReq& req);
    void handleAcquireResourceReq(Turn& turn, const swm::AcquireResourceReq& req);
    void handleReleaseResourceReq(Turn& turn, const swm::ReleaseResourceReq& req);
    void handlePushLoadInitReq(Turn& turn, const swm::PushLoadInitReq& req);
    void handlePushLoadData(Turn& turn, const swm::PushLoadData& req);
    void handlePushLoadEndReq(Turn& turn, const swm::PushLoadEndReq& req);
    void handlePullLoadInitReq(Turn& turn, const swm::PullLoadInitReq& req);
    void handlePullLoadAbortReq(Turn& turn, const swm::PullLoadAbortReq& req);
    void handleDeleteReq(Turn& turn, const swm::DeleteReq& req);
    void handleGetSwProductInvReq(Turn& turn, const swm::GetSwProductInvReq& req);
    void handleSwCompListReq(Turn& turn, const swm::SwCompListReq& req);
    void handleSwCompListAck(Turn& turn, const swm::SwCompListAck& req);
    void handleGetRunningSwReq(Turn& turn, const swm::GetRunningSwReq& req);
    void handleSetCurrentSlotWorkingReq(Turn& turn, const swm::SetCurrentSlotWorkingReq& req);

    /// Answers with a reject that carries `reason`, and the ticket that the request named, when it has no
    /// active one. True when that was so.
    template <class Reject, class Request> bool rejectedForTicket(Turn& turn, const Request& req);
    template <class Message> void confirm(const Turn& turn, const Message& message);
    template <class Message> void reject(const Turn& turn, const Message& message);
    void refuse(const Turn& turn);
    void deliver(const Turn& turn, std::uint32_t number, const google::protobuf::Message& message,
                 bool confirms);

    void freeHeldBy(ConnectionId connection);
    void releaseTicket(std::uint32_t number);
    /// Tells the active ticket that it is, unless it was the active one before, under the number
    /// `activeBefore`.
    void indicateActive(std::uint32_t activeBefore, std::chrono::milliseconds delay);
    void sendListPiece(const Turn& turn, SwmTicket& ticket);
    std::uint32_t activeNumber();
    std::uint32_t highestCommonRevision(const swm::ConnEstablishReq& req) const;
    std::size_t establishedCount() const;
    nlohmann::json storeStatus() const;

    SwmServerConfig m_config;
    SwStore& m_store;
    SwmPeers& m_peers;
    AnswerPlans& m_plans;
    std::map<std::uint32_t, Row> m_rows;                 ///< by message number
    std::map<ConnectionId, std::uint32_t> m_connections; ///< to the revision; 0 before it is established
    SwmTickets m_tickets;
    Bytes m_frame; ///< what is sent is built here
    bool m_slotWorking = false;
    std::string m_lastLoad; ///< how the last load ended, for people

    std::uint64_t m_cutFrames = 0;
    std::uint64_t m_unknownFrames = 0;
    std::uint64_t m_tooLongFrames = 0;
    std::uint64_t m_earlyFrames = 0;
};

template <class Message> void SwmServer::confirm(const Turn& turn, const Message& message)
{
    deliver(turn, Message::MESSAGE_NUMBER, message, true);
}

template <class Message> void SwmServer::reject(const Turn& turn, const Message& message)
{
    deliver(turn, Message::MESSAGE_NUMBER, message, false);
}

template <class Reject, class Request> bool SwmServer::rejectedForTicket(Turn& turn, const Request& req)
{
    const auto state = m_tickets.stateOf(turn.connection, req.ticket_number());
    if (state == SwmTickets::State::active) {
        return false;
    }
    Reject rej;
    rej.set_ticket_number(req.ticket_number());
    rej.set_reason(state == SwmTickets::State::queued ? Reject::TICKET_IN_QUEUE
                                                      : Reject::INVALID_TICKET_NUMBER);
    reject(turn, rej);
    return true;
}

} // namespace merlow::board
