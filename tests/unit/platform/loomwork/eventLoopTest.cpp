// What callbacks may do, and which events reach them.

#include "loopFixture.h"
#include "traceDouble.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <thread>
#include <vector>

using Loomwork::EventLoop::V1::EventLoopIf;
using loopTest::loop;
using loopTest::Pipe;

namespace {

/// The place of a virtual operation in the table, as a call through the interface uses it.
template <class F> std::size_t slotOf(F operation)
{
    std::uintptr_t word = 0;
    static_assert(sizeof(operation) >= sizeof(word));
    std::memcpy(&word, &operation, sizeof(word));
    return (word - 1) / sizeof(void*);
}

/// Stops the loop when its turn comes, which is after everything that was ready before.
class Stopper {
public:
    Stopper()
    {
        EXPECT_EQ(loop().addFd(m_pipe.fd(), EPOLLIN, [](int, unsigned int) { loop().stop(); }), 0);
        m_pipe.makeReady();
    }
    ~Stopper() { EXPECT_EQ(loop().removeFd(m_pipe.fd()), 0); }
    Stopper(const Stopper&) = delete;
    Stopper& operator=(const Stopper&) = delete;

private:
    Pipe m_pipe;
};

/// Serves what is ready now.
void runOnce()
{
    const Stopper stopper;
    EXPECT_EQ(loop().run(), 0);
}

} // namespace

TEST(EventLoop, hasItsOperationsInTheSettledOrder)
{
    EXPECT_EQ(slotOf(&EventLoopIf::addFd), 0u);
    EXPECT_EQ(slotOf(&EventLoopIf::updateFd), 1u);
    EXPECT_EQ(slotOf(&EventLoopIf::removeFd), 2u);
    EXPECT_EQ(slotOf(&EventLoopIf::run), 3u);
    EXPECT_EQ(slotOf(&EventLoopIf::stop), 4u);
}

TEST(EventLoop, isOneObject)
{
    EventLoopIf* other = nullptr;
    std::thread([&] { other = &loop(); }).join();
    EXPECT_EQ(other, &loop());
}

TEST(EventLoop, callsBackWithTheDescriptorAndWhatHappened)
{
    const Pipe pipe;
    std::vector<std::pair<int, unsigned int>> calls;
    ASSERT_EQ(loop().addFd(pipe.fd(), 1,
                           [&](int fd, unsigned int events) {
                               calls.emplace_back(fd, events);
                               pipe.drain();
                               loop().stop();
                           }),
              0);
    pipe.makeReady();
    EXPECT_EQ(loop().run(), 0);
    EXPECT_EQ(calls, (std::vector<std::pair<int, unsigned int>>{{pipe.fd(), 1u}}));
    EXPECT_EQ(loop().removeFd(pipe.fd()), 0);
}

TEST(EventLoop, servesADescriptorAgainForAsLongAsItIsReady)
{
    const Pipe pipe;
    int calls = 0;
    ASSERT_EQ(loop().addFd(pipe.fd(), EPOLLIN,
                           [&](int, unsigned int) {
                               if (++calls == 3) {
                                   loop().stop();
                               }
                           }),
              0);
    pipe.makeReady();
    EXPECT_EQ(loop().run(), 0);
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(loop().removeFd(pipe.fd()), 0);
}

TEST(EventLoop, doesNotLetABusyDescriptorStarveAnother)
{
    const Pipe busy;
    const Pipe other;
    int busyCalls = 0;
    ASSERT_EQ(loop().addFd(busy.fd(), EPOLLIN, [&](int, unsigned int) { ++busyCalls; }), 0);
    ASSERT_EQ(loop().addFd(other.fd(), EPOLLIN, [](int, unsigned int) { loop().stop(); }), 0);
    busy.makeReady();
    other.makeReady();
    EXPECT_EQ(loop().run(), 0);
    EXPECT_LE(busyCalls, 2);
    EXPECT_EQ(loop().removeFd(busy.fd()), 0);
    EXPECT_EQ(loop().removeFd(other.fd()), 0);
}

