// The hardware log and restarts through the whole unit.

#include "client.h"
#include "unit.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace merlow::test {
namespace {

class BoardLogTest : public testing::Test {
protected:
    BoardLogTest()
    {
        const std::string board = m_unit.runDir() + "/board.json";
        std::ofstream(board)
            << R"({"capabilities": [3, 24, 26, 28, 35, 36], "restart": {"ranks": [4], "noticeMs": 500}})";
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

TEST_F(BoardRestartSystemTest, aRankThatTheBoardLacksRestartsNothing)
{
    const std::string info(std::size_t{2} * 140, '0');
    ASSERT_EQ(m_orderer.send(m_server, 0x1659B04, "00000001 00000190 0001 0005" + info + "00"), 0);
    ASSERT_EQ(m_orderer.send(m_server, 0x1658400, "00000001 00000190"), 0);
    EXPECT_TRUE(m_orderer.receive(0x1658401)); // comes behind it
    EXPECT_EQ(restartOrder(), "");
    EXPECT_TRUE(m_unit.brhd().running());
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

} // namespace
} // namespace merlow::test
