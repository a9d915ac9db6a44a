/// An endpoint: a thread that owns mailboxes, with its queue, its descriptor and its connections.
///
/// The descriptor is an epoll set of everything that can bring the thread something: the bell (messages that
/// are queued here already), the listening socket, connections in and out, the timer, the watch on names.
/// Whatever stands in the set is level-triggered, and one message is read for one that is handed out, so that
/// the set is readable as long as a message waits.
///
/// One lock guards it all. The owning thread holds it but while it waits; other threads take it to put a
/// message into the queue, to send under one of its mailboxes, and to release what it holds. What must be
/// told to another endpoint of the process is told after the lock was given back.
#pragma once

#include "descriptor.h"
#include "incoming.h"
#include "message.h"
#include "mnet.h"
#include "names.h"
#include "outgoing.h"
#include "runFolder.h"

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unordered_map>
#include <vector>

namespace mnet {

class Process;

class Endpoint : public std::enable_shared_from_this<Endpoint> {
public:
    using Clock = std::chrono::steady_clock;

    /// Connections that can wait at the listening socket; the kernel takes one more.
    static constexpr int listenBacklog = 4096;

    /// With the number claimed already, which the endpoint gives back when it closes. Nothing, with `errno`,
    /// when a descriptor or the socket can't be made.
    static std::shared_ptr<Endpoint> create(std::shared_ptr<Process> process, std::uint16_t number);
    ~Endpoint();

    std::uint16_t number() const { return m_number; }
    int fd() const { return m_epoll.get(); }
    bool isClosed() const { return m_closed.load(std::memory_order_acquire); }

    // Mailboxes.
    mnet_mbox_id_t addMailbox(const std::string& name);
    bool hasMailbox(mnet_mbox_id_t id);
    mnet_mbox_id_t currentMailbox();
    /// False when there is none of that id.
    bool deleteMailbox(mnet_mbox_id_t id);

    // Messages. The sender stands in the block; `MNET_MY_MBOX` is the oldest mailbox here.
    /// 0 or the `errno` that tells why not.
    int send(BlockPtr block, mnet_mbox_id_t to);
    /// From another endpoint of the process. False when the receiver is not there (any more).
    bool deliver(BlockPtr block);
    /// For the owning thread. `cancelState` is the thread's own, restored while it waits.
    BlockPtr receive(const std::uint32_t* filter, int timeoutMs, mnet_mbox_id_t from, int cancelState);

    // Monitors and locates.
    mnet_monitor_id_t monitor(mnet_mbox_id_t target, BlockPtr message);
    /// False when the id is not one that could still deliver.
    bool unmonitor(mnet_monitor_id_t id);
    bool locate(const std::string& name, BlockPtr message, mnet_mbox_id_t receiver);

    // From other endpoints of the process.
    bool addWatcher(mnet_mbox_id_t target, std::uint16_t watcher, mnet_monitor_id_t monitor);
    void removeWatcher(mnet_mbox_id_t target, std::uint16_t watcher, mnet_monitor_id_t monitor);
    void notify(mnet_monitor_id_t monitor);

    /// The owning thread is over: closes, or stays as it is for the mailboxes that outlive it.
    void threadEnded();
    /// Gives back everything. Waits until the owning thread has left its `receive`.
    void close();

private:
    struct Mailbox {
        std::uint64_t age = 0;
        NameClaim name;
        std::list<Watcher> watchers;
        std::list<std::uint16_t> index; ///< its own, on its way to those that are free again
    };
    struct Monitor {
        mnet_mbox_id_t target = MNET_MBOX_NONE;
        mnet_mbox_id_t receiver = MNET_MBOX_NONE;
        BlockPtr message;
        Block* queued = nullptr; ///< the notice, while it waits in the queue
    };
    struct Locate {
        std::string fileName;
        mnet_mbox_id_t receiver;
        BlockPtr message;
    };
    struct Peer {
        Outgoing out;
        Incoming* in = nullptr;
        std::size_t queued = 0;   ///< bytes of this peer's messages in the queue
        std::size_t watches = 0;  ///< monitors of this peer's that stand here
        std::size_t monitors = 0; ///< monitors of ours that stand there
        bool ending = false;
        int retryMs = 0;
        std::optional<Clock::time_point> retryAt;
        std::uint64_t lastTurn = 0;
    };
    enum class Source : std::uint32_t { bell, listener, timer, names, incoming, outgoing };

