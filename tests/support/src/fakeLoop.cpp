#include "fakeLoop.h"

#include "fakeMnet.h"
#include "fakeSway.h"
#include "shortage.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace support {

namespace {

/// Far above what any test's exchange needs.
constexpr int maxEvents = 1000000;

} // namespace

FakeLoop& FakeLoop::instance()
{
    static FakeLoop loop;
    return loop;
}

void FakeLoop::reset()
{
    m_entries.clear();
    m_failAddFd = 0;
    m_runResult = 0;
    m_stopped = false;
}

bool FakeLoop::watches(int fd) const
{
    return std::any_of(m_entries.begin(), m_entries.end(),
                       [fd](const Entry& entry) { return entry.fd == fd; });
}

int FakeLoop::addFd(int fd, unsigned int events, std::function<void(int, unsigned int)> callback)
{
    const shortage::Pause pause;
    if (m_failAddFd > 0) {
        --m_failAddFd;
        return -1;
    }
    if (fd < 0 || watches(fd)) {
        return -1;
    }
    m_entries.push_back({.fd = fd, .events = events, .callback = std::move(callback)});
    return 0;
}

int FakeLoop::updateFd(int fd, unsigned int events)
{
    for (auto& entry : m_entries) {
        if (entry.fd == fd) {
            entry.events = events;
            return 0;
        }
    }
    return -1;
}

int FakeLoop::removeFd(int fd)
{
    const shortage::Pause pause;
    return std::erase_if(m_entries, [fd](const Entry& entry) { return entry.fd == fd; }) > 0 ? 0 : -1;
}

std::vector<int> FakeLoop::readable() const
{
    std::vector<int> fds;
    for (const auto& entry : m_entries) {
        if (FakeMnet::instance().isReadable(entry.fd) || FakeSway::instance().isReadable(entry.fd)) {
            fds.push_back(entry.fd);
        }
    }
    return fds;
}

bool FakeLoop::callReadable(int fd)
{
    if (!FakeMnet::instance().isReadable(fd) && !FakeSway::instance().isReadable(fd)) {
        return false;
    }
    const auto entry =
        std::find_if(m_entries.begin(), m_entries.end(), [fd](const Entry& one) { return one.fd == fd; });
    if (entry == m_entries.end()) {
        return false;
    }
    // The callback may remove its own entry.
    const auto callback = [&entry] {
        const shortage::Pause pause;
        return entry->callback;
    }();
    callback(fd, 1);
    return true;
}

bool FakeLoop::callOneReadable()
{
    const std::vector<int> fds = readable();
    return !fds.empty() && callReadable(fds.front());
}

void FakeLoop::pumpUntilIdle()
{
    const FakeMnet::As server(FakeMnet::server);
    for (int i = 0; i < maxEvents; ++i) {
        if (!callOneReadable()) {
            return;
        }
    }
    ADD_FAILURE() << "The event loop does not become idle";
}

int FakeLoop::run()
{
    m_stopped = false;
    const FakeMnet::As server(FakeMnet::server);
    while (!m_stopped && callOneReadable()) {
    }
    return m_runResult;
}

} // namespace support

Loomwork::EventLoop::V1::EventLoopIf& Loomwork::EventLoop::V1::EventLoopIf::getInstance()
{
    return support::FakeLoop::instance();
}
