// The roles around bad company: an honest client that times each round trip, peers that it had better not
// notice, and a process that burns as much CPU as they do and touches nothing.

#include "badPeer.h"
#include "mailboxLink.h"
#include "role.h"
#include "unit.h"

#include <algorithm>
#include <csignal>
#include <grp.h>
#include <linux/capability.h>
#include <poll.h>
#include <sched.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <utility>

namespace merlow::bench {

namespace {

constexpr std::uint32_t trustAuditReq = 0x1658400;
constexpr std::uint32_t trustAuditCfm = 0x1658401;
constexpr std::uint32_t ownReference = 1;
constexpr std::uint32_t wantedReference = 300;
constexpr const char* nothing = "0 0"; ///< answers, and those that are missing

bool lineIsWaiting()
{
    pollfd item{lineFd, POLLIN, 0};
    return poll(&item, 1, 0) == 1;
}

/// "go" lets it take step after step, "halt" ends that; the answer to it is what `step.halted()` says.
template <class Steps> int serveTurns(Steps& steps)
{
    line::say("ready");
    while (line::next()) {
        while (!lineIsWaiting()) {
            steps.step();
        }
        if (!line::next()) {
            break;
        }
        line::say(steps.halted());
    }
    return 0;
}

Message auditRequest()
{
    Message message(12, trustAuditReq);
    message.setWord(4, ownReference);
    message.setWord(8, wantedReference);
    return message;
}

/// A client with a session.
class AuditLink : public MailboxLink {
public:
    AuditLink() : MailboxLink("")
    {
        aimAt(publicName);
        Message connect(16, connEstablishReq);
        connect.setWord(4, ownReference);
        connect.setWord(8, wantedReference);
        sendTo(target(), std::move(connect));
        if (take().number() != connEstablishCfm) {
            throw std::runtime_error("no connection");
        }
    }
    void request() { sendTo(target(), auditRequest()); }
    void answered()
    {
        if (take().number() != trustAuditCfm) {
            throw std::runtime_error("a wrong answer");
        }
    }
};

/// Sends as fast as the server takes it, with so many requests under way that some always wait.
class Flood {
public:
    /// `rests`: sleeps while there is no answer to read.
    explicit Flood(bool rests) : m_rests(rests) {}

    void step()
    {
        while (m_underWay < most) {
            m_link.request();
            ++m_underWay;
        }
        if (m_rests) {
            count(m_link.take());
        }
        takeWhatIsThere();
    }
    /// How many answers there were, and how many are missing.
    std::string halted()
    {
        constexpr double patience = 10e9;
        for (const double end = nowNanoseconds() + patience; m_underWay > 0 && nowNanoseconds() < end;) {
            takeWhatIsThere();
        }
        return std::to_string(std::exchange(m_answers, 0)) + " " + std::to_string(m_underWay);
    }

private:
    static constexpr std::size_t most = 4096;

    void takeWhatIsThere()
    {
        while (const Message answer = m_link.takeNow()) {
            count(answer);
        }
    }
    void count(const Message& answer)
    {
        if (answer.number() != trustAuditCfm) {
            throw std::runtime_error("a wrong answer");
        }
        --m_underWay;
        ++m_answers;
    }

