/// Endpoint: connections from other processes' endpoints, and what they say.
#include "endpoint.h"

#include "process.h"
#include "unixSocket.h"
#include "wire.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>

namespace mnet {

namespace {

/// Pieces of one message that are read in a row.
constexpr int packetBudget = 16;

/// How long the listening socket is left alone when nothing can be accepted and nothing refused.
constexpr auto listenPause = std::chrono::milliseconds(100);

/// The same when a connection was not worth its while: it cost more than many messages. Whoever comes again
/// and again is kept waiting longer each time, until there was none for a while.
constexpr auto minRefusalPause = std::chrono::milliseconds(1);
constexpr auto maxRefusalPause = std::chrono::milliseconds(64);
constexpr auto calm = std::chrono::seconds(1);

/// The most connections that can wait to be accepted.
constexpr int mostWaiting = Endpoint::listenBacklog + 1;

/// The most that one peer may have open with this endpoint: its monitors, and notices that it does not read.
constexpr std::size_t maxWatches = 65536;

/// Bounds for the connections of one user: a share of what the process may open.
constexpr std::size_t minConnections = 16;
constexpr std::size_t maxConnections = 4096;

bool isOutOfDescriptors(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
}

bool hasEnded(int socket)
{
    pollfd state{socket, 0, 0};
    return poll(&state, 1, 0) == 1 && (state.revents & POLLHUP) != 0;
}

Descriptor acceptFrom(int listener)
{
    return Descriptor::open(
        [&] { return accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK); });
}

} // namespace

std::size_t Endpoint::userLimit() const
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return minConnections;
    }
    return std::clamp(static_cast<std::size_t>(limit.rlim_cur / 2), minConnections, maxConnections);
}

/// Whoever is connected by now; others may go on to connect faster than they are accepted.
void Endpoint::acceptWaiting()
{
    acceptSome(mostWaiting);
}

void Endpoint::acceptSome(int most)
{
    try {
        for (int i = 0; i < most && m_listener && acceptOne(); ++i) {
        }
    } catch (const std::bad_alloc&) {
        pauseListening(listenPause); // who was refused comes again
    }
}

void Endpoint::pauseListening(Clock::duration pause)
{
    if (m_listening) {
        m_listening = false;
        rewatch(m_listener.get(), Source::listener, 0, 0);
        schedule(Clock::now() + pause);
    }
}

/// Somebody connected who was not allowed to, or was of no use.
void Endpoint::discourage()
{
    const auto now = Clock::now();
    m_refusalPause = now - m_lastRefusal < calm
                         ? std::min<Clock::duration>(m_refusalPause * 2, maxRefusalPause)
                         : minRefusalPause;
    m_lastRefusal = now;
    pauseListening(m_refusalPause);
}

/// What was left alone for want of descriptors or memory is looked after again.
void Endpoint::listenAgain()
{
    if (!m_listening) {
        m_listening = true;
        rewatch(m_listener.get(), Source::listener, 0, EPOLLIN);
    }
    if (m_hasStarving) {
        m_hasStarving = false;
        for (auto& [serial, incoming] : m_incoming) {
            if (incoming->starves && !incoming->paused) {
                rewatch(incoming->fd(), Source::incoming, serial, EPOLLIN);
            }
            incoming->starves = false;
        }
    }
}

/// There is no memory for what it sends, and it would be readable all the time.
void Endpoint::leaveAlone(Incoming& incoming)
{
    incoming.starves = true;
    m_hasStarving = true;
    rewatch(incoming.fd(), Source::incoming, incoming.serial, 0);
    schedule(Clock::now() + listenPause);
}

bool Endpoint::acceptOne()
{
    Descriptor socket = acceptFrom(m_listener.get());
    if (!socket) {
        if (errno == ECONNABORTED || errno == EINTR) {
            return true;
        }
        return isOutOfDescriptors(errno) && refuseOne();
    }
    m_refused = false;
    if (!m_reserve) {
        m_reserve = Descriptor::open([] { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); });
    }
    ucred peer{};
    if (!merlow::base::peerCredentials(socket.get(), peer) || !merlow::base::peerAllowed(socket.get())) {
        const bool isStranger = errno == EACCES;
        report([&] {
            return "refused a connection of process " + std::to_string(peer.pid) + ": user " +
                   std::to_string(peer.uid) +
                   (isStranger ? " has no access" : " may have access, there is no way to know at present");
        });
        discourage();
        return true;
    }
    if (m_userConnections[peer.uid] >= userLimit()) {
        report([&] {
            return "refused a connection of process " + std::to_string(peer.pid) + ": user " +
                   std::to_string(peer.uid) + " has too many";
        });
        discourage();
        return true;
    }
    if (Incoming* incoming = addIncoming(std::move(socket), peer)) {
        readHello(*incoming);
    }
    return true;
}

