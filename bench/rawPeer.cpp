#include "rawPeer.h"

#include "mailboxLink.h"
#include "unit.h"
#include "unixSocket.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace merlow::bench {

namespace {

constexpr std::uint32_t hello_ = 1;
constexpr std::uint32_t dataPacket = 3;
constexpr std::uint32_t firstPiece = 4;
constexpr std::uint32_t version = 0x6d6e6501;
constexpr std::size_t pieceSize = 131072;
constexpr std::uint32_t endpointMask = 0xFFFF0000;

} // namespace

RawPeer::Place RawPeer::whereServerIs()
{
    MailboxLink link("");
    link.aimAt(publicName);
    Place place{std::getenv("MERLOW_RUN_DIR"), link.target()};
    mnet_exit();
    return place;
}

RawPeer::RawPeer(Place server)
    : m_server(std::move(server)), m_folder(open((m_server.folder + "/mnet/ep").c_str(), O_PATH | O_CLOEXEC)),
      m_lock(open((m_server.folder + "/mnet/endpoints").c_str(), O_RDWR | O_CLOEXEC)), m_own(60000)
{
    for (struct flock lock{.l_type = F_WRLCK, .l_whence = SEEK_SET, .l_start = m_own, .l_len = 1, .l_pid = 0};
         fcntl(m_lock.get(), F_SETLK, &lock) != 0; lock.l_start = ++m_own) {
        if (errno != EAGAIN && errno != EACCES) {
            throw std::system_error(errno, std::generic_category(), "holding an endpoint");
        }
    }
}

bool RawPeer::connect()
{
    m_socket = Fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    return base::connectAt(m_socket.get(), m_folder.get(), std::to_string(m_server.mailbox >> 16U)) == 0;
}

void RawPeer::packet(std::uint32_t kind, std::uint32_t sender, std::uint32_t value, std::size_t bytes,
                     std::size_t cut) const
{
    std::vector<unsigned char> buffer(16 + bytes, 0xA5);
    const std::uint32_t receiver = kind == hello_ ? m_server.mailbox & endpointMask : m_server.mailbox;
    const std::uint32_t words[] = {kind, sender, receiver, value};
    std::memcpy(buffer.data(), words, sizeof(words));
    ::send(m_socket.get(), buffer.data(), buffer.size() - cut, MSG_NOSIGNAL);
}

void RawPeer::hello() const
{
    packet(hello_, m_own << 16U, version, 0);
}

void RawPeer::beginMessage() const
{
    hello();
    packet(firstPiece, m_own << 16U, pieceSize + 8, pieceSize);
}

void RawPeer::breakRule(unsigned which) const
{
    constexpr unsigned rules = 5;
    switch (which % rules) {
    case 0: // half a hello
        packet(hello_, m_own << 16U, version, 0, 8);
        break;
    case 1: // somebody else's number
        packet(hello_, m_server.mailbox & endpointMask, version, 0);
        break;
    case 2: // a forged sender
        hello();
        packet(dataPacket, m_server.mailbox, 8, 8);
        break;
    case 3: // a length that lies
        hello();
        packet(dataPacket, m_own << 16U, 8, 7);
        break;
    default: // half a header
        hello();
        packet(dataPacket, m_own << 16U, 0, 0, 8);
        break;
    }
}

} // namespace merlow::bench
