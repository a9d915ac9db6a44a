#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

/// The server's thread as host threads see it: created, perhaps cancelled, joined exactly once.
///
/// "Set" is what the start and stop orders ask for; it ends with a failed start-up or a cancellation, while
/// the thread itself may take a moment longer. Any thread may call anything here.
class ServerThread {
public:
    ServerThread() = default;
    ServerThread(const ServerThread&) = delete;
    ServerThread& operator=(const ServerThread&) = delete;

    /// Creates the thread and is set; a predecessor that was not joined yet is joined first. 0, or the error
    /// of pthread_create.
    int create(void* (*body)(void*), void* argument);
    [[nodiscard]] bool isSet() const;
    /// Waits until the start-up is through, well or not. True when the thread is still set then.
    [[nodiscard]] bool awaitStarted();
    /// Cancels the thread where it next waits for an event. True when that was possible; then not set any
    /// more.
    [[nodiscard]] bool cancel();
    /// Waits until the thread is over and joins it, unless that was done before. What the thread returned;
    /// null when there never was one and on the thread itself. Not set any more if it was cancelled.
    void* join();
    /// False in a forked child, which has no such thread whatever the state says.
    [[nodiscard]] bool isOfThisProcess() const;

    // For the thread itself.
    void setStarted();
    /// The last word: the thread touches nothing of the server after it. Not set any more if it `failed` to
    /// start.
    void setOver(bool failed);

private:
    void* joinLocked(std::unique_lock<std::mutex>& lock);
    [[nodiscard]] bool isSelf() const { return m_joinable && pthread_equal(m_handle, pthread_self()) != 0; }

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    // Changed under the lock. Atomic besides, since a cancelled thread tells of its end while it unwinds, and
    // thread checkers do not see the locks that are taken there.
    std::atomic<bool> m_set{false};
    std::atomic<bool> m_over{false};
    bool m_joinable{false};
    bool m_started{false};
    pthread_t m_handle{};
    void* m_value{nullptr};
    pid_t m_process{-1};
};

/// While it lives the calling thread is not cancelled. Handlers run under one: a cancellation point inside a
/// destructor would end the process.
class CancelGuard {
public:
    CancelGuard() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
    ~CancelGuard() { pthread_setcancelstate(m_before, nullptr); }
    CancelGuard(const CancelGuard&) = delete;
    CancelGuard& operator=(const CancelGuard&) = delete;

private:
    int m_before{PTHREAD_CANCEL_ENABLE};
};
