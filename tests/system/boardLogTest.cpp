// The hardware log and restarts through the whole unit.

#include "client.h"
#include "unit.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sstream>
#include <sys/resource.h>

namespace merlow::test {
namespace {

class BoardLogTest : public testing::Test {
protected:
    explicit BoardLogTest(unsigned noticeMs = 500)
    {
        const std::string board = m_unit.runDir() + "/board.json";
        std::ofstream(board) << R"({"capabilities": [3, 24, 26, 28, 35, 36], "restart": {"ranks": [4], )"
                             << R"("noticeMs": )" << noticeMs << "}}";
        m_unit.setVariable("MERLOW_BOARD_FILE", board);
        m_unit.setVariable("MERLOW_STATE_DIR", m_stateDir);
        m_unit.start();
    }

    std::string restartOrder() const
    {
        std::ostringstream text;
        text << std::ifstream(m_stateDir + "/restartOrder.json").rdbuf();
        return text.str();
    }

    /// Once the server has found brhd again.
    Outcome hwlog(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), "hwlog");
        arguments.insert(arguments.end(), {"--timeout", "1"});
        Outcome outcome;
        EXPECT_TRUE(waitUntil([&] {
            outcome = m_unit.bcictl(arguments);
            return outcome.status < 2;
        })) << outcome.err;
        return outcome;
    }

    /// The client is told so, and brhd says why and goes on.
    void expectReject(const std::vector<std::string>& arguments, const std::string& why)
    {
        const auto outcome = hwlog(arguments);
        EXPECT_EQ(outcome.status, 1) << outcome.out;
        EXPECT_EQ(outcome.err.find("bcictl: hwlog: rejected, errorCode "), 0u) << outcome.err;
        const auto status = m_unit.status("brhd");
        ASSERT_TRUE(status.is_object());
        EXPECT_NE(status["bri"]["hardwareLog"]["error"].get<std::string>().find(why), std::string::npos)
            << status["bri"]["hardwareLog"];
    }

    std::string database() const { return m_stateDir + "/hardwareLog.db"; }

    TempDir m_state;
    const std::string m_stateDir = m_state.path() + "/kept";
    Unit m_unit;
};

TEST_F(BoardLogTest, aConfirmedEntrySurvivesTheDeathOfBrhd)
{
    const auto set = m_unit.bcictl({"hwlog", "set", "5", "--label", "lab", "one", "two words"});
    ASSERT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(set.out, "2 entries written to log 5\n");
    m_unit.brhd().kill();
    m_unit.startBrhd();
    Outcome get;
    EXPECT_TRUE(waitUntil([&] {
        get = m_unit.bcictl({"hwlog", "get", "5", "--timeout", "1"});
        return get.status == 0;
    })) << get.err;
    EXPECT_EQ(get.out, "log 5 has 2 entries\n  one\n  two words\n");
}

TEST_F(BoardLogTest, theNodeConfigurationIsALogLikeAnyOther)
{
    const auto set = m_unit.bcictl({"hwlog", "set", "2", "--label", "node", "a"});
    ASSERT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(m_unit.bcictl({"hwlog", "get", "2"}).out, "log 2 has 1 entry\n  a\n");
    EXPECT_EQ(m_unit.bcictl({"hwlog", "get", "3"}).out, "log 3 has no entries\n");
    const auto status = m_unit.status("brhd")["bri"];
    EXPECT_EQ(status["confirmed"]["bri::StoreNodeConfigEntryReq"], 1);
    EXPECT_EQ(status["hardwareLog"]["place"], m_stateDir + "/hardwareLog.db");
}

