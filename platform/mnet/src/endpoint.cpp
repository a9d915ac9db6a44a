/// Endpoint: its descriptors, its mailboxes, its end.
#include "endpoint.h"

#include "process.h"
#include "runDir.h"
#include "unixSocket.h"
#include "wire.h"

#include <cerrno>
#include <fcntl.h>
#include <iterator>
#include <new>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace mnet {

namespace {

/// How much of what waits is moved on, and read on behalf of others, before an endpoint goes.
constexpr int lastFlush = 4096;
constexpr int deletionBudget = 65536;

} // namespace

Endpoint::Endpoint(std::shared_ptr<Process> process, std::uint16_t number)
    : m_process(std::move(process)), m_number(number)
{
}

Endpoint::~Endpoint() = default;

std::shared_ptr<Endpoint> Endpoint::create(std::shared_ptr<Process> process, std::uint16_t number)
{
    std::shared_ptr<Endpoint> endpoint(new Endpoint(std::move(process), number));
    if (!endpoint->open()) {
        const int error = errno;
        endpoint->m_live.clear();
        unlinkat(endpoint->m_process->folder().endpoints(), std::to_string(number).c_str(), 0);
        errno = error;
        return nullptr;
    }
    return endpoint;
}

bool Endpoint::open()
{
    RunFolder& folder = m_process->folder();
    // One after the other, so that `errno` is that of the one that is missing.
    const auto opened = [](Descriptor& descriptor, auto open) {
        descriptor = Descriptor::open(open);
        return static_cast<bool>(descriptor);
    };
    if (!opened(m_epoll, [] { return epoll_create1(EPOLL_CLOEXEC); }) ||
        !opened(m_bell, [] { return eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); }) ||
        !opened(m_timer, [] { return timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK); }) ||
        !opened(m_reserve, [] { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }) ||
        !opened(m_listener,
                [] { return socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); }) ||
        !m_live.create(folder, m_number)) {
        return false;
    }
    const std::string name = std::to_string(m_number);
    unlinkat(folder.endpoints(), name.c_str(), 0); // a dead process's: the number is held here
    m_nextIndex = folder.nextIndex(m_number);
    return merlow::base::bindAt(m_listener.get(), folder.endpoints(), name) == 0 &&
           listen(m_listener.get(), listenBacklog) == 0 && watch(m_bell.get(), Source::bell, 0, EPOLLIN) &&
           watch(m_timer.get(), Source::timer, 0, EPOLLIN) &&
           watch(m_listener.get(), Source::listener, 0, EPOLLIN);
}

bool Endpoint::watch(int fd, Source source, std::uint32_t which, std::uint32_t events)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = std::uint64_t{static_cast<std::uint32_t>(source)} << 32 | which;
    return epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

void Endpoint::rewatch(int fd, Source source, std::uint32_t which, std::uint32_t events)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = std::uint64_t{static_cast<std::uint32_t>(source)} << 32 | which;
    epoll_ctl(m_epoll.get(), EPOLL_CTL_MOD, fd, &event);
}

void Endpoint::schedule(Clock::time_point when)
{
    if (m_timerDue && *m_timerDue <= when) {
        return;
    }
    m_timerDue = when;
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(when - Clock::now()).count();
    const long nanoseconds = left > 0 ? left : 1;
    itimerspec due{};
    due.it_value.tv_sec = nanoseconds / 1000000000;
    due.it_value.tv_nsec = nanoseconds % 1000000000;
    timerfd_settime(m_timer.get(), 0, &due, nullptr);
}

void Endpoint::onTimer()
{
    std::uint64_t count = 0;
    [[maybe_unused]] const auto got = read(m_timer.get(), &count, sizeof(count));
    m_timerDue.reset();
    listenAgain();
    if (m_looksAgain) {
        watchNames();
    }
    retryConnections();
}

bool Endpoint::isMine(mnet_mbox_id_t id) const
{
    return id == m_oldest ? id != MNET_MBOX_NONE
                          : endpointOf(id) == m_number && m_mailboxes.count(indexOf(id)) != 0;
}

