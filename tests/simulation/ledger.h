/// What the server owes, written down from what was said on its interfaces: the simulation's own account of
/// sessions, open procedures, publication and faults, and the rules that every step of the server must keep.
#pragma once

#include "bci/bciSignals.h"
#include "briFaultModel.h"
#include "faultLedger.h"
#include "unit.h"

#include <google/protobuf/message_lite.h>

#include <compare>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

class BrhClient;

namespace sim {

/// The server broke a rule.
class Violation : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Refs {
    std::uint32_t client = 0;
    std::uint32_t server = 0;
    auto operator<=>(const Refs&) const = default;
};

/// A client that the server serves.
struct Session {
    std::uint32_t number = 0; ///< of its clone
    mnet_mbox_id_t mbox = MNET_MBOX_NONE;
    mnet_mbox_id_t clone = MNET_MBOX_NONE;
    Refs refs;
    unsigned int protocolRev = 0;
    std::optional<Bytes> held; ///< the confirm
    bool timeAnswered = false;
    bool mmiAnswered = false;
    std::uint32_t timeSource = 0;
    std::uint32_t mmiUser = 0;
    unsigned int state = 0;                            ///< as an audit tells it
    std::map<std::uint32_t, std::uint32_t> procedures; ///< standing ones, by the number that began them
    std::uint32_t measurement = 0;
};

/// An open request to BRI or BMMI.
struct Transaction {
    mnet_mbox_id_t client = MNET_MBOX_NONE;
    Refs refs;
    std::uint32_t data = 0;
};

/// A board server as the server under test sees it.
struct Backend {
    std::uint32_t notifyNo;
    std::uint32_t clientRef;
    mnet_mbox_id_t server = MNET_MBOX_NONE;
    bool isConnected = false;
    std::uint32_t connectionRef = 0;
    bool hasCapabilities = false;
    std::map<std::uint32_t, Transaction> open;
};

/// An open step of a software procedure.
struct SwRecord {
    std::uint32_t signal = 0;
    std::uint32_t savedSignal = 0;
    Refs refs;
    std::uint32_t procRef = 0;
    std::uint32_t aux = 0;
    std::uint32_t ticket = 0;
    mnet_mbox_id_t client = MNET_MBOX_NONE;
    std::string software;
};

[[nodiscard]] inline Refs refsOf(const Event& event)
{
    return {wordAt(event.bytes, 4), wordAt(event.bytes, 8)};
}

[[nodiscard]] inline bool isGsm(Refs refs)
{
    return refs.server >= 100 && refs.server < 200;
}

class Ledger {
public:
    /// `isAuboot`: automatic boot mode.
    explicit Ledger(bool isAuboot);

    /// The server began, with the outputs of its start.
    void started(const Unit& unit, const Outcome& outcome);
    /// It is gone with all it had.
    void ended();

    /// Notes the event, and throws a Violation unless the server did what it had to.
    void handled(const Unit& unit, const Event& event, const Outcome& outcome);

    [[nodiscard]] bool isPublished() const { return m_public != MNET_MBOX_NONE; }
    /// The ids of the faults that a subscriber must show now.
    [[nodiscard]] std::set<std::uint16_t> shownFaults() const { return m_faults.shown(); }
    [[nodiscard]] bool isDefaultSubscriber(mnet_mbox_id_t mbox) const;

private:
    struct Expected {
        mnet_mbox_id_t to = MNET_MBOX_NONE;
        mnet_mbox_id_t from = MNET_MBOX_NONE;
        std::uint32_t number = 0;
        std::optional<Bytes> whole;      ///< passed through as it came
        std::size_t size = 0;            ///< 0: whatever it is
        Refs refs;                       ///< of a signal
        Bytes tail;                      ///< behind the references, as far as it goes
        Backend* backend = nullptr;      ///< of a frame
        std::uint32_t procedureRef = 0;  ///< of a frame; 0: a new one
        std::uint32_t connectionRef = 0; ///< of a frame
        std::optional<Transaction> opens;
        mnet_mbox_id_t opensSessionOf = MNET_MBOX_NONE; ///< sent from a new session's clone
    };
    struct ExpectedSwmi {
        std::uint32_t number = 0;
        std::uint32_t procRef = 0;
        std::string body;
    };
    using Handler = std::function<void(const Event&)>;

