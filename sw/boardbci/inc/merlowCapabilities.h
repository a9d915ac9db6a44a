#pragma once

#include "bci/bciCapabilities.h"
#include "merlowComponent.h"
#include "swayCapability.h"

#include <memory>
#include <vector>

/// What the unit can do, gathered from the SWM server, the platform, BRI and BMMI at each request.
///
///   TARN_BC_GET_CAPABILITIES_REQ -> TARN_BC_GET_CAPABILITIES_CFM
///
/// Keeps nothing and needs no session: every request is answered at once. Server thread only.
class MerlowCapabilities : public MerlowComponent {
public:
    using MerlowComponent::MerlowComponent;

    bool init() override;

private:
    using SwayCapabilities = std::vector<std::shared_ptr<SWAYCapability>>;
    using Capabilities = std::vector<std::shared_ptr<Capability>>;
    using Records = std::vector<TarnBcBoardCapabilityS>;

    void handleGetCapabilitiesReq(const std::shared_ptr<mnet_msg>& msg);

    /// What the platform, BRI and BMMI have, in this order.
    [[nodiscard]] Capabilities getBoardCapabilities(int serverRef) const;
    /// Append what each item means to a client.
    void addSwayRecords(Records& records, const SwayCapabilities& capabilities, mnet_mbox_id_t client) const;
    void addBoardRecords(Records& records, const Capabilities& capabilities, int serverRef) const;
};
