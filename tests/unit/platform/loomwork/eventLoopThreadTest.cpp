// Threads, cancellation, the ends of threads and processes, forks.

#include "loopFixture.h"
#include "traceDouble.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <future>
#include <pthread.h>
#include <sys/epoll.h>
#include <thread>

using loopTest::inChild;
using loopTest::loop;
using loopTest::Pipe;

namespace {

void nothing(int, unsigned int) {}

void stopLoop(int, unsigned int)
{
    loop().stop();
}

/// Starts a thread that a test cancels; joined by result().
class CancelledThread {
public:
    explicit CancelledThread(std::function<void()> body) : m_body(std::move(body))
    {
        EXPECT_EQ(pthread_create(&m_thread, nullptr, &start, this), 0);
    }
    void cancel() const { EXPECT_EQ(pthread_cancel(m_thread), 0); }
    void* result() const
    {
        void* value = nullptr;
        EXPECT_EQ(pthread_join(m_thread, &value), 0);
        return value;
    }

private:
    static void* start(void* self)
    {
        static_cast<CancelledThread*>(self)->m_body();
        return nullptr;
    }
    std::function<void()> m_body;
    pthread_t m_thread{};
};

} // namespace

TEST(EventLoopThreads, haveASetAndARunEach)
{
    const Pipe mine;
    const Pipe theirs;
    std::atomic<bool> served{false};
    ASSERT_EQ(loop().addFd(mine.fd(), EPOLLIN, stopLoop), 0);
    std::thread other([&] {
        EXPECT_EQ(loop().updateFd(mine.fd(), EPOLLIN), -1) << "the set of another thread";
        EXPECT_EQ(loop().addFd(theirs.fd(), EPOLLIN,
                               [&](int, unsigned int) {
                                   served = true;
                                   loop().stop();
                                   mine.makeReady();
                               }),
                  0);
        EXPECT_EQ(loop().run(), 0);
        EXPECT_EQ(loop().removeFd(theirs.fd()), 0);
    });
    theirs.makeReady();
    EXPECT_EQ(loop().run(), 0);
    EXPECT_TRUE(served);
    other.join();
    EXPECT_EQ(loop().removeFd(mine.fd()), 0);
}

TEST(EventLoopThreads, mayWatchTheSameDescriptor)
{
    const Pipe pipe;
    ASSERT_EQ(loop().addFd(pipe.fd(), EPOLLIN, stopLoop), 0);
    std::thread([&] {
        EXPECT_EQ(loop().addFd(pipe.fd(), EPOLLIN, nothing), 0);
        EXPECT_EQ(loop().removeFd(pipe.fd()), 0) << "its own";
    }).join();
    pipe.makeReady();
    EXPECT_EQ(loop().run(), 0) << "this thread's entry is still there";
    EXPECT_EQ(loop().removeFd(pipe.fd()), 0);
}

TEST(EventLoopThreads, removeADescriptorOfAThreadThatWaits)
{
    const Pipe watched;
    const Pipe end;
    std::promise<void> added;
    std::atomic<int> calls{0};
    std::thread owner([&] {
        EXPECT_EQ(loop().addFd(watched.fd(), EPOLLIN, [&](int, unsigned int) { ++calls; }), 0);
        EXPECT_EQ(loop().addFd(end.fd(), EPOLLIN, stopLoop), 0);
        added.set_value();
        EXPECT_EQ(loop().run(), 0);
        EXPECT_EQ(loop().removeFd(end.fd()), 0);
    });
    added.get_future().wait();
    EXPECT_EQ(loop().removeFd(watched.fd()), 0);
    watched.makeReady();
    end.makeReady();
    owner.join();
    EXPECT_EQ(calls, 0);
}

