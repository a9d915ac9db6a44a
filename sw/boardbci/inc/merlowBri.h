#pragma once

#include "merlowComponent.h"

/// Brings the connection to the BRI server up, and up again when the server comes back:
///
///   server notify -> bri::ConnEstablishReq
///   bri::ConnEstablishCfm -> bri::GetProductInfoReq, bri::GetContainerPidReq,
///                            bri::GetCapabilitiesReq, bri::SubscribeFaultsReq
///   bri::GetCapabilitiesCfm -> ready to publish
///
/// Keeps nothing: the connection's state is in the BRI client. The other services' answers are theirs. Server
/// thread only.
class MerlowBri : public MerlowComponent {
public:
    using MerlowComponent::MerlowComponent;

    bool init() override;
    [[nodiscard]] bool isReadyToPublish() const override;
    [[nodiscard]] std::string getComponentName() const override;

private:
    void handleBriServerLocate(const std::shared_ptr<mnet_msg>& msg);
    void handleBriConnEstablishCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleBriConnEstablishRej(const std::shared_ptr<mnet_msg>& msg);
    void handleBriGetCapabilitiesCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleBriGetCapabilitiesRej(const std::shared_ptr<mnet_msg>& msg);
};
