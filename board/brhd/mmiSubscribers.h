/// Who wants to know of the changes of one state of BMMI.
#pragma once

#include "brhServer.h"

#include <cstdint>
#include <map>

namespace merlow::board {

/// A subscription is known by its connection and the procedure reference of its request, under which all its
/// indications go. It ends with its MMI user: there is no message that ends it.
class MmiSubscribers {
public:
    /// What one connection may hold; more are refused.
    static constexpr std::size_t maxPerConnection = 4096;

    bool isFull(std::uint32_t connectionRef) const
    {
        const auto held = m_subscribers.find(connectionRef);
        return held != m_subscribers.end() && held->second.userIds.size() >= maxPerConnection;
    }

    /// One that stands already under this reference is the other user's from here on.
    void add(const BrhConnection& connection, std::uint32_t userId, std::uint32_t procedureRef)
    {
        const auto held = m_subscribers.try_emplace(connection.ref, Held{connection, {}}).first;
        held->second.userIds[procedureRef] = userId;
    }

    void userGone(std::uint32_t connectionRef, std::uint32_t userId)
    {
        const auto held = m_subscribers.find(connectionRef);
        if (held != m_subscribers.end()) {
            std::erase_if(held->second.userIds,
                          [userId](const auto& entry) { return entry.second == userId; });
        }
    }

    void connectionEnded(std::uint32_t connectionRef) { m_subscribers.erase(connectionRef); }

    /// Calls `tell(const BrhConnection&, procedureRef)` for each.
    template <class Tell> void forEach(Tell tell) const
    {
        for (const auto& [ref, held] : m_subscribers) {
            for (const auto& [procedureRef, userId] : held.userIds) {
                tell(held.connection, procedureRef);
            }
        }
    }

    std::size_t count() const
    {
        std::size_t count = 0;
        for (const auto& [ref, held] : m_subscribers) {
            count += held.userIds.size();
        }
        return count;
    }

private:
    struct Held {
        BrhConnection connection;
        std::map<std::uint32_t, std::uint32_t> userIds; ///< by procedure reference
    };
    std::map<std::uint32_t, Held> m_subscribers; ///< by connection
};

} // namespace merlow::board