/// Out of descriptors: the reserve is given up to accept, and close, one connection. Its sender finds it
/// ended without a welcome and comes back later; one that is gone can't, so its last words are read.
bool Endpoint::refuseOne()
{
    bool accepted = false;
    if (m_reserve) {
        m_reserve.reset();
        Descriptor socket = acceptFrom(m_listener.get());
        accepted = static_cast<bool>(socket);
        ucred peer{};
        if (accepted && hasEnded(socket.get()) && merlow::base::peerCredentials(socket.get(), peer) &&
            merlow::base::peerAllowed(socket.get())) {
            if (Incoming* incoming = addIncoming(std::move(socket), peer)) {
                readToEnd(*incoming);
            }
        } else {
            socket.reset();
        }
        if (accepted && !m_refused) {
            m_refused = true;
            report([&] { return "refuses connections: out of descriptors"; });
        }
        m_reserve = Descriptor::open([] { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); });
    }
    if (!accepted && !m_reserve) {
        pauseListening(listenPause);
    }
    return accepted;
}

Incoming* Endpoint::addIncoming(Descriptor socket, const ucred& peer)
{
    auto incoming = std::make_unique<Incoming>(std::move(socket), peer.pid, peer.uid);
    incoming->serial = m_nextSerial++;
    if (!watch(incoming->fd(), Source::incoming, incoming->serial, EPOLLIN)) {
        return nullptr;
    }
    std::size_t& connections = m_userConnections[peer.uid];
    const std::uint32_t serial = incoming->serial;
    Incoming* added = m_incoming.emplace(serial, std::move(incoming)).first->second.get();
    ++connections;
    return added;
}

/// False when it has not come yet.
bool Endpoint::readHello(Incoming& incoming)
{
    std::uint16_t claimed = 0;
    switch (incoming.readHello(m_number, claimed)) {
    case Incoming::Got::again:
    case Incoming::Got::hungry:
        return false;
    case Incoming::Got::request:
        try {
            if (admit(incoming, claimed)) {
                return true;
            }
        } catch (const std::bad_alloc&) {
            forgetIfIdle(claimed);
            break; // it comes again, since it was not welcomed
        }
        report([&] {
            return "refused a connection of process " + std::to_string(incoming.pid()) + ": endpoint " +
                   std::to_string(claimed) + " is not its own, or is connected already";
        });
        discourage();
        break;
    case Incoming::Got::refused:
        report([&] {
            return "refused a connection of process " + std::to_string(incoming.pid()) +
                   ": not the mailbox protocol";
        });
        discourage();
        break;
    default: // gone without a word
        discourage();
        break;
    }
    eraseIncoming(incoming);
    return true;
}

/// Whether the process at the other end holds, or held at its end, the endpoint that it claims.
bool Endpoint::admit(Incoming& incoming, std::uint16_t claimed)
{
    if (m_process->find(claimed)) {
        return false;
    }
    const auto known = m_peers.find(claimed);
    const RunFolder& folder = m_process->folder();
    const pid_t holder = folder.holder(claimed);
    const bool isHolder = holder == incoming.pid();
    const bool wasHolder =
        holder == 0 && ((known != m_peers.end() && known->second.out.peerPid() == incoming.pid()) ||
                        wasHeldBy(folder, claimed, incoming.pid(), incoming.uid()));
    if (!isHolder && !wasHolder) {
        return false;
    }
    if (known != m_peers.end()) {
        const Peer& peer = known->second;
        if (peer.in != nullptr && (peer.ending || peer.in->pid() == incoming.pid())) {
            return false;
        }
        if (!peer.ending &&
            (peer.in != nullptr || (peer.out.isOpen() && peer.out.peerPid() != incoming.pid()))) {
            peerLost(claimed); // an earlier process under this number
        }
    }
    Peer& peer = m_peers[claimed];
    if (!incoming.accept(claimed)) {
        throw std::bad_alloc();
    }
    peer.in = &incoming;
    return true;
}