bool Endpoint::hasMailbox(mnet_mbox_id_t id)
{
    const std::lock_guard lock(m_mutex);
    return !m_closed && isMine(id);
}

mnet_mbox_id_t Endpoint::currentMailbox()
{
    const std::lock_guard lock(m_mutex);
    return m_oldest;
}

mnet_mbox_id_t Endpoint::oldestMailbox() const
{
    const Mailbox* oldest = nullptr;
    mnet_mbox_id_t result = MNET_MBOX_NONE;
    for (const auto& [index, mailbox] : m_mailboxes) {
        if (oldest == nullptr || mailbox.age < oldest->age) {
            oldest = &mailbox;
            result = makeId(m_number, index);
        }
    }
    return result;
}

std::optional<std::uint16_t> Endpoint::takeIndex()
{
    // Unused ones first, then the ones that were given back the longest time ago.
    if (m_unusedIndexes > 0) {
        --m_unusedIndexes;
        const std::uint16_t index = m_nextIndex++;
        m_process->folder().setNextIndex(m_number, m_nextIndex);
        return index;
    }
    if (m_freedIndexes.empty()) {
        return std::nullopt;
    }
    const std::uint16_t index = m_freedIndexes.front();
    m_freedIndexes.pop_front();
    return index;
}

/// The mailbox goes, and its index, which stands in `place`, is free again.
void Endpoint::giveBackMailbox(std::list<std::uint16_t>& place)
{
    m_mailboxes.erase(place.front());
    m_freedIndexes.splice(m_freedIndexes.end(), place);
    m_process->returnMailbox();
}