    /// Holds the lock; before it gives it back, the bell and the live file say what the queues say.
    class Locked {
    public:
        explicit Locked(Endpoint& endpoint) : m_endpoint(endpoint), m_lock(endpoint.m_mutex) {}
        Locked(const Locked&) = delete;
        Locked& operator=(const Locked&) = delete;
        ~Locked()
        {
            m_endpoint.noteWhatIsKept();
            m_endpoint.ringAsQueued();
        }

    private:
        Endpoint& m_endpoint;
        std::lock_guard<std::mutex> m_lock;
    };
    class Waiting;

    /// Sources that are looked at to choose who has the next turn; the kernel rotates them if there are more.
    static constexpr int mostReady = 8;
    using ReadyEvents = std::array<epoll_event, mostReady>;

    Endpoint(std::shared_ptr<Process> process, std::uint16_t number);
    bool open();
    bool watch(int fd, Source source, std::uint32_t which, std::uint32_t events);
    void rewatch(int fd, Source source, std::uint32_t which, std::uint32_t events);
    void schedule(Clock::time_point when);
    void onTimer();

    // Mailboxes (endpoint.cpp).
    std::optional<std::uint16_t> takeIndex();
    void giveBackMailbox(std::list<std::uint16_t>& place);
    bool isMine(mnet_mbox_id_t id) const;
    mnet_mbox_id_t oldestMailbox() const;
    void endDeliveriesTo(mnet_mbox_id_t id, std::map<mnet_monitor_id_t, Monitor>& ended);
    void finishClosing(std::unique_lock<std::mutex>& lock);

    // Queue (endpointReceive.cpp).
    void ringAsQueued();
    void clearBell();
    void push(BlockPtr block);
    void pushFromPeer(BlockPtr block);
    BlockPtr take(Block* block);
    BlockPtr takeMatching(const std::uint32_t* filter, mnet_mbox_id_t from, Block*& scanned);
    void dropQueuedFor(mnet_mbox_id_t id);
    bool serveByGuess();
    bool serveReady();
    std::uint64_t* lastTurn(std::uint64_t event);
    void serveOneOf(const ReadyEvents& ready, int count);
    void serve(std::uint64_t event, std::uint32_t events);
    int waitForEvent(std::unique_lock<std::mutex>& lock, int timeoutMs, int cancelState);

    // Connections out (endpointSend.cpp).
    int sendToPeer(Peer& peer, BlockPtr block, mnet_mbox_id_t to);
    bool connect(std::uint16_t number);
    bool connectionBroken(std::uint16_t number);
    bool post(std::uint16_t number, BlockPtr block);
    void request(std::uint16_t number, Kind kind, mnet_mbox_id_t sender, mnet_mbox_id_t receiver,
                 mnet_monitor_id_t monitor);
    void ask(std::uint16_t number, BlockPtr asking);
    void retryLater(Peer& peer);
    /// Nothing when there is no memory.
    static BlockPtr makeRequest(Kind kind, mnet_mbox_id_t sender, mnet_mbox_id_t receiver,
                                mnet_monitor_id_t monitor);
    void armWritable(std::uint16_t number, Peer& peer);
    void onOutgoing(std::uint16_t number, std::uint32_t events);
    void retryConnections();
    void forgetIfIdle(std::uint16_t number);
    void peerLost(std::uint16_t number);
    bool keepsMessages() const;
    void noteWhatIsKept();

