/// The mailbox library in memory: virtual processes in one thread, deterministic, nothing lost unnoticed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mnet.h>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace support {

/// What a process sent, in the order of all sends.
struct SentMessage {
    std::uint32_t msgNo;
    std::size_t size;
    mnet_mbox_id_t to;
    mnet_mbox_id_t from;
};

/// Implements every function of mnet.h for virtual processes that take turns in the calling thread. Process
/// 0 is the server; `As` makes another one current. A process has one queue for all its mailboxes.
///
/// Each message lives in a heap block of exactly its size and moves to a new block when it is sent, so that
/// AddressSanitizer sees a byte too many and a use after the send. One thread only.
class FakeMnet {
public:
    using Process = int;
    static constexpr Process server = 0;

    enum class Call { init, create, clone, alloc, send, locate, monitor, getFd };

    static FakeMnet& instance();

    /// A fresh platform: frees every message, forgets mailboxes, failures and records.
    void reset();

    [[nodiscard]] Process newProcess();
    [[nodiscard]] Process currentProcess() const { return m_current; }

    /// Makes `process` current for a scope.
    class As {
    public:
        explicit As(Process process);
        ~As();
        As(const As&) = delete;
        As& operator=(const As&) = delete;

    private:
        Process m_previous;
    };

    /// The process ends: all its mailboxes go, with the notices that this gives, and its queue.
    void killProcess(Process process);

    /// The next `times` calls of `call`, after `skip` good ones, fail as the library's would.
    void fail(Call call, unsigned int times = 1, unsigned int skip = 0);
    /// What the next mnet_init gives instead of its own result.
    void setInitResult(int result) { m_initResult = {true, result}; }

    /// Called at each send of the server, with the message as it stands and whether it gets there.
    using SendObserver = std::function<void(const mnet_msg& msg, const SentMessage& sent, bool arrives)>;
    void setSendObserver(SendObserver observer) { m_sendObserver = std::move(observer); }

    [[nodiscard]] bool isReadable(int fd) const;
    [[nodiscard]] std::size_t waiting(Process process) const;
    /// The message that the process receives next, still in its queue; null when there is none.
    [[nodiscard]] const mnet_msg* next(Process process) const;
    [[nodiscard]] std::size_t mailboxCount(Process process) const;
    [[nodiscard]] mnet_mbox_id_t find(const std::string& name) const;
    [[nodiscard]] bool exists(mnet_mbox_id_t mbox) const { return m_mailboxes.count(mbox) != 0; }
    /// Whose the mailbox is; it has to exist.
    [[nodiscard]] Process processOf(mnet_mbox_id_t mbox) const { return m_mailboxes.at(mbox).process; }
    [[nodiscard]] std::string nameOf(mnet_mbox_id_t mbox) const;
    [[nodiscard]] std::size_t monitorCount() const { return m_monitors.size(); }
    [[nodiscard]] std::size_t pendingLocates() const { return m_locates.size(); }
    /// Messages that were allocated or received and neither sent nor freed.
    [[nodiscard]] std::size_t heldMessages() const;
    [[nodiscard]] const std::vector<SentMessage>& sent() const { return m_sent; }
    /// Mailbox ids given to mnet_delete_mailbox, known or not.
    [[nodiscard]] const std::vector<mnet_mbox_id_t>& deleteCalls() const { return m_deleteCalls; }

    int init(std::uint32_t maxMailboxes);
    int exit();
    mnet_mbox_id_t create(const char* name, Call call);
    mnet_mbox_id_t clone(mnet_mbox_id_t parent, const char* name);
    int remove(mnet_mbox_id_t mbox);
    [[nodiscard]] mnet_mbox_id_t currentMbox() const;
    int getFd();
    mnet_msg* alloc(std::size_t size, std::uint32_t msgNo);
    void free(mnet_msg** msg);
    [[nodiscard]] std::size_t size(const mnet_msg* msg) const;
    int send(mnet_msg** msg, mnet_mbox_id_t to, mnet_mbox_id_t from);
    mnet_msg* receive(const std::uint32_t* filter, mnet_mbox_id_t from);
    [[nodiscard]] mnet_mbox_id_t sender(const mnet_msg* msg) const;
    [[nodiscard]] mnet_mbox_id_t receiver(const mnet_msg* msg) const;
    [[nodiscard]] bool isNotice(const mnet_msg* msg) const;
    int locate(const char* name, mnet_msg** msg, mnet_mbox_id_t mbox);
    mnet_monitor_id_t monitor(mnet_mbox_id_t mbox, mnet_msg** msg);
    int unmonitor(mnet_monitor_id_t id);

private:
    struct Mailbox {
        std::string name;
        Process process;
    };
    struct Info {
        std::size_t size = 0;
        mnet_mbox_id_t sender = MNET_MBOX_NONE;
        mnet_mbox_id_t receiver = MNET_MBOX_NONE;
        bool notice = false;
        mnet_monitor_id_t monitor = MNET_MBOX_NONE;
    };
    struct Monitor {
        mnet_mbox_id_t watched;
        mnet_mbox_id_t deliverTo;
        mnet_msg* msg;
    };
    struct Locate {
        std::string name;
        mnet_mbox_id_t deliverTo;
        mnet_msg* msg;
    };
    struct Failure {
        unsigned int skip = 0;
        unsigned int times = 0;
    };

    bool failsNow(Call call);
    mnet_msg* newBlock(std::size_t size, std::uint32_t msgNo);
    void freeBlock(mnet_msg* msg);
    mnet_msg* takeOrDefault(mnet_msg** msg, std::uint32_t msgNo);
    void enqueue(mnet_msg* msg, Info info);
    void deliverNotice(mnet_msg* msg, mnet_mbox_id_t from, mnet_mbox_id_t to, mnet_monitor_id_t monitor);
    void fireMonitors(mnet_mbox_id_t lost);
    void dropAddressedTo(mnet_mbox_id_t mbox, Process process);
    mnet_mbox_id_t addMailbox(const std::string& name, Process process);
    [[nodiscard]] const Info& infoOf(const mnet_msg* msg) const;

    std::map<mnet_mbox_id_t, Mailbox> m_mailboxes;
    std::map<Process, std::deque<mnet_msg*>> m_queues;
    std::unordered_map<const mnet_msg*, Info> m_messages;
    std::map<mnet_monitor_id_t, Monitor> m_monitors;
    std::vector<Locate> m_locates;
    std::map<Call, Failure> m_failures;
    std::vector<SentMessage> m_sent;
    SendObserver m_sendObserver;
    std::vector<mnet_mbox_id_t> m_deleteCalls;
    std::pair<bool, int> m_initResult{false, 0};
    std::size_t m_maxMailboxes = 0;
    bool m_initialised = false;
    Process m_current = server;
    Process m_lastProcess = server;
    mnet_mbox_id_t m_lastMbox = 0x10000;
    mnet_monitor_id_t m_lastMonitor = 0;
};

} // namespace support
