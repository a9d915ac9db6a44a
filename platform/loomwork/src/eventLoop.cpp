#include "eventLoop.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>

namespace Loomwork::EventLoop {

namespace {

/// Never destroyed: destructors of other static objects and of threads may still use it. Its place needs no
/// memory that could be missing.
EventLoop& theLoop()
{
    alignas(EventLoop) static std::byte place[sizeof(EventLoop)];
    static EventLoop& loop = *new (place) EventLoop;
    return loop;
}

} // namespace

DescriptorSet* EventLoop::ownSet() const
{
    return m_isPrepared ? static_cast<DescriptorSet*>(pthread_getspecific(m_key)) : nullptr;
}

DescriptorSet* EventLoop::ownOrNewSet()
{
    if (auto* set = ownSet()) {
        return set;
    }
    auto set = std::make_unique<DescriptorSet>();
    const std::lock_guard lock(m_mutex);
    if (const int error = prepare(); error != 0) {
        errno = error;
        return nullptr;
    }
    m_sets.reserve(m_sets.size() + 1);
    if (const int error = pthread_setspecific(m_key, set.get()); error != 0) {
        errno = error;
        return nullptr;
    }
    m_sets.push_back(set.get());
    return set.release();
}

/// What the first set needs. What there is no room for now is tried again for the next.
int EventLoop::prepare()
{
    int error = 0;
    if (!m_hasForkHandlers &&
        (error = pthread_atfork(&beforeFork, &afterForkInParent, &afterForkInChild)) == 0) {
        m_hasForkHandlers = true;
    }
    if (error == 0 && !m_isPrepared && (error = pthread_key_create(&m_key, &threadEnds)) == 0) {
        m_isPrepared = true;
    }
    return error;
}

int EventLoop::addFd(int fd, unsigned int events, std::function<void(int, unsigned int)> callback)
{
    try {
        auto* set = ownOrNewSet();
        return set != nullptr ? set->add(fd, events, std::move(callback)) : -1;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
}

int EventLoop::updateFd(int fd, unsigned int events)
{
    if (auto* set = ownSet()) {
        return set->update(fd, events);
    }
    errno = ENOENT;
    return -1;
}

int EventLoop::removeFd(int fd)
{
    auto* own = ownSet();
    if (own != nullptr && own->take(fd)) {
        return 0;
    }
    DescriptorSet::Removed removed; // destroyed without the list's lock
    const std::lock_guard lock(m_mutex);
    for (auto* set : m_sets) {
        if (set != own && (removed = set->take(fd))) {
            return 0;
        }
    }
    errno = ENOENT;
    return -1;
}

int EventLoop::run()
{
    DescriptorSet* set = nullptr;
    try {
        set = ownOrNewSet();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    return set != nullptr ? set->run() : -1;
}

void EventLoop::stop()
{
    try {
        if (auto* set = ownOrNewSet()) {
            set->stop();
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM; // no run() can begin on this thread either
    }
}

/// Comes by once for each round of destructors; by staying until the last round but one the set outlives what
/// other keys clean up. The last is left to run-times that watch the thread to its end.
void EventLoop::threadEnds(void* set)
{
    auto* ending = static_cast<DescriptorSet*>(set);
    auto& loop = theLoop();
    if (++ending->endRounds < PTHREAD_DESTRUCTOR_ITERATIONS - 1 &&
        pthread_setspecific(loop.m_key, ending) == 0) {
        return;
    }
    {
        const std::lock_guard lock(loop.m_mutex);
        loop.m_sets.erase(std::find(loop.m_sets.begin(), loop.m_sets.end(), ending));
    }
    delete ending;
}

void EventLoop::beforeFork()
{
    auto& loop = theLoop();
    loop.m_mutex.lock();
    for (auto* set : loop.m_sets) {
        set->lockForFork();
    }
}

void EventLoop::afterForkInParent()
{
    auto& loop = theLoop();
    for (auto* set : loop.m_sets) {
        set->unlockAfterFork();
    }
    loop.m_mutex.unlock();
}

void EventLoop::afterForkInChild()
{
    auto& loop = theLoop();
    for (auto* set : loop.m_sets) {
        set->abandonInChild();
        set->unlockAfterFork();
    }
    loop.m_mutex.unlock();
}

V1::EventLoopIf& V1::EventLoopIf::getInstance()
{
    return theLoop();
}

} // namespace Loomwork::EventLoop
