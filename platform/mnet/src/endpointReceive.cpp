/// Endpoint: its queue, its bell, and the waiting for what comes.
#include "endpoint.h"

#include "process.h"
#include "wire.h"

#include <algorithm>
#include <cerrno>
#include <pthread.h>
#include <sys/epoll.h>
#include <unistd.h>
#include <utility>

namespace mnet {

namespace {

/// How often in a row the next message is looked for where the last one came from, without asking the kernel
/// who is ready; and how long that is left after two wrong ones in a row.
constexpr int maxGuesses = 64;
constexpr int guessPause = 16;

/// Every so many messages from the queue, the connections get a turn: senders within the process can't shut
/// them out.
constexpr unsigned popsPerTurn = 32;

/// The most events that a `receive` that does not wait handles without finding a message.
constexpr int eventBudget = 256;

bool matches(const Block& block, const std::uint32_t* filter, mnet_mbox_id_t from)
{
    if (from != MNET_FROM_ANY && block.sender != from) {
        return false;
    }
    if (filter == nullptr || filter[0] == 0) {
        return true;
    }
    const std::uint32_t number = const_cast<Block&>(block).msg()->msgNo;
    return std::find(filter + 1, filter + 1 + filter[0], number) != filter + 1 + filter[0];
}

} // namespace

void Endpoint::ringAsQueued()
{
    if (m_queue.empty() == !m_bellRung || m_closed) {
        return;
    }
    if (m_bellRung) {
        clearBell();
    } else {
        const std::uint64_t one = 1;
        m_bellRung = write(m_bell.get(), &one, sizeof(one)) == static_cast<ssize_t>(sizeof(one));
    }
}

void Endpoint::clearBell()
{
    std::uint64_t count = 0;
    [[maybe_unused]] const auto got = read(m_bell.get(), &count, sizeof(count));
    m_bellRung = false;
}

void Endpoint::push(BlockPtr block)
{
    if (!m_orphan) {
        m_queue.push(std::move(block));
    }
}

void Endpoint::pushFromPeer(BlockPtr block)
{
    const auto peer = m_peers.find(endpointOf(block->sender));
    if (peer != m_peers.end() && !m_orphan) {
        peer->second.queued += block->cost();
        Incoming* incoming = peer->second.in;
        if (incoming != nullptr && !incoming->paused && peer->second.queued > m_process->queueLimit()) {
            incoming->paused = true;
            rewatch(incoming->fd(), Source::incoming, incoming->serial, 0);
        }
    }
    push(std::move(block));
}

BlockPtr Endpoint::take(Block* block)
{
    BlockPtr taken = m_queue.remove(block);
    if (taken->monitor != 0) {
        m_monitors.erase(taken->monitor);
        return taken;
    }
    const auto peer = taken->isNotice ? m_peers.end() : m_peers.find(endpointOf(taken->sender));
    if (peer != m_peers.end()) {
        peer->second.queued -= std::min(peer->second.queued, taken->cost());
        Incoming* incoming = peer->second.in;
        if (incoming != nullptr && incoming->paused && peer->second.queued <= m_process->queueLimit() / 2) {
            incoming->paused = false;
            if (!incoming->starves) {
                rewatch(incoming->fd(), Source::incoming, incoming->serial, EPOLLIN);
            }
        }
    }
    return taken;
}

BlockPtr Endpoint::takeMatching(const std::uint32_t* filter, mnet_mbox_id_t from, Block*& scanned)
{
    for (Block* block = scanned != nullptr ? scanned->next : m_queue.first(); block != nullptr;
         block = block->next) {
        if (matches(*block, filter, from)) {
            return take(block);
        }
        scanned = block;
    }
    return nullptr;
}

void Endpoint::dropQueuedFor(mnet_mbox_id_t id)
{
    for (Block* block = m_queue.first(); block != nullptr;) {
        Block* next = block->next;
        if (block->receiver == id) {
            ++m_removals;
            take(block);
        }
        block = next;
    }
}

bool Endpoint::deliver(BlockPtr block)
{
    const Locked locked(*this);
    if (m_closed || !isMine(block->receiver)) {
        return false;
    }
    push(std::move(block));
    return true;
}

/// Looks for the next message where the last one came from; that saves asking the kernel who is ready, as
/// long as some of the guesses are right. Not where several may be ready: they take turns.
bool Endpoint::serveByGuess()
{
    if (m_guessPause > 0) {
        --m_guessPause;
        return false;
    }
    if (m_last == nullptr || m_last->paused || m_incoming.size() > 1 || ++m_guessRun > maxGuesses) {
        m_guessRun = 0;
        return false;
    }
    if (serveIncoming(*m_last)) {
        m_guessPays = true;
        return true;
    }
    m_guessPause = std::exchange(m_guessPays, false) ? 0 : guessPause;
    return false;
}

/// Handles one thing that is ready, if there is one. A message lands in `m_arrived`.
bool Endpoint::serveReady()
{
    if (serveByGuess()) {
        return true;
    }
    ReadyEvents ready;
    const int count = epoll_wait(m_epoll.get(), ready.data(), mostReady, 0);
    if (count <= 0) {
        return false;
    }
    serveOneOf(ready, count);
    return true;
}

/// When the source of an event had its last turn; nothing when it is not there any more.
std::uint64_t* Endpoint::lastTurn(std::uint64_t event)
{
    const auto which = static_cast<std::uint32_t>(event);
    const auto source = static_cast<Source>(event >> 32);
    if (source == Source::incoming) {
        const auto incoming = m_incoming.find(which);
        return incoming != m_incoming.end() ? &incoming->second->lastTurn : nullptr;
    }
    if (source == Source::outgoing) {
        const auto peer = m_peers.find(static_cast<std::uint16_t>(which));
        return peer != m_peers.end() ? &peer->second.lastTurn : nullptr;
    }
    return &m_lastTurns.at(static_cast<std::size_t>(source));
}

/// Handles that one of the events whose source has waited longest for a turn. So whoever has something now
/// and then does not wait for a message of one that always has something.
void Endpoint::serveOneOf(const ReadyEvents& ready, int count)
{
    const epoll_event* chosen = ready.data();
    std::uint64_t* chosenTurn = lastTurn(chosen->data.u64);
    for (const epoll_event* event = chosen + 1; event != ready.data() + count; ++event) {
        std::uint64_t* const turn = lastTurn(event->data.u64);
        if (turn != nullptr && (chosenTurn == nullptr || *turn < *chosenTurn)) {
            chosen = event;
            chosenTurn = turn;
        }
    }
    if (chosenTurn != nullptr) {
        *chosenTurn = ++m_turn;
        serve(chosen->data.u64, chosen->events);
    }
}

void Endpoint::serve(std::uint64_t event, std::uint32_t events)
{
    const auto which = static_cast<std::uint32_t>(event);
    switch (static_cast<Source>(event >> 32)) {
    case Source::bell:
        clearBell();
        break;
    case Source::listener:
        acceptSome(1); // for one turn, as a connection has one message
        break;
    case Source::timer:
        onTimer();
        break;
    case Source::names:
        onNames();
        break;
    case Source::incoming:
        if (const auto incoming = m_incoming.find(which); incoming != m_incoming.end()) {
            serveIncoming(*incoming->second);
        }
        break;
    case Source::outgoing:
        onOutgoing(static_cast<std::uint16_t>(which), events);
        break;
    }
    fireGone();
    noteWhatIsKept();
}

/// What a thread that waits leaves behind however it leaves, by return or by cancellation: the lock in its
/// hands again, and whoever wants to close the endpoint told.
class Endpoint::Waiting {
public:
    Waiting(Endpoint& endpoint, std::unique_lock<std::mutex>& lock) : m_endpoint(endpoint), m_lock(lock)
    {
        m_endpoint.m_waiting = true;
        m_lock.unlock();
    }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;
    ~Waiting()
    {
        m_lock.lock();
        m_endpoint.m_waiting = false;
        if (m_endpoint.m_closed) {
            m_endpoint.m_idle.notify_all();
        }
    }

private:
    Endpoint& m_endpoint;
    std::unique_lock<std::mutex>& m_lock;
};

/// Waits without the lock, as a cancellation point, and handles what came.
int Endpoint::waitForEvent(std::unique_lock<std::mutex>& lock, int timeoutMs, int cancelState)
{
    ReadyEvents ready;
    int count = 0;
    const int epoll = m_epoll.get();
    {
        const Waiting waiting(*this, lock);
        pthread_setcancelstate(cancelState, nullptr);
        count = epoll_wait(epoll, ready.data(), mostReady, timeoutMs);
        int ignored = 0;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &ignored);
    }
    if (count > 0 && !m_closed) {
        serveOneOf(ready, count);
    }
    return count;
}

