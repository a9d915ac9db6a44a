/// A peer of the mailbox library that writes its packets by hand, and breaks the rules.
#pragma once

#include "process.h"

#include <cstdint>
#include <string>

namespace merlow::bench {

class RawPeer {
public:
    /// The server's endpoint: its folder, opened while that was allowed, its number, and a mailbox there.
    struct Place {
        std::string folder;
        std::uint32_t mailbox;
    };
    /// Asked of the library, which is not used afterwards.
    static Place whereServerIs();

    explicit RawPeer(Place server);

    /// A new connection instead of the last. False when it is not to be had.
    bool connect();
    void hello() const;
    /// A hello, and the first piece of a message of two.
    void beginMessage() const;
    /// One of several wrongs on a fresh connection.
    void breakRule(unsigned which) const;

private:
    void packet(std::uint32_t kind, std::uint32_t sender, std::uint32_t value, std::size_t bytes,
                std::size_t cut = 0) const;

    Place m_server;
    Fd m_folder;
    Fd m_lock;
    Fd m_socket;
    std::uint32_t m_own; ///< held as an honest process holds it
};

} // namespace merlow::bench
