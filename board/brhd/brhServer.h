/// What the BRI and the BMMI server have in common: connections, the way from a frame to its handler and
/// back, planned interventions, counters.
#pragma once

#include "answerPlans.h"
#include "brhFrame.h"
#include "outbox.h"
#include "service.h"

#include <functional>
#include <google/protobuf/message.h>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>

namespace merlow::board {

struct BrhServerConfig {
    std::set<std::uint32_t> revisions{1};
    std::size_t maxConnections = 1024;
};

/// A client's connection. It ends with the client's mailbox, when the client establishes it anew, or when
/// boardctl has it lost; what it held ends with it.
struct BrhConnection {
    std::uint32_t ref; ///< the server's, never 0
    MailboxId mailbox; ///< the client's
    std::uint32_t clientRef;
    std::uint32_t revision;
};

/// What a handler answers: a confirm or a reject with its number.
struct BrhAnswer {
    std::uint32_t number = 0;
    bool confirms = false;
    std::unique_ptr<google::protobuf::Message> message;
    /// What goes out behind the answer, with the request's procedure reference; empty for nothing.
    std::function<void(std::uint32_t procedureRef)> afterwards{};
};

template <class Message> BrhAnswer confirmWith(Message message)
{
    return {Message::MESSAGE_NUMBER, true, std::make_unique<Message>(std::move(message))};
}

template <class Message> BrhAnswer rejectWith(Message message)
{
    return {Message::MESSAGE_NUMBER, false, std::make_unique<Message>(std::move(message))};
}

/// A server of the board resource handler.
///
///   unknown client --ConnEstablishReq--> connected, or rejected with a reason
///   connected --request--> its handler's answer
///
/// A request counts only on its own connection: with the server's reference, from the mailbox that
/// established it. Everything else that arrives (cut frames, unknown numbers, bodies that do not parse, wrong
/// references) leaves a line in the log and a count, nothing else.
class BrhServer {
public:
    /// `kindPrefix` goes in front of message names: "bri::".
    BrhServer(std::string kindPrefix, std::string mailboxName, BrhServerConfig config, Outbox& outbox,
              AnswerPlans& plans);
    virtual ~BrhServer() = default;
    BrhServer(const BrhServer&) = delete;
    BrhServer& operator=(const BrhServer&) = delete;

    const std::string& mailboxName() const { return m_mailboxName; }
    MailboxId mailbox() const { return m_mailbox; }
    void attach(MailboxId mailbox) { m_mailbox = mailbox; }

    void receive(const Received& received);
    virtual void clientGone(MailboxId mailbox);

    /// Forgets one connection without a word to its client. False for an unknown reference.
    [[nodiscard]] bool loseConnection(std::uint32_t ref);
    /// Forgets all connections; gives how many there were.
    std::size_t loseAllConnections();

    /// Connections and counters; a server adds what its connections hold.
    virtual nlohmann::json status() const;
    std::vector<AnswerKind> kinds() const;
    std::optional<AnswerKind> findKind(const std::string& name) const;

protected:
    /// A request with its handler: `BrhAnswer handler(const BrhConnection&, const Request&)`.
    template <class Request, class Reject, class Server>
    void onRequest(BrhAnswer (Server::*handler)(const BrhConnection&, const Request&));
    /// The same for a request that cannot be rejected.
    template <class Request, class Server>
    void onRequest(BrhAnswer (Server::*handler)(const BrhConnection&, const Request&));
    /// The same for an order, which has no answer, so that no plan acts on it.
    template <class Order, class Server>
    void onOrder(void (Server::*handler)(const BrhConnection&, const Order&));
    /// The messages by which connections are established.
    template <class Request, class Confirm, class Reject> void onConnEstablish();

    /// Frees what the connection holds.
    virtual void connectionEnded(const BrhConnection& connection) = 0;

    Outbox& outbox() { return m_outbox; }

private:
    struct Counters {
        std::uint64_t received = 0;
        std::uint64_t malformed = 0; ///< of the received: the body did not parse
        std::uint64_t confirmed = 0;
        std::uint64_t rejected = 0;
        std::uint64_t delayed = 0; ///< of the confirmed and rejected
        std::uint64_t dropped = 0; ///< of the confirmed and rejected: lost on purpose
    };

    struct Row {
        std::string kind;
        const google::protobuf::Message* request = nullptr; ///< default instances: prototypes
        const google::protobuf::Message* reject = nullptr;  ///< null when there is none
        std::uint32_t rejectNumber = 0;
        bool establishes = false;
        bool hasAnswer = true;
        /// Empty for the one that establishes a connection; the answer to an order has no message.
        std::function<BrhAnswer(const BrhConnection&, const google::protobuf::Message&)> handle;
        Counters counters;
    };

    /// A refusal of connections carries one of these, in both interfaces alike.
    enum class RejectReason : std::uint8_t {
        noSupportedProtocolRevision = 1,
        maxNumberOfConnectionsExceeded = 2,
    };

