/// Messages, notices and names between processes.
#include "mnetFixture.h"

#include <fcntl.h>
#include <fstream>
#include <sys/resource.h>
#include <vector>

namespace mnet::test {
namespace {

unsigned char patternAt(std::size_t i)
{
    return static_cast<unsigned char>(i * 31 + (i >> 12));
}

class PeerTest : public MnetTest {
protected:
    static std::uint32_t limitDescriptors(rlim_t count)
    {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        const auto before = static_cast<std::uint32_t>(limit.rlim_cur);
        limit.rlim_cur = count;
        setrlimit(RLIMIT_NOFILE, &limit);
        return before;
    }
    /// How many lines of the log have this text.
    int reportsOf(const char* text) const
    {
        std::ifstream log(m_folder + ".log");
        int count = 0;
        for (std::string line; std::getline(log, line);) {
            count += line.find(text) != std::string::npos ? 1 : 0;
        }
        return count;
    }
};

TEST_F(PeerTest, messagesOfEverySizeComeAndGo)
{
    Child peer([] { echo("echo"); });
    const mnet_mbox_id_t mine = start("mine");
    const mnet_mbox_id_t other = find("echo");
    const std::size_t chunk = 131072;
    for (const std::size_t size :
         {std::size_t{4}, std::size_t{5}, std::size_t{128}, std::size_t{1023}, std::size_t{1024},
          std::size_t{1025}, std::size_t{65536}, std::size_t{40000}, std::size_t{65536}, chunk - 1, chunk,
          chunk + 1, 2 * chunk, 2 * chunk + 1, std::size_t{1000003}, std::size_t{16} << 20}) {
        Message msg(size, 77);
        for (std::size_t i = 4; i < size; ++i) {
            msg.bytes()[i] = patternAt(i);
        }
        ASSERT_EQ(mnet_send(msg.give(), other, mine), 0);
        Message back = receive();
        ASSERT_EQ(back.size(), size);
        EXPECT_EQ(back.sender(), other);
        EXPECT_EQ(back.receiver(), mine);
        EXPECT_FALSE(back.isNotice());
        for (std::size_t i = 4; i < size; ++i) {
            ASSERT_EQ(back.bytes()[i], patternAt(i)) << i << " of " << size;
        }
    }
    EXPECT_EQ(send(other, stop), 0);
    peer.finish();
}

TEST_F(PeerTest, oneOrderForAllMailboxesOfTwoThreads)
{
    Gate there;
    Child peer([&] {
        const mnet_mbox_id_t a = start("a");
        mnet_clone_mailbox(a, "b");
        there.open();
        for (std::uint32_t i = 0; i < 5000; ++i) {
            const Message msg = receive();
            ASSERT_EQ(msg.number(), i);
            ASSERT_EQ(msg.size(), i % 100 == 0 ? 300000u : 64u);
        }
    });
    const mnet_mbox_id_t mine = start("mine");
    const mnet_mbox_id_t clone = mnet_clone_mailbox(mine, "clone");
    ASSERT_TRUE(there.pass());
    const mnet_mbox_id_t to[] = {find("a"), find("b")};
    for (std::uint32_t i = 0; i < 5000; ++i) {
        ASSERT_EQ(send(to[i % 2], i, i % 100 == 0 ? 300000 : 64, i % 3 == 0 ? clone : mine), 0);
    }
    EXPECT_TRUE(serveUntil([&] { return peer.hasEnded(); }));
    peer.finish();
}

TEST_F(PeerTest, aSenderThatEndsAtOnceHasSent)
{
    start("mine");
    for (std::uint32_t i = 0; i < 20; ++i) {
        Child sender([&] {
            const mnet_mbox_id_t own = start();
            const mnet_mbox_id_t to = find("mine");
            EXPECT_EQ(send(to, i, 1000, own), 0);
            if (i % 2 == 0) {
                mnet_exit();
            }
        });
        sender.finish(); // gone before anything was accepted
        const Message msg = receive();
        EXPECT_EQ(msg.number(), i);
        EXPECT_EQ(msg.size(), 1000u);
    }
}

TEST_F(PeerTest, aNameIsFoundBeforeAndAfterItIsThere)
{
    const mnet_mbox_id_t mine = start("mine");
    const mnet_mbox_id_t clone = mnet_clone_mailbox(mine, "clone");
    Message early(12, 1);
    ASSERT_EQ(mnet_locate_async("peer", early.give(), clone), 0);
    ASSERT_EQ(mnet_locate_async("peer", nullptr, mine), 0);
    ASSERT_EQ(mnet_locate_async("never", nullptr, mine), 0);
    EXPECT_FALSE(receive(0));
    Child peer([] { echo("peer"); });
    const Message first = receiveNumber(1);
    EXPECT_TRUE(first.isNotice());
    EXPECT_EQ(first.receiver(), clone);
    EXPECT_EQ(first.size(), 12u);
    const Message second = receive();
    EXPECT_EQ(second.number(), MNET_LOCATE_DEFAULT_MSGNO);
    EXPECT_EQ(second.sender(), first.sender());
    EXPECT_FALSE(receive(0)); // once for each call
    EXPECT_EQ(send(first.sender(), stop), 0);
    peer.finish();

    ASSERT_EQ(mnet_locate_async("later", nullptr, clone), 0);
    EXPECT_EQ(mnet_delete_mailbox(clone), 0); // and its locate
    mnet_create_mailbox("later", 0);
    EXPECT_FALSE(receive(50));
    EXPECT_EQ(mnet_locate_async("peer", nullptr, clone), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(PeerTest, aNameIsTakenOverAtOnceAfterADeath)
{
    start("mine");
    for (int i = 0; i < 10; ++i) {
        Gate there;
        Child holder([&] {
            start("name");
            there.open();
            receive();
        });
        ASSERT_TRUE(there.pass());
        EXPECT_EQ(mnet_create_mailbox("name", 0), MNET_MBOX_NONE);
        const mnet_mbox_id_t held = find("name");
        holder.kill();
        ASSERT_EQ(mnet_locate_async("name", nullptr, mnet_current_mbox()), 0);
        EXPECT_FALSE(receive(0)); // a dead process's file is not an answer
        const mnet_mbox_id_t taken = mnet_create_mailbox("name", 0);
        ASSERT_NE(taken, MNET_MBOX_NONE);
        const Message found = receive();
        EXPECT_EQ(found.sender(), taken);
        EXPECT_NE(taken, held);
        EXPECT_EQ(mnet_delete_mailbox(taken), 0);
    }
}

TEST_F(PeerTest, manyWhoTakeOneNameAtOnceGetItOnce)
{
    start("mine");
    {
        Child holder([&] {
            start("name");
            ::kill(getpid(), SIGKILL);
        });
    }
    Gate winners;
    Gate losers;
    Gate go;
    Gate end;
    std::vector<std::unique_ptr<Child>> all;
    for (int i = 0; i < 8; ++i) {
        all.push_back(std::make_unique<Child>([&] {
            start();
            EXPECT_TRUE(go.pass());
            (mnet_create_mailbox("name", 0) != MNET_MBOX_NONE ? winners : losers).open();
            EXPECT_TRUE(end.pass());
        }));
    }
    for (int i = 0; i < 8; ++i) {
        go.open();
    }
    EXPECT_TRUE(winners.pass());
    for (int i = 0; i < 7; ++i) {
        EXPECT_TRUE(losers.pass());
    }
    for (std::size_t i = 0; i < all.size(); ++i) {
        end.open();
    }
    for (auto& child : all) {
        child->finish();
    }
}

TEST_F(PeerTest, aFullReceiverGivesAnErrorAndLosesNothing)
{
    setenv("MNET_QUEUE_LIMIT", "1000000", 1);
    Gate drain;
    Gate total;
    int counts[2];
    ASSERT_EQ(pipe(counts), 0);
    Child slow([&] {
        start("slow");
        ASSERT_TRUE(drain.pass());
        std::uint32_t accepted = 0;
        ASSERT_EQ(read(counts[0], &accepted, sizeof(accepted)), static_cast<ssize_t>(sizeof(accepted)));
        for (std::uint32_t i = 0; i < accepted; ++i) {
            const Message msg = receive();
            ASSERT_EQ(msg.number(), i);
            ASSERT_EQ(msg.size(), 1000u);
        }
        total.open();
        EXPECT_EQ(receive().number(), stop);
    });
    Child other([] { echo("other"); });
    start("mine");
    const mnet_mbox_id_t to = find("slow");
    const mnet_mbox_id_t quick = find("other");
    // Reports are thinned out when there are many; earlier tests in this process may have made some.
    EXPECT_TRUE(serveUntil([&] {
        EXPECT_EQ(send(quick, 1, 4, 0), -1);
        return reportsOf("is not a mailbox") > 0;
    }));
    std::uint32_t accepted = 0;
    while (send(to, accepted, 1000) == 0) {
        ASSERT_LT(++accepted, 100000u);
    }
    EXPECT_EQ(errno, ENOBUFS);
    EXPECT_GT(accepted, 900u);
    EXPECT_EQ(send(to, 1, 1000), -1);
    EXPECT_EQ(errno, ENOBUFS);
    EXPECT_EQ(reportsOf("does not read"), 1);
    EXPECT_EQ(send(quick, 5), 0); // nobody else is slowed down
    EXPECT_EQ(receive().number(), 5u);
    ASSERT_NE(mnet_monitor(to, nullptr), MNET_MBOX_NONE);
    ASSERT_EQ(write(counts[1], &accepted, sizeof(accepted)), static_cast<ssize_t>(sizeof(accepted)));
    drain.open();
    EXPECT_TRUE(serveUntil([&] { return total.pass(0); }));
    EXPECT_EQ(send(to, stop), 0);
    EXPECT_TRUE(receive().isNotice());
    EXPECT_EQ(send(quick, stop), 0);
    slow.finish();
    other.finish();
    close(counts[0]);
    close(counts[1]);
}

/// What a filter passes over is bounded as well: no more is read, until some of it is taken.
TEST_F(PeerTest, whatAFilterPassesOverDoesNotGrowForEver)
{
    setenv("MNET_QUEUE_LIMIT", "1000000", 1);
    constexpr std::uint32_t count = 10000;
    Gate stuck;
    Child peer([&] {
        start("peer");
        const mnet_mbox_id_t to = find("mine");
        constexpr std::uint32_t nothing[] = {1, 1};
        int failures = 0;
        for (std::uint32_t i = 0; i < count;) {
            if (send(to, i, 1000) == 0) {
                failures = 0;
                ++i;
            } else if (++failures == 50) {
                ASSERT_EQ(errno, ENOBUFS);
                stuck.open();
            } else {
                receive(1, nothing); // moves on what is kept
            }
        }
        receive(); // the end of the other one
    });
    start("mine");
    const mnet_mbox_id_t other = find("peer");
    EXPECT_TRUE(serveUntil([&] { return stuck.pass(0); }));
    for (std::uint32_t i = 0; i < count; ++i) {
        ASSERT_EQ(receive().number(), i);
    }
    EXPECT_EQ(send(other, 1), 0);
    peer.finish();
}

TEST_F(PeerTest, sendsWithinAProcessHaveNoLimit)
{
    setenv("MNET_QUEUE_LIMIT", "1000", 1);
    const mnet_mbox_id_t mine = start("mine");
    std::thread([&] {
        mnet_create_mailbox("other", 0);
        for (std::uint32_t i = 0; i < 100; ++i) {
            EXPECT_EQ(send(mine, i, 1000), 0);
        }
    }).join();
    for (std::uint32_t i = 0; i < 100; ++i) {
        EXPECT_EQ(send(mine, 100 + i, 1000), 0);
    }
    for (std::uint32_t i = 0; i < 200; ++i) {
        EXPECT_EQ(receive(0).number(), i);
    }
}

TEST_F(PeerTest, twoThatSendBeforeTheyReadGoOn)
{
    constexpr std::uint32_t count = 20000;
    const auto play = [](const char* own, const char* other) {
        start(own);
        const mnet_mbox_id_t to = find(other);
        for (std::uint32_t i = 0; i < count; ++i) {
            ASSERT_EQ(send(to, i, 200), 0);
        }
        for (std::uint32_t i = 0; i < count; ++i) {
            ASSERT_EQ(receive().number(), i);
        }
        EXPECT_EQ(send(to, stop), 0); // and stays until the other one has everything
        EXPECT_EQ(receive().number(), stop);
    };
    Child a([&] { play("a", "b"); });
    Child b([&] { play("b", "a"); });
    b.finish();
    a.finish();
}

TEST_F(PeerTest, withoutDescriptorsConnectionsAreRefusedAndServedLater)
{
    Gate there;
    Gate full;
    Gate idle;
    Gate again;
    Child poor([&] {
        start("poor");
        EXPECT_TRUE(find("poor") != MNET_MBOX_NONE);
        limitDescriptors(openDescriptors() + 40);
        std::vector<int> taken;
        for (int fd = dup(0); fd >= 0; fd = dup(0)) {
            taken.push_back(fd);
        }
        ASSERT_EQ(errno, EMFILE);
        there.open();
        ASSERT_TRUE(full.pass()); // a connection has been made, and a message waits on it
        ASSERT_TRUE(isReadable(mnet_get_fd(), deadlineMs));
        // Serving refuses it; in between, the descriptor does not stay readable.
        bool quiet = false;
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(deadlineMs);
        while (!quiet && std::chrono::steady_clock::now() < end) {
            EXPECT_FALSE(receive(0));
            quiet = !isReadable(mnet_get_fd());
        }
        EXPECT_TRUE(quiet);
        EXPECT_FALSE(receive(30));
        for (const int fd : taken) {
            close(fd);
        }
        const Message msg = receive();
        EXPECT_EQ(msg.number(), 1u);
        EXPECT_EQ(receive().number(), 2u);
        again.open();
    });
    ASSERT_TRUE(there.pass());
    start("mine");
    const mnet_mbox_id_t poorBox = find("poor");
    EXPECT_EQ(send(poorBox, 1, 100), 0);
    EXPECT_EQ(send(poorBox, 2, 200000), 0);
    full.open();
    EXPECT_TRUE(serveUntil([&] { return again.pass(0); }));
    poor.finish();
}

TEST_F(PeerTest, aSenderWithoutDescriptorsKeepsItsMessages)
{
    Gate got;
    Child peer([&] {
        start("peer");
        EXPECT_EQ(receive().number(), 1u);
        got.open();
    });
    start("mine");
    const mnet_mbox_id_t to = find("peer");
    const auto before = limitDescriptors(openDescriptors() + 2);
    std::vector<int> taken;
    for (int fd = dup(0); fd >= 0; fd = dup(0)) {
        taken.push_back(fd);
    }
    EXPECT_EQ(mnet_create_mailbox("more", 0), MNET_MBOX_NONE);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(send(to, 1), 0);
    for (const int fd : taken) {
        close(fd);
    }
    EXPECT_TRUE(serveUntil([&] { return got.pass(0); }));
    limitDescriptors(before);
    peer.finish();
}

TEST_F(PeerTest, aDeathIsToldWithoutDescriptorsToo)
{
    start("mine");
    Gate watched;
    Child peer([&] {
        start("peer");
        const mnet_mbox_id_t to = find("mine");
        EXPECT_TRUE(watched.pass());
        EXPECT_EQ(send(to, 1), 0);
        ::kill(getpid(), SIGKILL);
    });
    const mnet_mbox_id_t other = find("peer");
    ASSERT_NE(mnet_monitor(other, nullptr), MNET_MBOX_NONE);
    const auto before = limitDescriptors(openDescriptors() + 2);
    std::vector<int> taken;
    for (int fd = dup(0); fd >= 0; fd = dup(0)) {
        taken.push_back(fd);
    }
    watched.open();
    siginfo_t info{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(peer.pid()), &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(receive().number(), 1u);
    EXPECT_TRUE(receive().isNotice());
    for (const int fd : taken) {
        close(fd);
    }
    limitDescriptors(before);
}

TEST_F(PeerTest, aNameIsFoundWhenThereAreDescriptorsAgain)
{
    for (const bool watches : {true, false}) {
        Gate create;
        Gate there;
        Gate end;
        Child peer([&] {
            start("other");
            EXPECT_TRUE(create.pass());
            mnet_create_mailbox("later", 0);
            there.open();
            EXPECT_TRUE(end.pass());
        });
        const mnet_mbox_id_t mine = start("mine");
        find("other");
        if (watches) {
            ASSERT_EQ(mnet_locate_async("later", nullptr, mine), 0);
        }
        const auto before = limitDescriptors(openDescriptors() + 2);
        std::vector<int> taken;
        for (int fd = dup(0); fd >= 0; fd = dup(0)) {
            taken.push_back(fd);
        }
        if (!watches) {
            ASSERT_EQ(mnet_locate_async("later", nullptr, mine), 0);
        }
        create.open();
        ASSERT_TRUE(there.pass());
        EXPECT_TRUE(isReadable(mnet_get_fd(), deadlineMs));
        EXPECT_FALSE(receive(0)); // the name is there, but there is nothing to read it with
        for (const int fd : taken) {
            close(fd);
        }
        limitDescriptors(before);
        EXPECT_TRUE(receive().isNotice());
        EXPECT_FALSE(receive(0));
        end.open();
        peer.finish();
        EXPECT_EQ(mnet_exit(), 0);
    }
}

TEST_F(PeerTest, peersThatComeAndGoLeaveNothing)
{
    start("mine");
    std::size_t before = 0;
    for (int i = 0; i < 20; ++i) {
        Child peer([] { echo("peer"); });
        const mnet_mbox_id_t other = find("peer");
        ASSERT_NE(mnet_monitor(other, nullptr), MNET_MBOX_NONE);
        EXPECT_EQ(send(other, 3), 0);
        EXPECT_EQ(receive().number(), 3u);
        peer.kill();
        EXPECT_TRUE(receive().isNotice());
        EXPECT_FALSE(receive(0));
        if (i == 0) {
            before = openDescriptors();
        }
    }
    EXPECT_EQ(openDescriptors(), before);
}

} // namespace
} // namespace mnet::test