TEST(EventLoop, keepsARunningCallbackAliveThatRemovesItself)
{
    const Pipe pipe;
    auto captured = std::make_shared<std::string>("alive");
    const std::weak_ptr<std::string> watched = captured;
    ASSERT_EQ(loop().addFd(pipe.fd(), EPOLLIN,
                           [&watched, captured](int fd, unsigned int) {
                               EXPECT_EQ(loop().removeFd(fd), 0);
                               EXPECT_FALSE(watched.expired());
                               EXPECT_EQ(*captured, "alive");
                               loop().stop();
                           }),
              0);
    captured.reset();
    pipe.makeReady();
    EXPECT_EQ(loop().run(), 0);
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(loop().removeFd(pipe.fd()), -1);
}

TEST(EventLoop, letsGoOfACallbackWhenItIsRemoved)
{
    const Pipe pipe;
    auto captured = std::make_shared<int>(1);
    const std::weak_ptr<int> watched = captured;
    ASSERT_EQ(loop().addFd(pipe.fd(), EPOLLIN, [captured](int, unsigned int) {}), 0);
    captured.reset();
    EXPECT_FALSE(watched.expired());
    EXPECT_EQ(loop().removeFd(pipe.fd()), 0);
    EXPECT_TRUE(watched.expired());
}

TEST(EventLoop, mayBeUsedByTheDestructorOfWhatACallbackCaptured)
{
    const Pipe pipe;
    const Pipe other;
    ASSERT_EQ(loop().addFd(other.fd(), EPOLLIN, [](int, unsigned int) {}), 0);
    int removed = -1;
    const std::shared_ptr<void> captured(nullptr, [&](void*) { removed = loop().removeFd(other.fd()); });
    {
        auto moved = captured;
        ASSERT_EQ(loop().addFd(pipe.fd(), EPOLLIN, [keep = std::move(moved)](int, unsigned int) {}), 0);
    }
    const_cast<std::shared_ptr<void>&>(captured).reset();
    EXPECT_EQ(loop().removeFd(pipe.fd()), 0);
    EXPECT_EQ(removed, 0);
}

TEST(EventLoop, deliversNothingToACallbackThatAnotherHasRemoved)
{
    const Pipe first;
    const Pipe second;
    int calls = 0;
    const auto removeTheOther = [&](int fd, unsigned int) {
        ++calls;
        EXPECT_EQ(loop().removeFd(fd == first.fd() ? second.fd() : first.fd()), 0);
        EXPECT_EQ(loop().removeFd(fd), 0);
    };
    ASSERT_EQ(loop().addFd(first.fd(), EPOLLIN, removeTheOther), 0);
    ASSERT_EQ(loop().addFd(second.fd(), EPOLLIN, removeTheOther), 0);
    first.makeReady();
    second.makeReady();
    runOnce();
    EXPECT_EQ(calls, 1);
}

TEST(EventLoop, letsACallbackAddDescriptors)
{
    const Pipe first;
    const Pipe second;
    second.makeReady();
    bool served = false;
    ASSERT_EQ(loop().addFd(first.fd(), EPOLLIN,
                           [&](int, unsigned int) {
                               first.drain();
                               EXPECT_EQ(loop().addFd(second.fd(), EPOLLIN,
                                                      [&](int, unsigned int) {
                                                          served = true;
                                                          loop().stop();
                                                      }),
                                         0);
                           }),
              0);
    first.makeReady();
    EXPECT_EQ(loop().run(), 0);
    EXPECT_TRUE(served);
    EXPECT_EQ(loop().removeFd(first.fd()), 0);
    EXPECT_EQ(loop().removeFd(second.fd()), 0);
}

