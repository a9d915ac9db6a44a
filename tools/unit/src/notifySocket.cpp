#include "notifySocket.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace merlow::unit {

NotifySocket::NotifySocket() : m_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof(address);
    const int on = 1;
    const bool isBound = m_fd >= 0 && setsockopt(m_fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) == 0 &&
                         bind(m_fd, generic, sizeof(sa_family_t)) == 0 &&
                         getsockname(m_fd, generic, &length) == 0;
    if (isBound) {
        m_name = '@' + std::string(address.sun_path + 1, length - offsetof(sockaddr_un, sun_path) - 1);
    } else if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
    }
}

NotifySocket::~NotifySocket()
{
    if (m_fd >= 0) {
        close(m_fd);
    }
}

std::optional<std::string> NotifySocket::receive(pid_t from) const
{
    for (;;) {
        std::array<char, 4096> text{};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control{};
        iovec vector{text.data(), text.size()};
        msghdr header{};
        header.msg_iov = &vector;
        header.msg_iovlen = 1;
        header.msg_control = control.data();
        header.msg_controllen = control.size();
        const auto length = recvmsg(m_fd, &header, MSG_CMSG_CLOEXEC);
        if (length < 0) {
            return std::nullopt;
        }
        const cmsghdr* const first = CMSG_FIRSTHDR(&header);
        if (first == nullptr || first->cmsg_type != SCM_CREDENTIALS) {
            continue;
        }
        ucred credentials{};
        std::memcpy(&credentials, CMSG_DATA(first), sizeof(credentials));
        if (credentials.pid == from) {
            return std::string(text.data(), static_cast<std::size_t>(length));
        }
    }
}

} // namespace merlow::unit
