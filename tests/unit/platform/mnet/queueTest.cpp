/// The queue of a thread, its descriptor, and threads among themselves.
#include "mnetFixture.h"

#include <atomic>
#include <cstddef>
#include <pthread.h>

namespace mnet::test {
namespace {

using QueueTest = MnetTest;

TEST_F(QueueTest, aNewMessageIsZeroedAlignedAndAtLeastItsNumber)
{
    start();
    for (const std::size_t size : {std::size_t{0}, std::size_t{4}, std::size_t{5}, std::size_t{4096}}) {
        Message msg(size, 0x01020304);
        ASSERT_TRUE(msg);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(msg.bytes()) % alignof(std::max_align_t), 0u);
        EXPECT_EQ(msg.size(), std::max<std::size_t>(size, 4));
        EXPECT_EQ(msg.number(), 0x01020304u);
        for (std::size_t i = 4; i < size; ++i) {
            ASSERT_EQ(msg.bytes()[i], 0);
        }
        EXPECT_FALSE(msg.isNotice());
    }
    EXPECT_TRUE(Message(std::size_t{16} << 20, 1));
    EXPECT_FALSE(Message((std::size_t{16} << 20) + 1, 1));
    EXPECT_EQ(errno, EMSGSIZE);
    mnet_msg* none = nullptr;
    mnet_free(&none);
}

TEST_F(QueueTest, sendersAndReceiversAreChecked)
{
    const mnet_mbox_id_t mine = start("mine");
    EXPECT_EQ(send(mine, 1, 4, MNET_MBOX_NONE), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_FALSE(std::filesystem::exists(m_folder + ".log"));
    EXPECT_EQ(send(mine, 1, 4, mine + 1), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(send(mine, 1, 4, 0), -1);
    EXPECT_EQ(errno, EPERM);
    for (const mnet_mbox_id_t nobody :
         {mine + 1, 0u, MNET_MBOX_NONE, MNET_MY_MBOX, MNET_FROM_ANY, 0x12340000u}) {
        EXPECT_EQ(send(nobody, 1), -1);
        EXPECT_EQ(errno, ENOENT);
    }
    mnet_msg* none = nullptr;
    EXPECT_EQ(mnet_send(&none, mine, mine), -1);
    const mnet_mbox_id_t gone = mnet_clone_mailbox(mine, "gone");
    EXPECT_EQ(mnet_delete_mailbox(gone), 0);
    EXPECT_EQ(send(mine, 1, 4, gone), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_FALSE(receive(0));
}

TEST_F(QueueTest, whatAFilterPassesOverStaysInOrder)
{
    const mnet_mbox_id_t mine = start("mine");
    const mnet_mbox_id_t clone = mnet_clone_mailbox(mine, "clone");
    for (std::uint32_t number = 1; number <= 6; ++number) {
        EXPECT_EQ(send(mine, number, 4, number % 2 == 0 ? clone : mine), 0);
    }
    const std::uint32_t filter[] = {2, 5, 3};
    EXPECT_EQ(receive(0, filter).number(), 3u);
    EXPECT_EQ(receive(0, nullptr, clone).number(), 2u);
    EXPECT_EQ(receive(0, filter, clone).number(), 0u);
    EXPECT_EQ(receive(0, filter).number(), 5u);
    EXPECT_FALSE(receive(20, filter));
    EXPECT_TRUE(isReadable(mnet_get_fd()));
    for (const std::uint32_t left : {1u, 4u, 6u}) {
        EXPECT_EQ(receive(0).number(), left);
    }
    EXPECT_FALSE(receive(0));
}

TEST_F(QueueTest, theDescriptorIsReadableAsLongAsAMessageWaits)
{
    const mnet_mbox_id_t mine = start("mine");
    const int fd = mnet_get_fd();
    EXPECT_EQ(fd, mnet_get_fd());
    EXPECT_FALSE(isReadable(fd));
    EXPECT_EQ(send(mine, 1), 0);
    EXPECT_EQ(send(mine, 2), 0);
    EXPECT_TRUE(isReadable(fd));
    receive(0);
    EXPECT_TRUE(isReadable(fd));
    receive(0);
    EXPECT_FALSE(isReadable(fd));

    const mnet_mbox_id_t clone = mnet_clone_mailbox(mine, "clone");
    EXPECT_EQ(send(clone, 3), 0);
    EXPECT_TRUE(isReadable(fd));
    EXPECT_EQ(mnet_delete_mailbox(clone), 0); // frees what it had not received
    EXPECT_FALSE(isReadable(fd));
}

TEST_F(QueueTest, aTimeoutIsKept)
{
    start();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(receive(60));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(59));
}

TEST_F(QueueTest, threadsSendToEachOther)
{
    const mnet_mbox_id_t mine = start("mine");
    std::atomic<mnet_mbox_id_t> other{MNET_MBOX_NONE};
    Gate there;
    std::thread echo([&] {
        other = mnet_create_mailbox("other", 0);
        there.open();
        for (;;) {
            Message msg = receive();
            if (!msg || msg.number() == 0) {
                return;
            }
            const mnet_mbox_id_t to = msg.sender();
            EXPECT_EQ(mnet_send(msg.give(), to, MNET_MY_MBOX), 0);
        }
    });
    ASSERT_TRUE(there.pass());
    for (std::uint32_t i = 1; i <= 2000; ++i) {
        ASSERT_EQ(send(other, i, 64), 0);
        if (i % 10 == 0) {
            for (std::uint32_t k = i - 9; k <= i; ++k) {
                ASSERT_EQ(receive().number(), k);
            }
        }
    }
    // Another thread may send under this one's mailbox.
    EXPECT_EQ(send(mine, 1, 4, other), 0);
    EXPECT_EQ(receive().sender(), other);
    EXPECT_EQ(send(other, 0), 0);
    echo.join();
}

TEST_F(QueueTest, manyThreadsAtOneReceiverKeepEachTheirOrder)
{
    const mnet_mbox_id_t mine = start("mine", 50);
    constexpr std::uint32_t count = 3000;
    std::vector<std::thread> threads;
    for (std::uint32_t t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            const mnet_mbox_id_t own = mnet_create_mailbox(nullptr, 0);
            for (std::uint32_t i = 0; i < count; ++i) {
                EXPECT_EQ(send(mine, t << 16 | i), 0);
            }
            EXPECT_EQ(mnet_delete_mailbox(own), 0);
        });
    }
    std::uint32_t next[4] = {};
    for (std::uint32_t i = 0; i < 4 * count; ++i) {
        const Message msg = receive();
        ASSERT_TRUE(msg);
        ASSERT_EQ(msg.number() & 0xFFFF, next[msg.number() >> 16]++);
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

TEST_F(QueueTest, aMailboxOutlivesItsThread)
{
    start("mine");
    mnet_mbox_id_t other = MNET_MBOX_NONE;
    std::thread([&] { other = mnet_create_mailbox("other", 0); }).join();
    EXPECT_EQ(find("other"), other);
    EXPECT_EQ(send(other, 1, 1000), 0);
    EXPECT_EQ(mnet_create_mailbox("other", 0), MNET_MBOX_NONE);
    Gate watching;
    Child watcher([&] {
        start("watcher");
        EXPECT_NE(mnet_monitor(find("other"), nullptr), MNET_MBOX_NONE);
        watching.open();
        const Message notice = receive();
        EXPECT_TRUE(notice.isNotice());
        EXPECT_EQ(notice.sender(), other);
    });
    ASSERT_NE(mnet_monitor(other, nullptr), MNET_MBOX_NONE);
    ASSERT_TRUE(watching.pass());
    EXPECT_EQ(mnet_delete_mailbox(other), 0);
    watcher.finish();
    const Message notice = receive();
    EXPECT_TRUE(notice.isNotice());
    EXPECT_EQ(notice.sender(), other);
    EXPECT_EQ(mnet_delete_mailbox(other), -1);
    EXPECT_NE(mnet_create_mailbox("other", 0), MNET_MBOX_NONE);
}

TEST_F(QueueTest, releasingWorksFromAThreadThatEnds)
{
    const mnet_mbox_id_t mine = start("mine");
    static mnet_mbox_id_t atEnd = MNET_MBOX_NONE;
    static int result = -1;
    struct Late {
        ~Late() { result = mnet_delete_mailbox(atEnd); }
    };
    std::thread([] {
        static thread_local Late late;
        static_cast<void>(late);
        atEnd = mnet_create_mailbox("late", 0);
    }).join();
    EXPECT_EQ(result, 0);
    EXPECT_NE(mnet_clone_mailbox(mine, "late"), MNET_MBOX_NONE);
}

TEST_F(QueueTest, releasingWorksInStaticDestructors)
{
    Child process([] {
        static mnet_mbox_id_t mine = MNET_MBOX_NONE;
        mine = start("mine");
        std::atexit([] {
            if (mnet_delete_mailbox(mine) != 0 || mnet_exit() != 0 || mnet_delete_mailbox(mine) != -1 ||
                mnet_unmonitor(1) != -1) {
                _exit(9);
            }
        });
        std::exit(0);
    });
    process.finish();
}

TEST_F(QueueTest, exitWakesAThreadThatWaits)
{
    start("mine");
    Gate there;
    std::thread waiting([&] {
        mnet_create_mailbox("other", 0);
        there.open();
        EXPECT_EQ(mnet_receive(nullptr, -1, MNET_FROM_ANY), nullptr);
        EXPECT_EQ(mnet_current_mbox(), MNET_MBOX_NONE);
        EXPECT_EQ(mnet_get_fd(), -1);
    });
    ASSERT_TRUE(there.pass());
    EXPECT_EQ(mnet_exit(), 0);
    waiting.join();
}

TEST_F(QueueTest, aWaitingThreadCanBeCancelledAndHoldsNoLock)
{
#ifdef MERLOW_THREAD_SANITIZER
    GTEST_SKIP()
        << "the sanitizer overlooks the locks of a thread that was cancelled in a call it intercepts";
#endif
    start("mine");
    static mnet_mbox_id_t other = MNET_MBOX_NONE;
    Gate there;
    pthread_t thread{};
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void* gate) -> void* {
                      other = mnet_create_mailbox("other", 0);
                      static_cast<Gate*>(gate)->open();
                      for (;;) {
                          mnet_msg* msg = mnet_receive(nullptr, -1, MNET_FROM_ANY);
                          mnet_free(&msg);
                      }
                  },
                  &there),
              0);
    ASSERT_TRUE(there.pass());
    EXPECT_EQ(send(other, 1), 0);
    ASSERT_EQ(pthread_cancel(thread), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(send(other, 1), 0); // it outlives its thread
    EXPECT_EQ(mnet_delete_mailbox(other), 0);
}

TEST_F(QueueTest, nothingButWaitingIsACancellationPoint)
{
    start("mine");
    Gate done;
    pthread_t thread{};
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void* gate) -> void* {
                      pthread_cancel(pthread_self()); // pending from here on
                      const mnet_mbox_id_t own = mnet_create_mailbox("own", 0);
                      mnet_msg* msg = mnet_alloc(4, 1);
                      mnet_send(&msg, own, own);
                      msg = mnet_receive(nullptr, 0, MNET_FROM_ANY);
                      mnet_free(&msg);
                      mnet_locate_async("nobody", nullptr, own);
                      mnet_unmonitor(mnet_monitor(own, nullptr));
                      mnet_delete_mailbox(own);
                      int ignored = 0;
                      pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &ignored);
                      static_cast<Gate*>(gate)->open();
                      return nullptr;
                  },
                  &done),
              0);
    EXPECT_TRUE(done.pass());
    void* result = &thread;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, nullptr);
}

TEST_F(QueueTest, threadsThatComeAndGoLeaveNothing)
{
    start("mine");
    const std::size_t before = openDescriptors();
    for (int i = 0; i < 50; ++i) {
        std::thread([] {
            const mnet_mbox_id_t own = mnet_create_mailbox("own", 0);
            EXPECT_NE(own, MNET_MBOX_NONE);
            EXPECT_EQ(mnet_locate_async("nobody", nullptr, own), 0);
            EXPECT_EQ(mnet_delete_mailbox(own), 0);
        }).join();
    }
    EXPECT_EQ(openDescriptors(), before);
}

} // namespace
} // namespace mnet::test
