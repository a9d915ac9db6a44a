/// The legacy server of the reference board: confirms connections and echoes everything else.
#pragma once

#include "answerPlans.h"
#include "outbox.h"
#include "service.h"

#include <array>
#include <map>
#include <optional>
#include <string>

namespace merlow::board {

/// Clients reach it through a relay that gives each of them a mailbox of its own, so a mailbox is a client:
///
///   unknown mailbox --TARN_BC_CONN_ESTABLISH_REQ--> connected (CFM), or rejected (REJ)
///   connected --the same again--> confirmed with the same reference
///   mailbox gone --> its reference is free again
///
/// Any other signal goes back to its sender unchanged, connected or not, unless a rule answers it. Connection
/// signals are never echoed: an echoed confirm would be taken for one. When brhd tells that the board
/// restarts, each connected client gets a notification with its own references.
class LegacyServer : public Service {
public:
    explicit LegacyServer(Outbox& outbox);

    std::string name() const override { return "legacyd"; }
    std::string controlMailboxName() const override { return "LegacydControl"; }
    std::vector<std::string> mailboxNames() const override { return {"LegacyMerlow"}; }
    void attach(const std::string& mailboxName, MailboxId mailbox) override;

    void receive(const Received& received) override;
    void mailboxGone(MailboxId mailbox) override;

    nlohmann::json status() const override;
    std::vector<AnswerKind> kinds() const override;
    AnswerPlans& plans() override { return m_plans; }
    std::optional<AnswerKind> findKind(const std::string& kind) const override;
    ControlAnswer lose(const std::string& server, std::optional<std::uint32_t> ref) override;
    ControlAnswer clear() override;
    ControlAnswer control(const std::string& command, const nlohmann::json& request) override;

private:
    struct Connection {
        std::int32_t clientRef;
        std::int32_t serverRef;
        std::uint16_t protocolRev;
    };

    /// The references of one radio access type, given out in turn.
    struct Range {
        std::int32_t first;
        std::int32_t last;
        std::int32_t next;
    };

    /// An answer of its own for a signal, in place of the echo.
    struct Rule {
        std::uint32_t answerNumber;
        Bytes fields; ///< behind the envelope, which carries the request's references
    };

    struct ConnEstablishReq {
        std::int32_t clientRef;
        std::int32_t serverRef;
        std::uint16_t protocolRev;
    };

    static std::optional<ConnEstablishReq> readConnEstablishReq(BytesView bytes);
    void handleConnEstablishReq(const Received& received);
    void handleOther(const Received& received, std::uint32_t number);
    /// What stands against the request, in the words of the reject.
    std::optional<std::string> objectionTo(const ConnEstablishReq& req, MailboxId client) const;
    std::int32_t takeServerRef(std::int32_t requested, MailboxId client);
    /// Which of the ranges it lies in; none when no access type has it.
    std::optional<std::size_t> rangeOf(std::int32_t serverRef) const;
    bool holdsOneOf(std::size_t range, MailboxId client) const;
    bool isFree(std::int32_t serverRef) const;
    bool hasFree(const Range& range) const;
    void sendPlanned(MailboxId client, Bytes message, const std::optional<AnswerPlan>& plan);
    ControlAnswer addRule(const nlohmann::json& request);
    ControlAnswer notifyRestart(const nlohmann::json& request);
    void countOther(std::uint32_t number);

    Outbox& m_outbox;
    AnswerPlans m_plans;
    MailboxId m_mailbox = noMailbox;
    std::array<Range, 3> m_ranges{{{100, 199, 100}, {300, 399, 300}, {400, 499, 400}}};
    std::map<MailboxId, Connection> m_connections;
    std::map<std::uint32_t, Rule> m_rules; ///< by signal number

    std::map<std::uint32_t, std::uint64_t> m_otherSignals; ///< received, by number; a bounded number of them
    struct {
        std::uint64_t connReceived = 0;
        std::uint64_t connConfirmed = 0;
        std::uint64_t connRejected = 0;
        std::uint64_t tooShort = 0;
        std::uint64_t strayAnswers = 0; ///< connection answers, which only a server sends
        std::uint64_t echoed = 0;
        std::uint64_t answeredByRule = 0;
        std::uint64_t uncounted = 0; ///< other signals beyond the numbers that are counted each
        std::uint64_t delayed = 0;
        std::uint64_t dropped = 0;
    } m_counters;
};

} // namespace merlow::board