mnet_mbox_id_t Endpoint::addMailbox(const std::string& name)
{
    const Locked locked(*this);
    if (m_closed) {
        errno = ENOTCONN;
        return MNET_MBOX_NONE;
    }
    std::list<std::uint16_t> place(1); // for the way back, on which there may be no memory
    if (!m_process->reserveMailbox()) {
        errno = ENOSPC;
        return MNET_MBOX_NONE;
    }
    const auto index = takeIndex();
    if (!index) {
        m_process->returnMailbox();
        errno = ENOSPC;
        return MNET_MBOX_NONE;
    }
    place.front() = *index;
    const mnet_mbox_id_t id = makeId(m_number, *index);
    bool made = false;
    try {
        Mailbox& mailbox = m_mailboxes[*index];
        mailbox.age = m_nextAge++;
        // It is there before its name is: who finds the name may send at once.
        made = m_live.set(*index, true) &&
               (name.empty() || mailbox.name.take(m_process->folder().names(), name, id));
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    if (!made) {
        const int error = errno;
        m_live.set(*index, false);
        giveBackMailbox(place);
        errno = error;
        return MNET_MBOX_NONE;
    }
    m_mailboxes.at(*index).index = std::move(place);
    if (m_oldest == MNET_MBOX_NONE) {
        m_oldest = id;
    }
    return id;
}

bool Endpoint::deleteMailbox(mnet_mbox_id_t id)
{
    // Whom to tell of it outside the lock: other endpoints of this process.
    std::list<Watcher> watchers;
    std::map<mnet_monitor_id_t, Monitor> ended;
    bool last = false;
    {
        const Locked locked(*this);
        if (m_closed || !isMine(id)) {
            return false;
        }
        // Who asked to be told may be unheard yet, and this thread may never serve its descriptor again. The
        // live file comes first: who asks too late to be heard here sees there that the mailbox is gone.
        if (!m_keeping && keepsMessages()) {
            m_keeping = true;
            m_live.setKeeping(true);
        }
        m_live.set(indexOf(id), false);
        for (int i = 0; i < deletionBudget && serveReady(); ++i) {
            if (m_arrived) {
                pushFromPeer(std::move(m_arrived));
            }
        }
        Mailbox& mailbox = m_mailboxes.at(indexOf(id));
        mailbox.name.release();
        watchers.splice(watchers.end(), mailbox.watchers);
        std::list<std::uint16_t> place = std::move(mailbox.index);
        giveBackMailbox(place);
        if (m_oldest == id) {
            m_oldest = oldestMailbox();
        }
        dropQueuedFor(id);
        endDeliveriesTo(id, ended);
        for (auto watcher = watchers.begin(); watcher != watchers.end();) {
            const auto peer = m_peers.find(watcher->endpoint);
            if (peer == m_peers.end() || !watcher->notice) {
                ++watcher;
                continue;
            }
            peer->second.watches -= peer->second.watches > 0 ? 1 : 0;
            noticeToPeer(watcher->endpoint, id, watcher->monitor, std::move(watcher->notice));
            watcher = watchers.erase(watcher);
        }
        last = m_orphan && m_mailboxes.empty();
    }
    for (const Watcher& link : watchers) {
        if (const auto watcher = m_process->find(link.endpoint)) {
            watcher->notify(link.monitor);
        }
    }
    for (const auto& [monitor, what] : ended) {
        if (const auto target = m_process->find(endpointOf(what.target))) {
            target->removeWatcher(what.target, m_number, monitor);
        }
    }
    if (last) {
        close();
    }
    return true;
}

void Endpoint::endDeliveriesTo(mnet_mbox_id_t id, std::map<mnet_monitor_id_t, Monitor>& ended)
{
    m_locates.remove_if([&](const Locate& pending) { return pending.receiver == id; });
    if (m_locates.empty()) {
        m_nameWatch.reset();
    }
    std::map<mnet_monitor_id_t, Monitor> standing;
    for (auto monitor = m_monitors.begin(); monitor != m_monitors.end();) {
        const auto next = std::next(monitor);
        if (monitor->second.receiver == id && monitor->second.message) {
            standing.insert(m_monitors.extract(monitor));
        } else if (monitor->second.receiver == id) {
            m_monitors.erase(monitor);
        }
        monitor = next;
    }
    while (!standing.empty()) {
        const mnet_monitor_id_t monitor = standing.begin()->first;
        const mnet_mbox_id_t target = standing.begin()->second.target;
        const auto peer = m_peers.find(endpointOf(target));
        if (peer == m_peers.end()) {
            ended.insert(standing.extract(monitor));
            continue;
        }
        standing.erase(monitor);
        --peer->second.monitors;
        if (!peer->second.out.withdrawRequest(monitor) && peer->second.out.isOpen()) {
            request(endpointOf(target), Kind::unmonitor, makeId(m_number, 0), target, monitor);
        }
    }
}

void Endpoint::threadEnded()
{
    {
        const Locked locked(*this);
        m_orphan = true;
        m_queue.clear(); // nobody can receive any more
        m_locates.clear();
        m_nameWatch.reset();
        if (m_closed || !m_mailboxes.empty()) {
            return;
        }
    }
    close();
}

void Endpoint::close()
{
    for (;;) {
        mnet_mbox_id_t next = MNET_MBOX_NONE;
        {
            std::unique_lock lock(m_mutex);
            if (m_closed) {
                return;
            }
            next = m_oldest;
            if (next == MNET_MBOX_NONE) {
                m_closed = true;
                finishClosing(lock);
                return;
            }
        }
        deleteMailbox(next);
    }
}

void Endpoint::finishClosing(std::unique_lock<std::mutex>& lock)
{
    for (auto& [number, peer] : m_peers) {
        if (peer.out.isOpen()) {
            peer.out.flush(lastFlush, m_asked);
        }
    }
    // First the ends of what was sent, then the signs that this endpoint is gone: who sees one of these finds
    // everything that came before it. The socket's name goes while the number is still held here.
    m_peers.clear();
    m_live.clear();
    unlinkat(m_process->folder().endpoints(), std::to_string(m_number).c_str(), 0);
    m_process->folder().release(m_number);
    m_listener.reset();
    m_last = nullptr;
    m_incoming.clear();
    m_queue.clear();
    m_monitors.clear();
    m_locates.clear();
    m_nameWatch.reset();

    m_bellRung = false;
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto rung = write(m_bell.get(), &one, sizeof(one));
    m_idle.wait(lock, [this] { return !m_waiting; });
    m_epoll.reset();
    m_bell.reset();
    m_timer.reset();
    m_reserve.reset();
    lock.unlock();
    m_process->remove(m_number);
}

} // namespace mnet
