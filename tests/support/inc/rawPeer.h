/// A peer of the mailbox library that writes its packets by hand, byte by byte.
#pragma once

#include "mnet.h"
#include "unixSocket.h"

#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
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
/// It opens the folder of endpoints at once, so that its process may lose the right to.
class RawPeer {
public:
    explicit RawPeer(const std::string& runDir)
        : m_runDir(runDir), m_folder(open((runDir + "/mnet/ep").c_str(), O_PATH | O_CLOEXEC))
    {
    }
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;
    ~RawPeer()
    {
        for (const int fd : {m_socket, m_numbers, m_folder}) {
            if (fd >= 0) {
                close(fd);
            }
        }
    }
    /// False when another process holds it. The process holds it no more when the first of its peers that
    /// ever held one is gone: so the kernel has it.
    [[nodiscard]] bool hold(std::uint32_t number)
    {
        if (m_numbers < 0) {
            m_numbers = open((m_runDir + "/mnet/endpoints").c_str(), O_RDWR | O_CLOEXEC);
        }
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_start = static_cast<off_t>(number >> 16);
        lock.l_len = 1;
        return fcntl(m_numbers, F_SETLK, &lock) == 0;
    }
    /// A new connection instead of the last. False when it is not to be had.
    bool connect(mnet_mbox_id_t to)
    {
        if (m_socket >= 0) {
            close(m_socket);
        }
        m_socket = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        const int buffer = 1 << 20;
        setsockopt(m_socket, SOL_SOCKET, SO_SNDBUF, &buffer, sizeof(buffer));
        return merlow::base::connectAt(m_socket, m_folder, std::to_string(to >> 16)) == 0;
    }
    /// A header, with so many bytes behind it; the last `cut` of all that are left out.
    void packet(std::uint32_t kind, std::uint32_t sender, std::uint32_t receiver, std::uint32_t value,
                std::size_t bytes = 0, std::size_t cut = 0) const
    {
        std::vector<unsigned char> buffer(16 + bytes, 0xA5);
        const std::uint32_t words[] = {kind, sender, receiver, value};
        std::memcpy(buffer.data(), words, sizeof(words));
        buffer.resize(buffer.size() - cut);
        raw(buffer);
    }
    void raw(const std::vector<unsigned char>& bytes) const
    {
        ::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    /// The kind of the next packet that comes back, 0 for the end of the connection. Nothing when neither
    /// comes in a long time.
    [[nodiscard]] std::optional<std::uint32_t> answer() const
    {
        constexpr int longTimeMs = 20000;
        std::uint32_t words[4] = {};
        pollfd ready{m_socket, POLLIN, 0};
        if (poll(&ready, 1, longTimeMs) != 1) {
            return std::nullopt;
        }
        return recv(m_socket, words, sizeof(words), MSG_DONTWAIT) > 0 ? words[0] : 0;
    }
    [[nodiscard]] int fd() const { return m_socket; }

private:
    std::string m_runDir;
    int m_folder;
    int m_numbers = -1;
    int m_socket = -1;
};

/// The endpoint that such a peer holds.
inline constexpr std::uint32_t rawNumber = 0x77770000u;

} // namespace mnet::test
