/// A peer of the mailbox library that writes its packets by hand, byte by byte.
#pragma once

#include "mnetFixture.h"
#include "unixSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <vector>

namespace mnet::test {

// The wire's numbers, on purpose not taken from the library.
inline constexpr std::uint32_t hello = 1;
inline constexpr std::uint32_t welcome = 2;
inline constexpr std::uint32_t data = 3;
inline constexpr std::uint32_t dataFirst = 4;
inline constexpr std::uint32_t dataMore = 5;
inline constexpr std::uint32_t monitor = 6;
inline constexpr std::uint32_t unmonitor = 7;
inline constexpr std::uint32_t notice = 8;
inline constexpr std::uint32_t version = 0x6d6e6501;
inline constexpr std::uint32_t chunk = 131072;

inline std::uint32_t endpointOf(mnet_mbox_id_t id)
{
    return id & 0xFFFF0000u;
}

/// A connection without the library. Holds an endpoint number as an honest process would, if it is told to.
class RawPeer {
public:
    explicit RawPeer(const std::string& folder) : m_folder(folder) {}
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;
    ~RawPeer()
    {
        for (const int fd : {m_socket, m_lock}) {
            if (fd >= 0) {
                close(fd);
            }
        }
    }
    /// False when another process holds it.
    bool hold(std::uint32_t number)
    {
        m_lock = open((m_folder + "/mnet/endpoints").c_str(), O_RDWR | O_CLOEXEC);
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_start = static_cast<off_t>(number >> 16);
        lock.l_len = 1;
        return fcntl(m_lock, F_SETLK, &lock) == 0;
    }
    bool connect(mnet_mbox_id_t to)
    {
        if (m_socket >= 0) {
            close(m_socket);
        }
        m_socket = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        const int buffer = 1 << 20;
        setsockopt(m_socket, SOL_SOCKET, SO_SNDBUF, &buffer, sizeof(buffer));
        const int dir = open((m_folder + "/mnet/ep").c_str(), O_PATH | O_CLOEXEC);
        const bool connected = merlow::base::connectAt(m_socket, dir, std::to_string(to >> 16)) == 0;
        close(dir);
        return connected;
    }
    void packet(std::uint32_t kind, std::uint32_t sender, std::uint32_t receiver, std::uint32_t value,
                std::size_t bytes = 0)
    {
        std::vector<unsigned char> buffer(16 + bytes, 0xA5);
        const std::uint32_t words[] = {kind, sender, receiver, value};
        std::memcpy(buffer.data(), words, sizeof(words));
        raw(buffer);
    }
    void raw(const std::vector<unsigned char>& bytes)
    {
        ::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    /// The kind of the next packet that comes back, 0 for the end of the connection.
    std::uint32_t answer()
    {
        std::uint32_t words[4] = {};
        pollfd ready{m_socket, POLLIN, 0};
        if (poll(&ready, 1, deadlineMs) != 1) {
            ADD_FAILURE() << "neither an answer nor the end";
        }
        return recv(m_socket, words, sizeof(words), MSG_DONTWAIT) > 0 ? words[0] : 0;
    }
    int fd() const { return m_socket; }

private:
    std::string m_folder;
    int m_socket = -1;
    int m_lock = -1;
};

/// The endpoint that such a peer holds.
inline constexpr std::uint32_t rawNumber = 0x77770000u;

} // namespace mnet::test
