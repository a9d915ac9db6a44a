/// Calls of the C library that take something of the system, in a test program in which that can run out:
/// they count, and fail, with the allocations.
#include "shortage.h"

#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

bool failsWith(int error)
{
    if (!support::shortage::fails()) {
        return false;
    }
    errno = error;
    return true;
}

template <class... Args> long call(int error, long number, Args... args)
{
    return failsWith(error) ? -1 : syscall(number, args...);
}

} // namespace

#define INSTEAD extern "C" __attribute__((visibility("default")))
INSTEAD int openat(int folder, const char* path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    return static_cast<int>(
        call((flags & O_CREAT) != 0 ? ENOSPC : EMFILE, SYS_openat, folder, path, flags, mode));
}
INSTEAD int open(const char* path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    return static_cast<int>(call(EMFILE, SYS_openat, AT_FDCWD, path, flags, mode));
}
INSTEAD int socket(int domain, int type, int protocol) noexcept
{
    return static_cast<int>(call(EMFILE, SYS_socket, domain, type, protocol));
}
INSTEAD int accept4(int fd, sockaddr* address, socklen_t* size, int flags)
{
    return static_cast<int>(call(ENFILE, SYS_accept4, fd, address, size, flags));
}
INSTEAD int bind(int fd, const sockaddr* address, socklen_t size) noexcept
{
    return static_cast<int>(call(ENOSPC, SYS_bind, fd, address, size));
}
INSTEAD int listen(int fd, int backlog) noexcept
{
    return static_cast<int>(call(ENOBUFS, SYS_listen, fd, backlog));
}
INSTEAD int connect(int fd, const sockaddr* address, socklen_t size)
{
    return static_cast<int>(call(ENOMEM, SYS_connect, fd, address, size));
}
INSTEAD ssize_t send(int fd, const void* bytes, size_t size, int flags)
{
    return call(ENOBUFS, SYS_sendto, fd, bytes, size, flags, nullptr, 0);
}
INSTEAD ssize_t sendmsg(int fd, const msghdr* message, int flags)
{
    return call(ENOBUFS, SYS_sendmsg, fd, message, flags);
}
INSTEAD ssize_t recv(int fd, void* bytes, size_t size, int flags)
{
    return call(ENOMEM, SYS_recvfrom, fd, bytes, size, flags, nullptr, nullptr);
}
INSTEAD ssize_t recvmsg(int fd, msghdr* message, int flags)
{
    return call(ENOMEM, SYS_recvmsg, fd, message, flags);
}
INSTEAD int epoll_create1(int flags) noexcept
{
    return static_cast<int>(call(EMFILE, SYS_epoll_create1, flags));
}
INSTEAD int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept
{
    // Only an entry takes something.
    const bool fails = operation == EPOLL_CTL_ADD && failsWith(ENOSPC);
    return fails ? -1 : static_cast<int>(syscall(SYS_epoll_ctl, epoll, operation, fd, event));
}
INSTEAD int epoll_wait(int epoll, epoll_event* events, int size, int timeout)
{
    return static_cast<int>(call(EINTR, SYS_epoll_wait, epoll, events, size, timeout));
}
INSTEAD int eventfd(unsigned int value, int flags) noexcept
{
    return static_cast<int>(call(EMFILE, SYS_eventfd2, value, flags));
}
INSTEAD int timerfd_create(int clock, int flags) noexcept
{
    return static_cast<int>(call(EMFILE, SYS_timerfd_create, clock, flags));
}
INSTEAD int inotify_init1(int flags) noexcept
{
    return static_cast<int>(call(EMFILE, SYS_inotify_init1, flags));
}
INSTEAD int inotify_add_watch(int fd, const char* path, std::uint32_t mask) noexcept
{
    return static_cast<int>(call(ENOSPC, SYS_inotify_add_watch, fd, path, mask));
}
INSTEAD int fcntl(int fd, int command, ...)
{
    va_list args;
    va_start(args, command);
    void* argument = va_arg(args, void*);
    va_end(args);
    const bool fails = (command == F_SETLK || command == F_OFD_SETLK) &&
                       static_cast<const struct flock*>(argument)->l_type != F_UNLCK && failsWith(ENOLCK);
    return fails ? -1 : static_cast<int>(syscall(SYS_fcntl, fd, command, argument));
}
INSTEAD ssize_t pwrite(int fd, const void* bytes, size_t size, off_t offset)
{
    // Only what makes the file longer takes something.
    struct stat status {};
    const bool grows = fstat(fd, &status) != 0 || status.st_size < offset + static_cast<off_t>(size);
    return grows && failsWith(ENOSPC) ? -1 : syscall(SYS_pwrite64, fd, bytes, size, offset);
}
INSTEAD ssize_t write(int fd, const void* bytes, size_t size)
{
    // Only a file takes something.
    struct stat status {};
    const bool isFile = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    return isFile && failsWith(ENOSPC) ? -1 : syscall(SYS_write, fd, bytes, size);
}
INSTEAD int linkat(int fromFolder, const char* from, int toFolder, const char* to, int flags) noexcept
{
    return static_cast<int>(call(ENOSPC, SYS_linkat, fromFolder, from, toFolder, to, flags));
}
INSTEAD int mkdirat(int folder, const char* path, mode_t mode) noexcept
{
    return static_cast<int>(call(ENOSPC, SYS_mkdirat, folder, path, mode));
}
INSTEAD int fchmod(int fd, mode_t mode) noexcept
{
    return static_cast<int>(call(EROFS, SYS_fchmod, fd, mode));
}
INSTEAD int fchown(int fd, uid_t owner, gid_t group) noexcept
{
    return static_cast<int>(call(ENOSPC, SYS_fchown, fd, owner, group));
}
INSTEAD int fchownat(int folder, const char* path, uid_t owner, gid_t group, int flags) noexcept
{
    return static_cast<int>(call(ENOSPC, SYS_fchownat, folder, path, owner, group, flags));
}
INSTEAD int lockWhole(int fd, int operation) noexcept __asm__("flock"); // a structure has that name
INSTEAD int lockWhole(int fd, int operation) noexcept
{
    return static_cast<int>(call(ENOLCK, SYS_flock, fd, operation));
}
INSTEAD int renameat2(int fromFolder, const char* from, int toFolder, const char* to,
                      unsigned int flags) noexcept
{
    return static_cast<int>(call(ENOSPC, SYS_renameat2, fromFolder, from, toFolder, to, flags));
}
INSTEAD int fchmodat(int folder, const char* path, mode_t mode, int /*flags*/) noexcept
{
    return static_cast<int>(call(EROFS, SYS_fchmodat, folder, path, mode));
}
INSTEAD void* mmap(void* at, size_t size, int protection, int flags, int fd, off_t offset) noexcept
{
    return failsWith(ENOMEM)
               ? MAP_FAILED
               : reinterpret_cast<void*>(syscall(SYS_mmap, at, size, protection, flags, fd, offset));
}
#undef INSTEAD
