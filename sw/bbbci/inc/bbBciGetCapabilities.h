#pragma once

#include "bbBciCapabilityInfo.h"
#include "bci/bciRecord.h"

#include <functional>
#include <memory>
#include <vector>

namespace Merlow::BbBci {

/// Asks another board controller what it can do. See `BbbciConnEstablish` for what all procedures share.
///
///   TARN_BC_GET_CAPABILITIES_REQ -> TARN_BC_GET_CAPABILITIES_CFM
///                                -> TARN_BC_GET_CAPABILITIES_REJ
class __attribute__((visibility("default"))) BbBciGetCapabilities {
public:
    using CfmReceivedHandler = std::function<void(const std::vector<CapabilityInfo>&)>;
    using RejReceivedHandler = std::function<void()>;

    BbBciGetCapabilities();
    ~BbBciGetCapabilities();
    BbBciGetCapabilities(const BbBciGetCapabilities&) = delete;
    BbBciGetCapabilities& operator=(const BbBciGetCapabilities&) = delete;

    void initialize();
    void removeMessageHandlers() const;

    /// `address`: what the connection's confirm gave. A confirm that announces more records than it holds is
    /// traced and dropped; one with a record that is shorter than its own head raises `std::length_error`.
    void sendGetCapabilitiesReq(mnet_mbox_id_t mbox, const TarnNodeCommonAddressInfoS& address,
                                const CfmReceivedHandler& cfm, const RejReceivedHandler& rej);

private:
    void handleGetCapabilitiesCfm(const std::shared_ptr<mnet_msg>& msg);
    void handleGetCapabilitiesRej(const std::shared_ptr<mnet_msg>& msg);

    CfmReceivedHandler m_cfm;
    RejReceivedHandler m_rej;
};

} // namespace Merlow::BbBci
