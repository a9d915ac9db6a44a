/// A client of the unit's public interface.
#pragma once

#include "unitClient.h"

#include <initializer_list>

namespace merlow::tools {

/// One connection to the unit, which drops the session when the client goes.
///
/// An answer is a signal with one of the awaited numbers and the references of the request.
class BciClient : public UnitClient {
public:
    struct Settings {
        std::int32_t clientRef = 1;
        std::int32_t serverRef = 300;
        std::uint16_t protocolRev = 3;
        std::chrono::milliseconds timeout{3000}; ///< for each wait: the search, the connection, each answer
    };

    explicit BciClient(const Settings& settings);

    /// Finds the unit and connects. The references are those of the confirm afterwards.
    [[nodiscard]] std::optional<Failure> connect();

    /// The references for the next request.
    [[nodiscard]] const TarnNodeCommonAddressInfoS& references() const { return m_references; }

    /// Sends `msg` and waits for its answer: a signal with one of the numbers `answers`, or with any number
    /// when that is empty. A reject is a failure that carries its code and text.
    [[nodiscard]] Answer request(MnetMsgPtr msg, std::initializer_list<std::uint32_t> answers);

    /// One of several requests that are under way at the same time: sends `msg`, and each answer is awaited.
    using UnitClient::post;
    /// The next signal with one of the numbers `answers` and the client's references; `request` is what a
    /// failure names.
    [[nodiscard]] Answer awaitAnswer(std::uint32_t request, std::initializer_list<std::uint32_t> answers);

    /// Whether this client has acquired the software store, which it does once at a time.
    [[nodiscard]] bool holdsStore() const { return m_holdsStore; }
    void setHoldsStore(bool holds) { m_holdsStore = holds; }

    /// Whether this client is told of changes of Here I Am, which lasts as long as the client.
    [[nodiscard]] bool isToldOfHereIAm() const { return m_isToldOfHereIAm; }
    void setToldOfHereIAm() { m_isToldOfHereIAm = true; }

private:
    std::uint16_t m_protocolRev;
    TarnNodeCommonAddressInfoS m_references;
    bool m_holdsStore = false;
    bool m_isToldOfHereIAm = false;
};

/// The record with its number and the client's references, fields zero.
template <class R> [[nodiscard]] R requestFrom(const BciClient& client)
{
    return answerTo<R>(client.references());
}

} // namespace merlow::tools
