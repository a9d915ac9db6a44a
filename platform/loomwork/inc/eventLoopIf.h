/// The event loop: one object for the process, one set of descriptors and one run() for each thread.
///
/// All operations return 0, or a negative value with `errno` set. They may be called on any thread, inside
/// callbacks, while a thread ends and in static destructors. Only the wait inside run() is a cancellation
/// point. A forked child starts with empty sets, and a run() that the fork was called in ends there with
/// `ECANCELED`.
#pragma once

#include <functional>

#define LOOMWORK_API __attribute__((visibility("default")))

namespace Loomwork::EventLoop::V1 {

class LOOMWORK_API EventLoopIf {
public:
    /// The object of the process. It lives until the process is gone: static destructors may use it.
    static EventLoopIf& getInstance();

    /// Watches `fd` in the calling thread's set. `events` is a mask as epoll takes it (1 is readable);
    /// `callback` gets the descriptor and the mask of what happened, on this thread, inside run(). It may
    /// remove any descriptor, its own too, and add others; what it captured lives until it has returned.
    /// What it throws is reported to the trace and the remote log, and the loop goes on.
    ///
    /// The descriptor stays the caller's, who removes it before closing it. If that was forgotten, adding the
    /// number again replaces the entry, and no event of the old descriptor reaches the new callback.
    ///
    /// Fails with `EEXIST` when this thread watches the open descriptor already, `EINVAL` for an empty
    /// callback, `EBADF`, `EPERM` for a file that cannot be watched, `EMFILE`, `ENOSPC` and `ENOMEM`.
    virtual int addFd(int fd, unsigned int events, std::function<void(int, unsigned int)> callback) = 0;

    /// Changes the mask of a descriptor in the calling thread's set. `ENOENT` when it is not there.
    virtual int updateFd(int fd, unsigned int events) = 0;

    /// Takes `fd` out of the calling thread's set or, if it is not there, out of the set of another thread;
    /// also when it is closed already. No callback of it starts afterwards; one that another thread is just
    /// running goes on to its end. `ENOENT` when no thread watches it.
    virtual int removeFd(int fd) = 0;

    /// Serves the calling thread's descriptors, one callback at a time, until stop(). `EBUSY` inside a
    /// callback of the same thread.
    virtual int run() = 0;

    /// Makes the calling thread's run() return 0 after the callback in hand. Called outside of run(), it
    /// holds for the next run(), which then returns without serving anything.
    virtual void stop() = 0;

    virtual ~EventLoopIf() = default;
};

} // namespace Loomwork::EventLoop::V1
