/// How the ledger reads the frames of BRI and BMMI.
#pragma once

#include "ledger.h"

namespace sim {

template <class M> void Ledger::onFrame(Backend& backend, std::function<void(const Event&, const M&)> handler)
{
    constexpr std::size_t headerSize = 12;
    m_frameNumbers.insert(M::MESSAGE_NUMBER);
    m_frames[{M::MESSAGE_NUMBER, backend.clientRef}] = [handler = std::move(handler)](const Event& event) {
        M message;
        if (event.bytes.size() >= headerSize &&
            message.ParseFromArray(event.bytes.data() + headerSize,
                                   static_cast<int>(event.bytes.size() - headerSize))) {
            handler(event, message);
        }
    };
}

template <class Cfm> void Ledger::onConfirm(Backend& backend, const std::function<void()>& then)
{
    onFrame<Cfm>(backend, [&backend](const Event& event, const Cfm& cfm) {
        backend.isConnected = cfm.selected_protocol_revision() != 0;
        backend.connectionRef = wordAt(event.bytes, 8);
    });
    m_frames[{Cfm::MESSAGE_NUMBER, backend.clientRef}] =
        [&backend, then, read = m_frames[{Cfm::MESSAGE_NUMBER, backend.clientRef}]](const Event& event) {
            backend.isConnected = false; // what can't be read ends the connection
            read(event);
            if (backend.isConnected) {
                then();
            }
        };
}

template <class Cfm, class Rej>
void Ledger::endsWith(Backend& backend, std::uint32_t confirmNo, std::uint32_t rejectNo)
{
    onFrame<Cfm>(backend, [this, &backend, confirmNo](const Event& event, const Cfm&) {
        const auto transaction = take(backend, event);
        if (transaction && sessionOf(transaction->client) != nullptr) {
            answer(transaction->client, confirmNo, transaction->refs);
        }
    });
    onFrame<Rej>(backend, [this, &backend, rejectNo](const Event& event, const Rej&) {
        const auto transaction = take(backend, event);
        if (transaction && sessionOf(transaction->client) != nullptr) {
            reject(transaction->client, rejectNo, transaction->refs);
        }
    });
}

template <class Cfm, class Rej>
void Ledger::staysWith(Backend& backend, std::uint32_t confirmNo, std::uint32_t rejectNo)
{
    onFrame<Cfm>(backend, [this, &backend, confirmNo](const Event& event, const Cfm&) {
        const Transaction* transaction = find(backend, event);
        if (transaction != nullptr && sessionOf(transaction->client) != nullptr) {
            answer(transaction->client, confirmNo, transaction->refs);
        }
    });
    onFrame<Rej>(backend, [this, &backend, rejectNo](const Event& event, const Rej&) {
        const Transaction* transaction = find(backend, event);
        if (transaction != nullptr && sessionOf(transaction->client) != nullptr) {
            reject(transaction->client, rejectNo, transaction->refs);
        }
    });
}

} // namespace sim
