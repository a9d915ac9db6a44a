#pragma once

#include "ccfiClient.h"

#include <string>

struct CcfiBcConnEstablishReqS;

namespace Merlow::Ccfi {

/// Connections begin. References go up from 0x1000 and none is given out twice; when all are gone, or a
/// client's mailbox can't be watched, the request is rejected. Server thread only.
class CcfiConnEstablish {
public:
    /// `client` must outlive the object. `firstReference`: what the first connection gets.
    explicit CcfiConnEstablish(CcfiClient& client, std::uint32_t firstReference = 0x1000);
    ~CcfiConnEstablish();
    CcfiConnEstablish(const CcfiConnEstablish&) = delete;
    CcfiConnEstablish& operator=(const CcfiConnEstablish&) = delete;

    void initialize();
    void addMessageHandlers();
    void removeMessageHandlers() const;

    void handleConnEstablishReq(const std::shared_ptr<mnet_msg>& msg);

private:
    void sendConnEstablishRej(const CcfiBcConnEstablishReqS& req, mnet_mbox_id_t client,
                              const std::string& text) const;

    CcfiClient& m_client;
    std::uint32_t m_nextServerConnectionReference; ///< 0: none is left
};

} // namespace Merlow::Ccfi
