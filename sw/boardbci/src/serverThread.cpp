#include "serverThread.h"

#include <unistd.h>

int ServerThread::create(void* (*body)(void*), void* argument)
{
    std::unique_lock lock(m_mutex);
    joinLocked(lock);
    m_value = nullptr;
    m_started = false;
    m_over = false;
    const int error = pthread_create(&m_handle, nullptr, body, argument);
    // The lock keeps the new thread from telling of itself before its handle stands here.
    m_set = error == 0;
    m_joinable = m_set;
    m_process = getpid();
    return error;
}

bool ServerThread::isSet() const
{
    const std::lock_guard lock(m_mutex);
    return m_set;
}

bool ServerThread::awaitStarted()
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_set || m_started || m_over; });
    return m_set;
}

bool ServerThread::cancel()
{
    const std::lock_guard lock(m_mutex);
    // A thread that is over must not be cancelled: it may still be tidying up behind the server's back.
    if (!m_joinable || m_over || isSelf() || pthread_cancel(m_handle) != 0) {
        return false;
    }
    m_set = false;
    return true;
}

void* ServerThread::join()
{
    std::unique_lock lock(m_mutex);
    return joinLocked(lock);
}

void* ServerThread::joinLocked(std::unique_lock<std::mutex>& lock)
{
    if (isSelf()) {
        return nullptr;
    }
    m_changed.wait(lock, [this] { return !m_joinable || m_over; });
    if (m_joinable) {
        m_joinable = false;
        // Over already, so this waits for no more than the end of its tidying, which needs no lock of ours.
        pthread_join(m_handle, &m_value);
        if (m_value == PTHREAD_CANCELED) {
            m_set = false;
        }
    }
    return m_value;
}

bool ServerThread::isOfThisProcess() const
{
    return m_process == getpid();
}

void ServerThread::setStarted()
{
    const std::lock_guard lock(m_mutex);
    m_started = true;
    m_changed.notify_all();
}

void ServerThread::setOver(bool failed)
{
    const std::lock_guard lock(m_mutex);
    if (failed) {
        m_set = false;
    }
    m_over = true;
    m_changed.notify_all();
}
