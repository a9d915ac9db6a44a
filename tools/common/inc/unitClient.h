/// A process that talks to a unit: blocking calls with deadlines, and a descriptor for tools that stay.
#pragma once

#include "bciDecode.h"
#include "exitStatus.h"
#include "mnetMsgPtr.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace merlow::tools {

/// Why there is no answer to go on with.
struct Failure {
    ExitStatus status;
    std::string text; ///< for people; without code and text of a reject
    std::optional<Rejection> rejection;
    std::uint32_t answer = 0; ///< the number of the signal that says so; 0 for none
};

/// One mailbox of this process and the mailbox of a unit. Belongs to the thread that made it, and the unit
/// sees the mailbox go when the object does.
///
/// What comes and is no answer goes to the indication handler, or is dropped when there is none.
class UnitClient {
public:
    using Answer = std::variant<Signal, Failure>;

    /// `unitMailbox`: the name to talk to. `timeout`: for each wait, the search and each answer.
    UnitClient(const char* unitMailbox, std::chrono::milliseconds timeout);
    ~UnitClient();
    UnitClient(const UnitClient&) = delete;
    UnitClient& operator=(const UnitClient&) = delete;

    /// Opens the mailbox and finds the unit.
    [[nodiscard]] std::optional<Failure> open();

    using IndicationHandler = std::function<void(const Signal&)>;

    /// Gives the handler before this one.
    IndicationHandler onIndication(IndicationHandler handler)
    {
        return std::exchange(m_onIndication, std::move(handler));
    }
    [[nodiscard]] bool hasIndicationHandler() const { return m_onIndication != nullptr; }

    /// Readable when `drain` has something to do; -1 before `open`.
    [[nodiscard]] int fd() const;

    /// Hands out what has come. Does not wait.
    void drain();

    /// Hands out what comes until the unit goes away; false when it has not in time.
    [[nodiscard]] bool awaitLoss();

    /// What this client was made with.
    [[nodiscard]] const char* unitName() const { return m_unitName; }
    [[nodiscard]] std::chrono::milliseconds timeout() const { return m_timeout; }
    /// The failure of a request that has had all its time.
    [[nodiscard]] Failure noAnswerTo(std::uint32_t request) const;

    /// The unit went away after it was found. There is no way back but a new client.
    [[nodiscard]] bool isLost() const { return m_isLost; }

protected:
    using Predicate = std::function<bool(const Signal&)>;

    /// Hands out what has come, then sends `msg`, without waiting for anything.
    [[nodiscard]] std::optional<Failure> send(MnetMsgPtr msg);

    /// Sends `msg` and nothing else: what has come stays for `await`.
    [[nodiscard]] std::optional<Failure> post(MnetMsgPtr msg);

    /// Waits for the signal that `isAnswer` takes. A reject is a failure that carries its code and text; so
    /// is, unless `isAnyLengthFine`, an answer shorter than its layout. `request` is what a failure names.
    [[nodiscard]] Answer await(std::uint32_t request, const Predicate& isAnswer, bool isAnyLengthFine);

    /// Sends `msg` and awaits its answer.
    [[nodiscard]] Answer exchange(MnetMsgPtr msg, const Predicate& isAnswer, bool isAnyLengthFine);

private:
    using TimePoint = std::chrono::steady_clock::time_point;

    [[nodiscard]] std::optional<Failure> openMailbox();
    [[nodiscard]] std::optional<Failure> findUnit();
    /// The next signal; nothing at the deadline (without one: when none is there now) or when the unit is
    /// lost.
    [[nodiscard]] std::optional<Signal> receiveUntil(std::optional<TimePoint> deadline);
    [[nodiscard]] Failure lost() const;

    const char* m_unitName;
    std::chrono::milliseconds m_timeout;
    IndicationHandler m_onIndication;
    mnet_mbox_id_t m_mailbox = MNET_MBOX_NONE;
    mnet_mbox_id_t m_unit = MNET_MBOX_NONE;
    bool m_ownsLibrary = false;
    bool m_isLost = false;
};

} // namespace merlow::tools
