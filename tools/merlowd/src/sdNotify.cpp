#include "sdNotify.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace merlow::merlowd {

bool sdNotify(const std::string& state)
{
    const char* const name = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    const std::size_t length = name != nullptr ? std::strlen(name) : 0;
    if (length < 2 || length >= sizeof(address.sun_path) || (*name != '/' && *name != '@')) {
        return false;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name, length);
    if (*name == '@') {
        address.sun_path[0] = '\0'; // an abstract name: its length counts, no NUL behind it
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    const auto sent = sendto(fd, state.data(), state.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                             reinterpret_cast<const sockaddr*>(&address),
                             static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
    close(fd);
    return sent == static_cast<ssize_t>(state.size());
}

} // namespace merlow::merlowd
