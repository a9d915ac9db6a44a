/// Endpoint: monitors of mailboxes, and locates of names.
#include "endpoint.h"

#include "process.h"
#include "wire.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <new>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace mnet {

namespace {

/// The most monitors that an endpoint may have at another one: what that one accepts.
constexpr std::size_t maxMonitors = 65536;

/// How often names are looked for when the kernel gives no watch (it allows a user 128 of them by default),
/// or when there was no descriptor to look with.
constexpr auto pollInterval = std::chrono::milliseconds(50);

/// How long the name of a process that has died can seem to be held.
constexpr auto nameLinger = std::chrono::seconds(1);

/// Goes on through `mnet_exit` and the next `mnet_init`: an old id never hits a new monitor.
std::atomic<mnet_monitor_id_t> g_nextMonitor{1};

mnet_monitor_id_t nextMonitor()
{
    for (;;) {
        const mnet_monitor_id_t id = g_nextMonitor.fetch_add(1, std::memory_order_relaxed);
        if (id != 0 && id != MNET_MBOX_NONE) {
            return id;
        }
    }
}

} // namespace

mnet_monitor_id_t Endpoint::monitor(mnet_mbox_id_t target, BlockPtr message)
{
    const std::uint16_t number = endpointOf(target);
    const bool local = number == m_number || m_process->find(number) != nullptr;
    const mnet_monitor_id_t id = nextMonitor();
    BlockPtr asking = makeRequest(Kind::monitor, MNET_MBOX_NONE, target, id);
    if (!asking) {
        throw std::bad_alloc();
    }
    {
        const Locked locked(*this);
        if (m_closed || m_oldest == MNET_MBOX_NONE) {
            errno = m_closed ? ENOTCONN : ENOENT;
            return MNET_MBOX_NONE;
        }
        if (!local && m_peers[number].monitors >= maxMonitors) {
            errno = ENOSPC;
            return MNET_MBOX_NONE;
        }
        m_monitors.emplace(id, Monitor{.target = target,
                                       .receiver = m_oldest,
                                       .message = std::move(message),
                                       .queued = nullptr});
        if (!local) {
            Peer& peer = m_peers[number];
            ++peer.monitors;
            if (peer.out.isOpen()) {
                asking->sender = m_oldest;
                ask(number, std::move(asking));
            } else if (!peer.retryAt) {
                connect(number); // asks for all monitors there, or finds nobody and lets them fire
            }
            fireGone();
            return id;
        }
    }
    try {
        const auto owner = m_process->find(number);
        if (!owner || !owner->addWatcher(target, m_number, id)) {
            notify(id);
        }
    } catch (const std::bad_alloc&) {
        unmonitor(id);
        throw;
    }
    return id;
}

bool Endpoint::unmonitor(mnet_monitor_id_t id)
{
    mnet_mbox_id_t target = MNET_MBOX_NONE;
    {
        const Locked locked(*this);
        const auto found = m_monitors.find(id);
        if (found == m_monitors.end()) {
            return false;
        }
        if (Block* queued = found->second.queued) {
            ++m_removals;
            take(queued); // the monitor goes with its notice
            return true;
        }
        target = found->second.target;
        m_monitors.erase(found);
        if (const auto peer = m_peers.find(endpointOf(target)); peer != m_peers.end()) {
            --peer->second.monitors;
            if (!peer->second.out.withdrawRequest(id) && peer->second.out.isOpen()) {
                request(endpointOf(target), Kind::unmonitor, makeId(m_number, 0), target, id);
            }
            return true;
        }
    }
    if (const auto owner = m_process->find(endpointOf(target))) {
        owner->removeWatcher(target, m_number, id);
    }
    return true;
}

bool Endpoint::addWatcher(mnet_mbox_id_t target, std::uint16_t watcher, mnet_monitor_id_t monitor)
{
    const Locked locked(*this);
    if (m_closed || !isMine(target)) {
        return false;
    }
    m_mailboxes.at(indexOf(target))
        .watchers.push_back({.endpoint = watcher, .monitor = monitor, .notice = nullptr});
    return true;
}

void Endpoint::removeWatcher(mnet_mbox_id_t target, std::uint16_t watcher, mnet_monitor_id_t monitor)
{
    const Locked locked(*this);
    removeWatcherHere(target, watcher, monitor);
}

bool Endpoint::removeWatcherHere(mnet_mbox_id_t target, std::uint16_t watcher, mnet_monitor_id_t monitor)
{
    const auto mailbox = m_mailboxes.find(indexOf(target));
    if (mailbox == m_mailboxes.end()) {
        return false;
    }
    auto& watchers = mailbox->second.watchers;
    const auto found = std::find_if(watchers.begin(), watchers.end(), [&](const Watcher& other) {
        return other.endpoint == watcher && other.monitor == monitor;
    });
    if (found == watchers.end()) {
        return false;
    }
    watchers.erase(found);
    return true;
}

void Endpoint::notify(mnet_monitor_id_t monitor)
{
    const Locked locked(*this);
    fire(monitor);
}

/// The mailbox that this monitor is for is gone: its message goes into the queue.
void Endpoint::fire(mnet_monitor_id_t id)
{
    const auto found = m_monitors.find(id);
    if (found == m_monitors.end() || !found->second.message) {
        return;
    }
    Monitor& monitor = found->second;
    if (const auto peer = m_peers.find(endpointOf(monitor.target)); peer != m_peers.end()) {
        --peer->second.monitors;
    }
    if (m_orphan) {
        m_monitors.erase(found);
        return;
    }
    BlockPtr notice = std::move(monitor.message);
    notice->sender = monitor.target;
    notice->receiver = monitor.receiver;
    notice->isNotice = true;
    notice->monitor = id;
    monitor.queued = notice.get();
    push(std::move(notice));
}

