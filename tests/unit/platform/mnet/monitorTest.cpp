/// Notices of mailboxes that are deleted and of processes that die.
#include "mnetFixture.h"

#include <sys/syscall.h>
#include <vector>

namespace mnet::test {
namespace {

using MonitorTest = MnetTest;

TEST_F(MonitorTest, allThatADeadMailboxSentComesBeforeItsNotice)
{
    const mnet_mbox_id_t mine = start("mine");
    mnet_clone_mailbox(mine, "clone");
    for (int round = 0; round < 10; ++round) {
        Gate watched;
        Child peer([&] {
            start("peer");
            const mnet_mbox_id_t to[] = {find("mine"), find("clone")};
            ASSERT_TRUE(watched.pass());
            for (std::uint32_t i = 0; i < 150; ++i) {
                ASSERT_EQ(send(to[i % 2], i, 500), 0);
            }
            ::kill(getpid(), SIGKILL); // with a monitor request that it has never read
        });
        const mnet_mbox_id_t other = find("peer");
        Message wanted(20, 4711);
        ASSERT_NE(mnet_monitor(other, wanted.give()), MNET_MBOX_NONE);
        watched.open();
        for (std::uint32_t i = 0; i < 150; ++i) {
            const Message msg = receive();
            ASSERT_EQ(msg.number(), i);
            ASSERT_FALSE(msg.isNotice());
        }
        const Message notice = receive();
        EXPECT_TRUE(notice.isNotice());
        EXPECT_EQ(notice.number(), 4711u);
        EXPECT_EQ(notice.size(), 20u);
        EXPECT_EQ(notice.sender(), other);
        EXPECT_EQ(notice.receiver(), mine);
        EXPECT_EQ(send(other, 1), -1);
        EXPECT_EQ(errno, ENOENT);
        // At once for one that is gone.
        ASSERT_NE(mnet_monitor(other, nullptr), MNET_MBOX_NONE);
        const Message again = receive();
        EXPECT_TRUE(again.isNotice());
        EXPECT_EQ(again.number(), MNET_MONITOR_DEFAULT_MSGNO);
        EXPECT_EQ(again.size(), 4u);
        EXPECT_FALSE(receive(0));
    }
}

TEST_F(MonitorTest, aDeletedMailboxIsToldAndGoneForSenders)
{
    start("mine");
    Gate deleted;
    Gate end;
    Child peer([&] {
        const mnet_mbox_id_t first = start("first");
        const mnet_mbox_id_t clone = mnet_clone_mailbox(first, "clone");
        const Message go = receive();
        EXPECT_EQ(send(go.sender(), 1, 4, clone), 0);
        EXPECT_EQ(mnet_delete_mailbox(clone), 0);
        deleted.open();
        EXPECT_TRUE(serveUntil([&] { return end.pass(0); }));
    });
    const mnet_mbox_id_t first = find("first");
    const mnet_mbox_id_t clone = find("clone");
    const mnet_monitor_id_t a = mnet_monitor(clone, nullptr);
    const mnet_monitor_id_t b = mnet_monitor(clone, nullptr);
    ASSERT_NE(a, b);
    EXPECT_EQ(send(first, 1), 0);
    ASSERT_TRUE(deleted.pass());
    EXPECT_EQ(send(clone, 1), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(receive().number(), 1u);
    EXPECT_TRUE(receive().isNotice());
    EXPECT_TRUE(receive().isNotice());
    EXPECT_EQ(mnet_unmonitor(a), -1); // fired
    ASSERT_NE(mnet_monitor(clone, nullptr), MNET_MBOX_NONE);
    const Message late = receive();
    EXPECT_TRUE(late.isNotice());
    EXPECT_EQ(late.sender(), clone);
    EXPECT_EQ(send(first, 2), 0);
    end.open();
    peer.finish();
}

/// A thread that deletes its mailbox and then waits for something else has nobody who would hear a request to
/// be told that is still on its way.
TEST_F(MonitorTest, aMailboxThatGoesIsToldThoughItsThreadNeverReadsAgain)
{
    Gate watched;
    Gate heard;
    Child peer([&] {
        const mnet_mbox_id_t own = start("silent");
        ASSERT_TRUE(watched.pass());
        EXPECT_EQ(mnet_delete_mailbox(own), 0);
        EXPECT_TRUE(heard.pass());
    });
    start("mine");
    const mnet_mbox_id_t silent = find("silent");
    mnet_msg* none = nullptr;
    ASSERT_NE(mnet_monitor(silent, &none), MNET_MBOX_NONE);
    watched.open();
    const Message notice = receive();
    EXPECT_TRUE(notice.isNotice());
    EXPECT_EQ(notice.sender(), silent);
    heard.open();
    peer.finish();
}

/// Nor has who asks after that: the thread over there hears nobody any more.
TEST_F(MonitorTest, aMailboxThatIsGoneIsToldThoughItsThreadNeverReadsAgain)
{
    constexpr std::uint32_t count = 200;
    Gate known;
    Gate deleted;
    Gate heard;
    Child peer([&] {
        const mnet_mbox_id_t own = start("silent");
        const mnet_mbox_id_t clone = mnet_clone_mailbox(own, "clone");
        const mnet_mbox_id_t to = find("mine");
        ASSERT_TRUE(known.pass());
        for (std::uint32_t i = 0; i < count; ++i) {
            ASSERT_EQ(send(to, i, 64, clone), 0);
        }
        EXPECT_EQ(mnet_delete_mailbox(clone), 0);
        deleted.open();
        EXPECT_TRUE(heard.pass());
    });
    start("mine");
    const mnet_mbox_id_t clone = find("clone");
    const mnet_mbox_id_t silent = find("silent");
    known.open();
    ASSERT_TRUE(deleted.pass());
    ASSERT_NE(mnet_monitor(silent, nullptr), MNET_MBOX_NONE); // alive, and the first that opens a connection
    Message wanted(20, 4711);
    ASSERT_NE(mnet_monitor(clone, wanted.give()), MNET_MBOX_NONE);
    for (std::uint32_t i = 0; i < count; ++i) {
        const Message msg = receive();
        ASSERT_EQ(msg.number(), i);
        ASSERT_FALSE(msg.isNotice());
    }
    const Message notice = receive();
    EXPECT_EQ(notice.number(), 4711u);
    EXPECT_TRUE(notice.isNotice());
    EXPECT_EQ(notice.sender(), clone);
    const Message none = receive(0);
    EXPECT_FALSE(none);
    heard.open();
    peer.finish();
    EXPECT_EQ(receive().sender(), silent);
    EXPECT_FALSE(receive(0));
}

/// The mailboxes go while they are asked for, each under a thread that serves nothing any more.
TEST_F(MonitorTest, aMailboxThatGoesWhileItIsMonitoredIsToldOnce)
{
    constexpr std::uint32_t count = 60;
    int ids[2];
    ASSERT_EQ(pipe(ids), 0);
    Gate next;
    Gate heard;
    Child peer([&] {
        ASSERT_EQ(mnet_init(count, 0, nullptr, 0), 0);
        std::vector<std::thread> threads;
        Gate end;
        for (std::uint32_t i = 0; i < count; ++i) {
            threads.emplace_back([&] {
                const mnet_mbox_id_t own = mnet_create_mailbox(nullptr, 0);
                EXPECT_EQ(write(ids[1], &own, sizeof(own)), static_cast<ssize_t>(sizeof(own)));
                EXPECT_TRUE(next.pass()); // the other side connects and asks at this moment
                EXPECT_EQ(mnet_delete_mailbox(own), 0);
                EXPECT_TRUE(end.pass());
            });
        }
        EXPECT_TRUE(heard.pass());
        for (std::uint32_t i = 0; i < count; ++i) {
            end.open();
        }
        for (auto& thread : threads) {
            thread.join();
        }
    });
    start("mine");
    for (std::uint32_t i = 0; i < count; ++i) {
        mnet_mbox_id_t other = MNET_MBOX_NONE;
        ASSERT_EQ(read(ids[0], &other, sizeof(other)), static_cast<ssize_t>(sizeof(other)));
        next.open();
        ASSERT_NE(mnet_monitor(other, nullptr), MNET_MBOX_NONE);
    }
    for (std::uint32_t i = 0; i < count; ++i) {
        ASSERT_TRUE(receive().isNotice()) << i;
    }
    EXPECT_FALSE(receive(0));
    heard.open();
    peer.finish();
    EXPECT_FALSE(receive(0));
    close(ids[0]);
    close(ids[1]);
}

/// What a mailbox had sent may wait at its sender still when it is gone; the notice comes behind it.
TEST_F(MonitorTest, theNoticeOfAMailboxThatIsGoneComesAfterWhatItsThreadKeeps)
{
    constexpr std::uint32_t count = 3000;
    Gate deleted;
    Gate end;
    Child peer([&] {
        const mnet_mbox_id_t own = start("own");
        const mnet_mbox_id_t clone = mnet_clone_mailbox(own, "clone");
        const mnet_mbox_id_t to = receive().sender();
        for (std::uint32_t i = 0; i < count; ++i) {
            ASSERT_EQ(send(to, i, 2000, clone), 0);
        }
        EXPECT_EQ(mnet_delete_mailbox(clone), 0);
        deleted.open();
        EXPECT_TRUE(serveUntil([&] { return end.pass(0); }));
        // All of it has left: who asks now needs nobody to answer.
        EXPECT_EQ(send(to, count), 0);
        deleted.open();
        EXPECT_TRUE(end.pass());
    });
    start("mine");
    const mnet_mbox_id_t clone = find("clone");
    EXPECT_EQ(send(find("own"), 1), 0);
    ASSERT_TRUE(deleted.pass());
    ASSERT_NE(mnet_monitor(clone, nullptr), MNET_MBOX_NONE);
    for (std::uint32_t i = 0; i < count; ++i) {
        const Message msg = receive();
        ASSERT_EQ(msg.number(), i);
        ASSERT_FALSE(msg.isNotice());
    }
    EXPECT_TRUE(receive().isNotice());
    end.open();
    ASSERT_TRUE(deleted.pass());
    ASSERT_NE(mnet_monitor(clone, nullptr), MNET_MBOX_NONE);
    EXPECT_EQ(receive().number(), count);
    EXPECT_TRUE(receive().isNotice());
    EXPECT_FALSE(receive(0));
    end.open();
    peer.finish();
}

/// Behind what the kernel does not take, a request to watch waits: until it leaves, or, behind a part of a
/// long message that nobody reads on, until its mailbox is gone.
TEST_F(MonitorTest, aMonitorBehindAFullConnectionIsToldThoughNobodyReadsIt)
{
    struct Filling {
        std::uint32_t count;
        std::size_t size;
    };
    for (const Filling filling : {Filling{1000, 2000}, Filling{1, 10000000}}) {
        Gate full;
        Gate deleted;
        Gate heard;
        Child peer([&] {
            const mnet_mbox_id_t own = start("own");
            const mnet_mbox_id_t clone = mnet_clone_mailbox(own, "clone");
            ASSERT_TRUE(full.pass());
            EXPECT_EQ(mnet_delete_mailbox(clone), 0);
            deleted.open();
            EXPECT_TRUE(heard.pass());
        });
        start("mine");
        const mnet_mbox_id_t own = find("own");
        const mnet_mbox_id_t clone = find("clone");
        for (std::uint32_t i = 0; i < filling.count; ++i) {
            ASSERT_EQ(send(own, i, filling.size), 0);
        }
        ASSERT_NE(mnet_monitor(clone, nullptr), MNET_MBOX_NONE);
        full.open();
        ASSERT_TRUE(deleted.pass());
        const Message notice = receive();
        EXPECT_TRUE(notice.isNotice());
        EXPECT_EQ(notice.sender(), clone);
        // And one that is gone needs no request at all.
        ASSERT_NE(mnet_monitor(clone, nullptr), MNET_MBOX_NONE);
        EXPECT_TRUE(receive().isNotice());
        heard.open();
        peer.finish();
        EXPECT_EQ(mnet_exit(), 0);
    }
}

TEST_F(MonitorTest, mailboxesOfAProcessThatExitsAreTold)
{
    Gate watched;
    Gate heard;
    Child peer([&] {
        const mnet_mbox_id_t own = start("own");
        mnet_clone_mailbox(own, "clone");
        const mnet_mbox_id_t to = find("mine");
        EXPECT_TRUE(watched.pass());
        EXPECT_EQ(send(to, 1, 1000), 0);
        EXPECT_EQ(mnet_exit(), 0);
        EXPECT_TRUE(heard.pass()); // lives on
    });
    start("mine");
    const mnet_mbox_id_t own = find("own");
    const mnet_mbox_id_t clone = find("clone");
    ASSERT_NE(mnet_monitor(clone, nullptr), MNET_MBOX_NONE);
    ASSERT_NE(mnet_monitor(own, nullptr), MNET_MBOX_NONE);
    watched.open();
    EXPECT_EQ(receive().number(), 1u);
    EXPECT_EQ(receive().sender(), own); // the oldest goes first
    EXPECT_EQ(receive().sender(), clone);
    EXPECT_FALSE(receive(0));
    heard.open();
    peer.finish();
}

TEST_F(MonitorTest, anEndedMonitorNeverDelivers)
{
    const mnet_mbox_id_t mine = start("mine");
    const mnet_mbox_id_t clone = mnet_clone_mailbox(mine, "clone");
    Child peer([] { echo("peer"); });
    const mnet_mbox_id_t other = find("peer");
    const mnet_monitor_id_t ended = mnet_monitor(other, nullptr);
    const mnet_monitor_id_t queued = mnet_monitor(other, nullptr);
    EXPECT_EQ(mnet_unmonitor(ended), 0);
    EXPECT_EQ(mnet_unmonitor(ended), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(mnet_unmonitor(0), -1);
    EXPECT_EQ(mnet_unmonitor(MNET_MBOX_NONE), -1);
    peer.kill();
    EXPECT_TRUE(isReadable(mnet_get_fd(), deadlineMs));
    const std::uint32_t nothing[] = {1, 1};
    EXPECT_FALSE(receive(0, nothing)); // reads the death; the notice is in the queue
    std::thread([&] { EXPECT_EQ(mnet_unmonitor(queued), 0); }).join();
    EXPECT_FALSE(receive(0));
    EXPECT_FALSE(isReadable(mnet_get_fd()));
    // A monitor ends with the mailbox that it delivers to.
    EXPECT_EQ(mnet_current_mbox(), mine);
    const mnet_mbox_id_t third = mnet_create_mailbox("third", 0);
    const mnet_monitor_id_t lost = mnet_monitor(third, nullptr);
    EXPECT_EQ(mnet_delete_mailbox(mine), 0);
    EXPECT_EQ(mnet_unmonitor(lost), -1);
    EXPECT_EQ(mnet_delete_mailbox(third), 0);
    EXPECT_EQ(mnet_current_mbox(), clone);
    EXPECT_FALSE(receive(0));
}

/// What a process has opened in the folder of names of the run-time folder.
bool isName(const std::string& path)
{
    return path.find("/mnet/") != std::string::npos && path.find("/names/") != std::string::npos;
}

/// A process that keeps of its parent's open files only those that hold names.
void keepNamesOnly()
{
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const std::string target = std::filesystem::read_symlink(entry.path(), gone);
        if (target.find("/mnet/") != std::string::npos && !isName(target)) {
            close(std::stoi(entry.path().filename()));
        } else if (target.starts_with("socket:") || target.starts_with("anon_inode:")) {
            close(std::stoi(entry.path().filename()));
        }
    }
}

void letGoOfNames()
{
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (isName(std::filesystem::read_symlink(entry.path(), gone))) {
            close(std::stoi(entry.path().filename()));
        }
    }
}

TEST_F(MonitorTest, whoHasDiedIsNotFoundThoughItsNameStillSeemsHeld)
{
    Gate there;
    Gate end;
    Gate free;
    start();
    Child peer([&] {
        start("peer");
        // The library does not hear of this one, so it can't let go of the name.
        if (syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0) == 0) {
            keepNamesOnly();
            there.open();
            end.pass();
            letGoOfNames();
            free.open();
            _exit(0);
        }
        receive();
    });
    ASSERT_TRUE(there.pass());
    const mnet_mbox_id_t other = find("peer");
    ASSERT_NE(mnet_monitor(other, nullptr), MNET_MBOX_NONE);
    peer.kill();
    EXPECT_EQ(receive().sender(), other);
    ASSERT_EQ(mnet_locate_async("peer", nullptr, mnet_current_mbox()), 0);
    EXPECT_FALSE(receive(100));
    end.open();
    ASSERT_TRUE(free.pass());
    Child successor([] { echo("peer"); });
    const Message found = receive();
    EXPECT_TRUE(found.isNotice());
    EXPECT_NE(found.sender(), other);
    successor.kill();
}

} // namespace
} // namespace mnet::test
