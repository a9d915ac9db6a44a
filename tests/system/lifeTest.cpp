// Processes of a unit that die and come back, by kill -9, in the middle of what they do.

#include "runningUnit.h"

#include <csignal>
#include <gtest/gtest.h>

namespace merlow::test {
namespace {

class LifeTest : public ConnectedClientTest {
protected:
    /// A mailbox of the test's thread that hears of the end of `mailbox`.
    static bool isLost(mnet_mbox_id_t mailbox)
    {
        mnet_msg* none = nullptr;
        mnet_monitor(mailbox, &none);
        const std::uint32_t filter[] = {1, MNET_MONITOR_DEFAULT_MSGNO};
        mnet_msg* notice = mnet_receive(filter, static_cast<int>(patience.count()), mailbox);
        const bool lost = notice != nullptr && mnet_is_notice(notice) == 1;
        mnet_free(&notice);
        return lost;
    }

    [[nodiscard]] std::size_t brhdHolds(const char* pointer) const
    {
        return m_unit.status("brhd")
            .value(nlohmann::json::json_pointer(pointer), nlohmann::json::array())
            .size();
    }
};

TEST_F(LifeTest, thePublicMailboxGoesAndComesWithTheLegacyServer)
{
    m_unit.legacyd().kill();
    ASSERT_TRUE(isLost(m_server));
    EXPECT_EQ(m_client->send(m_server, 0x1658400, "00000001 0000012c"), -1);
    EXPECT_TRUE(m_unit.merlowd().running());

    m_unit.startLegacyd();
    m_server = locate("Merlow");
    ASSERT_NE(m_server, MNET_MBOX_NONE);

    // The old session is still there: its state, and its clone on the way to the new legacy server.
    ASSERT_EQ(m_client->send(m_server, 0x1658400, "00000001 0000012c"), 0);
    EXPECT_TRUE(m_client->receive(0x1658401));
    ASSERT_EQ(m_client->send(m_server, 0x1658fff, "00000001 0000012c 42"), 0);
    EXPECT_EQ(m_client->receive(0x1658fff), "000000010000012c42");
    EXPECT_EQ(m_client->lastSender(), m_server);
}

TEST_F(LifeTest, answersThatFallIntoTheGapAreLostAndNothingElse)
{
    ASSERT_EQ(m_unit.boardctl({"delay", "bri::SetUtcTimeReq", "--ms", "300"}).status, 0);
    ASSERT_EQ(m_client->send(m_server, 0x1659500, "00000001 0000012c 00000001"), 0);
    m_unit.legacyd().kill();
    ASSERT_TRUE(isLost(m_server));
    m_unit.startLegacyd();
    m_server = locate("Merlow");
    ASSERT_NE(m_server, MNET_MBOX_NONE);
    ASSERT_EQ(m_client->send(m_server, 0x1659500, "00000001 0000012c 00000002"), 0);
    EXPECT_TRUE(m_client->receive(0x1659501));
    ASSERT_EQ(m_client->send(m_server, 0x1658403, "00000001 0000012c"), 0);
    EXPECT_TRUE(m_client->receive(0x1658404));
}

TEST_F(LifeTest, theBoardServersAreFoundAgainAndAskedForTheirCapabilitiesAgain)
{
    m_unit.brhd().kill();
    ASSERT_EQ(m_client->send(m_server, 0x1658400, "00000001 0000012c"), 0);
    EXPECT_TRUE(m_client->receive(0x1658401)) << "what needs no board goes on";

    m_unit.startBrhd();
    ASSERT_TRUE(waitUntil([this] {
        const auto status = m_unit.status("brhd");
        return status.value("/bri/received/bri::GetCapabilitiesReq"_json_pointer, 0) == 1 &&
               status.value("/bmmi/received/bmmi::GetCapabilitiesReq"_json_pointer, 0) == 1;
    })) << m_unit.status("brhd").dump(2);
    Client other(mnet_create_mailbox("du2", 0));
    EXPECT_TRUE(other.connect(m_server, 2, 300));
    ASSERT_EQ(other.send(m_server, 0x1659500, "00000002 0000012d 00000001"), 0);
    EXPECT_TRUE(other.receive(0x1659501));
}

TEST_F(LifeTest, aClientsDeathTakesItsSessionAway)
{
    ASSERT_TRUE(waitUntil([this] { return brhdHolds("/bri/timeSources") == 1; }))
        << m_unit.status("brhd").dump(2);
    EXPECT_EQ(brhdHolds("/bmmi/users"), 1u);

    Process session("bcictl", {"session"}, m_unit.environment());
    session.write("audit\n");
    ASSERT_TRUE(waitUntil([&] { return session.out().find("STARTING") != std::string::npos; }))
        << session.out() << session.err();
    EXPECT_EQ(brhdHolds("/bri/timeSources"), 2u);
    EXPECT_EQ(brhdHolds("/bmmi/users"), 2u);
    EXPECT_EQ(m_unit.status("legacyd").value("/connections"_json_pointer, nlohmann::json::array()).size(),
              2u);

    session.kill();
    EXPECT_TRUE(waitUntil([this] { return brhdHolds("/bri/timeSources") == 1; }));
    EXPECT_TRUE(waitUntil([this] { return brhdHolds("/bmmi/users") == 1; }));
    EXPECT_TRUE(waitUntil([this] {
        return m_unit.status("legacyd").value("/connections"_json_pointer, nlohmann::json::array()).size() ==
               1;
    }));
}

TEST_F(LifeTest, aClientThatDiesWhileItConnectsLeavesNothing)
{
    ASSERT_EQ(m_unit.boardctl({"delay", "bmmi::RegisterMmiUserReq", "--ms", "200"}).status, 0);
    Client passing(mnet_create_mailbox("passing", 0));
    ASSERT_EQ(passing.send(m_server, 0x1658000, "00000009 0000012c 0003 0000"), 0);
    ASSERT_TRUE(waitUntil([this] { return brhdHolds("/bri/timeSources") == 2; }));
    passing.close();
    EXPECT_TRUE(waitUntil([this] { return brhdHolds("/bri/timeSources") == 1; }));
    EXPECT_TRUE(waitUntil([this] {
        return m_unit.status("legacyd").value("/connections"_json_pointer, nlohmann::json::array()).size() ==
               1;
    }));
    Client next(mnet_create_mailbox("passing", 0));
    EXPECT_TRUE(next.connect(m_server, 9, 300));
}

TEST_F(LifeTest, aNewServerTakesOverTheNamesOfADeadOneAtOnce)
{
    const mnet_mbox_id_t privateMailbox = locate("private_Merlow");
    m_unit.merlowd().kill();
    EXPECT_TRUE(isLost(m_server));
    EXPECT_TRUE(isLost(privateMailbox));
    EXPECT_TRUE(waitUntil([this] {
        return brhdHolds("/bri/connections") == 0 && brhdHolds("/bmmi/connections") == 0 &&
               m_unit.status("legacyd").value("/connections"_json_pointer, nlohmann::json::array()).empty();
    })) << m_unit.status("brhd").dump(2);

    m_unit.startMerlowd();
    const mnet_mbox_id_t successor = locate("Merlow");
    ASSERT_NE(successor, MNET_MBOX_NONE) << m_unit.merlowd().err();
    EXPECT_NE(successor, m_server);
    Client client(mnet_create_mailbox("du3", 0));
    EXPECT_TRUE(client.connect(successor, 3, 300));
}

TEST_F(LifeTest, theHostEndsCleanlyAndItsNeighboursStay)
{
    m_unit.merlowd().signal(SIGTERM);
    EXPECT_EQ(m_unit.merlowd().wait(), 0) << m_unit.merlowd().err();
    EXPECT_TRUE(isLost(m_server));
    EXPECT_TRUE(m_unit.brhd().running());
    EXPECT_TRUE(m_unit.legacyd().running());
    m_unit.brhd().signal(SIGTERM);
    m_unit.legacyd().signal(SIGINT);
    EXPECT_EQ(m_unit.brhd().wait(), 0) << m_unit.brhd().err();
    EXPECT_EQ(m_unit.legacyd().wait(), 0) << m_unit.legacyd().err();
}

TEST_F(LifeTest, theHostSaysWhyASecondServerCannotStart)
{
    Process second("merlowd", {}, m_unit.environment());
    const int status = second.wait();
    EXPECT_NE(status, 0);
    EXPECT_LT(status, 128) << second.err();
    EXPECT_NE(second.err().find("private_Merlow"), std::string::npos) << second.err();
    EXPECT_TRUE(m_unit.letsClientsIn()) << "the first one goes on";
}

TEST(OrderTest, thePartsMayComeInAnyOrder)
{
    const char* orders[] = {"LBSM", "LSMB", "BMLS", "SBML", "MLBS", "MSBL"};
    for (const char* order : orders) {
        Unit unit;
        for (const char* part = order; *part != '\0'; ++part) {
            if (part != order) {
                EXPECT_EQ(unit.bcictl({"audit", "--timeout", "0.05"}).status, 4) << order;
            }
            switch (*part) {
            case 'L':
                unit.startLegacyd();
                break;
            case 'B':
                unit.startBrhd();
                break;
            case 'S':
                unit.startSwmd();
                break;
            default:
                unit.startMerlowd();
                break;
            }
        }
        EXPECT_TRUE(unit.waitUntilItLetsClientsIn()) << order << unit.merlowd().err();
    }
}

TEST(OrderTest, twoUnitsOnOneMachineDoNotSeeEachOther)
{
    Unit first;
    Unit second;
    first.start();
    second.startBrhd();
    second.startSwmd();
    second.startMerlowd();
    EXPECT_EQ(second.bcictl({"audit", "--timeout", "0.3"}).status, 4)
        << "the first unit's legacy server is not this one's";
    second.startLegacyd();
    ASSERT_TRUE(second.waitUntilItLetsClientsIn());
    first.legacyd().kill();
    EXPECT_TRUE(waitUntil([&] { return !first.letsClientsIn(); }));
    EXPECT_TRUE(second.letsClientsIn());
    EXPECT_EQ(second.status("legacyd").value("/pid"_json_pointer, 0), second.legacyd().pid());
}

} // namespace
} // namespace merlow::test