/// The peer deletes a mailbox in its live file first and hears those who ask to be told then, so that who has
/// asked and sees the mailbox alive is told. Whoever sees it gone can't count on that: the thread over there
/// may never serve its descriptor again. But all that the mailbox sent is here by now, unless the peer keeps
/// it.
void Endpoint::fireGone()
{
    while (!m_asked.empty()) {
        const BlockPtr asked = m_asked.pop();
        const std::uint16_t number = endpointOf(asked->receiver);
        const auto known = m_peers.find(number);
        if (known == m_peers.end() || !known->second.out.isGone(indexOf(asked->receiver))) {
            continue;
        }
        acceptWaiting();
        if (m_refused) {
            continue;
        }
        if (const auto peer = m_peers.find(number); peer != m_peers.end() && peer->second.in != nullptr) {
            readWhatWaits(*peer->second.in);
        }
        fire(asked->monitor);
    }
}

/// A peer's connection has ended: what it watched here is not watched any more.
void Endpoint::dropWatchersOf(std::uint16_t number)
{
    if (const auto peer = m_peers.find(number); peer != m_peers.end()) {
        if (peer->second.watches == 0) {
            return;
        }
        peer->second.watches = 0;
    }
    for (auto& mailbox : m_mailboxes) {
        mailbox.second.watchers.remove_if([&](const Watcher& watcher) { return watcher.endpoint == number; });
    }
}

void Endpoint::noticeToPeer(std::uint16_t number, mnet_mbox_id_t lost, mnet_monitor_id_t monitor,
                            BlockPtr notice)
{
    notice->kind = Kind::notice;
    notice->sender = lost;
    notice->receiver = makeId(number, 0);
    notice->monitor = monitor;
    post(number, std::move(notice));
}

bool Endpoint::locate(const std::string& name, BlockPtr message, mnet_mbox_id_t receiver)
{
    const Locked locked(*this);
    if (m_closed || !isMine(receiver)) {
        errno = ENOENT;
        return false;
    }
    m_locates.push_back({.fileName = fileNameOf(name), .receiver = receiver, .message = std::move(message)});
    const auto pending = std::prev(m_locates.end());
    if (answerLocate(pending)) {
        m_locates.erase(pending);
        return true;
    }
    watchNames(); // watch first, then look again: no name slips through in between
    return true;
}

/// The kernel ends the connections of a process that dies a moment before it drops the locks on its names.
/// Whoever hears of the end and looks at once for a successor must not find the dead one.
void Endpoint::rememberDeath(std::uint16_t number)
{
    const auto now = Clock::now();
    std::erase_if(m_justDied, [now](const auto& death) { return death.second + nameLinger < now; });
    try {
        m_justDied[number] = now;
    } catch (const std::bad_alloc&) {
        return; // its names may be found a moment longer
    }
}

bool Endpoint::hasJustDied(std::uint16_t number) const
{
    const auto death = m_justDied.find(number);
    return death != m_justDied.end() && Clock::now() <= death->second + nameLinger;
}

bool Endpoint::answerLocate(std::list<Locate>::iterator pending)
{
    mnet_mbox_id_t found = MNET_MBOX_NONE;
    if (!lookUpName(m_process->folder().names(), pending->fileName, found)) {
        lookAgain();
    }
    if (found != MNET_MBOX_NONE && hasJustDied(endpointOf(found))) {
        lookAgain();
        return false;
    }
    if (found == MNET_MBOX_NONE) {
        return false;
    }
    BlockPtr message = std::move(pending->message);
    message->sender = found;
    message->receiver = pending->receiver;
    message->isNotice = true;
    message->monitor = 0;
    push(std::move(message));
    return true;
}

/// Looks for the names of pending locates: for one that has just appeared, or for all.
void Endpoint::answerLocates(const char* fileName)
{
    for (auto pending = m_locates.begin(); pending != m_locates.end();) {
        const auto next = std::next(pending);
        if ((fileName == nullptr || pending->fileName == fileName) && answerLocate(pending)) {
            m_locates.erase(pending);
        }
        pending = next;
    }
    if (m_locates.empty()) {
        m_nameWatch.reset();
    }
}

void Endpoint::watchNames()
{
    m_looksAgain = false;
    if (m_locates.empty()) {
        return;
    }
    if (!m_nameWatch) {
        m_nameWatch = Descriptor::open([] { return inotify_init1(IN_CLOEXEC | IN_NONBLOCK); });
        std::array<char, 32> folder{};
        std::snprintf(folder.data(), folder.size(), "/proc/self/fd/%d", m_process->folder().names());
        if (m_nameWatch &&
            (inotify_add_watch(m_nameWatch.get(), folder.data(), IN_CREATE | IN_MOVED_TO) < 0 ||
             !watch(m_nameWatch.get(), Source::names, 0, EPOLLIN))) {
            m_nameWatch.reset();
        }
    }
    if (!m_nameWatch) {
        lookAgain();
    }
    answerLocates(nullptr);
}

void Endpoint::lookAgain()
{
    m_looksAgain = true;
    schedule(Clock::now() + pollInterval);
}

void Endpoint::onNames()
{
    alignas(inotify_event) std::array<char, 4096> buffer;
    const ssize_t got = m_nameWatch ? read(m_nameWatch.get(), buffer.data(), buffer.size()) : 0;
    for (ssize_t at = 0; at < got;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
        if ((event->mask & (IN_Q_OVERFLOW | IN_IGNORED)) != 0) {
            answerLocates(nullptr);
        } else if (event->len > 0) {
            answerLocates(event->name);
        }
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
}

} // namespace mnet
