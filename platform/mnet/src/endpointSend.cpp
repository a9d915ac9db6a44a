/// Endpoint: sending, and the connections to other processes' endpoints.
#include "endpoint.h"

#include "process.h"
#include "wire.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <sys/epoll.h>

namespace mnet {

namespace {

/// Packets that one send, or one turn of serving, moves on of what waits.
constexpr int sendBudget = 16;
constexpr int serveBudget = 16;

/// A connection that ends without a welcome is tried again at once, then after 1 ms, and twice that each
/// time: who is dying needs a moment, who has no descriptors longer.
constexpr int maxRetryMs = 128;

} // namespace

BlockPtr Endpoint::makeRequest(Kind kind, mnet_mbox_id_t sender, mnet_mbox_id_t receiver,
                               mnet_monitor_id_t monitor)
{
    BlockPtr block = makeBlock(0, Fill::none);
    if (block) {
        block->kind = kind;
        block->sender = sender;
        block->receiver = receiver;
        block->monitor = monitor;
    }
    return block;
}

int Endpoint::send(BlockPtr block, mnet_mbox_id_t to)
{
    const std::uint16_t number = endpointOf(to);
    {
        const Locked locked(*this);
        if (block->sender == MNET_MY_MBOX) {
            block->sender = m_oldest;
        }
        if (m_closed || !isMine(block->sender)) {
            return EPERM;
        }
        block->receiver = to;
        block->isNotice = false;
        block->monitor = 0;
        block->kind = Kind::data;
        if (number == m_number) {
            if (!isMine(to)) {
                return ENOENT;
            }
            push(std::move(block));
            return 0;
        }
        if (!isMailboxId(to)) {
            return ENOENT;
        }
        if (const auto peer = m_peers.find(number); peer != m_peers.end()) {
            const int error = sendToPeer(peer->second, std::move(block), to);
            fireGone();
            return error;
        }
    }
    if (const auto neighbour = m_process->find(number)) {
        return neighbour->deliver(std::move(block)) ? 0 : ENOENT;
    }
    const Locked locked(*this);
    return isMine(block->sender) ? sendToPeer(m_peers[number], std::move(block), to) : EPERM;
}

int Endpoint::sendToPeer(Peer& peer, BlockPtr block, mnet_mbox_id_t to)
{
    const std::uint16_t number = endpointOf(to);
    if (!peer.out.isOpen() && !peer.retryAt && !connect(number)) {
        return errno;
    }
    if (!peer.out.isLive(indexOf(to))) {
        return ENOENT;
    }
    if (peer.out.isOpen()) {
        Outgoing::Sent sent = peer.out.hasKept() ? peer.out.flush(sendBudget, m_asked) : Outgoing::Sent::done;
        if (sent == Outgoing::Sent::done) {
            sent = peer.out.send(block);
        }
        if (sent == Outgoing::Sent::broken) {
            if (!connectionBroken(number)) {
                return block ? ENOENT : 0; // taken, and perhaps the last thing that the peer has read
            }
            return !block || post(number, std::move(block)) ? 0 : ENOENT;
        } else if (sent == Outgoing::Sent::later) {
            armWritable(number, peer);
        }
        if (!block) {
            return 0;
        }
    }
    if (peer.out.hasKept() && peer.out.keptBytes() + block->cost() > m_process->queueLimit()) {
        if (!peer.out.reportedFull) {
            peer.out.reportedFull = true;
            report([&] {
                return "mailbox " + hex(to) + " does not read: " + std::to_string(peer.out.keptBytes()) +
                       " bytes wait, no more are taken";
            });
        }
        return ENOBUFS;
    }
    peer.out.keep(std::move(block));
    return 0;
}

/// Puts a block behind everything that waits for the peer, without a limit. False when the peer is gone.
bool Endpoint::post(std::uint16_t number, BlockPtr block)
{
    Peer& peer = m_peers[number];
    if (peer.ending || (!peer.out.isOpen() && !peer.retryAt && !connect(number))) {
        return false;
    }
    peer.out.keep(std::move(block));
    if (!peer.out.isOpen()) {
        return true;
    }
    switch (peer.out.flush(sendBudget, m_asked)) {
    case Outgoing::Sent::broken:
        return connectionBroken(number);
    case Outgoing::Sent::later:
        armWritable(number, peer);
        return true;
    default:
        return true;
    }
}

void Endpoint::request(std::uint16_t number, Kind kind, mnet_mbox_id_t sender, mnet_mbox_id_t receiver,
                       mnet_monitor_id_t monitor)
{
    // Without memory the other side goes on to watch, and its notice finds no monitor here.
    if (BlockPtr block = makeRequest(kind, sender, receiver, monitor)) {
        post(number, std::move(block));
    }
}

/// Asks a peer to watch a mailbox.
void Endpoint::ask(std::uint16_t number, BlockPtr asking)
{
    if (m_peers[number].out.isGone(indexOf(asking->receiver))) {
        m_asked.push(std::move(asking)); // nobody has to be asked
    } else {
        post(number, std::move(asking));
    }
}

/// The connection to a peer is made later.
void Endpoint::retryLater(Peer& peer)
{
    peer.out.close();
    peer.retryAt = Clock::now() + std::chrono::milliseconds(maxRetryMs);
    schedule(*peer.retryAt);
}

/// Opens the connection to a peer, or sees to it that it is tried again. False, with `errno` and the peer
/// forgotten, when nobody is there.
bool Endpoint::connect(std::uint16_t number)
{
    Peer& peer = m_peers[number];
    peer.retryAt.reset();
    switch (peer.out.open(m_process->folder(), m_number, number)) {
    case Outgoing::Open::done:
        break;
    case Outgoing::Open::later:
        peer.retryMs = std::clamp(peer.retryMs * 2, 1, maxRetryMs);
        peer.retryAt = Clock::now() + std::chrono::milliseconds(peer.retryMs);
        schedule(*peer.retryAt);
        return true;
    case Outgoing::Open::denied:
        report([&] {
            return "endpoint " + std::to_string(number) +
                   " is not to be spoken to: another process holds its socket, or "
                   "access is denied";
        });
        peerLost(number);
        errno = EACCES;
        return false;
    case Outgoing::Open::gone:
        peerLost(number);
        errno = ENOENT;
        return false;
    }
    if (!watch(peer.out.fd(), Source::outgoing, number, EPOLLIN)) {
        retryLater(peer);
        return true;
    }
    // Our monitors there stand anew with each connection.
    for (const auto& [id, monitor] : m_monitors) {
        if (monitor.message && endpointOf(monitor.target) == number) {
            BlockPtr block = makeRequest(Kind::monitor, monitor.receiver, monitor.target, id);
            if (!block) {
                retryLater(peer);
                return true;
            }
            if (peer.out.isGone(indexOf(monitor.target))) {
                m_asked.push(std::move(block));
            } else {
                peer.out.keep(std::move(block));
            }
        }
    }
    switch (peer.out.flush(serveBudget, m_asked)) {
    case Outgoing::Sent::broken:
        return connectionBroken(number);
    case Outgoing::Sent::later:
        armWritable(number, peer);
        return true;
    default:
        return true;
    }
}

/// The connection to a peer has ended, and whether the peer has is to be found out. False when it has, and is
/// forgotten.
bool Endpoint::connectionBroken(std::uint16_t number)
{
    Peer& peer = m_peers[number];
    if (peer.out.isWelcomed()) {
        peer.retryMs = 0;
    }
    peer.out.close();
    if (peer.ending) {
        return false;
    }
    if (peer.retryMs == 0) {
        peer.retryMs = 1;
        return connect(number);
    }
    peer.retryAt = Clock::now() + std::chrono::milliseconds(peer.retryMs);
    peer.retryMs = std::min(peer.retryMs * 2, maxRetryMs);
    schedule(*peer.retryAt);
    return true;
}

void Endpoint::retryConnections()
{
    const auto now = Clock::now();
    const auto isDue = [now](const auto& entry) {
        return entry.second.retryAt && *entry.second.retryAt <= now;
    };
    // Each comes off the list, or is due later; the peers may be others after each.
    for (auto due = m_peers.begin(); due != m_peers.end();) {
        due = std::find_if(m_peers.begin(), m_peers.end(), isDue);
        if (due != m_peers.end()) {
            connect(due->first);
        }
    }
    for (const auto& [number, peer] : m_peers) {
        if (peer.retryAt) {
            schedule(*peer.retryAt);
        }
    }
}

void Endpoint::armWritable(std::uint16_t number, Peer& peer)
{
    if (!peer.out.waitsForWritable) {
        peer.out.waitsForWritable = true;
        rewatch(peer.out.fd(), Source::outgoing, number, EPOLLIN | EPOLLOUT);
    }
}

void Endpoint::onOutgoing(std::uint16_t number, std::uint32_t events)
{
    const auto found = m_peers.find(number);
    if (found == m_peers.end() || !found->second.out.isOpen()) {
        return;
    }
    Peer& peer = found->second;
    Outgoing::Sent sent =
        (events & ~std::uint32_t{EPOLLOUT}) != 0 ? peer.out.readBack() : Outgoing::Sent::done;
    if (sent == Outgoing::Sent::done && (events & EPOLLOUT) != 0) {
        sent = peer.out.flush(serveBudget, m_asked);
        peer.out.withdrawNeedless(m_asked);
        if (sent == Outgoing::Sent::done && peer.out.waitsForWritable) {
            peer.out.waitsForWritable = false;
            rewatch(peer.out.fd(), Source::outgoing, number, EPOLLIN);
        }
    }
    if (sent == Outgoing::Sent::broken && connectionBroken(number)) {
        forgetIfIdle(number);
    }
}

/// A peer that nothing binds any more is forgotten; the next send finds it again.
void Endpoint::forgetIfIdle(std::uint16_t number)
{
    const auto found = m_peers.find(number);
    if (found == m_peers.end()) {
        return;
    }
    const Peer& peer = found->second;
    if (!peer.out.isOpen() && !peer.out.hasKept() && peer.in == nullptr && peer.monitors == 0 &&
        peer.queued == 0) {
        m_peers.erase(found);
    }
}

/// The peer's process, or its thread, is over. What it had sent is read to its end, then our monitors of its
/// mailboxes fire.
void Endpoint::peerLost(std::uint16_t number)
{
    {
        Peer& peer = m_peers[number];
        if (peer.ending) {
            return;
        }
        peer.ending = true;
        peer.out.close();
        acceptWaiting();
        if (peer.in != nullptr) {
            readToEnd(*peer.in);
        }
        if (peer.in != nullptr) {
            eraseIncoming(*peer.in);
        }
    }
    dropWatchersOf(number);
    for (auto monitor = m_monitors.begin(); monitor != m_monitors.end();) {
        const auto next = std::next(monitor); // firing takes away no other
        if (monitor->second.message && endpointOf(monitor->second.target) == number) {
            fire(monitor->first);
        }
        monitor = next;
    }
    m_peers.erase(number);
    rememberDeath(number);
}

bool Endpoint::keepsMessages() const
{
    return std::any_of(m_peers.begin(), m_peers.end(),
                       [](const auto& entry) { return entry.second.out.hasKeptMessages(); });
}

void Endpoint::noteWhatIsKept()
{
    if (m_keeping && !m_closed && !keepsMessages()) {
        m_keeping = false;
        m_live.setKeeping(false);
    }
}

} // namespace mnet
