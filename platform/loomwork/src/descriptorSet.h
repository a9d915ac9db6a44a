/// One thread's descriptors and its loop over them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace Loomwork::EventLoop {

/// Each entry has a generation, which the kernel hands back with an event. So an event that is already on its
/// way when its entry is removed or replaced can't reach the callback that has the number now.
///
/// The owning thread adds, updates and runs; take() may come from any thread. No callback is called or
/// destroyed with the lock held, since it may use the loop itself.
class DescriptorSet {
public:
    using Callback = std::function<void(int, unsigned int)>;

    /// What was taken out of a set. Its owner lets it go where no lock is held.
    struct Entry {
        std::uint32_t generation;
        unsigned int events;
        Callback callback;
    };
    using Removed = std::shared_ptr<Entry>;

    DescriptorSet() = default;
    ~DescriptorSet();
    DescriptorSet(const DescriptorSet&) = delete;
    DescriptorSet& operator=(const DescriptorSet&) = delete;

    int add(int fd, unsigned int events, Callback callback);
    int update(int fd, unsigned int events);
    Removed take(int fd); ///< null when `fd` is not here
    int run();
    void stop() { m_stopRequested = true; }

    /// The steps around a fork: the child keeps the object, and nothing of what it watched.
    void lockForFork() { m_mutex.lock(); }
    void unlockAfterFork() { m_mutex.unlock(); }
    void abandonInChild();

    /// How often the end of the owning thread has come by; see EventLoop::threadEnds.
    unsigned int endRounds = 0;

private:
    using Entries = std::unordered_map<int, std::shared_ptr<Entry>>;

    int open();
    std::shared_ptr<Entry> find(int fd, std::uint32_t generation);
    void rebuild();
    int serve();

    std::mutex m_mutex; ///< guards what follows, but for reads by the owning thread of what only it writes
    Entries m_entries;
    int m_epollFd = -1; ///< -1 until the first add, and in a forked child
    std::uint32_t m_lastGeneration = 0;

    std::uint32_t m_forks = 0; ///< from here on the owning thread's alone
    bool m_running = false;
    bool m_stopRequested = false;
};

} // namespace Loomwork::EventLoop