TEST(EventLoop, givesANumberThatIsAddedAgainToTheNewCallbackAlone)
{
    const Pipe pipe;
    std::string calls;
    ASSERT_EQ(loop().addFd(pipe.fd(), EPOLLIN,
                           [&](int fd, unsigned int) {
                               calls += "old ";
                               EXPECT_EQ(loop().removeFd(fd), 0);
                               EXPECT_EQ(loop().addFd(fd, EPOLLIN,
                                                      [&](int, unsigned int) {
                                                          calls += "new ";
                                                          pipe.drain();
                                                      }),
                                         0);
                           }),
              0);
    pipe.makeReady();
    runOnce();
    runOnce();
    EXPECT_EQ(calls, "old new ");
    EXPECT_EQ(loop().removeFd(pipe.fd()), 0);
}

TEST(EventLoop, replacesAnEntryWhoseDescriptorWasClosed)
{
    Pipe old;
    const int number = old.fd();
    auto captured = std::make_shared<int>(1);
    const std::weak_ptr<int> watched = captured;
    ASSERT_EQ(loop().addFd(number, EPOLLIN, [captured](int, unsigned int) { FAIL() << "the old callback"; }),
              0);
    captured.reset();
    old.makeReady();
    old.closeReader();

    const Pipe fresh;
    ASSERT_EQ(dup2(fresh.fd(), number), number);
    int calls = 0;
    ASSERT_EQ(loop().addFd(number, EPOLLIN, [&](int, unsigned int) { ++calls; }), 0);
    EXPECT_TRUE(watched.expired());
    runOnce();
    EXPECT_EQ(calls, 0);
    fresh.makeReady();
    runOnce();
    EXPECT_GE(calls, 1);
    EXPECT_EQ(loop().removeFd(number), 0);
    close(number);
}

