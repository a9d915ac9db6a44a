/// The process's event loop: finds the calling thread's set, and keeps the list of all of them.
#pragma once

#include "descriptorSet.h"
#include "eventLoopIf.h"

#include <atomic>
#include <mutex>
#include <pthread.h>
#include <vector>

namespace Loomwork::EventLoop {

/// A thread's set begins with its first use of the loop and ends with the thread, as late as possible: those
/// who clean up by destructors of their own still find it. The main thread's lives as long as the process.
///
/// Locks are taken in the order list, set.
class EventLoop final : public V1::EventLoopIf {
public:
    int addFd(int fd, unsigned int events, std::function<void(int, unsigned int)> callback) override;
    int updateFd(int fd, unsigned int events) override;
    int removeFd(int fd) override;
    int run() override;
    void stop() override;

private:
    DescriptorSet* ownSet() const;
    DescriptorSet* ownOrNewSet();
    int prepare();

    static void threadEnds(void* set);
    static void beforeFork();
    static void afterForkInParent();
    static void afterForkInChild();

    pthread_key_t m_key{};
    std::atomic<bool> m_isPrepared = false; ///< there is a key
    std::mutex m_mutex;                     ///< guards what follows
    bool m_hasForkHandlers = false;
    std::vector<DescriptorSet*> m_sets;
};

} // namespace Loomwork::EventLoop
