/// A client of the unit for command-line tools: blocking calls with deadlines, and a descriptor for tools
/// that stay.
#pragma once

#include "bciDecode.h"
#include "exitStatus.h"
#include "mnetMsgPtr.h"

#include <chrono>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <variant>

namespace merlow::tools {

/// Why there is no answer to go on with.
struct Failure {
    ExitStatus status;
    std::string text; ///< for people; without code and text of a reject
    std::optional<Rejection> rejection;
    std::uint32_t answer = 0; ///< the number of the signal that says so; 0 for none
};

/// One mailbox and one connection to the unit. Belongs to the thread that made it. It goes with its
/// connection: the unit sees the mailbox go and drops the session.
///
/// An answer is a signal with one of the awaited numbers and the references of the request. What else comes
/// goes to the indication handler, or is dropped when there is none.
class BciClient {
public:
    struct Settings {
        std::int32_t clientRef = 1;
        std::int32_t serverRef = 300;
        std::uint16_t protocolRev = 3;
        std::chrono::milliseconds timeout{3000}; ///< for each wait: the search, the connection, each answer
    };

    using Answer = std::variant<Signal, Failure>;

    explicit BciClient(const Settings& settings);
    ~BciClient();
    BciClient(const BciClient&) = delete;
    BciClient& operator=(const BciClient&) = delete;

    /// Finds the unit and connects. The references are those of the confirm afterwards.
    [[nodiscard]] std::optional<Failure> connect();

    /// The references for the next request.
    [[nodiscard]] const TarnNodeCommonAddressInfoS& references() const { return m_references; }

    /// Sends `msg` and waits for its answer: a signal with one of the numbers `answers`, or with any number
    /// when that is empty. A reject is a failure that carries its code and text.
    [[nodiscard]] Answer request(MnetMsgPtr msg, std::initializer_list<std::uint32_t> answers);

    void onIndication(std::function<void(const Signal&)> handler) { m_onIndication = std::move(handler); }

    /// Readable when `drain` has something to do; -1 before `connect`.
    [[nodiscard]] int fd() const;

    /// Hands out what has come. Does not wait.
    void drain();

    /// The unit went away after the connection was made. There is no way back but a new client.
    [[nodiscard]] bool isLost() const { return m_isLost; }

private:
    using TimePoint = std::chrono::steady_clock::time_point;

    [[nodiscard]] std::optional<Failure> openMailbox();
    [[nodiscard]] std::optional<Failure> findUnit();
    [[nodiscard]] std::optional<Failure> establish();
    /// The next signal; nothing at the deadline (without one: when none is there now) or when the unit is
    /// lost.
    [[nodiscard]] std::optional<Signal> receiveUntil(std::optional<TimePoint> deadline);
    [[nodiscard]] Failure lost() const;
    [[nodiscard]] TimePoint deadline() const { return std::chrono::steady_clock::now() + m_settings.timeout; }

    Settings m_settings;
    TarnNodeCommonAddressInfoS m_references;
    std::function<void(const Signal&)> m_onIndication;
    mnet_mbox_id_t m_mailbox = MNET_MBOX_NONE;
    mnet_mbox_id_t m_unit = MNET_MBOX_NONE;
    bool m_ownsLibrary = false;
    bool m_isLost = false;
};

/// The record with its number and the client's references, fields zero.
template <class R> [[nodiscard]] R requestFrom(const BciClient& client)
{
    return answerTo<R>(client.references());
}

} // namespace merlow::tools
