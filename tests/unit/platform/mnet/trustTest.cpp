/// What a peer that does not keep the rules can do: nothing. Packets are written by hand, byte by byte.
#include "mnetFixture.h"
#include "rawPeer.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <vector>

namespace mnet::test {
namespace {

class TrustTest : public MnetTest {
protected:
    void SetUp() override
    {
        MnetTest::SetUp();
        m_mine = start("mine");
    }
    /// As if nobody had ever been turned away here: those who are again and again wait longer each time.
    void beginAnew()
    {
        mnet_exit();
        m_mine = start("mine");
    }
    /// Runs `play` in another process while this one serves its descriptor; nothing may reach the queue.
    void withPeer(const std::function<void(RawPeer&)>& play)
    {
        Child peer([&] {
            RawPeer raw(m_folder);
            ASSERT_TRUE(raw.hold(rawNumber));
            play(raw);
        });
        EXPECT_TRUE(serveUntil([&] { return peer.hasEnded(); }));
        peer.finish();
        EXPECT_FALSE(receive(0));
    }
    /// After an honest hello, `play` ends with a packet for which the connection is closed.
    void expectClosed(const std::function<void(RawPeer&)>& play)
    {
        beginAnew();
        const std::size_t before = openDescriptors();
        withPeer([&](RawPeer& raw) {
            ASSERT_TRUE(raw.connect(m_mine));
            raw.packet(hello, rawNumber, endpointOf(m_mine), version);
            ASSERT_EQ(raw.answer(), welcome);
            play(raw);
            EXPECT_EQ(raw.answer(), 0u);
        });
        EXPECT_EQ(openDescriptors(), before);
        EXPECT_EQ(send(m_mine, 42), 0); // service goes on
        EXPECT_EQ(receive(0).number(), 42u);
    }
    /// `play` is the first thing on a connection, and not answered.
    void expectRefused(const std::function<void(RawPeer&, mnet_mbox_id_t)>& play)
    {
        beginAnew();
        withPeer([&](RawPeer& raw) {
            ASSERT_TRUE(raw.connect(m_mine));
            play(raw, m_mine);
            EXPECT_EQ(raw.answer(), 0u);
        });
    }
    mnet_mbox_id_t m_mine = MNET_MBOX_NONE;
};

TEST_F(TrustTest, aPeerThatKeepsTheRulesIsHeard)
{
    Gate end;
    Child peer([&] {
        RawPeer raw(m_folder);
        ASSERT_TRUE(raw.hold(rawNumber));
        ASSERT_TRUE(raw.connect(m_mine));
        raw.packet(hello, rawNumber, endpointOf(m_mine), version);
        raw.packet(data, rawNumber | 5, m_mine, 20, 20);
        raw.packet(dataFirst, rawNumber | 5, m_mine, chunk + 7, chunk);
        raw.packet(dataMore, rawNumber | 5, m_mine, chunk, 7);
        EXPECT_EQ(raw.answer(), welcome);
        EXPECT_TRUE(end.pass());
    });
    const Message first = receive();
    EXPECT_EQ(first.number(), 0xA5A5A5A5u);
    EXPECT_EQ(first.size(), 20u);
    EXPECT_EQ(first.sender(), rawNumber | 5);
    EXPECT_EQ(receive().size(), chunk + 7);
    end.open();
    peer.finish();
}

TEST_F(TrustTest, strangersAreNotWelcome)
{
    for (const std::uint32_t claimed :
         {0u, 0x12340000u, endpointOf(m_mine), rawNumber | 1, 0xFFFF0000u, 0xFFF00000u}) {
        expectRefused([claimed](RawPeer& raw, mnet_mbox_id_t mine) {
            raw.packet(hello, claimed, endpointOf(mine), version);
            raw.packet(data, claimed | 1, mine, 8, 8);
        });
    }
    expectRefused([](RawPeer& raw, mnet_mbox_id_t mine) {
        raw.packet(hello, rawNumber, endpointOf(mine), version + 1);
    });
    expectRefused([](RawPeer& raw, mnet_mbox_id_t mine) {
        raw.packet(hello, rawNumber, endpointOf(mine) + 0x10000, version);
    });
    expectRefused([](RawPeer& raw, mnet_mbox_id_t mine) { raw.packet(data, rawNumber, mine, 8, 8); });
    expectRefused([](RawPeer& raw, mnet_mbox_id_t mine) {
        raw.packet(hello, rawNumber, endpointOf(mine), version, 1);
    });
    for (std::size_t size = 1; size < 16; ++size) {
        expectRefused([size](RawPeer& raw, mnet_mbox_id_t) { raw.raw(std::vector<unsigned char>(size, 1)); });
    }
    withPeer([&](RawPeer& raw) { ASSERT_TRUE(raw.connect(m_mine)); }); // says nothing at all
    EXPECT_EQ(send(m_mine, 42), 0);
    EXPECT_EQ(receive(0).number(), 42u);
}

TEST_F(TrustTest, aNumberOfALivingProcessCantBeClaimedByAnother)
{
    Gate end;
    Gate there;
    Child victim([&] {
        start("victim");
        there.open();
        EXPECT_TRUE(end.pass());
    });
    ASSERT_TRUE(there.pass());
    const mnet_mbox_id_t target = find("victim");
    withPeer([&](RawPeer& raw) {
        RawPeer thief(m_folder);
        EXPECT_FALSE(thief.hold(endpointOf(target)));
        ASSERT_TRUE(raw.connect(m_mine));
        raw.packet(hello, endpointOf(target), endpointOf(m_mine), version);
        raw.packet(data, target, m_mine, 8, 8);
        EXPECT_EQ(raw.answer(), 0u);
    });
    end.open();
    victim.finish();
    withPeer([&](RawPeer& raw) { // nor one of a process that is gone
        ASSERT_TRUE(raw.connect(m_mine));
        raw.packet(hello, endpointOf(target), endpointOf(m_mine), version);
        raw.packet(data, target, m_mine, 8, 8);
        EXPECT_EQ(raw.answer(), 0u);
    });
}

TEST_F(TrustTest, aSecondConnectionIsRefused)
{
    withPeer([&](RawPeer& raw) {
        ASSERT_TRUE(raw.connect(m_mine));
        raw.packet(hello, rawNumber, endpointOf(m_mine), version);
        ASSERT_EQ(raw.answer(), welcome);
        RawPeer second(m_folder);
        ASSERT_TRUE(second.connect(m_mine));
        second.packet(hello, rawNumber, endpointOf(m_mine), version);
        EXPECT_EQ(second.answer(), 0u);
        raw.packet(hello, rawNumber, endpointOf(m_mine), version); // nor a second hello
        EXPECT_EQ(raw.answer(), 0u);
    });
}

TEST_F(TrustTest, aForgedSenderClosesTheConnection)
{
    for (const std::uint32_t sender :
         {0u, m_mine, 0x12340001u, MNET_MBOX_NONE, MNET_MY_MBOX, MNET_FROM_ANY}) {
        expectClosed([&](RawPeer& raw) { raw.packet(data, sender, m_mine, 8, 8); });
    }
}

TEST_F(TrustTest, packetsForOthersCloseTheConnection)
{
    for (const std::uint32_t receiver : {0u, 0x12340001u, MNET_MBOX_NONE, rawNumber}) {
        expectClosed([&](RawPeer& raw) { raw.packet(data, rawNumber, receiver, 8, 8); });
    }
}

TEST_F(TrustTest, lyingLengthsCloseTheConnection)
{
    struct Lie {
        std::uint32_t kind;
        std::uint32_t value;
        std::size_t bytes;
    };
    for (const Lie lie : {Lie{data, 0, 0},
                          Lie{data, 3, 3},
                          Lie{data, 8, 7},
                          Lie{data, 8, 9},
                          Lie{data, 8, 0},
                          Lie{data, chunk + 1, chunk},
                          Lie{data, 0xFFFFFFFF, 8},
                          Lie{data, chunk + 100, chunk + 100},
                          Lie{dataFirst, 8, 8},
                          Lie{dataFirst, chunk, chunk},
                          Lie{dataFirst, chunk + 1, chunk - 1},
                          Lie{dataFirst, (16u << 20) + 1, chunk},
                          Lie{dataFirst, 0xFFFFFFFF, chunk},
                          Lie{dataMore, 0, 8},
                          Lie{dataMore, chunk, 8},
                          Lie{monitor, 1, 1},
                          Lie{unmonitor, 1, 100},
                          Lie{notice, 1, 4},
                          Lie{welcome, 0, 0},
                          Lie{0, 0, 0},
                          Lie{9, 0, 0},
                          Lie{0x10003, 8, 8},
                          Lie{0xFFFFFFFF, 8, 8}}) {
        expectClosed([&](RawPeer& raw) { raw.packet(lie.kind, rawNumber, m_mine, lie.value, lie.bytes); });
    }
    for (std::size_t size = 1; size < 16; ++size) {
        expectClosed([&](RawPeer& raw) { raw.raw(std::vector<unsigned char>(size, 3)); });
    }
}

TEST_F(TrustTest, piecesThatDoNotFitCloseTheConnection)
{
    const std::function<void(RawPeer&)> wrong[] = {
        [&](RawPeer& raw) { raw.packet(data, rawNumber, m_mine, 8, 8); },
        [&](RawPeer& raw) { raw.packet(dataMore, rawNumber, m_mine, 0, 100); },
        [&](RawPeer& raw) { raw.packet(dataMore, rawNumber, m_mine, chunk, 99); },
        [&](RawPeer& raw) { raw.packet(dataMore, rawNumber, m_mine, chunk, 101); },
        [&](RawPeer& raw) { raw.packet(dataMore, rawNumber, m_mine + 1, chunk, 100); },
        [&](RawPeer& raw) { raw.packet(dataMore, rawNumber + 1, m_mine, chunk, 100); },
        [&](RawPeer& raw) { raw.packet(monitor, rawNumber, m_mine, 1); },
        [&](RawPeer& raw) { shutdown(raw.fd(), SHUT_WR); }, // dies in the middle
    };
    for (const auto& next : wrong) {
        expectClosed([&](RawPeer& raw) {
            raw.packet(dataFirst, rawNumber, m_mine, chunk + 100, chunk);
            next(raw);
        });
    }
}

TEST_F(TrustTest, messagesForMailboxesThatAreNotThereAreDropped)
{
    withPeer([&](RawPeer& raw) {
        ASSERT_TRUE(raw.connect(m_mine));
        raw.packet(hello, rawNumber, endpointOf(m_mine), version);
        raw.packet(data, rawNumber, m_mine + 1, 8, 8);
        EXPECT_EQ(raw.answer(), welcome);
    });
}

TEST_F(TrustTest, nobodyForgesANotice)
{
    Gate end;
    Gate there;
    Child victim([&] {
        start("victim");
        there.open();
        EXPECT_TRUE(serveUntil([&] { return end.pass(0); }));
    });
    ASSERT_TRUE(there.pass());
    const mnet_mbox_id_t target = find("victim");
    const mnet_monitor_id_t id = mnet_monitor(target, nullptr);
    ASSERT_NE(id, MNET_MBOX_NONE);
    withPeer([&](RawPeer& raw) {
        ASSERT_TRUE(raw.connect(m_mine));
        raw.packet(hello, rawNumber, endpointOf(m_mine), version);
        ASSERT_EQ(raw.answer(), welcome);
        raw.packet(notice, rawNumber, m_mine, id);
        raw.packet(unmonitor, rawNumber, m_mine, id);
        raw.packet(notice, rawNumber, m_mine, id + 1);
        raw.packet(notice, target, m_mine, id); // not its own mailbox
        EXPECT_EQ(raw.answer(), 0u);
    });
    end.open();
    victim.finish();
    const Message told = receive();
    EXPECT_TRUE(told.isNotice());
    EXPECT_EQ(told.sender(), target);
}

TEST_F(TrustTest, aMessageUnderANoticesNumberIsNone)
{
    Child peer([] {
        start();
        EXPECT_EQ(send(find("mine"), MNET_MONITOR_DEFAULT_MSGNO), 0);
    });
    const Message msg = receive();
    EXPECT_EQ(msg.number(), MNET_MONITOR_DEFAULT_MSGNO);
    EXPECT_FALSE(msg.isNotice());
    peer.finish();
}

TEST_F(TrustTest, aSocketInAnothersPlaceGetsNoMessage)
{
    Gate there;
    Gate end;
    Child victim([&] {
        start("victim");
        there.open();
        EXPECT_TRUE(end.pass());
    });
    ASSERT_TRUE(there.pass());
    const mnet_mbox_id_t target = find("victim");
    Gate bound;
    Child thief([&] {
        const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        const int dir = open((m_folder + "/mnet/ep").c_str(), O_PATH | O_CLOEXEC);
        const std::string name = std::to_string(target >> 16);
        ASSERT_EQ(unlinkat(dir, name.c_str(), 0), 0);
        ASSERT_EQ(merlow::base::bindAt(listener, dir, name), 0);
        ASSERT_EQ(listen(listener, 10), 0);
        bound.open();
        const int socket = accept(listener, nullptr, nullptr);
        char buffer[64];
        EXPECT_EQ(recv(socket, buffer, sizeof(buffer), 0), 0);
    });
    ASSERT_TRUE(bound.pass());
    EXPECT_EQ(send(target, 1), -1);
    EXPECT_EQ(errno, EACCES);
    thief.finish();
    end.open();
    victim.finish();
}

TEST_F(TrustTest, whatOneUserHoldsOpenIsBounded)
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t before = limit.rlim_cur;
    limit.rlim_cur = 64;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    withPeer([&](RawPeer&) {
        limit.rlim_cur = before; // of the peer's process alone
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        std::vector<std::unique_ptr<RawPeer>> many;
        for (int i = 0; i < 40; ++i) {
            many.push_back(std::make_unique<RawPeer>(m_folder));
            ASSERT_TRUE(many.back()->connect(m_mine));
        }
        EXPECT_EQ(many.back()->answer(), 0u);
    });
    limit.rlim_cur = before;
    setrlimit(RLIMIT_NOFILE, &limit);
    Child honest([] {
        start();
        EXPECT_EQ(send(find("mine"), 7), 0);
        receive(100);
    });
    EXPECT_EQ(receive().number(), 7u);
    honest.finish();
}

TEST_F(TrustTest, whoIsTurnedAwayAgainAndAgainWaitsLongerEachTime)
{
    withPeer([&](RawPeer& raw) {
        const auto begin = std::chrono::steady_clock::now();
        constexpr int times = 8;
        for (int i = 0; i < times; ++i) {
            ASSERT_TRUE(raw.connect(m_mine));
            raw.packet(data, rawNumber, m_mine, 8, 8);
            ASSERT_EQ(raw.answer(), 0u);
        }
        EXPECT_GE(std::chrono::steady_clock::now() - begin,
                  std::chrono::milliseconds(1 + 2 + 4 + 8 + 16 + 32));
    });
    Child honest([] { // comes in nevertheless
        start();
        EXPECT_EQ(send(find("mine"), 7), 0);
        receive(100);
    });
    EXPECT_EQ(receive().number(), 7u);
    honest.finish();
}

TEST_F(TrustTest, otherUsersStayOutsideUnlessTheGroupLetsThemIn)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs the right to become another user";
    }
    mnet_exit();
    constexpr uid_t nobody = 65534;
    constexpr gid_t group = 4711;
    std::filesystem::permissions(m_folder, std::filesystem::perms::all);
    const std::string unit = m_folder + "/unit";
    setenv("MERLOW_RUN_DIR", unit.c_str(), 1);
    const auto asNobody = [&](const std::function<void()>& body) {
        return std::make_unique<Child>([&, body] {
            const gid_t groups[] = {group}; // a supplementary group counts
            ASSERT_EQ(setgroups(1, groups), 0);
            ASSERT_EQ(setgid(nobody), 0);
            ASSERT_EQ(setuid(nobody), 0);
            body();
        });
    };
    start("mine");
    asNobody([] { EXPECT_EQ(mnet_init(5, 0, nullptr, 0), -1); })->finish();
    mnet_exit();
    std::filesystem::remove_all(unit);

    setenv("MERLOW_GROUP", std::to_string(group).c_str(), 1);
    m_mine = start("mine");
    const auto member = asNobody([] {
        start("member");
        EXPECT_EQ(send(find("mine"), 1), 0);
        const Message back = receive();
        EXPECT_EQ(back.number(), 2u);
        EXPECT_EQ(receive().number(), 3u);
    });
    const Message first = receive();
    EXPECT_EQ(first.number(), 1u);
    EXPECT_EQ(send(first.sender(), 2), 0); // its live file is read, not mapped
    ASSERT_NE(mnet_monitor(first.sender(), nullptr), MNET_MBOX_NONE);
    EXPECT_EQ(send(first.sender(), 3, 300000), 0);
    EXPECT_TRUE(receive().isNotice());
    member->finish();
    EXPECT_EQ(send(first.sender(), 4), -1);
    EXPECT_EQ(errno, ENOENT);
    unsetenv("MERLOW_GROUP");
}

} // namespace
} // namespace mnet::test
