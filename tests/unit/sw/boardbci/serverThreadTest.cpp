#include "serverThread.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <thread>

/// Set to make the next pthread_create fail with this error.
std::atomic<int> g_pthreadCreateError{0};

extern "C" {
// The names that the linker's --wrap gives.
// NOLINTBEGIN(bugprone-reserved-identifier)
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument)
{
    const int error = g_pthreadCreateError.exchange(0);
    return error != 0 ? error : __real_pthread_create(thread, attributes, body, argument);
}
// NOLINTEND(bugprone-reserved-identifier)
}

namespace {

/// A body that tells of itself as the server's does, and then ends when it is told to, or waits where it can
/// be cancelled.
struct Body {
    ServerThread thread;
    std::promise<void> mayEnd;
    std::future<void> end = mayEnd.get_future();
    bool fails = false;
    bool waitsForEvents = false;
    std::atomic<int> runs{0};

    struct Over {
        Body& body;
        ~Over() { body.thread.setOver(body.fails); }
    };

    static void* run(void* argument)
    {
        const CancelGuard notCancelled;
        auto& body = *static_cast<Body*>(argument);
        const Over over{body};
        ++body.runs;
        if (body.fails) {
            return nullptr;
        }
        body.thread.setStarted();
        if (body.waitsForEvents) {
            pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
            ::poll(nullptr, 0, -1); // until cancelled
        }
        body.end.wait();
        return argument;
    }
    int create() { return thread.create(run, this); }
};

TEST(ServerThread, isNotSetBeforeItIsCreatedAndThereIsNothingToJoin)
{
    ServerThread thread;
    EXPECT_FALSE(thread.isSet());
    EXPECT_FALSE(thread.awaitStarted());
    EXPECT_FALSE(thread.cancel());
    EXPECT_EQ(thread.join(), nullptr);
    EXPECT_FALSE(thread.isOfThisProcess());
}

TEST(ServerThread, staysSetWhenItHasEndedByItself)
{
    Body body;
    ASSERT_EQ(body.create(), 0);
    EXPECT_TRUE(body.thread.isOfThisProcess());
    EXPECT_TRUE(body.thread.awaitStarted());
    body.mayEnd.set_value();
    EXPECT_EQ(body.thread.join(), &body);
    EXPECT_TRUE(body.thread.isSet());
    EXPECT_EQ(body.thread.join(), &body) << "joined once, told as often as asked";
    EXPECT_FALSE(body.thread.cancel()) << "nothing is there to cancel";
}

TEST(ServerThread, isNotSetAfterAFailedStartUpAndCanBeCreatedAgain)
{
    Body body;
    body.fails = true;
    ASSERT_EQ(body.create(), 0);
    EXPECT_FALSE(body.thread.awaitStarted());
    ASSERT_EQ(body.create(), 0);
    EXPECT_FALSE(body.thread.awaitStarted());
    body.thread.join();
    EXPECT_EQ(body.runs, 2);
}

TEST(ServerThread, isNotSetOnceItIsCancelledAndIsJoinedLater)
{
    Body body;
    body.waitsForEvents = true;
    ASSERT_EQ(body.create(), 0);
    ASSERT_TRUE(body.thread.awaitStarted());
    EXPECT_TRUE(body.thread.cancel());
    EXPECT_FALSE(body.thread.isSet());
    EXPECT_EQ(body.thread.join(), PTHREAD_CANCELED);
    EXPECT_EQ(body.thread.join(), PTHREAD_CANCELED);
}

TEST(ServerThread, aSuccessorIsCreatedOnlyWhenTheCancelledOneIsOver)
{
    Body body;
    body.waitsForEvents = true;
    ASSERT_EQ(body.create(), 0);
    ASSERT_TRUE(body.thread.awaitStarted());
    ASSERT_TRUE(body.thread.cancel());
    ASSERT_EQ(body.create(), 0);
    ASSERT_TRUE(body.thread.awaitStarted());
    EXPECT_TRUE(body.thread.cancel());
    EXPECT_EQ(body.thread.join(), PTHREAD_CANCELED);
    EXPECT_EQ(body.runs, 2);
}

TEST(ServerThread, isNotCancelledWhileItIsBusy)
{
    Body body;
    ASSERT_EQ(body.create(), 0);
    ASSERT_TRUE(body.thread.awaitStarted());
    EXPECT_TRUE(body.thread.cancel());
    body.mayEnd.set_value();
    EXPECT_EQ(body.thread.join(), &body) << "it came to its own end";
    EXPECT_FALSE(body.thread.isSet());
}

TEST(ServerThread, aFailedCreationIsToldAndLeavesNothing)
{
    Body body;
    g_pthreadCreateError = EAGAIN;
    EXPECT_EQ(body.create(), EAGAIN);
    EXPECT_FALSE(body.thread.isSet());
    EXPECT_EQ(body.thread.join(), nullptr);
}

TEST(ServerThread, manyThreadsMayJoinWhileAnotherCancels)
{
    Body body;
    body.waitsForEvents = true;
    ASSERT_EQ(body.create(), 0);
    std::vector<std::thread> hosts;
    std::atomic<int> cancelled{0};
    for (int i = 0; i < 4; ++i) {
        hosts.emplace_back([&] { cancelled += body.thread.join() == PTHREAD_CANCELED ? 1 : 0; });
    }
    ASSERT_TRUE(body.thread.awaitStarted());
    EXPECT_TRUE(body.thread.cancel());
    for (auto& host : hosts) {
        host.join();
    }
    EXPECT_EQ(cancelled, 4);
}

} // namespace