    // Connections in (endpointAccept.cpp).
    void acceptWaiting();
    void acceptSome(int most);
    bool acceptOne();
    bool refuseOne();
    void pauseListening(Clock::duration pause);
    void discourage();
    Incoming* addIncoming(Descriptor socket, const ucred& peer);
    bool readHello(Incoming& incoming);
    bool admit(Incoming& incoming, std::uint16_t claimed);
    bool serveIncoming(Incoming& incoming);
    void readToEnd(Incoming& incoming);
    void readWhatWaits(Incoming& incoming);
    void onRequest(Incoming& incoming, const PacketHeader& header);
    void leaveAlone(Incoming& incoming);
    void listenAgain();
    void eraseIncoming(Incoming& incoming);
    std::size_t userLimit() const;

    // Monitors and locates (endpointWatch.cpp).
    void fire(mnet_monitor_id_t id);
    void fireGone();
    bool removeWatcherHere(mnet_mbox_id_t target, std::uint16_t watcher, mnet_monitor_id_t monitor);
    void dropWatchersOf(std::uint16_t number);
    void noticeToPeer(std::uint16_t number, mnet_mbox_id_t lost, mnet_monitor_id_t monitor, BlockPtr notice);
    void rememberDeath(std::uint16_t number);
    [[nodiscard]] bool hasJustDied(std::uint16_t number) const;
    bool answerLocate(std::list<Locate>::iterator pending);
    void answerLocates(const char* fileName);
    void watchNames();
    void lookAgain();
    void onNames();

    const std::shared_ptr<Process> m_process;
    const std::uint16_t m_number;

    std::mutex m_mutex;
    std::condition_variable m_idle;
    bool m_waiting = false;            ///< the owning thread waits, or is on its way out of waiting
    std::atomic<bool> m_closed{false}; ///< set under the lock
    bool m_orphan = false;             ///< the owning thread is over

    Descriptor m_epoll;
    Descriptor m_bell;
    Descriptor m_listener;
    Descriptor m_timer;
    Descriptor m_reserve; ///< given up for a moment to accept, and refuse, when there are no descriptors
    Descriptor m_nameWatch;
    LiveFile m_live;

    std::unordered_map<std::uint16_t, Mailbox> m_mailboxes;
    mnet_mbox_id_t m_oldest = MNET_MBOX_NONE;
    std::uint64_t m_nextAge = 0;
    std::uint16_t m_nextIndex = 0;
    std::uint32_t m_unusedIndexes = 65536;
    std::list<std::uint16_t> m_freedIndexes;

    MessageQueue m_queue;
    std::uint64_t m_removals = 0; ///< how often something left the queue otherwise than by `receive`
    bool m_bellRung = false;
    unsigned m_pops = 0;
    BlockPtr m_arrived; ///< what `serve` has just read, before it is queued or handed out
    ReceiveArea m_area;

    std::unordered_map<std::uint16_t, Peer> m_peers;
    std::unordered_map<std::uint32_t, std::unique_ptr<Incoming>> m_incoming;
    std::unordered_map<uid_t, std::size_t> m_userConnections;
    std::uint32_t m_nextSerial = 1;
    Incoming* m_last = nullptr; ///< who sent the last message: the best guess for the next
    int m_guessPause = 0;
    int m_guessRun = 0;
    bool m_guessPays = false;
    bool m_listening = true;
    bool m_hasStarving = false; ///< connections are left alone until the timer, since there is no memory
    bool m_refused = false;     ///< the last one that connected was refused, and comes again with what it has
    Clock::duration m_refusalPause{}; ///< the last one
    Clock::time_point m_lastRefusal;
    std::optional<Clock::time_point> m_timerDue;

    std::uint64_t m_turn = 0;                   ///< counts what was served
    std::array<std::uint64_t, 6> m_lastTurns{}; ///< of the sources that there is one of

    std::map<mnet_monitor_id_t, Monitor> m_monitors;
    MessageQueue m_asked;   ///< requests to watch that have left, until `fireGone`
    bool m_keeping = false; ///< the live file says that messages of mailboxes that are gone are kept here
    std::list<Locate> m_locates;
    std::map<std::uint16_t, Clock::time_point>
        m_justDied;            ///< endpoints, for as long as their names may linger
    bool m_looksAgain = false; ///< for names, when the timer says so: the watch alone does not find them all
};

} // namespace mnet
