#pragma once

#include "ccfiClient.h"
#include "faultManagerIf.h"

namespace Merlow::Ccfi {

/// Hands the faults of connected clients to the fault manager, as far as their ids may come this way. Clients
/// get no answer, and a fault is not tied to the connection that it came over. Server thread only.
class CcfiFaultFwd {
public:
    /// Both must outlive the object.
    CcfiFaultFwd(CcfiClient& client, FaultManagerIf& faultManager);
    ~CcfiFaultFwd();
    CcfiFaultFwd(const CcfiFaultFwd&) = delete;
    CcfiFaultFwd& operator=(const CcfiFaultFwd&) = delete;

    void initialize();
    void addMessageHandlers();
    void removeMessageHandlers() const;

    void handleFaultFwd(const std::shared_ptr<mnet_msg>& msg);
    void handleFaultceaseFwd(const std::shared_ptr<mnet_msg>& msg);

private:
    /// A trace when it is not.
    [[nodiscard]] bool isConnected(std::uint32_t serverConnectionReference) const;

    CcfiClient& m_client;
    FaultManagerIf& m_faultManager;
};

} // namespace Merlow::Ccfi