    struct Subscriber {
        mnet_mbox_id_t mbox;
        Refs refs;
        bool operator==(const Subscriber&) const = default;
    };
    using Subscribers = std::vector<Subscriber>;

    void addClientHandlers();
    void addBoardHandlers();
    void addMmiHandlers();
    void addSoftwareHandlers();
    void addFaultHandlers();

    // Expectations
    void answer(mnet_mbox_id_t to, std::uint32_t number, Refs refs, const Bytes& tail = {},
                std::optional<std::size_t> size = {});
    void reject(mnet_mbox_id_t to, std::uint32_t number, Refs refs, unsigned int code = 1);
    void pass(mnet_mbox_id_t to, mnet_mbox_id_t from, const Bytes& bytes);
    /// False when the backend is not connected.
    bool ask(Backend& backend, std::uint32_t number, const google::protobuf::MessageLite& message,
             std::uint32_t procedureRef = 0, std::optional<Transaction> opens = {});
    template <class M>
    bool ask(Backend& backend, const M& message, std::uint32_t procedureRef = 0,
             std::optional<Transaction> opens = {})
    {
        return ask(backend, M::MESSAGE_NUMBER, message, procedureRef, std::move(opens));
    }
    template <class M> void askSwmi(std::uint32_t procRef, const M& message)
    {
        if (m_canSendSwmi) {
            m_expectedSwmi.push_back(
                {.number = M::MESSAGE_NUMBER, .procRef = procRef, .body = message.SerializeAsString()});
        }
    }
    void compare(const Unit& unit, const Outcome& outcome);
    void compareMessage(const Expected& expected, const Output& output);
    void compareSwmi(const Outcome& outcome) const;
    void checkState(const Unit& unit) const;
    static void checkTransactions(const Backend& backend, BrhClient& client);

    // Core
    [[nodiscard]] Session* sessionOf(mnet_mbox_id_t mbox);
    void dispatch(const Event& event);
    void onLegacyFound(const Event& event);
    void onMailboxLost(const Event& event);
    void onUnhandled(const Event& event);
    void onFromLegacy(Session& session, const Event& event);
    void openSession(const Event& event, unsigned int protocolRev);
    void closeSession(mnet_mbox_id_t mbox);
    void checkPublication();
    void releaseConfirm(Session& session);
    void onAudit(const Event& event);
    void onEnable(const Event& event);
    void onDisable(const Event& event);
    void onGetCapabilities(const Event& event);
    void onLinkSupervision(const Event& event);
    void onSelectMmi(const Event& event);
    void onNotifyRestart(const Event& event);
    void onRestartNotification(const Event& event);

    // Board servers
    /// A signal that is dropped when it is shorter than its record.
    void onSignal(std::uint32_t number, const Handler& handler);
    /// A frame that is dropped when it does not parse.
    template <class M> void onFrame(Backend& backend, std::function<void(const Event&, const M&)> handler);
    template <class Cfm> void onConfirm(Backend& backend, const std::function<void()>& then);
    void onNotify(Backend& backend, const Event& event);
    void registerSession(const Session& session);
    void unregisterSession(const Session& session);
    [[nodiscard]] const Transaction* find(Backend& backend, const Event& event) const;
    [[nodiscard]] std::optional<Transaction> take(Backend& backend, const Event& event);
    /// Answers of one kind: the transaction ends with each.
    template <class Cfm, class Rej>
    void endsWith(Backend& backend, std::uint32_t confirmNo, std::uint32_t rejectNo);
    /// Answers within a relation: the transaction stays.
    template <class Cfm, class Rej>
    void staysWith(Backend& backend, std::uint32_t confirmNo, std::uint32_t rejectNo);
    [[nodiscard]] static Transaction transactionOf(const Event& event, std::uint32_t data);
    void addTimeHandlers();
    void addPidHandlers();
    void askPid(const Event& event, bool canServe, std::uint32_t confirmNo);
    void onProductInfo(const Transaction& transaction, bool isReject);
    void addHwLogHandlers();
    void onHwLogSet(const Event& event);
    void addTemperatureHandlers();
    void onTempMeasStart(const Event& event);
    void addRestartHandlers();
    void addMaintStateHandlers();
    void addHereIAmHandlers();
    void onSetMaintState(const Event& event);
    void addVisualHandlers();
    void onSetVisual(const Event& event);
    void onGetVisual(const Event& event, std::uint32_t rejectNo);
    void onOrderHereIAm(const Event& event);

