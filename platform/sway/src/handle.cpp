#include "handle.h"

#include <cerrno>
#include <mutex>
#include <new>
#include <poll.h>
#include <pthread.h>

namespace sway {

bool waitFor(int fd, short events, int timeoutMs)
{
    pollfd waited{fd, events, 0};
    int result = 0;
    do {
        result = poll(&waited, 1, timeoutMs);
    } while (result < 0 && errno == EINTR);
    return result > 0;
}

namespace {

// Both are constant-initialised and have no destructor: handles may be closed at any time.
std::mutex listMutex;
sway_socket* firstHandle = nullptr;

} // namespace

} // namespace sway

void sway_socket::enlist()
{
    // What throws is tried again for the next handle.
    static const bool registered = [] {
        return pthread_atfork(&lockList, &unlockList, &closeAllInChild) == 0 ? true : throw std::bad_alloc();
    }();
    static_cast<void>(registered);
    const std::lock_guard lock(sway::listMutex);
    m_next = sway::firstHandle;
    if (m_next != nullptr) {
        m_next->m_previous = this;
    }
    sway::firstHandle = this;
}

void sway_socket::retire()
{
    const std::lock_guard lock(sway::listMutex);
    closeDescriptors();
    if (m_next != nullptr) {
        m_next->m_previous = m_previous;
    }
    (m_previous != nullptr ? m_previous->m_next : sway::firstHandle) = m_next;
}

void sway_socket::lockList()
{
    sway::listMutex.lock();
}

void sway_socket::unlockList()
{
    sway::listMutex.unlock();
}

void sway_socket::closeAllInChild()
{
    for (auto* handle = sway::firstHandle; handle != nullptr; handle = handle->m_next) {
        handle->closeDescriptors();
    }
    sway::listMutex.unlock();
}
