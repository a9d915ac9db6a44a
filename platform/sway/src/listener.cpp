#include "listener.h"

#include "connection.h"
#include "runDir.h"
#include "unixSocket.h"

#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sway {

namespace {

constexpr int backlog = 4096;

} // namespace

Listener::Listener()
{
    enlist();
}

Listener::~Listener()
{
    const int error = errno;
    if (m_bound && alive()) {
        unlinkat(m_folder.get(), m_name.c_str(), 0);
    }
    if (m_lock.valid()) {
        unlinkat(m_lockFolder.get(), m_name.c_str(), 0);
    }
    retire();
    errno = error;
}

void Listener::closeDescriptors()
{
    for (auto* descriptor : {&m_folder, &m_lockFolder, &m_lock, &m_socket, &m_reserve}) {
        descriptor->reset();
    }
}

bool Listener::listenAt(const std::string& name)
{
    m_name = name;
    opening([&] { m_folder.reset(merlow::base::openRunSubdir("sway")); });
    if (!m_folder.valid()) {
        return false;
    }
    opening([&] { m_lockFolder.reset(merlow::base::openRunSubdir("sway.lock")); });
    if (!m_lockFolder.valid() || !lockName() || !removeStaleSocket()) {
        return false;
    }
    opening([&] { m_socket.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)); });
    if (!m_socket.valid() || merlow::base::bindAt(m_socket.get(), m_folder.get(), m_name) != 0) {
        return false;
    }
    m_bound = true;
    openReserve();
    return listen(m_socket.get(), backlog) == 0;
}

bool Listener::lockName()
{
    for (;;) {
        Descriptor lock;
        opening([&] {
            lock.reset(openat(m_lockFolder.get(), m_name.c_str(),
                              O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600));
            if (lock.valid() && flock(lock.get(), LOCK_EX | LOCK_NB) == 0) {
                m_lock.reset(lock.release());
            }
        });
        if (!m_lock.valid()) {
            if (errno == EWOULDBLOCK) {
                errno = EADDRINUSE;
            }
            return false;
        }
        // Another user of the group, whose file it is, has made it so already.
        if (merlow::base::setFileAccess(m_lock.get()) != 0 && errno != EPERM) {
            return false;
        }
        // The holder before may have unlinked it between open and lock: then this is nobody's lock.
        struct stat status {};
        if (fstat(m_lock.get(), &status) == 0 && status.st_nlink > 0) {
            return true;
        }
        m_lock.reset();
    }
}

/// Needs the lock. A socket file that nobody listens at is what a dead owner left.
bool Listener::removeStaleSocket() const
{
    struct stat status {};
    if (fstatat(m_folder.get(), m_name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT;
    }
    const Descriptor probe(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!probe.valid()) {
        return false;
    }
    const bool isSocket = S_ISSOCK(status.st_mode);
    if (isSocket && merlow::base::connectAt(probe.get(), m_folder.get(), m_name) != 0) {
        if (errno == ECONNREFUSED) {
            return unlinkat(m_folder.get(), m_name.c_str(), 0) == 0;
        }
        if (errno == ENOMEM || errno == ENOBUFS) {
            return false; // not known whether somebody does
        }
    }
    errno = EADDRINUSE;
    return false;
}

void Listener::openReserve()
{
    if (!m_reserve.valid()) {
        opening([&] { m_reserve.reset(open("/dev/null", O_RDONLY | O_CLOEXEC)); });
    }
}

Connection* Listener::accept()
{
    openReserve();
    for (;;) {
        auto connection = std::make_unique<Connection>();
        if (connection->acceptFrom(m_socket.get())) {
            return connection.release();
        }
        switch (errno) {
        case EAGAIN:
            if (!blocking) {
                return nullptr;
            }
            waitFor(m_socket.get(), POLLIN, -1);
            break;
        case EINTR:
        case ECONNABORTED:
        case EACCES: // a stranger, gone with `connection`
            break;
        case EMFILE:
        case ENFILE:
            if (!connection->alive()) {
                refuseOne();
            }
            return nullptr;
        default:
            return nullptr;
        }
    }
}

/// Out of descriptors: a connection that stays in the queue would keep the descriptor readable for ever.
void Listener::refuseOne()
{
    const int error = errno;
    m_reserve.reset();
    const Descriptor refused(accept4(m_socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
    errno = error;
}

} // namespace sway