TEST(EventLoopThreads, removeWhileTheOwnerIsServing)
{
    const Pipe end;
    constexpr int rounds = 200;
    std::atomic<int> present{-1};
    std::atomic<bool> done{false};
    std::thread owner([&] {
        const Pipe pipe;
        pipe.makeReady();
        EXPECT_EQ(loop().addFd(end.fd(), EPOLLIN,
                               [&](int, unsigned int) {
                                   if (done) {
                                       loop().stop();
                                   } else if (present < 0) {
                                       EXPECT_EQ(loop().addFd(pipe.fd(), EPOLLIN, nothing), 0);
                                       present = pipe.fd();
                                   }
                               }),
                  0);
        EXPECT_EQ(loop().run(), 0);
        EXPECT_EQ(loop().removeFd(end.fd()), 0);
    });
    end.makeReady();
    for (int removed = 0; removed < rounds;) {
        if (const int fd = present; fd >= 0) {
            EXPECT_EQ(loop().removeFd(fd), 0);
            present = -1;
            ++removed;
        } else {
            std::this_thread::yield();
        }
    }
    done = true;
    owner.join();
}

TEST(EventLoopThreads, giveTheirDescriptorsBackWhenTheyEnd)
{
    const Pipe pipe;
    auto captured = std::make_shared<int>(1);
    const std::weak_ptr<int> watched = captured;
    const int before = loopTest::openEpollSets();
    std::thread([&pipe, captured] {
        EXPECT_EQ(loop().addFd(pipe.fd(), EPOLLIN, [captured](int, unsigned int) {}), 0);
    }).join();
    captured.reset();
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(loopTest::openEpollSets(), before);
    EXPECT_EQ(loop().removeFd(pipe.fd()), -1);
}

TEST(EventLoopThreads, removeWhileTheyEnd)
{
    struct Ending {
        Pipe forThreadLocal;
        Pipe forKey;
        int byThreadLocal = -2;
        int byKey = -2;
    };
    struct Guard {
        Ending* ending = nullptr;
        ~Guard() { ending->byThreadLocal = loop().removeFd(ending->forThreadLocal.fd()); }
    };
    Ending ending;
    static pthread_key_t key;
    ASSERT_EQ(pthread_key_create(&key,
                                 [](void* value) {
                                     auto* ended = static_cast<Ending*>(value);
                                     ended->byKey = loop().removeFd(ended->forKey.fd());
                                 }),
              0);
    std::thread([&] {
        static thread_local Guard guard;
        guard.ending = &ending;
        EXPECT_EQ(loop().addFd(ending.forThreadLocal.fd(), EPOLLIN, nothing), 0);
        EXPECT_EQ(loop().addFd(ending.forKey.fd(), EPOLLIN, nothing), 0);
        EXPECT_EQ(pthread_setspecific(key, &ending), 0);
    }).join();
    EXPECT_EQ(ending.byThreadLocal, 0);
    EXPECT_EQ(ending.byKey, 0);
    EXPECT_EQ(pthread_key_delete(key), 0);
}

TEST(EventLoopThreads, removeInStaticDestructors)
{
    struct Guard {
        int fd;
        ~Guard() { _exit(loop().removeFd(fd) == 0 ? 0 : 1); }
    };
    const int status = inChild([] {
        static const Pipe& pipe = *new Pipe; // outlives the guard
        if (loop().addFd(pipe.fd(), EPOLLIN, nothing) != 0) {
            return 2;
        }
        static const Guard guard{pipe.fd()};
        std::exit(3);
    });
    EXPECT_EQ(status, 0);
}

TEST(EventLoopCancellation, endsTheWait)
{
    std::promise<void> running;
    const Pipe first;
    first.makeReady();
    const CancelledThread thread([&] {
        loop().addFd(first.fd(), EPOLLIN, [&](int fd, unsigned int) {
            loop().removeFd(fd);
            running.set_value();
        });
        loop().run();
    });
    running.get_future().wait();
    thread.cancel();
    EXPECT_EQ(thread.result(), PTHREAD_CANCELED);
}

