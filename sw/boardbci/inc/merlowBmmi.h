#pragma once

#include "merlowComponent.h"

/// Brings the connection to the BMMI server up, and up again when the server comes back:
///
///   server notify -> bmmi::ConnEstablishReq
///   bmmi::ConnEstablishCfm -> bmmi::GetCapabilitiesReq
///   bmmi::GetCapabilitiesCfm -> ready to publish
///
/// Keeps nothing: the connection's state is in the BMMI client. Server thread only.
class MerlowBmmi : public MerlowComponent {
public:
    using MerlowComponent::MerlowComponent;

    bool init() override;
    [[nodiscard]] bool isReadyToPublish() const override;
    [[nodiscard]] std::string getComponentName() const override;

private:
    void handleBmmiServerLocate(const std::shared_ptr<mnet_msg>& msg);
    void handleBmmiConnEstablishCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleBmmiConnEstablishRej(const std::shared_ptr<mnet_msg>& msg);
    void handleBmmiGetCapabilitiesCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleBmmiGetCapabilitiesRej(const std::shared_ptr<mnet_msg>& msg);
};
