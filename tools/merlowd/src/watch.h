/// What the host can see of its server and of the neighbours that the server waits for, from a mailbox of its
/// own.
#pragma once

#include <array>
#include <chrono>
#include <mnet.h>
#include <optional>
#include <string>
#include <string_view>

namespace merlow::merlowd {

/// One mailbox name that is searched for, watched while it is there, and searched for again when it went.
struct Watched {
    std::string_view name;
    mnet_mbox_id_t mailbox = MNET_MBOX_NONE;
    std::chrono::system_clock::time_point missingSince;

    [[nodiscard]] bool isThere() const { return mailbox != MNET_MBOX_NONE; }
};

/// The server's two mailboxes and its neighbours'. Belongs to the thread that opened it; needs an initialised
/// mailbox library.
class Watch {
public:
    enum class Change { none, privateFound, privateForeign, privateLost, published, unpublished, neighbour };

    ~Watch();

    /// Creates the mailbox and starts all searches. False with `errno`.
    [[nodiscard]] bool open();

    /// Readable when `next` may have something.
    [[nodiscard]] int fd() const;

    /// The next change; `none` when there is none now. Does not wait. `privateForeign`: another process holds
    /// the name of the private mailbox.
    [[nodiscard]] Change next();

    [[nodiscard]] const Watched& privateMailbox() const { return m_watched[0]; }
    [[nodiscard]] const Watched& publicMailbox() const { return m_watched[1]; }

    /// Whether the SWM server takes connections, which is asked for with one.
    [[nodiscard]] bool findSwmServer();

    /// "LegacyMerlow since 12:00:01, BriServer since 12:03:20"; names the missing neighbours, or, when all
    /// are there, what their silence means.
    [[nodiscard]] std::string waitText() const;

private:
    [[nodiscard]] bool search(std::size_t index);
    [[nodiscard]] bool isOfThisProcess(mnet_mbox_id_t mailbox) const;

    std::array<Watched, 5> m_watched{{{"private_Merlow", MNET_MBOX_NONE, {}},
                                      {"Merlow", MNET_MBOX_NONE, {}},
                                      {"LegacyMerlow", MNET_MBOX_NONE, {}},
                                      {"BriServer", MNET_MBOX_NONE, {}},
                                      {"BmmiServer", MNET_MBOX_NONE, {}}}};
    mnet_mbox_id_t m_mailbox = MNET_MBOX_NONE;
    std::optional<std::chrono::system_clock::time_point> m_swmServerMissingSince;
};

} // namespace merlow::merlowd
