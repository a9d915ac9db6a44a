/// Unix sockets below a folder descriptor, and the check of who is at the other end.
#pragma once

#include <string>
#include <sys/socket.h>
#include <sys/types.h>

namespace merlow::base {

/// Binds `fd` to `name` in the folder `dirFd`; the folder's own name may be longer than a socket address
/// holds. The socket file gets the access rights of files in the run-time folder. 0, or -1 with `errno`.
int bindAt(int fd, int dirFd, const std::string& name);

/// Connects `fd` to the socket `name` in the folder `dirFd`. 0, or -1 with `errno`.
int connectAt(int fd, int dirFd, const std::string& name);

/// The kernel's word on who is at the other end of a connected socket. False when there is none.
bool peerCredentials(int fd, ucred& out);

/// Whether the process at the other end of the connected socket `fd` may speak to this one: the same user,
/// root, or a member of the group in `MERLOW_GROUP`, supplementary groups included. If not, `errno` is
/// `EACCES`, or tells why that can't be known at present.
bool peerAllowed(int fd);

} // namespace merlow::base
