#include "badPeer.h"

#include "mailboxLink.h"
#include "unit.h"

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace merlow::bench {

namespace {

namespace wire = mnet::test;
} // namespace

mnet_mbox_id_t BadPeer::whereServerIs()
{
    MailboxLink link("");
    link.aimAt(publicName);
    const mnet_mbox_id_t server = link.target();
    mnet_exit();
    return server;
}

BadPeer::BadPeer(mnet_mbox_id_t server)
    : m_server(server), m_peer(std::getenv("MERLOW_RUN_DIR")), m_own(wire::rawNumber)
{
    constexpr std::uint32_t next = 0x10000;
    for (; !m_peer.hold(m_own); m_own += next) {
        if (errno != EAGAIN && errno != EACCES) {
            throw std::system_error(errno, std::generic_category(), "holding an endpoint");
        }
    }
}

void BadPeer::hello() const
{
    m_peer.packet(wire::hello, m_own, wire::endpointOf(m_server), wire::version);
}

void BadPeer::beginMessage() const
{
    hello();
    m_peer.packet(wire::dataFirst, m_own, m_server, wire::chunk + 8, wire::chunk);
}

void BadPeer::breakRule(unsigned which) const
{
    constexpr unsigned rules = 5;
    const std::uint32_t theirs = wire::endpointOf(m_server);
    switch (which % rules) {
    case 0: // half a hello
        m_peer.packet(wire::hello, m_own, theirs, wire::version, 0, 8);
        break;
    case 1: // somebody else's number
        m_peer.packet(wire::hello, theirs, theirs, wire::version);
        break;
    case 2: // a forged sender
        hello();
        m_peer.packet(wire::data, m_server, m_server, 8, 8);
        break;
    case 3: // a length that lies
        hello();
        m_peer.packet(wire::data, m_own, m_server, 8, 7);
        break;
    default: // half a header
        hello();
        m_peer.packet(wire::data, m_own, m_server, 0, 0, 8);
        break;
    }
}

} // namespace merlow::bench
