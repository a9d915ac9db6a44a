#include "descriptorSet.h"

#include "noCancel.h"
#include "rushlog.h"
#include "scryTrace.h"

#include <cerrno>
#include <cxxabi.h>
#include <exception>
#include <fcntl.h>
#include <string>
#include <sys/epoll.h>
#include <unistd.h>
#include <utility>

namespace Loomwork::EventLoop {

namespace {

constexpr const char* logCategory = "Platform,Loomwork";

epoll_event eventFor(int fd, unsigned int events, std::uint32_t generation)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = (std::uint64_t{generation} << 32) | static_cast<std::uint32_t>(fd);
    return event;
}

void report(int fd, const char* reason) noexcept
{
    const merlow::base::NoCancel noCancel;
    try {
        const std::string text =
            "ABN: An exception left the callback of descriptor " + std::to_string(fd) + ": " + reason;
        if ((procInfo->mask & (1u << 1)) != 0) {
            lttngScryTrace(1, short_fname(__FILE__), __LINE__, text.c_str(), procInfo);
        }
        rushlog_log(logCategory, text.c_str());
    } catch (...) {
        rushlog_log(logCategory, "ABN: An exception left a callback, and there is no memory to tell which");
    }
}

/// The exception of a forced unwinding is a null reference, which is no mistake here.
__attribute__((noinline, no_sanitize("null"))) void call(const DescriptorSet::Callback& callback, int fd,
                                                         unsigned int events)
{
    try {
        callback(fd, events);
    } catch (const std::exception& exception) {
        report(fd, exception.what());
    } catch (const abi::__forced_unwind&) {
        throw; // the thread is being cancelled
    } catch (...) {
        report(fd, "not a std::exception");
    }
}

/// Sets a flag for as long as a scope lasts, also when a cancelled thread unwinds through it.
class Flag {
public:
    explicit Flag(bool& flag) : m_flag(flag) { m_flag = true; }
    ~Flag() { m_flag = false; }
    Flag(const Flag&) = delete;
    Flag& operator=(const Flag&) = delete;

private:
    bool& m_flag;
};

} // namespace

DescriptorSet::~DescriptorSet()
{
    const merlow::base::NoCancel noCancel;
    if (m_epollFd >= 0) {
        close(m_epollFd);
    }
}

int DescriptorSet::open()
{
    if (m_epollFd >= 0) {
        return 0;
    }
    Entries ofTheParent; // non-empty in a forked child only
    const std::lock_guard lock(m_mutex);
    ofTheParent.swap(m_entries);
    m_epollFd = epoll_create1(EPOLL_CLOEXEC);
    return m_epollFd >= 0 ? 0 : -1;
}

int DescriptorSet::add(int fd, unsigned int events, Callback callback)
{
    if (!callback) {
        errno = EINVAL;
        return -1;
    }
    if (open() != 0) {
        return -1;
    }
    std::shared_ptr<Entry> replaced; // destroyed without the lock
    const auto entry = std::make_shared<Entry>(Entry{0, events, std::move(callback)});
    const std::lock_guard lock(m_mutex);
    entry->generation = ++m_lastGeneration;
    auto& slot = m_entries[fd];
    auto event = eventFor(fd, events, entry->generation);
    // The kernel forgets a descriptor that is closed: it refuses only a number that still is the one in the
    // table.
    if (epoll_ctl(m_epollFd, EPOLL_CTL_ADD, fd, &event) != 0) {
        if (!slot) {
            m_entries.erase(fd);
        }
        return -1;
    }
    replaced = std::exchange(slot, entry);
    return 0;
}

int DescriptorSet::update(int fd, unsigned int events)
{
    const std::lock_guard lock(m_mutex);
    const auto found = m_entries.find(fd);
    if (m_epollFd < 0 || found == m_entries.end()) {
        errno = ENOENT;
        return -1;
    }
    auto event = eventFor(fd, events, found->second->generation);
    if (epoll_ctl(m_epollFd, EPOLL_CTL_MOD, fd, &event) != 0) {
        return -1;
    }
    found->second->events = events;
    return 0;
}

DescriptorSet::Removed DescriptorSet::take(int fd)
{
    const std::lock_guard lock(m_mutex);
    const auto found = m_entries.find(fd);
    if (m_epollFd < 0 || found == m_entries.end()) {
        return nullptr;
    }
    // Fails for a descriptor that is closed already, which the kernel has forgotten by itself.
    epoll_ctl(m_epollFd, EPOLL_CTL_DEL, fd, nullptr);
    Removed removed = std::move(found->second);
    m_entries.erase(found);
    return removed;
}

std::shared_ptr<DescriptorSet::Entry> DescriptorSet::find(int fd, std::uint32_t generation)
{
    const std::lock_guard lock(m_mutex);
    const auto found = m_entries.find(fd);
    return found != m_entries.end() && found->second->generation == generation ? found->second : nullptr;
}

/// A descriptor that was closed while a duplicate of it stays open remains in the kernel's set, and there is
/// no number by which to take it out. Its events would come for ever; a new set without it ends that. Where
/// there is no room for one now, those events come until there is.
void DescriptorSet::rebuild()
{
    const merlow::base::NoCancel noCancel;
    const int fresh = epoll_create1(EPOLL_CLOEXEC);
    if (fresh < 0) {
        return;
    }
    const std::lock_guard lock(m_mutex);
    bool isWhole = true;
    for (const auto& [fd, entry] : m_entries) {
        auto event = eventFor(fd, entry->events, entry->generation);
        // Fails as well for what is closed and not removed.
        if (epoll_ctl(fresh, EPOLL_CTL_ADD, fd, &event) != 0 && (errno == ENOMEM || errno == ENOSPC)) {
            isWhole = false;
        }
    }
    if (isWhole) {
        dup3(fresh, m_epollFd, O_CLOEXEC);
    }
    close(fresh);
}

int DescriptorSet::run()
{
    if (m_running) {
        errno = EBUSY;
        return -1;
    }
    if (open() != 0) {
        return -1;
    }
    const Flag running(m_running);
    return serve();
}

int DescriptorSet::serve()
{
    const std::uint32_t forks = m_forks;
    while (!m_stopRequested) {
        // One event at a time: none is in hand when a callback removes descriptors or stops the loop, and the
        // kernel takes turns between those that are ready.
        epoll_event event{};
        const int count = epoll_wait(m_epollFd, &event, 1, -1);
        if (count < 0 && errno != EINTR) {
            return -1;
        }
        if (count <= 0) {
            continue;
        }
        const int fd = static_cast<int>(event.data.u64 & 0xFFFFFFFFu);
        const auto entry = find(fd, static_cast<std::uint32_t>(event.data.u64 >> 32));
        if (!entry) {
            rebuild();
            continue;
        }
        call(entry->callback, fd, event.events);
        if (m_forks != forks) {
            errno = ECANCELED;
            return -1;
        }
    }
    m_stopRequested = false;
    return 0;
}

void DescriptorSet::abandonInChild()
{
    if (m_epollFd >= 0) {
        close(m_epollFd);
        m_epollFd = -1;
    }
    m_stopRequested = false;
    ++m_forks;
}

} // namespace Loomwork::EventLoop
