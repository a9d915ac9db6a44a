/// What connections hold under references that the server handed out: time sources, MMI users, measurements.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>

namespace merlow::board {

/// References are never 0, never one that is held, and come back late. A reference is good only on the
/// connection that it was given to.
template <class T> class RefTable {
public:
    /// What one connection may hold; more is refused, so that no client makes the server grow without end.
    static constexpr std::size_t maxPerConnection = 4096;

    struct Entry {
        std::uint32_t connectionRef;
        T value;
    };

    /// The new reference; nothing when the connection holds all that it may.
    std::optional<std::uint32_t> add(std::uint32_t connectionRef, T value)
    {
        std::size_t& held = m_held[connectionRef];
        if (held >= maxPerConnection) {
            return std::nullopt;
        }
        do {
            ++m_lastRef;
        } while (m_lastRef == 0 || m_entries.contains(m_lastRef));
        m_entries.emplace(m_lastRef, Entry{connectionRef, std::move(value)});
        ++held;
        return m_lastRef;
    }

    /// Null when the connection holds no such reference.
    T* find(std::uint32_t connectionRef, std::uint32_t ref)
    {
        const auto found = m_entries.find(ref);
        return found != m_entries.end() && found->second.connectionRef == connectionRef ? &found->second.value
                                                                                        : nullptr;
    }

    /// False when the connection holds no such reference.
    bool remove(std::uint32_t connectionRef, std::uint32_t ref)
    {
        if (find(connectionRef, ref) == nullptr) {
            return false;
        }
        m_entries.erase(ref);
        if (const auto held = m_held.find(connectionRef); --held->second == 0) {
            m_held.erase(held);
        }
        return true;
    }

    void removeAllOf(std::uint32_t connectionRef)
    {
        std::erase_if(m_entries, [connectionRef](const auto& entry) {
            return entry.second.connectionRef == connectionRef;
        });
        m_held.erase(connectionRef);
    }

    /// Calls `visit` with each value, by reference in ascending order. It adds and removes nothing.
    template <class Visit> void forEach(Visit visit)
    {
        for (auto& [ref, entry] : m_entries) {
            visit(entry.value);
        }
    }

    /// By reference, in ascending order.
    const std::map<std::uint32_t, Entry>& entries() const { return m_entries; }

private:
    std::map<std::uint32_t, Entry> m_entries;
    std::map<std::uint32_t, std::size_t> m_held; ///< by connection, none of them 0
    std::uint32_t m_lastRef = 0;
};

} // namespace merlow::board