    // Software
    SwRecord& addRecord(std::uint32_t signal, const Event& event);
    [[nodiscard]] SwRecord* findRecord(std::uint32_t signal, Refs refs,
                                       std::optional<std::uint32_t> aux = {});
    [[nodiscard]] SwRecord* findProcedure(std::uint32_t procRef, std::optional<std::uint32_t> ticket = {});
    void eraseRecord(const SwRecord* record);
    [[nodiscard]] SwRecord* openWithTicket(const Event& event, std::uint32_t rejectNo);
    template <class M> void onSwmiFrame(std::function<void(const Event&, const M&)> handler);
    /// For the record of the frame's reference and ticket, if there is one.
    template <class M> void onSwmiAnswer(std::function<void(SwRecord&, const M&)> handler);
    void addTicketHandlers();
    void addLoadHandlers();
    void addInventoryHandlers();
    void addListHandlers();
    void onSwmi(const Event& event);
    [[nodiscard]] bool acquiresImplicitly(mnet_mbox_id_t client);
    void acquire(const Event& event, std::uint32_t resource);
    void closeSoftware(std::uint32_t serverRef);
    void finishKpxList(SwRecord& record);
    void sendKpxPiece(SwRecord& record);
    void sendListPiece(const SwRecord& record, bool isEnd, const std::string& text);
    /// A GSM client of a KPX unit.
    [[nodiscard]] bool isKpx(Refs refs) const;

    // Faults
    void faultRaised(const Fault& fault, std::optional<mnet_mbox_id_t> onlyTo);
    void faultCeased(const Fault& fault);
    void applyBoardCalls();
    bool subscribe(const Event& event, Subscribers& list, std::uint32_t confirmNo);
    void unsubscribe(mnet_mbox_id_t mbox);
    void onSubscriberLost(const Event& event);
    void onCcfiEstablish(const Event& event);
    void onCcfiClose(const Event& event);
    void onCcfiFault(const Event& event, bool isRaise);

    std::map<std::pair<std::uint32_t, std::uint32_t>, Handler> m_frames; ///< by number and client reference
    std::map<std::uint32_t, Handler> m_signals;
    std::map<std::uint32_t, Handler> m_swmi;
    std::set<std::uint32_t> m_frameNumbers;

    // What the server has
    std::map<mnet_mbox_id_t, Session> m_sessions;
    mnet_mbox_id_t m_private = MNET_MBOX_NONE;
    mnet_mbox_id_t m_public = MNET_MBOX_NONE;
    mnet_mbox_id_t m_legacy = MNET_MBOX_NONE;
    bool m_isPublishing = false; ///< in this step
    std::uint32_t m_nextSession = 0;
    Backend m_bri{.notifyNo = 0x17075AD, .clientRef = 100, .open = {}};
    Backend m_bmmi{.notifyNo = 0x17075BD, .clientRef = 101, .open = {}};
    std::set<int> m_boardCapabilities;
    std::optional<std::uint32_t> m_restartRanks; ///< of the first announcement
    bool m_isProductComplete = false;
    bool m_hasMarketName = false;
    std::string m_productName;
    bool m_isContainerComplete = false;
    std::set<std::pair<Refs, int>> m_restartInitiators; ///< with the restart's code

    bool m_isAuboot;
    bool m_isSwmiConnected = false;
    bool m_canSendSwmi = false; ///< at this step
    std::vector<SwRecord> m_records;
    std::uint32_t m_lastProcRef = 0;
    std::string m_selectedModule;
    bool m_mayThrow = false; ///< in this step
    bool m_isExiting = false;

    FaultLedger m_faults;
    std::vector<FaultCall> m_boardCalls;
    model::BriFaults m_boardFaults{m_boardCalls};
    Subscribers m_defaultSubscribers;
    Subscribers m_labelSubscribers;
    Subscribers m_recoverySubscribers;
    std::set<mnet_mbox_id_t> m_watched;
    struct CcfiConnection {
        std::uint32_t clientRef;
        mnet_mbox_id_t mbox;
    };
    std::map<std::uint32_t, CcfiConnection> m_ccfi; ///< by the server's reference
    std::uint32_t m_nextCcfi = 0x1000;

    std::vector<Expected> m_expected;
    std::vector<ExpectedSwmi> m_expectedSwmi;
};

} // namespace sim
