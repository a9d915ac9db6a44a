#include "watch.h"

#include <cstdint>
#include <cstring>
#include <ctime>
#include <sway.h>

namespace merlow::merlowd {

namespace {

using std::chrono::system_clock;

constexpr const char* swmServerAddress = "ux:SWMServer";

/// What comes back when a name was found or a mailbox lost: which of the watched it was.
struct NoticeS {
    std::uint32_t msgNo;
    std::uint32_t index;
};

mnet_msg* makeNotice(std::uint32_t number, std::size_t index)
{
    mnet_msg* const msg = mnet_alloc(sizeof(NoticeS), number);
    if (msg != nullptr) {
        const NoticeS notice{number, static_cast<std::uint32_t>(index)};
        std::memcpy(msg, &notice, sizeof(notice));
    }
    return msg;
}

std::string timeText(system_clock::time_point time)
{
    const std::time_t seconds = system_clock::to_time_t(time);
    std::tm fields{};
    char text[16] = "";
    if (localtime_r(&seconds, &fields) != nullptr) {
        (void)std::strftime(text, sizeof(text), "%H:%M:%S", &fields);
    }
    return text;
}

} // namespace

Watch::~Watch()
{
    if (m_mailbox != MNET_MBOX_NONE) {
        mnet_delete_mailbox(m_mailbox);
    }
}

bool Watch::open()
{
    m_mailbox = mnet_create_mailbox(nullptr, 0);
    bool isOpen = m_mailbox != MNET_MBOX_NONE;
    for (std::size_t index = 0; index < m_watched.size() && isOpen; ++index) {
        isOpen = search(index);
    }
    return isOpen;
}

int Watch::fd() const
{
    return mnet_get_fd();
}

Watch::Change Watch::next()
{
    mnet_msg* msg = nullptr;
    while ((msg = mnet_receive(nullptr, 0, MNET_FROM_ANY)) != nullptr) {
        NoticeS notice{};
        const bool isOurs = mnet_is_notice(msg) == 1 && mnet_size(msg) == sizeof(notice);
        const mnet_mbox_id_t mailbox = mnet_sender(msg);
        if (isOurs) {
            std::memcpy(&notice, msg, sizeof(notice));
        }
        mnet_free(&msg);
        if (!isOurs) {
            continue; // nobody has anything to say to this mailbox
        }
        Watched& watched = m_watched.at(notice.index);
        const bool isFound = notice.msgNo == MNET_LOCATE_DEFAULT_MSGNO;
        if (isFound) {
            watched.mailbox = mailbox;
            mnet_msg* loss = makeNotice(MNET_MONITOR_DEFAULT_MSGNO, notice.index);
            mnet_monitor(mailbox, &loss);
        } else {
            (void)search(notice.index);
        }
        switch (notice.index) {
        case 0:
            if (!isFound) {
                return Change::privateLost;
            }
            return isOfThisProcess(mailbox) ? Change::privateFound : Change::privateForeign;
        case 1:
            return isFound ? Change::published : Change::unpublished;
        default:
            return Change::neighbour;
        }
    }
    return Change::none;
}

bool Watch::findSwmServer()
{
    sway_socket* const connection = sway_connect(swmServerAddress, 0);
    sway_close(connection);
    if (connection != nullptr) {
        m_swmServerMissingSince.reset();
    } else if (!m_swmServerMissingSince) {
        m_swmServerMissingSince = system_clock::now();
    }
    return connection != nullptr;
}

std::string Watch::waitText() const
{
    std::string text = m_swmServerMissingSince ? "SWMServer since " + timeText(*m_swmServerMissingSince) : "";
    for (std::size_t index = 2; index < m_watched.size(); ++index) {
        const Watched& neighbour = m_watched[index];
        if (!neighbour.isThere()) {
            text += (text.empty() ? "" : ", ") + std::string(neighbour.name) + " since " +
                    timeText(neighbour.missingSince);
        }
    }
    return text.empty() ? "the answers of BriServer, BmmiServer and SWMServer since " +
                              timeText(publicMailbox().missingSince)
                        : text;
}

/// The mailbox library sends for the mailboxes of its own process only. What it sends here is passed over.
bool Watch::isOfThisProcess(mnet_mbox_id_t mailbox) const
{
    mnet_msg* msg = mnet_alloc(sizeof(mnet_msg), 0);
    return msg != nullptr && mnet_send(&msg, m_mailbox, mailbox) == 0;
}

bool Watch::search(std::size_t index)
{
    m_watched.at(index).mailbox = MNET_MBOX_NONE;
    m_watched.at(index).missingSince = system_clock::now();
    mnet_msg* msg = makeNotice(MNET_LOCATE_DEFAULT_MSGNO, index);
    return mnet_locate_async(m_watched.at(index).name.data(), &msg, m_mailbox) == 0;
}

} // namespace merlow::merlowd