/// Reads until a whole message is there, in `m_arrived`, or nothing is left to read. False when there was
/// nothing at all.
bool Endpoint::serveIncoming(Incoming& incoming)
{
    if (incoming.peer() == 0) {
        return readHello(incoming);
    }
    PacketHeader header;
    for (int i = 0; i < packetBudget; ++i) {
        switch (incoming.read(m_number, m_area, m_arrived, header)) {
        case Incoming::Got::message:
            m_last = &incoming;
            if (!isMine(m_arrived->receiver)) {
                m_arrived.reset();
            }
            return true;
        case Incoming::Got::request: {
            const std::uint32_t serial = incoming.serial;
            onRequest(incoming, header);
            if (m_incoming.count(serial) == 0) {
                return true;
            }
            break;
        }
        case Incoming::Got::nothing:
        case Incoming::Got::reset:
            break;
        case Incoming::Got::again:
            return i > 0;
        case Incoming::Got::hungry:
            leaveAlone(incoming);
            return i > 0;
        case Incoming::Got::refused:
            report([&] {
                return "closed the connection of process " + std::to_string(incoming.pid()) +
                       ": malformed packet";
            });
            discourage();
            eraseIncoming(incoming);
            return true;
        case Incoming::Got::end:
            eraseIncoming(incoming);
            return true;
        }
    }
    return true;
}

/// For a peer that is gone: whatever it had sent goes into the queue.
void Endpoint::readToEnd(Incoming& incoming)
{
    const std::uint32_t serial = incoming.serial;
    BlockPtr earlier = std::move(m_arrived);
    if (earlier) {
        push(std::move(earlier));
    }
    while (m_incoming.count(serial) != 0 && serveIncoming(incoming)) {
        if (m_arrived) {
            push(std::move(m_arrived));
        }
    }
}

/// For a peer that lives: what it had sent by now goes into the queue, however much it goes on to send.
void Endpoint::readWhatWaits(Incoming& incoming)
{
    const std::uint32_t serial = incoming.serial;
    const std::uint64_t end = incoming.received() + incoming.waiting();
    for (bool served = true; served; served = serveIncoming(incoming)) {
        if (m_arrived) {
            pushFromPeer(std::move(m_arrived));
        }
        if (m_incoming.count(serial) == 0 || incoming.received() >= end) {
            return;
        }
    }
}

void Endpoint::onRequest(Incoming& incoming, const PacketHeader& header)
{
    const std::uint16_t number = incoming.peer();
    Peer& peer = m_peers[number];
    switch (kindOf(header)) {
    case Kind::monitor: {
        if (peer.watches + peer.out.notices() >= maxWatches) {
            report([&] {
                return "closed the connection of process " + std::to_string(incoming.pid()) +
                       ": too many monitors";
            });
            discourage();
            eraseIncoming(*peer.in);
            return;
        }
        auto watcher = incoming.takeSpare();
        const auto mailbox = m_mailboxes.find(indexOf(header.receiver));
        if (mailbox != m_mailboxes.end()) {
            ++peer.watches;
            watcher.front().endpoint = number;
            watcher.front().monitor = header.value;
            mailbox->second.watchers.splice(mailbox->second.watchers.end(), watcher);
        } else {
            noticeToPeer(number, header.receiver, header.value, std::move(watcher.front().notice));
        }
        break;
    }
    case Kind::unmonitor:
        peer.watches -= removeWatcherHere(header.receiver, number, header.value) ? 1 : 0;
        break;
    default:
        if (const auto monitor = m_monitors.find(header.value);
            monitor != m_monitors.end() && monitor->second.target == header.sender) {
            fire(monitor->first);
        }
        break;
    }
}

void Endpoint::eraseIncoming(Incoming& incoming)
{
    if (m_last == &incoming) {
        m_last = nullptr;
    }
    const std::uint16_t number = incoming.peer();
    const uid_t uid = incoming.uid();
    if (const auto count = m_userConnections.find(uid);
        count != m_userConnections.end() && --count->second == 0) {
        m_userConnections.erase(count);
    }
    m_incoming.erase(incoming.serial);
    if (const auto peer = m_peers.find(number); number != 0 && peer != m_peers.end()) {
        peer->second.in = nullptr;
        dropWatchersOf(number);
        if (!peer->second.ending) {
            forgetIfIdle(number);
        }
    }
}

} // namespace mnet
