#pragma once

#include "ccfiClient.h"

namespace Merlow::Ccfi {

/// Connections end because their client says so. Server thread only.
class CcfiConnClose {
public:
    /// `client` must outlive the object.
    explicit CcfiConnClose(CcfiClient& client);
    ~CcfiConnClose();
    CcfiConnClose(const CcfiConnClose&) = delete;
    CcfiConnClose& operator=(const CcfiConnClose&) = delete;

    void initialize();
    void addMessageHandlers();
    void removeMessageHandlers() const;

    /// A connection that is not there gets no answer.
    void handleConnCloseReq(const std::shared_ptr<mnet_msg>& msg);

private:
    CcfiClient& m_client;
};

} // namespace Merlow::Ccfi