BlockPtr Endpoint::receive(const std::uint32_t* filter, int timeoutMs, mnet_mbox_id_t from, int cancelState)
{
    std::unique_lock lock(m_mutex);
    // However this is left, the bell says what the queue says.
    struct AtEnd {
        Endpoint& endpoint;
        ~AtEnd() { endpoint.ringAsQueued(); }
    } const atEnd{*this};

    const auto start = timeoutMs > 0 ? Clock::now() : Clock::time_point();
    Block* scanned = nullptr;
    std::uint64_t removals = m_removals;
    int budget = eventBudget;
    if (!m_queue.empty() && !m_closed && ++m_pops % popsPerTurn == 0 && serveReady() && m_arrived) {
        pushFromPeer(std::move(m_arrived));
    }
    for (;;) {
        if (m_closed) {
            errno = ENOTCONN;
            return nullptr;
        }
        if (m_removals != removals) {
            removals = m_removals;
            scanned = nullptr;
        }
        if (BlockPtr found = takeMatching(filter, from, scanned)) {
            return found;
        }
        bool served = timeoutMs == 0 ? serveReady() : serveByGuess();
        if (!served && timeoutMs != 0) {
            int left = timeoutMs;
            if (timeoutMs > 0) {
                const auto passed =
                    std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
                left = static_cast<int>(std::max<std::int64_t>(0, timeoutMs - passed));
                if (left == 0) {
                    return nullptr;
                }
            }
            if (m_bellRung) {
                clearBell(); // what is queued is not what is waited for
            }
            served = waitForEvent(lock, left, cancelState) > 0;
        }
        if (m_arrived) {
            if (matches(*m_arrived, filter, from)) {
                return std::move(m_arrived);
            }
            pushFromPeer(std::move(m_arrived));
        } else if (timeoutMs == 0 && (!served || --budget == 0)) {
            return m_closed ? nullptr : takeMatching(filter, from, scanned);
        }
    }
}

} // namespace mnet