TEST(EventLoop, isNotKeptBusyByAClosedDescriptorWhoseDuplicateLives)
{
    Pipe old;
    const int number = old.fd();
    const int duplicate = dup(number);
    ASSERT_EQ(loop().addFd(number, EPOLLIN, [](int, unsigned int) { FAIL() << "the old callback"; }), 0);
    old.makeReady();
    old.closeReader();

    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    ASSERT_EQ(dup2(timer, number), number);
    ASSERT_EQ(loop().addFd(number, EPOLLIN, [](int, unsigned int) { loop().stop(); }), 0);
    const itimerspec soon{{0, 0}, {0, 300'000'000}};
    ASSERT_EQ(timerfd_settime(timer, 0, &soon, nullptr), 0);

    const auto cpuTime = [] {
        timespec now{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
    };
    const double before = cpuTime();
    EXPECT_EQ(loop().run(), 0);
    EXPECT_LT(cpuTime() - before, 0.1) << "of the 0.3 seconds that the loop waited";

    EXPECT_EQ(loop().removeFd(number), 0);
    close(number);
    close(timer);
    close(duplicate);
}

TEST(EventLoop, removesADescriptorThatIsClosedAlready)
{
    Pipe pipe;
    const int number = pipe.fd();
    ASSERT_EQ(loop().addFd(number, EPOLLIN, [](int, unsigned int) {}), 0);
    pipe.closeReader();
    EXPECT_EQ(loop().removeFd(number), 0);
    EXPECT_EQ(loop().removeFd(number), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(EventLoop, changesTheMask)
{
    const Pipe pipe;
    int calls = 0;
    ASSERT_EQ(loop().addFd(pipe.fd(), 0, [&](int, unsigned int) { ++calls; }), 0);
    pipe.makeReady();
    runOnce();
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(loop().updateFd(pipe.fd(), EPOLLIN), 0);
    runOnce();
    EXPECT_GE(calls, 1);
    EXPECT_EQ(loop().removeFd(pipe.fd()), 0);
}

TEST(EventLoop, tellsWhyItRefuses)
{
    const auto nothing = [](int, unsigned int) {
    };
    const Pipe pipe;
    EXPECT_EQ(loop().addFd(pipe.fd(), EPOLLIN, {}), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(loop().addFd(-1, EPOLLIN, nothing), -1);
    EXPECT_EQ(errno, EBADF);
    const int file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(loop().addFd(file, EPOLLIN, nothing), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(loop().removeFd(file), -1);
    EXPECT_EQ(errno, ENOENT);
    close(file);
    EXPECT_EQ(loop().updateFd(pipe.fd(), EPOLLIN), -1);
    EXPECT_EQ(errno, ENOENT);
    ASSERT_EQ(loop().addFd(pipe.fd(), EPOLLIN, nothing), 0);
    EXPECT_EQ(loop().addFd(pipe.fd(), EPOLLIN, nothing), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(loop().removeFd(pipe.fd()), 0);
}

TEST(EventLoop, returnsAfterTheCallbackInHand)
{
    const Pipe first;
    const Pipe second;
    int calls = 0;
    const auto stopAtOnce = [&](int, unsigned int) {
        ++calls;
        loop().stop();
    };
    ASSERT_EQ(loop().addFd(first.fd(), EPOLLIN, stopAtOnce), 0);
    ASSERT_EQ(loop().addFd(second.fd(), EPOLLIN, stopAtOnce), 0);
    first.makeReady();
    second.makeReady();
    EXPECT_EQ(loop().run(), 0);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(loop().run(), 0) << "a run after a stop serves again";
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(loop().removeFd(first.fd()), 0);
    EXPECT_EQ(loop().removeFd(second.fd()), 0);
}

TEST(EventLoop, doesNotLoseAStopThatComesBeforeTheRun)
{
    const Pipe pipe;
    int calls = 0;
    ASSERT_EQ(loop().addFd(pipe.fd(), EPOLLIN, [&](int, unsigned int) { ++calls; }), 0);
    pipe.makeReady();
    loop().stop();
    EXPECT_EQ(loop().run(), 0);
    EXPECT_EQ(calls, 0);
    runOnce();
    EXPECT_GE(calls, 1);
    EXPECT_EQ(loop().removeFd(pipe.fd()), 0);
}

TEST(EventLoop, refusesToRunInsideItself)
{
    const Pipe pipe;
    int inner = 0;
    int error = 0;
    ASSERT_EQ(loop().addFd(pipe.fd(), EPOLLIN,
                           [&](int, unsigned int) {
                               inner = loop().run();
                               error = errno;
                               loop().stop();
                           }),
              0);
    pipe.makeReady();
    EXPECT_EQ(loop().run(), 0);
    EXPECT_EQ(inner, -1);
    EXPECT_EQ(error, EBUSY);
    EXPECT_EQ(loop().removeFd(pipe.fd()), 0);
}

TEST(EventLoop, reportsWhatLeavesACallbackAndGoesOn)
{
    const Pipe pipe;
    int calls = 0;
    ASSERT_EQ(loop().addFd(pipe.fd(), EPOLLIN,
                           [&](int, unsigned int) {
                               switch (++calls) {
                               case 1:
                                   throw std::runtime_error("bad message");
                               case 2:
                                   throw 17;
                               default:
                                   loop().stop();
                               }
                           }),
              0);
    pipe.makeReady();
    traceDouble::takeTraces();
    traceDouble::takeLogLines();
    EXPECT_EQ(loop().run(), 0);
    EXPECT_EQ(calls, 3);

    const std::string where =
        "ABN: An exception left the callback of descriptor " + std::to_string(pipe.fd());
    const auto traces = traceDouble::takeTraces();
    ASSERT_EQ(traces.size(), 2u);
    EXPECT_EQ(traces[0].level, 1u);
    EXPECT_EQ(traces[0].text, where + ": bad message");
    EXPECT_EQ(traces[1].text, where + ": not a std::exception");
    const auto lines = traceDouble::takeLogLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "Platform,Loomwork: " + where + ": bad message");
    EXPECT_EQ(lines[1], "Platform,Loomwork: " + where + ": not a std::exception");
    EXPECT_EQ(loop().removeFd(pipe.fd()), 0);
}
