// What boardctl asks.

#include "swmServer.h"

#include <utility>

namespace merlow::board {

std::vector<AnswerKind> SwmServer::kinds() const
{
    std::vector<AnswerKind> kinds;
    for (const auto& [number, row] : m_rows) {
        kinds.push_back(answerKindOf(row.kind, row.reject));
        kinds.back().canAbort = number == swm::PushLoadData::MESSAGE_NUMBER;
    }
    return kinds;
}

std::optional<AnswerKind> SwmServer::findKind(const std::string& name) const
{
    for (AnswerKind& kind : kinds()) {
        if (kind.name == name) {
            return std::move(kind);
        }
    }
    return std::nullopt;
}

nlohmann::json SwmServer::storeStatus() const
{
    nlohmann::json modules = nlohmann::json::array();
    for (const StoredModule& module : m_store.modules()) {
        using Entry = swm::ProductInventory;
        modules.push_back({{"slot", module.slot},
                           {"software", toText(module.id)},
                           {"type", Entry::SoftwareType_Name(static_cast<Entry::SoftwareType>(module.type))},
                           {"size", module.size},
                           {"status", Entry::Status_Name(static_cast<Entry::Status>(module.status))},
                           {"access", Entry::Access_Name(static_cast<Entry::Access>(module.access))},
                           {"running", module.running}});
    }
    nlohmann::json status{{"place", m_store.place()},
                          {"slots", m_store.config().slots},
                          {"modules", std::move(modules)},
                          {"slotWorking", m_slotWorking},
                          {"lastLoad", m_lastLoad}};
    if (m_store.isLoading()) {
        status["loadedBytes"] = m_store.loadedBytes();
    }
    return status;
}

nlohmann::json SwmServer::status() const
{
    nlohmann::json connections = nlohmann::json::array();
    for (const auto& [id, revision] : m_connections) {
        connections.push_back({{"ref", id}, {"revision", revision}});
    }
    nlohmann::json tickets = nlohmann::json::array();
    for (const SwmTicket& ticket : m_tickets.queue()) {
        tickets.push_back({{"ticket", ticket.number},
                           {"connection", ticket.connection},
                           {"active", &ticket == &m_tickets.queue().front()}});
    }
    nlohmann::json status{{"address", swm::ServerMetadata().name()},
                          {"revisions", m_config.revisions},
                          {"maxConnections", m_config.maxConnections},
                          {"connections", std::move(connections)},
                          {"tickets", std::move(tickets)},
                          {"store", storeStatus()},
                          {"cutFrames", m_cutFrames},
                          {"unknownFrames", m_unknownFrames},
                          {"tooLongFrames", m_tooLongFrames},
                          {"earlyFrames", m_earlyFrames}};
    for (const auto& [number, row] : m_rows) {
        const Counters& counters = row.counters;
        status["received"][row.kind] = counters.received;
        status["malformed"][row.kind] = counters.malformed;
        status["confirmed"][row.kind] = counters.confirmed;
        status["rejected"][row.kind] = counters.rejected;
        status["delayed"][row.kind] = counters.delayed;
        status["dropped"][row.kind] = counters.dropped;
    }
    return status;
}

} // namespace merlow::board