    bool m_rests;
    AuditLink m_link;
    std::size_t m_underWay = 0;
    std::size_t m_answers = 0;
};

/// Asks a hundred times a second and reads nothing, so that the server always has something to keep for it.
class Deaf {
public:
    void step()
    {
        m_link.request();
        pollfd item{lineFd, POLLIN, 0};
        poll(&item, 1, 10);
    }
    static std::string halted() { return nothing; }

private:
    AuditLink m_link;
};

/// One connection without a hello, one that began a message and does not go on with it.
class Mute {
public:
    Mute() : m_server(BadPeer::whereServerIs()), m_dumb(m_server), m_half(m_server)
    {
        m_dumb.connect();
        m_half.connect();
        m_half.beginMessage();
    }
    static void step()
    {
        pollfd item{lineFd, POLLIN, 0};
        poll(&item, 1, -1);
    }
    static std::string halted() { return nothing; }

private:
    mnet_mbox_id_t m_server;
    BadPeer m_dumb;
    BadPeer m_half;
};

/// Connects, breaks a rule, and connects again without waiting to be thrown out.
class Malformed {
public:
    void step()
    {
        if (m_peer.connect()) {
            m_peer.breakRule(m_next++);
        }
    }
    static std::string halted() { return nothing; }

private:
    BadPeer m_peer{BadPeer::whereServerIs()};
    unsigned m_next = 0;
};

constexpr uid_t otherUser = 65534;

/// Belongs to another user from here on. `passesFolders`: keeps the right to overlook access rights of files,
/// so that it gets as far as the server's own check.
void becomeOtherUser(bool passesFolders)
{
    prctl(PR_SET_KEEPCAPS, passesFolders ? 1 : 0);
    if (setgroups(0, nullptr) != 0 || setresgid(otherUser, otherUser, otherUser) != 0 ||
        setresuid(otherUser, otherUser, otherUser) != 0) {
        throw std::runtime_error("cannot become another user");
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL); // lost with the user
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    data[0].permitted = data[0].effective = passesFolders ? 1U << CAP_DAC_OVERRIDE : 0;
    if (syscall(SYS_capset, &header, data) != 0) {
        throw std::runtime_error("cannot drop rights");
    }
}

/// Connects, or tries to, as another user, again and again.
class Foreign {
public:
    explicit Foreign(bool passesFolders) { becomeOtherUser(passesFolders); }
    void step()
    {
        if (m_peer.connect()) {
            m_peer.hello();
        }
    }
    static std::string halted() { return nothing; }

private:
    BadPeer m_peer{BadPeer::whereServerIs()};
};

double ownCpuNanoseconds()
{
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

} // namespace

/// "sample NANOSECONDS": round trips one after the other for that long; the answer is median, 99th percentile
/// and count.
int playTrustClient(const RoleArguments&)
{
    // It is the server's promptness that is measured, not its own.
    const sched_param first{.sched_priority = 1};
    sched_setscheduler(0, SCHED_FIFO, &first); // needs a right that not everybody has
    AuditLink link;
    line::say("ready");
    std::vector<double> times;
    while (const auto text = line::next()) {
        const double end = nowNanoseconds() + std::stod(text->substr(text->find(' ')));
        times.clear();
        for (double start = nowNanoseconds(); start < end;) {
            link.request();
            link.answered();
            const double now = nowNanoseconds();
            times.push_back(now - start);
            start = now;
        }
        std::sort(times.begin(), times.end());
        line::say(std::to_string(times[times.size() / 2]) + " " +
                  std::to_string(times[times.size() * 99 / 100]) + " " + std::to_string(times.size()));
    }
    return 0;
}

int playTrustPeer(const RoleArguments& arguments)
{
    const std::string& kind = arguments.at(1);
    if (kind == "flood" || kind == "flood-resting") {
        Flood flood(kind == "flood-resting");
        return serveTurns(flood);
    }
    if (kind == "deaf") {
        Deaf deaf;
        return serveTurns(deaf);
    }
    if (kind == "mute") {
        Mute mute;
        return serveTurns(mute);
    }
    if (kind == "malformed") {
        Malformed malformed;
        return serveTurns(malformed);
    }
    Foreign foreign(kind == "foreign-inside");
    return serveTurns(foreign);
}

/// "burn SHARE": that share of a CPU, until the next text, which is answered.
int playBurner(const RoleArguments&)
{
    constexpr double shortest = 500e3;
    constexpr double longest = 1e9;
    constexpr double atOnce = 50e3; // what a peer takes for one thing that it does
    prctl(PR_SET_TIMERSLACK, 1);
    line::say("ready");
    while (const auto text = line::next()) {
        const double share = std::stod(text->substr(text->find(' ')));
        const double period = std::clamp(atOnce / std::max(share, atOnce / longest), shortest, longest);
        const double start = nowNanoseconds();
        const double cpuStart = ownCpuNanoseconds();
        for (double turn = start + period; !lineIsWaiting();
             turn = std::max(turn + period, nowNanoseconds())) {
            while (nowNanoseconds() < turn && ownCpuNanoseconds() - cpuStart < share * (turn - start)) {
            }
            const double left = std::max(0.0, turn - nowNanoseconds());
            const timespec rest{0, static_cast<long>(std::min(left, 999999999.0))};
            pollfd item{lineFd, POLLIN, 0};
            ppoll(&item, 1, &rest, nullptr);
        }
        if (!line::next()) {
            break;
        }
        line::say(nothing);
    }
    return 0;
}

} // namespace merlow::bench
