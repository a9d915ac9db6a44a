// A whole unit beside processes that mean harm: each is thrown out, kept out, or served in its turn; an
// honest client is served at the same time; and when they are gone, nothing of theirs is left.

#include "mnetFixture.h"
#include "rawPeer.h"
#include "runningUnit.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/un.h>

namespace merlow::test {
namespace {

namespace fs = std::filesystem;
using mnet::test::Child;
using mnet::test::Gate;
using mnet::test::rawNumber;
using mnet::test::RawPeer;

std::size_t entriesIn(const std::string& folder)
{
    std::error_code gone;
    const fs::directory_iterator entries(folder, gone);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

/// What a unit holds for its clients.
struct Holdings {
    std::size_t server;
    std::size_t store;
    std::size_t names;

    bool operator==(const Holdings&) const = default;
};

class BadCompanyTest : public ConnectedClientTest {
protected:
    void SetUp() override
    {
        m_unit.setVariable("MNET_QUEUE_LIMIT", "65536"); // sooner full
        ConnectedClientTest::SetUp();
        ASSERT_FALSE(HasFatalFailure());
        // What the start left, such as the connection of whoever asked whether the unit is there, goes first:
        // each answer is a turn for everything else that waits.
        constexpr int turns = 10;
        for (int i = 0; i < turns; ++i) {
            EXPECT_TRUE(isServed());
        }
        m_before = holdings();
    }
    /// One audit, one answer.
    [[nodiscard]] bool isServed()
    {
        return m_client->send(m_server, 0x1658400, "00000001 0000012c") == 0 &&
               m_client->receive(0x1658401).value_or("").substr(0, 16) == "000000010000012c" &&
               !m_client->receive(0x1658401, milliseconds(0));
    }
    [[nodiscard]] Holdings holdings()
    {
        const auto descriptorsOf = [](const Process& process) {
            return entriesIn("/proc/" + std::to_string(process.pid()) + "/fd");
        };
        return {descriptorsOf(m_unit.merlowd()), descriptorsOf(m_unit.swmd()),
                entriesIn(m_unit.runDir() + "/mnet/names")};
    }
    /// The processes that meant harm are gone.
    void expectNothingLeft()
    {
        EXPECT_TRUE(isServed());
        EXPECT_TRUE(waitUntil([this] { return holdings() == m_before; }))
            << holdings().server << " descriptors of the server where there were " << m_before.server << ", "
            << holdings().store << " of swmd where there were " << m_before.store << ", " << holdings().names
            << " names where there were " << m_before.names;
        EXPECT_TRUE(m_unit.letsClientsIn());
    }
    /// A process that plays by hand, holding an endpoint as an honest one does, and then keeps still.
    class Peer {
    public:
        Peer(const std::string& runDir, const std::function<void(RawPeer&)>& play)
            : m_child([&] {
                  RawPeer raw(runDir);
                  EXPECT_TRUE(raw.hold(rawNumber));
                  play(raw);
                  m_played.open();
                  EXPECT_TRUE(m_end.pass());
              })
        {
            EXPECT_TRUE(m_played.pass());
        }
        /// Its end by itself, which tells what it did not expect.
        void finish()
        {
            m_end.open();
            m_child.finish();
        }
        void kill() { m_child.kill(); }

    private:
        Gate m_played;
        Gate m_end;
        Child m_child;
    };

    Holdings m_before{};
};

TEST_F(BadCompanyTest, aForgedSenderIsThrownOutAndNotHeard)
{
    const mnet_mbox_id_t victim = m_client->mailbox();
    Peer peer(m_unit.runDir(), [&](RawPeer& raw) {
        // An audit of the client's session: it would get an answer that it did not ask for.
        std::vector<unsigned char> audit(16);
        const std::uint32_t header[] = {mnet::test::data, victim, m_server, 12};
        std::memcpy(audit.data(), header, sizeof(header));
        for (const std::uint8_t byte : bytes("00846501 00000001 0000012c")) {
            audit.push_back(byte);
        }
        ASSERT_TRUE(raw.connect(m_server));
        raw.packet(mnet::test::hello, rawNumber, mnet::test::endpointOf(m_server), mnet::test::version);
        ASSERT_EQ(raw.answer(), mnet::test::welcome);
        raw.raw(audit);
        EXPECT_EQ(raw.answer(), 0U);
        // Nor in the client's name from the first word on.
        ASSERT_TRUE(raw.connect(m_server));
        raw.packet(mnet::test::hello, mnet::test::endpointOf(victim), mnet::test::endpointOf(m_server),
                   mnet::test::version);
        raw.raw(audit);
        EXPECT_EQ(raw.answer(), 0U);
    });
    EXPECT_TRUE(isServed()) << "and answered once";
    peer.finish();
    expectNothingLeft();
}

TEST_F(BadCompanyTest, halfAMessageKeepsNobodyWaiting)
{
    Peer peer(m_unit.runDir(), [&](RawPeer& raw) {
        ASSERT_TRUE(raw.connect(m_server));
        raw.packet(mnet::test::hello, rawNumber, mnet::test::endpointOf(m_server), mnet::test::version);
        raw.packet(mnet::test::dataFirst, rawNumber | 1, m_server, mnet::test::chunk + 100,
                   mnet::test::chunk);
        EXPECT_EQ(raw.answer(), mnet::test::welcome);
    });
    EXPECT_TRUE(isServed());
    EXPECT_TRUE(m_unit.letsClientsIn());
    peer.kill();
    expectNothingLeft();
}

TEST_F(BadCompanyTest, halfAHeaderEndsTheConnection)
{
    Peer peer(m_unit.runDir(), [&](RawPeer& raw) {
        ASSERT_TRUE(raw.connect(m_server));
        raw.raw({1, 0, 0, 0, 0, 0, 0x77, 0x77}); // half a hello
        EXPECT_EQ(raw.answer(), 0U);
        ASSERT_TRUE(raw.connect(m_server));
        raw.packet(mnet::test::hello, rawNumber, mnet::test::endpointOf(m_server), mnet::test::version);
        EXPECT_EQ(raw.answer(), mnet::test::welcome);
        raw.raw({3, 0, 0, 0, 1, 0, 0x77, 0x77}); // half a header of a message
        EXPECT_EQ(raw.answer(), 0U);
    });
    EXPECT_TRUE(isServed());
    peer.finish();
    expectNothingLeft();
}

TEST_F(BadCompanyTest, connectionsWithoutAWordKeepNobodyOut)
{
    Peer peer(m_unit.runDir(), [&](RawPeer&) {
        constexpr int many = 50;
        for (int i = 0; i < many; ++i) {
            auto silent = std::make_unique<RawPeer>(m_unit.runDir());
            EXPECT_TRUE(silent->connect(m_server));
            static_cast<void>(silent.release()); // stays connected until the process ends
        }
    });
    EXPECT_TRUE(isServed());
    EXPECT_TRUE(m_unit.letsClientsIn());
    peer.kill();
    expectNothingLeft();
}

constexpr std::uint32_t connectReq = 0x1658000;
constexpr std::uint32_t connectCfm = 0x1658001;
constexpr std::uint32_t auditReq = 0x1658400;
constexpr std::uint32_t auditCfm = 0x1658401;

/// In a process of its own: a mailbox with a session.
struct Session {
    Session()
    {
        EXPECT_EQ(mnet_init(5, 0, nullptr, 0), 0);
        mailbox.emplace(mnet_create_mailbox(nullptr, 0));
        server = locate("Merlow");
        EXPECT_TRUE(mailbox->connect(server, 2, 300));
    }
    [[nodiscard]] int audit() const { return mailbox->send(server, auditReq, "00000002 0000012c"); }

    std::optional<Client> mailbox;
    mnet_mbox_id_t server = MNET_MBOX_NONE;
};

TEST_F(BadCompanyTest, whoNeverReadsFillsItsOwnQueueOnly)
{
    Gate asked;
    Gate end;
    Child deaf([&] {
        const Session session;
        constexpr int more = 3000; // than the kernel and the server keep for one
        for (int i = 0; i < more; ++i) {
            EXPECT_EQ(session.audit(), 0);
        }
        asked.open();
        EXPECT_TRUE(end.pass());
    });
    ASSERT_TRUE(asked.pass());
    EXPECT_TRUE(isServed());
    EXPECT_TRUE(m_unit.letsClientsIn());
    deaf.kill();
    expectNothingLeft();
}

TEST_F(BadCompanyTest, aFloodLosesNothingAndStopsNobody)
{
    constexpr int requests = 3000;
    constexpr int underWay = 300;
    Gate begun;
    Child flooder([&] {
        const Session session;
        int sent = 0;
        for (int answers = 0; answers < requests; ++answers) {
            for (; sent < requests && sent < answers + underWay; ++sent) {
                EXPECT_EQ(session.audit(), 0);
            }
            const std::uint32_t filter[] = {1, auditCfm};
            mnet_msg* answer = mnet_receive(filter, static_cast<int>(patience.count()), MNET_FROM_ANY);
            ASSERT_NE(answer, nullptr) << answers;
            mnet_free(&answer);
            if (answers == 0) {
                begun.open();
            }
        }
        EXPECT_EQ(mnet_receive(nullptr, 0, MNET_FROM_ANY), nullptr);
    });
    ASSERT_TRUE(begun.pass());
    int served = 0;
    do {
        EXPECT_TRUE(isServed());
        ++served;
    } while (!flooder.hasEnded() && served < requests);
    EXPECT_GT(served, 1);
    flooder.finish();
    expectNothingLeft();
}

constexpr uid_t otherUser = 65534;

/// The calling process belongs to somebody else from here on. `passesFolders`: the kernel keeps no file from
/// it, so that only the unit's own checks are left.
bool becomeOtherUser(bool passesFolders)
{
    prctl(PR_SET_KEEPCAPS, passesFolders ? 1 : 0);
    if (setgroups(0, nullptr) != 0 || setresgid(otherUser, otherUser, otherUser) != 0 ||
        setresuid(otherUser, otherUser, otherUser) != 0) {
        return false;
    }
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    data[0].permitted = data[0].effective = passesFolders ? 1U << CAP_DAC_OVERRIDE : 0;
    return syscall(SYS_capset, &header, data) == 0;
}

/// A connection to the socket file `path`; its number, or -1.
int connectTo(const std::string& path)
{
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ? fd : -1;
}

/// Whether the other end closes the connection.
bool ends(int fd)
{
    pollfd ready{fd, POLLIN, 0};
    char byte = 0;
    return poll(&ready, 1, static_cast<int>(patience.count())) == 1 && recv(fd, &byte, 1, 0) <= 0;
}

/// Every socket of a unit.
std::vector<std::string> socketsBelow(const std::string& folder)
{
    std::vector<std::string> sockets;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (entry.is_socket()) {
            sockets.push_back(entry.path());
        }
    }
    return sockets;
}

class OtherUserTest : public BadCompanyTest {
protected:
    void SetUp() override
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs the right to become another user";
        }
        BadCompanyTest::SetUp();
        m_sockets = socketsBelow(m_unit.runDir());
    }
    std::vector<std::string> m_sockets;
};

