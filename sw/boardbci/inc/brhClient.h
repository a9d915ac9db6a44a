#pragma once

#include "bci/bciRecord.h"
#include "bcSession.h"
#include "capabilitiesV2.h"
#include "merlowTrace.h"
#include "mnetGpbMessage.h"
#include "mnetMessageSubscriptionIf.h"
#include "mnetMsgPtr.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <google/protobuf/message.h>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// A received frame with its message parsed, or nothing and a trace when it is too short or does not parse.
/// Holds its own copy, so the message it was read from may go.
template <class M> class BrhFrame {
public:
    struct Fields {
        std::uint32_t msgNo;
        std::uint32_t procedureRef;
        std::uint32_t connectionRef;
        const M& message;
    };

    explicit BrhFrame(const mnet_msg& msg)
        : m_parsed(&msg, MerlowTraceObj), m_fields{m_parsed.msgNo(), m_parsed.procedureRef(),
                                                   m_parsed.connectionRef(), m_parsed.get()}
    {
    }
    BrhFrame(const BrhFrame&) = delete;
    BrhFrame& operator=(const BrhFrame&) = delete;

    explicit operator bool() const { return m_parsed.valid(); }
    const Fields* operator->() const { return &m_fields; }

private:
    Loomwork::Util::MnetGpbMessage<M> m_parsed;
    Fields m_fields;
};

template <class M> [[nodiscard]] BrhFrame<M> readFrame(const mnet_msg& msg)
{
    return BrhFrame<M>(msg);
}

/// One connection to a server of the board resource handler: BRI or BMMI.
///
/// Finds the server by name and watches it, for ever; frames messages and routes incoming frames to the
/// object and the handler that they are for; keeps the open transactions and the server's capabilities. It
/// never connects on its own: the component's handler of the notify number does that.
///
/// A frame is the number (host order), `procedureRef` and `connectionRef` (network order), and from offset 12
/// the serialised message. What comes in carries this object's client reference at offset 8, but for the
/// connection's confirm, which carries it at offset 4.
///
/// All objects share one map of client references. Server thread only, but for `destroy` and the destructor,
/// which may also run on the thread that ends the server once the server thread is over.
class BrhClient {
public:
    using Subscription = Loomwork::MnetMessageSubscription::V1::MnetMessageSubscriptionIf;
    using MsgHandler = std::function<void(const std::shared_ptr<mnet_msg>&)>;

    /// An open request of a client, in host order. `data` is the service's own, as a rule a signal number.
    struct ProcedureTransaction {
        std::uint32_t procedureRef;
        std::uint32_t clientMbox;
        std::int32_t serverRef;
        std::int32_t clientRef;
        std::uint32_t data;

        [[nodiscard]] TarnNodeCommonAddressInfoS addressInfo() const
        {
            return {.clientRef = clientRef, .serverRef = serverRef};
        }
        bool operator==(const ProcedureTransaction&) const = default;
    };

    static constexpr std::size_t headerSize = 12;
    /// What is kept when a server comes and goes for ever, or never answers while clients come and go.
    static constexpr std::size_t maxCapabilities = 4096;
    static constexpr std::size_t maxAbandonedTransactions = 4096;

    /// Takes the first free client reference from `firstRef` upward.
    explicit BrhClient(unsigned int firstRef);
    ~BrhClient();
    BrhClient(const BrhClient&) = delete;
    BrhClient& operator=(const BrhClient&) = delete;

    [[nodiscard]] static unsigned int generateClientRef(unsigned int firstRef);
    [[nodiscard]] unsigned int getClientRef() const { return m_clientRef; }

    [[nodiscard]] bool isServerFound() const;
    [[nodiscard]] bool isConnected() const;
    [[nodiscard]] unsigned int getSelectedProtocolRevision() const { return m_selectedProtocolRev; }

