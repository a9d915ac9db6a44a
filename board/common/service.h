/// A neighbour as its host process sees it: mailboxes, what arrives on them, and what boardctl may ask.
#pragma once

#include "answerPlans.h"
#include "message.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace merlow::board {

/// How a control request ended; boardctl makes its exit status of it.
struct ControlAnswer {
    enum class Result : std::uint8_t { done, refused, usage, notFound };

    Result result = Result::done;
    std::string text;    ///< for people; what went wrong, or what was done
    nlohmann::json data; ///< what was asked for, or null
};

/// A kind of answer on which plans can act.
struct AnswerKind {
    std::string name;
    bool canRefuse = false;
    std::vector<std::string> causes; ///< that a refusal can carry; the first is the usual one
    bool freeCause = false;          ///< any text is a cause
    bool canAbort = false;           ///< the answer can give the transfer up that the request belongs to
};

/// Thread: the host's one thread. Ends when the process does.
class Service {
public:
    virtual ~Service() = default;

    virtual std::string name() const = 0;                      ///< of the program, as "brhd"
    virtual std::string controlMailboxName() const = 0;        ///< where boardctl finds it
    virtual std::vector<std::string> mailboxNames() const = 0; ///< that it serves, besides
    /// By what it is known to those whom it serves, for people.
    virtual std::vector<std::string> servedNames() const { return mailboxNames(); }
    /// `mailbox` is now the one of that name.
    virtual void attach(const std::string& mailboxName, MailboxId mailbox) = 0;

    /// All mailboxes are attached; messages and notices come from here on.
    virtual void begin() {}

    /// A message that arrived at one of the attached mailboxes.
    virtual void receive(const Received& received) = 0;
    /// A watched mailbox is gone.
    virtual void mailboxGone(MailboxId mailbox) = 0;
    /// What `Outbox::ask` asked for is done, or refused.
    virtual void answered(const ControlAnswer& /*answer*/) {}

    virtual nlohmann::json status() const = 0;
    virtual std::vector<AnswerKind> kinds() const = 0;
    virtual AnswerPlans& plans() = 0;
    /// `kind` in the form that the plans use, if it is one.
    virtual std::optional<AnswerKind> findKind(const std::string& kind) const = 0;
    /// Loses the server `server`, or only its connection `ref`.
    virtual ControlAnswer lose(const std::string& server, std::optional<std::uint32_t> ref) = 0;
    /// Undoes all interventions; the text says what there was.
    virtual ControlAnswer clear() = 0;
    /// A control request of this neighbour alone; `request` is a JSON object.
    virtual ControlAnswer control(const std::string& command, const nlohmann::json& request) = 0;
};

} // namespace merlow::board
