/// What every handle is: descriptors of this process, which a forked child must not keep.
#pragma once

#include "ownedFd.h"
#include "sway.h"

namespace sway {

class Connection;
class Listener;

using Descriptor = merlow::base::OwnedFd;

/// Waits until one of `events` (as poll takes them) is true of `fd`; for ever with a timeout of -1 ms. False
/// when it is not.
bool waitFor(int fd, short events, int timeoutMs);

} // namespace sway

/// The list of all handles of the process lets a forked child close them. Descriptors are opened and closed
/// with the list locked, so that a fork sees each of them in a listed handle or not at all.
struct sway_socket {
    sway_socket() = default;
    virtual ~sway_socket() = default;
    sway_socket(const sway_socket&) = delete;
    sway_socket& operator=(const sway_socket&) = delete;

    virtual sway::Connection* asConnection() { return nullptr; }
    virtual sway::Listener* asListener() { return nullptr; }

    /// False for a handle that a forked child has from its parent.
    [[nodiscard]] virtual bool alive() const = 0;
    [[nodiscard]] virtual int waitFd() const = 0;

    /// Closes the descriptors, and touches nothing that a forked child shares with its parent.
    virtual void closeDescriptors() = 0;

    bool blocking = true;

protected:
    void enlist(); ///< the last step of a constructor
    void retire(); ///< closes the descriptors and leaves the list; for the destructors of final classes

    /// Runs `open` with the list locked.
    template <class F> static void opening(F open)
    {
        const ListLock lock;
        open();
    }

private:
    static void lockList();
    static void unlockList();
    struct ListLock {
        ListLock() { lockList(); }
        ~ListLock() { unlockList(); }
        ListLock(const ListLock&) = delete;
        ListLock& operator=(const ListLock&) = delete;
    };
    static void closeAllInChild();

    sway_socket* m_previous = nullptr;
    sway_socket* m_next = nullptr;
};
