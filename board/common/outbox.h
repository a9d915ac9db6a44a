/// What the neighbours' protocol logic needs of the outside: sending, watching mailboxes, the log. The daemon
/// host implements it on the mailbox library, the unit tests in memory.
#pragma once

#include "message.h"

#include <chrono>
#include <functional>
#include <sstream>
#include <string>

namespace merlow::board {

/// Levels of log lines, in the numbering of the trace library.
enum class LogLevel : unsigned {
    error = 1,    ///< the daemon itself lacks something
    abnormal = 4, ///< a peer did something odd; the text begins with "ABN:"
    info = 5,     ///< the life of connections
};

/// Where a neighbour's log goes. One thread only, like all of a neighbour.
class Log {
public:
    virtual ~Log() = default;

    [[nodiscard]] virtual bool logs(LogLevel level) const = 0;
    virtual void log(LogLevel level, const char* file, unsigned line, const std::string& text) = 0;
};

/// No call throws for a peer that is gone: what is sent to it is lost, and its notice comes or has come.
class Outbox : public Log {
public:
    virtual void send(MailboxId from, MailboxId to, BytesView message) = 0;

    /// Sends the message in hand back to its sender, unchanged and without a copy. At most once for each
    /// received message, after its last use.
    virtual void sendBack(const Received& received) = 0;

    /// As `send`, but after a delay. Messages without a delay overtake it. It is lost when `from` is gone.
    virtual void sendAfter(std::chrono::milliseconds delay, MailboxId from, MailboxId to, Bytes message) = 0;

    /// The board's clock, since some time in the past.
    [[nodiscard]] virtual std::chrono::milliseconds now() const = 0;

    /// Runs `action` once, after a delay on the board's clock, which may run faster than the system's. There
    /// is no way back: what is no longer wanted has to find that out by itself. False, and nothing is kept,
    /// when too much is due already.
    [[nodiscard]] virtual bool runAfter(std::chrono::milliseconds delay, std::function<void()> action) = 0;

    /// Sends the control request from the control mailbox to the one called `name`, as soon as there is one.
    /// Its answer goes to the service; none may come.
    virtual void ask(const std::string& name, BytesView request) = 0;

    /// Ends the process with `exitStatus`, once what is in hand is done.
    virtual void end(int exitStatus) = 0;

    /// Has the loss of `mailbox` reported, once, at once if it is gone already. Watching twice is watching
    /// once. False when the loss could not be noticed.
    [[nodiscard]] virtual bool watch(MailboxId mailbox) = 0;

    /// Deletes a mailbox of the daemon and creates one of the same name. Peers see it go and come back. Gives
    /// the new id, or `noMailbox` when the name could not be taken again.
    [[nodiscard]] virtual MailboxId reopenMailbox(MailboxId mailbox) = 0;
};

/// Writes what is streamed, and builds it only when the level is on.
#define BOARD_LOG(outbox, level, streamed)                                                                   \
    do {                                                                                                     \
        if ((outbox).logs(level)) {                                                                          \
            std::ostringstream boardLogText;                                                                 \
            boardLogText << streamed; /* NOLINT(bugprone-macro-parentheses): an operand list */              \
            (outbox).log(level, __FILE__, __LINE__, boardLogText.str());                                     \
        }                                                                                                    \
    } while (false)

} // namespace merlow::board
