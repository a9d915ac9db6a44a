// The roles around faults: subscribers that follow each event, subscribers in a storm of them, and a client
// that audits while it lasts.

#include "bri.pb.h"
#include "mailboxLink.h"
#include "role.h"
#include "unit.h"

#include <algorithm>
#include <map>
#include <poll.h>
#include <stdexcept>
#include <time.h>

namespace merlow::bench {

namespace {

namespace bri = boardresourcehandler::bri;

constexpr std::uint32_t subscribeFaultsReq = 0x165800A;
constexpr std::uint32_t subscribeFaultsCfm = 0x165800B;
constexpr std::uint32_t faultInd = 0x165800D;
constexpr std::uint32_t faultCeaseInd = 0x165800E;
constexpr std::uint32_t auditReq = 0x1658400;
constexpr std::uint32_t auditCfm = 0x1658401;

/// Mailboxes of one process, each with a session; the link's target is the board.
class Sessions : public MailboxLink {
public:
    explicit Sessions(std::size_t count) : MailboxLink("")
    {
        aimAt(publicName);
        m_server = target();
        aimAt(bri::BriServerMetadata().name());
        while (m_mailboxes.size() < count) {
            const auto mailbox =
                m_mailboxes.empty() ? mnet_current_mbox() : mnet_clone_mailbox(mnet_current_mbox(), nullptr);
            m_mailboxes.push_back(mailbox);
            request(mailbox, 16, connEstablishReq, connEstablishCfm);
        }
    }
    /// Sends a request from one of the mailboxes and waits for its confirm.
    void request(mnet_mbox_id_t mailbox, std::size_t size, std::uint32_t number, std::uint32_t confirm)
    {
        Message message(size, number);
        message.setWord(4, 1);
        message.setWord(8, 300);
        if (mnet_send(message.handOver(), m_server, mailbox) != 0 || take().number() != confirm) {
            throw std::runtime_error("a request was not confirmed");
        }
    }
    void subscribeAll()
    {
        for (const mnet_mbox_id_t mailbox : m_mailboxes) {
            request(mailbox, 12, subscribeFaultsReq, subscribeFaultsCfm);
        }
    }
    std::size_t count() const { return m_mailboxes.size(); }
    mnet_mbox_id_t first() const { return m_mailboxes.front(); }

private:
    mnet_mbox_id_t m_server = MNET_MBOX_NONE;
    std::vector<mnet_mbox_id_t> m_mailboxes;
};

/// One trip is an event that is ordered from the board, and its indication at each subscriber.
class FollowingSubscribers : public Sessions {
public:
    using Sessions::Sessions;

    void send(std::size_t /*size*/)
    {
        Message order(8, boardFaultOrder);
        order.setWord(4, variedFaults);
        sendTo(target(), std::move(order));
        m_expected = m_expected == faultInd ? faultCeaseInd : faultInd;
    }
    void receive()
    {
        for (std::size_t i = 0; i < count(); ++i) {
            if (const Message message = take(); message.number() != m_expected) {
                throw std::runtime_error("a wrong indication: " + std::to_string(message.number()));
            }
        }
    }

private:
    std::uint32_t m_expected = faultCeaseInd; ///< of the latest event
};

/// What arrives at each subscriber in a storm: raise and cease in turn.
class StormCount {
public:
    void add(const Message& message)
    {
        One& one = m_each[message.receiver()];
        const bool isRaise = message.number() == faultInd;
        m_outOfOrder += isRaise == one.raised || message.number() == (isRaise ? faultCeaseInd : faultInd);
        one.raised = isRaise;
        ++one.received;
        ++m_received;
    }
    std::size_t received() const { return m_received; }
    std::size_t outOfOrder() const { return m_outOfOrder; }

private:
    struct One {
        bool raised = false;
        std::size_t received = 0;
    };
    std::map<mnet_mbox_id_t, One> m_each;
    std::size_t m_received = 0;
    std::size_t m_outOfOrder = 0;
};

/// Takes a message; nothing when none comes for a while.
Message takeSoon(MailboxLink& link)
{
    constexpr int patience = 3000; // milliseconds
    Message message = link.takeNow();
    if (!message) {
        pollfd item{mnet_get_fd(), POLLIN, 0};
        while (!message && poll(&item, 1, patience) == 1) {
            message = link.takeNow();
        }
    }
    return message;
}

/// Orders a storm from the board and follows it: how many events there were, how many indications, how many
/// of them out of order, and how long it took until all were here.
std::string followStorm(Sessions& sessions, std::uint32_t seconds, std::uint32_t rate)
{
    Message order(12, boardStormOrder);
    order.setWord(4, seconds);
    order.setWord(8, rate);
    const double start = nowNanoseconds();
    sessions.sendTo(sessions.target(), std::move(order));
    StormCount seen;
    std::size_t events = 0;
    double last = start;
    while (events == 0 || seen.received() < events * sessions.count()) {
        const Message message = takeSoon(sessions);
        if (!message) {
            break;
        }
        last = nowNanoseconds();
        if (message.number() == boardStormOver) {
            events = message.word(4);
        } else {
            seen.add(message);
        }
    }
    return std::to_string(events) + " " + std::to_string(seen.received()) + " " +
           std::to_string(seen.outOfOrder()) + " " + std::to_string(last - start);
}

/// Reads what has been kept: how many indications, how many of them out of order.
std::string drain(Sessions& sessions)
{
    StormCount seen;
    while (const Message message = takeSoon(sessions)) {
        seen.add(message);
    }
    return std::to_string(seen.received()) + " " + std::to_string(seen.outOfOrder());
}

void sleepUntil(double nanoseconds)
{
    timespec time{};
    time.tv_sec = static_cast<time_t>(nanoseconds / 1e9);
    time.tv_nsec = static_cast<long>(nanoseconds - static_cast<double>(time.tv_sec) * 1e9);
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr);
}

} // namespace

int playFaultClient(const RoleArguments& arguments)
{
    FollowingSubscribers link(std::stoul(arguments.at(1)));
    link.subscribeAll();
    return serveClient(link);
}

/// Orders: "storm SECONDS RATE", "drain".
int playStormClient(const RoleArguments& arguments)
{
    Sessions sessions(std::stoul(arguments.at(1)));
    sessions.subscribeAll();
    line::say("ready");
    while (const auto text = line::next()) {
        std::istringstream words(*text);
        std::string verb;
        std::uint32_t seconds = 0;
        std::uint32_t rate = 0;
        words >> verb >> seconds >> rate;
        line::say(verb == "storm" ? followStorm(sessions, seconds, rate) : drain(sessions));
    }
    return 0;
}

/// "audit SECONDS": an audit every five milliseconds; the answer is the 99th percentile in nanoseconds.
int playAuditClient(const RoleArguments&)
{
    Sessions session(1);
    line::say("ready");
    while (const auto text = line::next()) {
        const double end = nowNanoseconds() + std::stod(text->substr(text->find(' '))) * 1e9;
        std::vector<double> times;
        for (double next = nowNanoseconds(); next < end; next = std::max(next + 5e6, nowNanoseconds())) {
            sleepUntil(next);
            const double start = nowNanoseconds();
            session.request(session.first(), 12, auditReq, auditCfm);
            times.push_back(nowNanoseconds() - start);
        }
        std::sort(times.begin(), times.end());
        line::say(std::to_string(times[times.size() * 99 / 100]));
    }
    return 0;
}

} // namespace merlow::bench