    /// Appends. Beyond `maxCapabilities` the oldest record goes whose id is announced again later, so that no
    /// id is lost.
    void addCapability(std::shared_ptr<Capability> capability);
    /// Appends all to `capabilities`; false when there are none.
    bool getCapabilities(std::vector<std::shared_ptr<Capability>>& capabilities) const;
    [[nodiscard]] bool isCapabilityPresent(CapSupport_en id) const;
    [[nodiscard]] bool areCapabilitiesPresent() const { return !m_capabilities.empty(); }
    void setCapabilitiesReceived() { m_capabilitiesReceived = true; }
    [[nodiscard]] bool areCapabilitiesReceived() const { return m_capabilitiesReceived; }

    /// Never 0 and never one that is in use.
    [[nodiscard]] unsigned int generateProcedureRef();
    /// False when the reference is in use: that transaction stays.
    bool addProcedureTransaction(const ProcedureTransaction& transaction);
    /// Null when there is none. The pointer is good until the next call that adds or removes transactions.
    [[nodiscard]] ProcedureTransaction* searchTransactionProcedure(unsigned int procedureRef);
    /// False when there is none.
    bool removeTransactionProcedure(unsigned int procedureRef);
    /// Search and removal in one step: by value, and gone from the map.
    [[nodiscard]] std::optional<ProcedureTransaction> takeTransaction(unsigned int procedureRef);
    /// The client's session has gone. Its open transactions stay, so that late answers find them, but of all
    /// such transactions only the youngest `maxAbandonedTransactions` are kept.
    void abandonTransactions(std::uint32_t clientMbox);
    /// A single transaction that no session stands behind, or that an answer without meaning has left open:
    /// counted among those of lost sessions.
    void abandonTransaction(unsigned int procedureRef);
    [[nodiscard]] std::size_t getNumTransactions() const { return m_transactions.size(); }

    /// The numbers that this object handles itself before it calls the component's handler.
    [[nodiscard]] bool hasInternalHandler(unsigned int msgNo) const;

    /// Starts the search for the server, whose interface is known by its `ConnEstablishCfm`. `notifyMsgNo` is
    /// the number under which the mailbox library tells of the server's coming and going. No-op and false
    /// without a subscription. The subscription must live until `destroy` or this object's end.
    template <class ConnEstablishCfm>
    bool locateServer(Subscription* subscription, const std::string& serverName, unsigned int notifyMsgNo)
    {
        return startSearch(subscription, serverName, notifyMsgNo, ConnEstablishCfm::MESSAGE_NUMBER,
                           [this](mnet_msg* msg) { handleConnEstablishCfm<ConnEstablishCfm>(*msg); });
    }

    /// Calls `handler` for each frame of this number that is for this object. The first handler of a number
    /// stays. No-op without a subscription.
    void addHandler(Subscription* subscription, unsigned int msgNo, const MsgHandler& handler);

    /// Asks the found server for a connection: both references of the frame are the client reference. Nothing
    /// is sent when connected already, without a server, or without a revision to offer.
    template <class ConnEstablishReq> void sendConnEstablishReq(const ConnEstablishReq& message)
    {
        if (!isConnected() && isServerFound() && message.supported_protocol_revisions_size() > 0) {
            sendFrame(message, ConnEstablishReq::MESSAGE_NUMBER, m_clientRef, m_clientRef);
        }
    }

    /// Sends to the connected server. Returns the procedure reference, a new one unless it is given, or 0
    /// when nothing was sent. It is given only to answer within a known transaction.
    template <class M> unsigned int sendMessage(const M& message, unsigned int procedureRef = 0)
    {
        return sendConnected(message, M::MESSAGE_NUMBER, procedureRef);
    }

    /// At shutdown: takes every handler off the subscription, ends the watch, frees the client reference.
    /// Harmless when done already.
    void destroy();

    static void routeConnEstablishCfm(const std::shared_ptr<mnet_msg>& msg);
    static void routeServerNotify(const std::shared_ptr<mnet_msg>& msg);

private:
    friend class BrhClientTest; // sets the last reference, for the wrap

    static void routeFrame(const std::shared_ptr<mnet_msg>& msg);
    /// Null, and a trace that begins with `what`, when no object has the reference.
    static BrhClient* findClient(std::uint32_t clientRef, std::uint32_t msgNo, const char* what);

