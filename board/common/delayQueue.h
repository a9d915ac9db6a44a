/// Things that are due later, on the event loop of the calling thread.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <eventLoopIf.h>
#include <functional>
#include <map>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <utility>

namespace merlow::board {

/// Hands each item out when its time has come; items that are due at the same time in the order in which they
/// were added.
template <class Item> class DelayQueue {
public:
    /// `due` may add items.
    explicit DelayQueue(std::function<void(Item)> due) : m_due(std::move(due)) {}
    ~DelayQueue()
    {
        if (m_timerFd >= 0) {
            loop().removeFd(m_timerFd);
            close(m_timerFd);
        }
    }
    DelayQueue(const DelayQueue&) = delete;
    DelayQueue& operator=(const DelayQueue&) = delete;

    /// Once, before anything is added. False with `errno`.
    [[nodiscard]] bool open()
    {
        m_timerFd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
        return m_timerFd >= 0 &&
               loop().addFd(m_timerFd, EPOLLIN, [this](int, unsigned int) { handleTimer(); }) == 0;
    }

    /// False, and nothing kept, when there are too many.
    [[nodiscard]] bool add(std::chrono::microseconds delay, Item item)
    {
        if (m_items.size() >= maxItems) {
            return false;
        }
        m_items.emplace(Clock::now() + delay, std::move(item));
        armTimer();
        return true;
    }

    template <class Predicate> void dropIf(Predicate predicate)
    {
        std::erase_if(m_items, [&predicate](const auto& entry) { return predicate(entry.second); });
    }

private:
    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t maxItems = 65536;

    static Loomwork::EventLoop::V1::EventLoopIf& loop()
    {
        return Loomwork::EventLoop::V1::EventLoopIf::getInstance();
    }

    void handleTimer()
    {
        std::uint64_t expirations = 0;
        if (read(m_timerFd, &expirations, sizeof expirations) != static_cast<ssize_t>(sizeof expirations)) {
            return;
        }
        const auto now = Clock::now();
        while (!m_items.empty() && m_items.begin()->first <= now) {
            auto entry = m_items.extract(m_items.begin());
            m_due(std::move(entry.mapped()));
        }
        armTimer();
    }

    /// For the first of the items, if there is any.
    void armTimer()
    {
        itimerspec timer{};
        if (!m_items.empty()) {
            using namespace std::chrono;
            const auto left = std::max<nanoseconds>(m_items.begin()->first - Clock::now(), nanoseconds(1));
            timer.it_value.tv_sec = duration_cast<seconds>(left).count();
            timer.it_value.tv_nsec = (left % seconds(1)).count();
        }
        timerfd_settime(m_timerFd, 0, &timer, nullptr);
    }

    std::function<void(Item)> m_due;
    int m_timerFd = -1;
    std::multimap<Clock::time_point, Item> m_items;
};

} // namespace merlow::board