TEST_F(OtherUserTest, findsNoDoor)
{
    Child stranger([&] {
        ASSERT_TRUE(becomeOtherUser(false));
        for (const std::string& path : m_sockets) {
            EXPECT_EQ(connectTo(path), -1) << path;
            EXPECT_EQ(errno, EACCES) << path;
        }
        EXPECT_EQ(open((m_unit.runDir() + "/mnet/endpoints").c_str(), O_RDONLY | O_CLOEXEC), -1);
        EXPECT_EQ(mnet_init(5, 0, nullptr, 0), -1);
    });
    EXPECT_TRUE(isServed());
    stranger.finish();
    EXPECT_GE(m_sockets.size(), 5U) << "of the server, three neighbours and this client, and swmd's";
    expectNothingLeft();
}

TEST_F(OtherUserTest, isTurnedAwayWhereTheFoldersAreOpenToIt)
{
    // Those of the unit, not this process's own: nobody serves that while it waits.
    const std::string own = std::to_string(m_client->mailbox() >> 16U);
    Gate said;
    Child stranger([&] {
        ASSERT_TRUE(becomeOtherUser(true));
        std::vector<int> connections;
        for (const std::string& path : m_sockets) {
            if (fs::path(path).filename() != own) {
                connections.push_back(connectTo(path));
                EXPECT_GE(connections.back(), 0) << path;
            }
        }
        said.open();
        for (const int connection : connections) {
            EXPECT_TRUE(ends(connection));
        }
    });
    ASSERT_TRUE(said.pass());
    EXPECT_TRUE(isServed());
    stranger.finish();
    expectNothingLeft();
}

