#pragma once

#include "merlowComponent.h"

/// Link supervision, which this server does not offer: each request is rejected, whoever sends it, and what
/// BRI answers is parsed for its trace only.
///
///   TARN_BC_LINK_SUPERVISION_REQ -> TARN_BC_LINK_SUPERVISION_REJ
///
/// Keeps nothing. Server thread only.
class MerlowLinkSupervision : public MerlowComponent {
public:
    using MerlowComponent::MerlowComponent;

    bool init() override;

    /// Asks BRI to give `link` this timeout. Returns the procedure reference, or 0 when nothing was sent.
    /// Nothing in the server calls it.
    unsigned int sendSetLinkSupervisionTimeoutReq(unsigned int timeout, const std::string& link);

private:
    void handleLinkSupervisionReq(const std::shared_ptr<mnet_msg>& msg);

    void handleSetLinkSupervisionTimeoutCfm(const std::shared_ptr<mnet_msg>& msg) const;
    void handleSetLinkSupervisionTimeoutRej(const std::shared_ptr<mnet_msg>& msg) const;
    void handleStartLinkTimeoutSupervisionCfm(const std::shared_ptr<mnet_msg>& msg) const;
    void handleStartLinkTimeoutSupervisionRej(const std::shared_ptr<mnet_msg>& msg) const;
    void handleStopLinkTimeoutSupervisionCfm(const std::shared_ptr<mnet_msg>& msg) const;
    void handleStopLinkTimeoutSupervisionRej(const std::shared_ptr<mnet_msg>& msg) const;
    void handleConnectivitySetSupervisionTimeoutCfm(const std::shared_ptr<mnet_msg>& msg) const;
    void handleConnectivitySetSupervisionTimeoutRej(const std::shared_ptr<mnet_msg>& msg) const;
    void handleConnectivityConnectedCfm(const std::shared_ptr<mnet_msg>& msg) const;
    void handleConnectivityConnectedRej(const std::shared_ptr<mnet_msg>& msg) const;
    void handleConnectivityNotConnectedCfm(const std::shared_ptr<mnet_msg>& msg) const;
    void handleConnectivityNotConnectedRej(const std::shared_ptr<mnet_msg>& msg) const;
};
