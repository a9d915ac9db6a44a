#include "unixSocket.h"

#include "runDir.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>
#include <optional>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace merlow::base {

namespace {

/// The folder is named by its descriptor: "/proc/self/fd/N/NAME" fits a socket address however long the
/// folder's own name is.
bool addressAt(int dirFd, const std::string& name, sockaddr_un& address)
{
    address = {};
    address.sun_family = AF_UNIX;
    const int length =
        std::snprintf(address.sun_path, sizeof(address.sun_path), "/proc/self/fd/%d/%s", dirFd, name.c_str());
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    return true;
}

} // namespace

int bindAt(int fd, int dirFd, const std::string& name)
{
    sockaddr_un address;
    if (!addressAt(dirFd, name, address)) {
        return -1;
    }
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        return -1;
    }
    if (setFileAccessAt(dirFd, name) != 0) {
        const int error = errno;
        unlinkat(dirFd, name.c_str(), 0); // those whom it is for could not use it
        errno = error;
        return -1;
    }
    return 0;
}

int connectAt(int fd, int dirFd, const std::string& name)
{
    sockaddr_un address;
    if (!addressAt(dirFd, name, address)) {
        return -1;
    }
    return connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

bool peerCredentials(int fd, ucred& out)
{
    socklen_t size = sizeof(out);
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &out, &size) == 0 && size == sizeof(out);
}

bool peerAllowed(int fd)
try {
    ucred peer{};
    if (!peerCredentials(fd, peer)) {
        return false;
    }
    if (peer.uid == 0 || peer.uid == geteuid()) {
        return true;
    }
    std::optional<gid_t> group;
    if (!accessGroup(group)) {
        return false;
    }
    if (!group) {
        errno = EACCES;
        return false;
    }
    if (peer.gid == *group) {
        return true;
    }
    std::vector<gid_t> groups(64);
    for (;;) {
        auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) == 0) {
            groups.resize(size / sizeof(gid_t));
            errno = EACCES;
            return std::find(groups.begin(), groups.end(), *group) != groups.end();
        }
        if (errno != ERANGE) {
            return false;
        }
        groups.resize(size / sizeof(gid_t) + 1);
    }
} catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return false;
}

} // namespace merlow::base
