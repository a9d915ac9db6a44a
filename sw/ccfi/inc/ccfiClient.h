#pragma once

#include "mnet.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace Merlow::Ccfi {

/// The open connections. Each is watched by a monitor of its own on its client's mailbox, whose notice
/// removes it; what the client raised stays. Server thread only.
class CcfiClient {
public:
    struct ConnectionData {
        std::uint32_t serverConnectionReference; ///< given out by this server, unique
        std::uint32_t clientConnectionReference; ///< the client's own
        mnet_mbox_id_t mbox;
        mnet_monitor_id_t monitorId;
    };
    /// In the order of registration.
    using Connections = std::vector<ConnectionData>;

    CcfiClient() = default;
    ~CcfiClient();
    CcfiClient(const CcfiClient&) = delete;
    CcfiClient& operator=(const CcfiClient&) = delete;

    /// A server thread begins: registers the handler, and forgets connections of an earlier thread, whose
    /// monitors have ended with its mailbox.
    void initialize();
    void addMessageHandlers();
    void removeMessageHandlers() const;

    /// False when the mailbox can't be watched; such a connection would never end, so there is none.
    [[nodiscard]] bool registerClient(std::uint32_t serverConnectionReference,
                                      std::uint32_t clientConnectionReference, mnet_mbox_id_t mbox);
    /// Where the connection is, and whether there is one.
    [[nodiscard]] std::pair<Connections::const_iterator, bool>
    getConnection(unsigned int serverConnectionReference) const;
    [[nodiscard]] std::optional<unsigned int>
    getClientConnectionReference(unsigned int serverConnectionReference) const;
    /// Ends the watch and forgets the connection; an unknown one is harmless.
    void resetClient(unsigned int serverConnectionReference);
    void doClientDisconnected(const std::shared_ptr<mnet_msg>& msg);

private:
    Connections m_connections;
};

} // namespace Merlow::Ccfi
