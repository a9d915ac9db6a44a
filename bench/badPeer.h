/// A peer of the server that writes its packets by hand, and breaks the rules.
#pragma once

#include "rawPeer.h"

#include <cstdint>
#include <string>

namespace merlow::bench {

class BadPeer {
public:
    /// A mailbox of the server. The library that is asked is not used afterwards.
    static mnet_mbox_id_t whereServerIs();

    /// Holds an endpoint as an honest process does.
    explicit BadPeer(mnet_mbox_id_t server);

    /// A new connection instead of the last. False when it is not to be had.
    bool connect() { return m_peer.connect(m_server); }
    void hello() const;
    /// A hello, and the first piece of a message of two.
    void beginMessage() const;
    /// One of several wrongs on a fresh connection.
    void breakRule(unsigned which) const;

private:
    mnet_mbox_id_t m_server;
    mnet::test::RawPeer m_peer;
    std::uint32_t m_own;
};

} // namespace merlow::bench