TEST_F(BoardLogTest, whatTheBoardDoesNotHaveIsRejected)
{
    auto outcome = m_unit.bcictl({"hwlog", "get", "1000"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "bcictl: hwlog: rejected, errorCode 2: logId out of range\n");
    outcome = m_unit.bcictl({"hwlog", "set", "1000", "--label", "l", "one"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "bcictl: hwlog: rejected, errorCode 2: logId out of range,logId:1000\n");
    outcome = m_unit.bcictl({"link-supervision"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err,
              "bcictl: link-supervision: rejected, errorCode 1: Capability prerequisite not fulfilled\n");
}

TEST_F(BoardLogTest, aDatabaseThatIsNoneIsSetAsideAndTheUnitWorks)
{
    m_unit.brhd().kill();
    for (const char* end : {"", "-wal", "-shm"}) {
        std::filesystem::remove(m_stateDir + "/hardwareLog.db" + end);
    }
    std::ofstream(m_stateDir + "/hardwareLog.db") << std::string(5000, 'x');
    m_unit.startBrhd();
    EXPECT_TRUE(waitUntil([&] {
        return m_unit.bcictl({"hwlog", "set", "5", "--label", "l", "one", "--timeout", "1"}).status == 0;
    }));
    EXPECT_TRUE(std::filesystem::exists(m_stateDir + "/hardwareLog.db.damaged-1"));
    EXPECT_NE(m_unit.bcictl({"hwlog", "get", "5"}).out.find("  one\n"), std::string::npos);
}

TEST_F(BoardLogTest, theRequestThatFindsTheDatabaseDamagedIsRejectedAndTheNextOneIsServed)
{
    ASSERT_EQ(hwlog({"set", "5", "--label", "l", "one"}).status, 0);
    std::filesystem::remove(database() + "-wal");
    std::filesystem::remove(database());
    std::ofstream(database()) << std::string(5000, 'x');
    expectReject({"get", "5"}, "it is kept as " + database() + ".damaged-1");
    EXPECT_EQ(std::filesystem::file_size(database() + ".damaged-1"), 5000u);
    EXPECT_EQ(hwlog({"set", "5", "--label", "l", "two"}).status, 0);
    EXPECT_EQ(hwlog({"get", "5"}).out, "log 5 has 1 entry\n  two\n");
}

TEST_F(BoardLogTest, whileAnotherProgramHasTheDatabaseLockedClientsAreRejected)
{
    ASSERT_EQ(hwlog({"set", "5", "--label", "l", "one"}).status, 0);
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(database().c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    expectReject({"set", "5", "--label", "l", "two"}, "database is locked");
    EXPECT_EQ(hwlog({"get", "5"}).out, "log 5 has 1 entry\n  one\n");
    sqlite3_close(other);
    EXPECT_EQ(hwlog({"set", "5", "--label", "l", "three"}).status, 0);
    EXPECT_EQ(hwlog({"get", "5"}).out, "log 5 has 2 entries\n  one\n  three\n");
}

TEST_F(BoardLogTest, onAFullDiskClientsAreRejectedAndNothingIsLost)
{
    ASSERT_EQ(hwlog({"set", "5", "--label", "l", "one"}).status, 0);
    rlimit before{};
    const rlimit full{std::filesystem::file_size(database() + "-wal"), RLIM_INFINITY};
    ASSERT_EQ(prlimit(m_unit.brhd().pid(), RLIMIT_FSIZE, &full, &before), 0);
    expectReject({"set", "5", "--label", "l", "two"}, "disk");
    ASSERT_EQ(prlimit(m_unit.brhd().pid(), RLIMIT_FSIZE, &before, nullptr), 0);
    EXPECT_EQ(hwlog({"set", "5", "--label", "l", "three"}).status, 0);
    EXPECT_EQ(hwlog({"get", "5"}).out, "log 5 has 2 entries\n  one\n  three\n");
}

TEST_F(BoardLogTest, whatWasConfirmedWhenBrhdIsKilledAmidWritesIsThere)
{
    const Mailboxes mailboxes(m_unit.runDir());
    const mnet_mbox_id_t server = locate("Merlow");
    ASSERT_NE(server, MNET_MBOX_NONE);
    Client writer(mnet_create_mailbox("writer", 0));
    ASSERT_EQ(writer.connect(server, 1, 400), 400);
    const std::string references = "0000000100000190";
    const auto number = [](unsigned value) {
        char text[9];
        (void)std::snprintf(text, sizeof text, "%08x", value);
        return std::string(text);
    };
    // Each write to a log of its own, so that no budget drops what is confirmed: label "l", one entry "x".
    const std::string label = "6c" + std::string(30, '0');
    const std::string entry = "78" + std::string(std::size_t{2} * 423, '0');
    const auto setReq = [&](unsigned log) {
        return references + label + number(log) + "00000001" + entry;
    };
    const std::string getCfm = references + "00000001" + entry;
    for (unsigned log = 10; log < 60; ++log) {
        ASSERT_EQ(writer.send(server, 0x165920A, setReq(log)), 0);
    }
    unsigned confirmed = 0;
    for (; confirmed < 10; ++confirmed) {
        ASSERT_EQ(writer.receive(0x165920B), references); // in their order
    }
    m_unit.brhd().kill();
    ASSERT_EQ(writer.send(server, 0x1658400, references), 0);
    ASSERT_TRUE(writer.receive(0x1658401));
    while (writer.receive(0x165920B, milliseconds(0))) {
        ++confirmed; // was on its way
    }
    m_unit.startBrhd();
    EXPECT_EQ(hwlog({"get", "10"}).out, "log 10 has 1 entry\n  x\n");
    for (unsigned log = 10; log < 10 + confirmed; ++log) {
        ASSERT_EQ(writer.send(server, 0x165920D, references + number(log)), 0);
        EXPECT_EQ(writer.receive(0x165920E), getCfm) << log;
    }
}

TEST_F(BoardLogTest, anAnnouncementNeedsAReason)
{
    EXPECT_EQ(m_unit.bcictl({"notify-restart", "7", "soon"}).status, 0);
    const auto outcome = m_unit.bcictl({"notify-restart", "7", ""});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "bcictl: notify-restart: rejected, errorCode 1: Reason for restart missing\n");
}

/// With two clients, of which one gives the order.
class BoardRestartSystemTest : public BoardLogTest {
protected:
    BoardRestartSystemTest()
    {
        EXPECT_NE(m_server, MNET_MBOX_NONE);
        EXPECT_EQ(m_orderer.connect(m_server, 1, 400), 400);
        EXPECT_EQ(m_other.connect(m_server, -2, 100), 100);
    }

    /// What both are told, each under its own references; who ordered has the flag 0.
    void expectNotifications(const std::string& code)
    {
        const std::string rest(std::size_t{2} * 162, '0');
        EXPECT_EQ(m_orderer.receive(0x1659B03), "0000000100000190" + code + "00000000" + rest);
        EXPECT_EQ(m_other.receive(0x1659B03), "fffffffe00000064" + code + "00000001" + rest);
        EXPECT_EQ(m_unit.brhd().wait(), 86) << m_unit.brhd().err();
    }

    Mailboxes m_mailboxes{m_unit.runDir()};
    mnet_mbox_id_t m_server = locate("Merlow");
    Client m_orderer{mnet_create_mailbox("orderer", 0)};
    Client m_other{mnet_create_mailbox("other", 0)};
};

TEST_F(BoardRestartSystemTest, everyClientIsToldAndBrhdEndsForItsSupervisor)
{
    ASSERT_EQ(m_orderer.send(m_server, 0x1658003, "00000001 00000190 77687900"), 0); // "why"
    expectNotifications("0191");
    EXPECT_NE(restartOrder().find(R"({"code":401,"initiator":"why","label":"",)"), std::string::npos)
        << restartOrder();
}

TEST_F(BoardRestartSystemTest, anOrderWithRankAndLabelCarriesItsOwnCode)
{
    const std::string info = "776879" + std::string(std::size_t{2} * 137, '0');
    ASSERT_EQ(m_orderer.send(m_server, 0x1659B04, "00000001 00000190 fff0 0004" + info + "6c616200"), 0);
    expectNotifications("fff0");
    EXPECT_NE(restartOrder().find(R"({"code":-16,"initiator":"why","label":"lab",)"), std::string::npos)
        << restartOrder();
}

TEST_F(BoardRestartSystemTest, aBrhdThatIsKilledInTheNoticeTimeLeavesItsOrderToTheNextOne)
{
    m_unit.legacyd().signal(SIGSTOP); // so that the notice time does not end
    ASSERT_EQ(m_orderer.send(m_server, 0x1658003, "00000001 00000190 77687900"), 0);
    ASSERT_TRUE(waitUntil([this] { return !restartOrder().empty(); }));
    m_unit.brhd().kill();
    m_unit.legacyd().signal(SIGCONT);
    m_unit.startBrhd();
    EXPECT_EQ(m_unit.brhd().wait(), 86) << m_unit.brhd().err();
    EXPECT_TRUE(m_other.receive(0x1659B03));
    m_unit.startBrhd();
    EXPECT_TRUE(waitUntil([this] { return m_unit.status("brhd").is_object(); }));
    EXPECT_EQ(m_unit.status("brhd")["bri"]["restartOrder"], nullptr) << "once is enough";
}

TEST_F(BoardRestartSystemTest, aRankThatTheBoardLacksRestartsNothing)
{
    const std::string info(std::size_t{2} * 140, '0');
    ASSERT_EQ(m_orderer.send(m_server, 0x1659B04, "00000001 00000190 0001 0005" + info + "00"), 0);
    ASSERT_EQ(m_orderer.send(m_server, 0x1658400, "00000001 00000190"), 0);
    EXPECT_TRUE(m_orderer.receive(0x1658401)); // comes behind it
    EXPECT_EQ(restartOrder(), "");
    EXPECT_TRUE(m_unit.brhd().running());
}

/// A board that gives its clients no time.
class NoNoticeTest : public BoardLogTest {
protected:
    NoNoticeTest() : BoardLogTest(0) {}
};

TEST_F(NoNoticeTest, theClientsAreToldAllTheSame)
{
    const Mailboxes mailboxes(m_unit.runDir());
    const mnet_mbox_id_t server = locate("Merlow");
    Client orderer(mnet_create_mailbox("orderer", 0));
    ASSERT_EQ(orderer.connect(server, 1, 400), 400);
    m_unit.legacyd().signal(SIGSTOP);
    ASSERT_EQ(orderer.send(server, 0x1658003, "00000001 00000190 77687900"), 0);
    ASSERT_TRUE(waitUntil([this] { return !restartOrder().empty(); }));
    EXPECT_EQ(m_unit.status("brhd")["bri"]["restartOrder"]["code"], 401) << "it waits for legacyd";
    m_unit.legacyd().signal(SIGCONT);
    EXPECT_TRUE(orderer.receive(0x1659B03));
    EXPECT_EQ(m_unit.brhd().wait(), 86);
}

/// The unit as people run it, with its supervisor.
class SupervisedRestartTest : public testing::Test {
protected:
    SupervisedRestartTest()
    {
        EXPECT_TRUE(waitUntil([this] { return m_unit.out().find("The unit is up") != std::string::npos; }))
            << m_unit.err();
    }

    Outcome bcictl(const std::vector<std::string>& arguments) const
    {
        return runProgram("bcictl", arguments, m_environment);
    }

    TempDir m_dir;
    Process::Environment m_environment{{"MERLOW_RUN_DIR", m_dir.path() + "/run"}};
    Process m_unit{"unit", {}, m_environment};
};

TEST_F(SupervisedRestartTest, anOrderRestartsTheWholeUnit)
{
    ASSERT_EQ(bcictl({"hwlog", "set", "5", "--label", "lab", "one"}).status, 0);
    const Mailboxes mailboxes(m_dir.path() + "/run");
    const mnet_mbox_id_t before = locate("Merlow");
    ASSERT_NE(before, MNET_MBOX_NONE);
    Client other(mnet_create_mailbox("other", 0));
    ASSERT_EQ(other.connect(before, 9, 400), 400);

    const auto restart = bcictl({"restart", "--info", "why", "--wait", "--timeout", "20"});
    EXPECT_EQ(restart.status, 0) << restart.err << m_unit.err();
    EXPECT_EQ(restart.out,
              "the board restarts, code 401, ordered by this client, clientRef 1, serverRef 301\n"
              "the unit went down\n"
              "the unit is back\n");
    EXPECT_EQ(other.receive(0x1659B03), "0000000900000190"
                                        "019100000001" +
                                            std::string(std::size_t{2} * 162, '0'));
    EXPECT_NE(locate("Merlow"), before);
    EXPECT_NE(m_unit.err().find("unit: brhd has the board restarted; starting every part again\n"),
              std::string::npos)
        << m_unit.err();
    EXPECT_EQ(bcictl({"hwlog", "get", "5", "--timeout", "20"}).out, "log 5 has 1 entry\n  one\n");
    m_unit.signal(SIGTERM);
    EXPECT_EQ(m_unit.wait(), 0) << m_unit.err();
}

TEST_F(SupervisedRestartTest, whatIsLoadedAndSelectedRunsAfterTheRestart)
{
    std::ofstream(m_dir.path() + "/module") << std::string(100000, 'm');
    EXPECT_EQ(bcictl({"running"}).out, "running QXR7041162%15_R91KT\n");
    const auto load = bcictl({"load", m_dir.path() + "/module", "--software", "QXR7041162/7_R1A01"});
    ASSERT_EQ(load.status, 0) << load.err;
    const auto select = bcictl({"select", "QXR7041162/7_R1A01"});
    ASSERT_EQ(select.status, 0) << select.err;
    EXPECT_EQ(bcictl({"running"}).out, "running QXR7041162%15_R91KT\n") << "not yet";
    const auto restart = bcictl({"restart", "--wait", "--timeout", "20"});
    ASSERT_EQ(restart.status, 0) << restart.err << m_unit.err();
    EXPECT_EQ(bcictl({"running", "--timeout", "20"}).out, "running QXR7041162%7_R1A01\n");
}

} // namespace
} // namespace merlow::test