TEST(EventLoopCancellation, passesThroughACallback)
{
    const Pipe pipe;
    pipe.makeReady();
    std::promise<void> inCallback;
    std::promise<void> cancelled;
    traceDouble::takeLogLines();
    const CancelledThread thread([&] {
        loop().addFd(pipe.fd(), EPOLLIN, [&](int, unsigned int) {
            inCallback.set_value();
            cancelled.get_future().wait();
            pthread_testcancel();
        });
        loop().run();
    });
    inCallback.get_future().wait();
    thread.cancel();
    cancelled.set_value();
    EXPECT_EQ(thread.result(), PTHREAD_CANCELED);
    EXPECT_TRUE(traceDouble::takeLogLines().empty()) << "a cancellation is no error";
}

TEST(EventLoopCancellation, happensNowhereElse)
{
    const Pipe pipe;
    std::promise<void> cancelled;
    bool allDone = false;
    const CancelledThread thread([&] {
        int before = 0;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
        cancelled.get_future().wait();
        pthread_setcancelstate(before, nullptr); // from here on it is pending
        EXPECT_EQ(loop().addFd(pipe.fd(), EPOLLIN, nothing), 0);
        EXPECT_EQ(loop().updateFd(pipe.fd(), EPOLLOUT), 0);
        EXPECT_EQ(loop().removeFd(pipe.fd()), 0);
        loop().stop();
        EXPECT_EQ(loop().run(), 0) << "it does not wait";
        allDone = true;
        pthread_testcancel();
    });
    thread.cancel();
    cancelled.set_value();
    EXPECT_EQ(thread.result(), PTHREAD_CANCELED);
    EXPECT_TRUE(allDone);
}

TEST(EventLoopFork, leavesTheChildNothing)
{
    const Pipe pipe;
    ASSERT_EQ(loop().addFd(pipe.fd(), EPOLLIN, stopLoop), 0);
    EXPECT_EQ(inChild([&] {
                  if (loopTest::openEpollSets() != 0) {
                      return 1;
                  }
                  if (loop().updateFd(pipe.fd(), EPOLLIN) == 0 || loop().removeFd(pipe.fd()) == 0) {
                      return 2;
                  }
                  // What the child adds is its own, and the parent's set does not see it.
                  const Pipe own;
                  own.makeReady();
                  if (loop().addFd(own.fd(), EPOLLIN, stopLoop) != 0 || loop().run() != 0) {
                      return 3;
                  }
                  return loop().removeFd(own.fd()) == 0 ? 0 : 4;
              }),
              0);
    pipe.makeReady();
    EXPECT_EQ(loop().run(), 0) << "the parent's set is whole";
    EXPECT_EQ(loop().removeFd(pipe.fd()), 0);
}

TEST(EventLoopFork, endsTheRunThatItWasCalledIn)
{
    const Pipe pipe;
    pipe.makeReady();
    pid_t child = -1;
    ASSERT_EQ(loop().addFd(pipe.fd(), EPOLLIN,
                           [&](int, unsigned int) {
                               child = fork();
                               if (child != 0) {
                                   loop().stop();
                               }
                           }),
              0);
    const int result = loop().run();
    const int error = errno;
    if (child == 0) {
        _exit(result == -1 && error == ECANCELED ? 0 : 1);
    }
    EXPECT_EQ(result, 0);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(loop().removeFd(pipe.fd()), 0);
}

TEST(EventLoopFork, leavesTheChildNothingOfOtherThreads)
{
    const Pipe theirs;
    const Pipe end;
    std::promise<void> added;
    std::thread other([&] {
        EXPECT_EQ(loop().addFd(theirs.fd(), EPOLLIN, nothing), 0);
        EXPECT_EQ(loop().addFd(end.fd(), EPOLLIN, stopLoop), 0);
        added.set_value();
        EXPECT_EQ(loop().run(), 0);
    });
    added.get_future().wait();
    EXPECT_EQ(inChild([&] {
                  return loopTest::openEpollSets() == 0 && loop().removeFd(theirs.fd()) == -1 &&
                                 errno == ENOENT
                             ? 0
                             : 1;
              }),
              0);
    end.makeReady();
    other.join();
}