    bool startSearch(Subscription* subscription, const std::string& serverName, unsigned int notifyMsgNo,
                     unsigned int connCfmMsgNo, const std::function<void(mnet_msg*)>& onConnCfm);
    void locate();
    [[nodiscard]] MnetMsgPtr notifyFrame() const;
    void onServerFound(const mnet_msg& msg);
    void onServerLost();
    /// For the end of the thread that owns the subscription; true.
    bool onThreadExit(Subscription* subscription);
    void addCleanup(std::uint32_t msgNo, std::function<void()> cleanup);
    void removeHandler(Subscription* subscription, unsigned int msgNo);
    void callHandler(const std::shared_ptr<mnet_msg>& msg) const;
    void leaveClientMap();

    template <class ConnEstablishCfm> void handleConnEstablishCfm(const mnet_msg& msg)
    {
        const auto cfm = readFrame<ConnEstablishCfm>(msg);
        if (!cfm) {
            disconnect();
        } else if (!cfm->message.has_selected_protocol_revision()) {
            SCRY_TRACE(4,
                       "ABN: ConnEstablishCfm message invalid: selected protocol revision field is missing");
            disconnect();
        } else if (cfm->message.selected_protocol_revision() == 0) {
            SCRY_TRACE(4, "ABN: ConnEstablishCfm message invalid: selected protocol revision is zero");
            disconnect();
        } else {
            m_connectionRef = cfm->connectionRef;
            m_selectedProtocolRev = cfm->message.selected_protocol_revision();
        }
    }
    void disconnect();
    void markAbandoned(std::uint32_t procedureRef);
    void capAbandonedTransactions();

    unsigned int sendConnected(const google::protobuf::Message& message, std::uint32_t msgNo,
                               unsigned int procedureRef);
    bool sendFrame(const google::protobuf::Message& message, std::uint32_t msgNo, std::uint32_t procedureRef,
                   std::uint32_t connectionRef) const;

    static std::map<std::uint32_t, BrhClient*> s_clientMap;

    std::map<std::uint32_t, MsgHandler> m_handlers;
    std::function<void(mnet_msg*)> m_onConnCfm;
    std::uint32_t m_clientRef;
    mnet_mbox_id_t m_ownMbox{MNET_MBOX_NONE};
    std::uint32_t m_connectionRef{0};
    std::uint32_t m_selectedProtocolRev{0};
    mnet_mbox_id_t m_serverMbox{MNET_MBOX_NONE};
    mnet_monitor_id_t m_monitorId{MNET_MBOX_NONE};
    std::map<std::uint32_t, std::function<void()>> m_cleanups; ///< each undoes one registration
    std::string m_serverName;
    std::uint32_t m_notifyMsgNo{0};
    std::uint32_t m_connCfmMsgNo{0};
    std::uint32_t m_lastProcedureRef{0};
    std::vector<std::shared_ptr<Capability>> m_capabilities;
    std::map<std::uint32_t, ProcedureTransaction> m_transactions;
    bool m_capabilitiesReceived{false};

    // Abandoned transactions: by age, the oldest first, and each one's age.
    std::map<std::uint64_t, std::uint32_t> m_abandoned;
    std::map<std::uint32_t, std::uint64_t> m_abandonedAges;
    std::uint64_t m_nextAbandonedAge{0};
    bool m_capabilityCapTraced{false};
    bool m_transactionCapTraced{false};
};

/// The transaction of a client's signal that was sent on under `procedureRef`.
template <class R>
[[nodiscard]] BrhClient::ProcedureTransaction transactionOf(const R& req, const mnet_msg& msg,
                                                            unsigned int procedureRef,
                                                            std::uint32_t data = BciRecord<R>::number)
{
    return {.procedureRef = procedureRef,
            .clientMbox = mnet_sender(&msg),
            .serverRef = req.addressInfo.serverRef,
            .clientRef = req.addressInfo.clientRef,
            .data = data};
}

/// The transaction of a request that the server makes for a session.
[[nodiscard]] inline BrhClient::ProcedureTransaction
transactionOf(const BcSession& session, unsigned int procedureRef, std::uint32_t data)
{
    return {.procedureRef = procedureRef,
            .clientMbox = session.mailboxId,
            .serverRef = session.serverRef,
            .clientRef = session.clientRef,
            .data = data};
}