TEST_F(BadCompanyTest, halfAFrameKeepsNobodyFromTheStore)
{
    const auto sockets = socketsBelow(m_unit.runDir() + "/sway");
    ASSERT_EQ(sockets.size(), 1U);
    Peer peer(m_unit.runDir(), [&](RawPeer&) {
        ASSERT_GE(connectTo(sockets.front()), 0); // without a word
        const int half = connectTo(sockets.front());
        // An announcement of 200,000 bytes, of which 4 follow.
        std::vector<std::uint8_t> frame = bytes("f5 737761792d696e2d7061727473 f5a1");
        const std::uint32_t length = 200000;
        frame.resize(frame.size() + sizeof(length));
        std::memcpy(frame.data() + frame.size() - sizeof(length), &length, sizeof(length));
        EXPECT_EQ(::send(half, frame.data(), frame.size(), MSG_NOSIGNAL), static_cast<ssize_t>(frame.size()));
        EXPECT_EQ(::send(half, "half", 4, MSG_NOSIGNAL), 4);
    });
    const std::string file = m_unit.runDir() + "/file";
    std::ofstream(file) << "a module";
    const auto outcome = m_unit.bcictl({"load", file, "--software", "QXR1_R1A"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    peer.kill();
    expectNothingLeft();
}

} // namespace
} // namespace merlow::test
