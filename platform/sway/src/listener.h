/// The accepting side: a bound socket, and the lock that says that its owner lives.
#pragma once

#include "handle.h"

#include <string>

namespace sway {

/// The lock is a file of the same name in a folder of its own. The kernel drops it with its owner, so who
/// gets it may take the socket's name over. Only the holder unlinks the two files.
class Listener final : public sway_socket {
public:
    Listener();
    ~Listener() override;

    Listener* asListener() override { return this; }
    [[nodiscard]] bool alive() const override { return m_socket.valid(); }
    [[nodiscard]] int waitFd() const override { return m_socket.get(); }
    void closeDescriptors() override;

    /// False with `errno` on failure.
    [[nodiscard]] bool listenAt(const std::string& name);

    /// The next connection, which the caller owns; null with `errno` on failure.
    [[nodiscard]] Connection* accept();

private:
    bool lockName();
    bool removeStaleSocket() const;
    void openReserve();
    void refuseOne();

    std::string m_name;
    Descriptor m_folder;
    Descriptor m_lockFolder;
    Descriptor m_lock;
    Descriptor m_socket;
    Descriptor m_reserve; ///< given up for the moment that it takes to refuse a connection
    bool m_bound = false;
};

} // namespace sway