    void establish(Row& row, const Received& received, const BrhFrame& frame);
    void serve(Row& row, const BrhConnection& connection, const BrhFrame& frame);
    void deliver(Row& row, MailboxId client, Bytes frame, bool confirms,
                 const std::optional<AnswerPlan>& plan);
    std::optional<RejectReason> objectionTo(const BrhConnection* standing, std::uint32_t revision) const;
    BrhConnection& makeConnection(const BrhConnection* standing, MailboxId client, std::uint32_t clientRef,
                                  std::uint32_t revision);
    std::uint32_t highestCommonRevision(const std::vector<std::uint32_t>& offered) const;
    const BrhConnection* findConnection(MailboxId client, std::uint32_t clientRef) const;
    void endConnection(std::uint32_t ref);
    static BrhAnswer refused(const Row& row, const std::string& cause);
    Row& addRow(const google::protobuf::Message& request, std::uint32_t number);
    template <class Request, class Server>
    Row& addRow(BrhAnswer (Server::*handler)(const BrhConnection&, const Request&));

    std::string m_kindPrefix;
    std::string m_mailboxName;
    BrhServerConfig m_config;
    Outbox& m_outbox;
    AnswerPlans& m_plans;
    MailboxId m_mailbox = noMailbox;
    std::map<std::uint32_t, Row> m_rows;                  ///< by frame number
    std::map<std::uint32_t, BrhConnection> m_connections; ///< by the server's reference
    std::uint32_t m_lastConnectionRef = 0;

    std::function<std::vector<std::uint32_t>(const google::protobuf::Message&)> m_offeredRevisions;
    std::function<BrhAnswer(std::uint32_t revision)> m_makeEstablishCfm;
    std::function<BrhAnswer(RejectReason)> m_makeEstablishRej;

    std::uint64_t m_cutFrames = 0;
    std::uint64_t m_unknownFrames = 0;
    std::uint64_t m_wrongReferences = 0;
};

template <class Request, class Reject, class Server>
void BrhServer::onRequest(BrhAnswer (Server::*handler)(const BrhConnection&, const Request&))
{
    Row& row = addRow(handler);
    row.reject = &Reject::default_instance();
    row.rejectNumber = Reject::MESSAGE_NUMBER;
}

template <class Request, class Server>
void BrhServer::onRequest(BrhAnswer (Server::*handler)(const BrhConnection&, const Request&))
{
    addRow(handler);
}

template <class Order, class Server>
void BrhServer::onOrder(void (Server::*handler)(const BrhConnection&, const Order&))
{
    Row& row = addRow(Order::default_instance(), Order::MESSAGE_NUMBER);
    row.hasAnswer = false;
    row.handle = [this, handler](const BrhConnection& connection, const google::protobuf::Message& order) {
        (static_cast<Server*>(this)->*handler)(connection, static_cast<const Order&>(order));
        return BrhAnswer();
    };
}

template <class Request, class Server>
BrhServer::Row& BrhServer::addRow(BrhAnswer (Server::*handler)(const BrhConnection&, const Request&))
{
    Row& row = addRow(Request::default_instance(), Request::MESSAGE_NUMBER);
    row.handle = [this, handler](const BrhConnection& connection, const google::protobuf::Message& request) {
        return (static_cast<Server*>(this)->*handler)(connection, static_cast<const Request&>(request));
    };
    return row;
}

template <class Request, class Confirm, class Reject> void BrhServer::onConnEstablish()
{
    Row& row = addRow(Request::default_instance(), Request::MESSAGE_NUMBER);
    row.reject = &Reject::default_instance();
    row.rejectNumber = Reject::MESSAGE_NUMBER;
    row.establishes = true;
    m_offeredRevisions = [](const google::protobuf::Message& request) {
        const auto& offered = static_cast<const Request&>(request).supported_protocol_revisions();
        return std::vector<std::uint32_t>(offered.begin(), offered.end());
    };
    m_makeEstablishCfm = [](std::uint32_t revision) {
        Confirm confirm;
        confirm.set_selected_protocol_revision(revision);
        return confirmWith(std::move(confirm));
    };
    static_assert(static_cast<int>(RejectReason::noSupportedProtocolRevision) ==
                  static_cast<int>(Reject::NO_SUPPORTED_PROTOCOL_REVISION));
    static_assert(static_cast<int>(RejectReason::maxNumberOfConnectionsExceeded) ==
                  static_cast<int>(Reject::MAX_NUMBER_OF_CONNECTIONS_EXCEEDED));
    m_makeEstablishRej = [](RejectReason reason) {
        Reject reject;
        reject.set_reason(reason == RejectReason::noSupportedProtocolRevision
                              ? Reject::NO_SUPPORTED_PROTOCOL_REVISION
                              : Reject::MAX_NUMBER_OF_CONNECTIONS_EXCEEDED);
        return rejectWith(std::move(reject));
    };
}

} // namespace merlow::board
