// The maintenance state, the lamps and Here I Am in a whole unit of real processes.

#include "client.h"
#include "unit.h"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace merlow::test {
namespace {

using testing::HasSubstr;

class MmiUnitTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const std::string file = m_unit.runDir() + "/board.json";
        std::ofstream(file) << R"({"capabilities": [3], "bmmi": {"hereIAmMs": 700}})";
        m_unit.setVariable("MERLOW_BOARD_FILE", file);
        m_unit.start();
    }

    /// A client that stays and prints what it is told, up to `text`.
    std::unique_ptr<Process> follow(const std::string& command, const std::string& text) const
    {
        auto follower = std::make_unique<Process>("bcictl", std::vector<std::string>{command, "follow"},
                                                  m_unit.environment());
        EXPECT_TRUE(told(*follower, text)) << follower->err();
        return follower;
    }

    static testing::AssertionResult told(const Process& follower, const std::string& text)
    {
        const bool isThere = waitUntil([&] { return follower.out().find(text) != std::string::npos; });
        return (isThere ? testing::AssertionSuccess() : testing::AssertionFailure())
               << "\"" << text << "\" in:\n"
               << follower.out();
    }

    nlohmann::json bmmi() const { return m_unit.status("brhd").value("bmmi", nlohmann::json::object()); }

    [[nodiscard]] bool waitForSubscribers(const char* pointer, int count) const
    {
        return waitUntil([&] { return bmmi().value(nlohmann::json::json_pointer(pointer), -1) == count; });
    }

    void expectDone(const Outcome& outcome, const std::string& out) const
    {
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_THAT(outcome.out, HasSubstr(out));
    }

    /// The board's next answer of a kind is a refusal.
    void refuse(std::vector<std::string> words) const
    {
        words.insert(words.begin(), "refuse");
        const auto outcome = m_unit.boardctl(words);
        EXPECT_EQ(outcome.status, 0) << outcome.err;
    }

    void expectRejected(const Outcome& outcome, const std::string& err) const
    {
        EXPECT_EQ(outcome.status, 1) << outcome.out;
        EXPECT_EQ(outcome.err, err);
    }

    Unit m_unit;
};

TEST_F(MmiUnitTest, oneClientSetsTheMaintenanceStateAndAnotherFollows)
{
    const auto follower = follow("maint", "maintenance state normal (0)");
    expectDone(m_unit.bcictl({"maint", "set", "requested"}), "maintenance state set to requested (2)\n");
    EXPECT_TRUE(told(*follower, "maintenance state requested (2)"));
    expectRejected(m_unit.bcictl({"maint", "set", "done"}),
                   "bcictl: maint: rejected, errorCode 2: Illegal state transition requested\n");
    expectRejected(m_unit.bcictl({"maint", "set", "serviceman"}), "bcictl: maint: rejected, errorCode 1: \n");
    expectDone(m_unit.bcictl({"maint", "set", "3"}), "maintenance state set to ongoing (3)\n");
    EXPECT_TRUE(told(*follower, "maintenance state ongoing (3)"));

    expectDone(m_unit.boardctl({"serviceman", "on"}),
               "a service man is at the unit, maintenance state serviceman\n");
    EXPECT_TRUE(told(*follower, "maintenance state serviceman (1)"));
    expectRejected(m_unit.bcictl({"maint", "set", "done"}),
                   "bcictl: maint: rejected, errorCode 2: Prohibited due to service man present\n");
    expectDone(m_unit.boardctl({"serviceman", "off"}), "maintenance state ongoing\n");
    expectDone(m_unit.bcictl({"maint", "set", "done"}), "maintenance state set to done (4)\n");
    EXPECT_TRUE(told(*follower, "maintenance state done (4)"));

    refuse({"bmmi::SetMaintStateReq", "--cause", "NOT_ACTIVATED"});
    expectRejected(m_unit.bcictl({"maint", "set", "normal"}),
                   "bcictl: maint: rejected, errorCode 1: Maintenance State handling not activated\n");
    refuse({"bmmi::SubscribeMaintStateReq"});
    expectRejected(m_unit.bcictl({"maint", "follow"}),
                   "bcictl: maint: rejected, errorCode 1: subscribing to maintenance state was "
                   "unsuccessful\n");
}

TEST_F(MmiUnitTest, lampsAreSetAndReadBackAndListed)
{
    expectDone(m_unit.bcictl({"led", "get"}),
               "group 1 group1-green (0x0110), group 3 group3-off (0x0310), group 4 group4-off (0x0410), "
               "support unit no-fault (0x0001)\n");
    expectDone(m_unit.bcictl({"indicators"}), "  Support Unit Fault Indicator: no-fault (1)\n");
    for (const char* state : {"group1-red-flashing", "group3-green", "0x0411", "support-unit-fault"}) {
        expectDone(m_unit.bcictl({"led", "set", state}), "set to ");
    }
    expectDone(m_unit.bcictl({"led", "get"}),
               "group 1 group1-red (0x0130), group 3 group3-green (0x0311), group 4 group4-green (0x0411), "
               "support unit fault (0x0004)\n");
    expectDone(m_unit.bcictl({"indicators"}), "  Support Unit Fault Indicator: fault (4)\n");
    expectDone(m_unit.boardctl({"leds"}),
               "group0 ( ) off   group1 (*) red flashing   group3 (*) green   group4 (*) green   "
               "supportUnit (*) red\n");
    EXPECT_EQ(nlohmann::json::parse(m_unit.boardctl({"leds", "--json"}).out)[1],
              nlohmann::json::parse(R"({"lamp": "group1", "state": 6, "colour": "red", "flashes": true})"));
    expectRejected(m_unit.bcictl({"led", "set", "0x0312"}),
                   "bcictl: led: rejected, errorCode 1: Invalid parameter VisualizedState: 786\n");
    refuse({"bmmi::GetVisualIndicationReq", "--count", "2"});
    expectRejected(m_unit.bcictl({"led", "get"}),
                   "bcictl: led: rejected, errorCode 1: Interaction failure\n");
    expectRejected(m_unit.bcictl({"indicators"}),
                   "bcictl: indicators: rejected, errorCode 1: Interaction failure\n");
}

TEST_F(MmiUnitTest, theSignalsAreWhatClientsExpect)
{
    const Mailboxes mailboxes(m_unit.runDir());
    const auto server = locate("Merlow");
    Client client(mnet_create_mailbox("du", 0));
    ASSERT_EQ(client.send(server, 0x1658000, "00000007 0000012c 0003 0000"), 0);
    const auto references = client.receive(0x1658001).value_or("");
    ASSERT_EQ(references.size(), 16u);
    ASSERT_EQ(client.send(server, 0x1658004, references + "0061"), 0);
    EXPECT_EQ(client.receive(0x1658005), references);
    ASSERT_EQ(client.send(server, 0x165800F, references), 0);
    EXPECT_EQ(client.receive(0x1658010), references + "0410"
                                                      "0110"
                                                      "0004"
                                                      "0310");
    ASSERT_EQ(client.send(server, 0x1659A00, references), 0);
    const auto indicators = client.receive(0x1659A01).value_or("");
    ASSERT_EQ(indicators.size(), 2 * (148u - 4));
    EXPECT_EQ(indicators.substr(0, 24), references + "00000001");
    EXPECT_EQ(indicators.substr(24 + 256, 4), "0004");

    ASSERT_EQ(client.send(server, 0x1658015, references), 0);
    EXPECT_EQ(client.receive(0x1658016), references);
    EXPECT_EQ(client.receive(0x1658018), references + "00000000");
    ASSERT_EQ(client.send(server, 0x1658019, references + "00000002"), 0);
    EXPECT_EQ(client.receive(0x165801A), references);
    EXPECT_EQ(client.receive(0x1658018), references + "00000002");

    ASSERT_EQ(client.send(server, 0x165A401, references + "0001"), 0);
    EXPECT_THAT(client.receive(0x165A403).value_or(""), HasSubstr("48657265204920416d20636c69656e74"))
        << "it has not subscribed";
    ASSERT_EQ(client.send(server, 0x165A404, references), 0);
    EXPECT_EQ(client.receive(0x165A405), references);
    EXPECT_EQ(client.receive(0x165A407).value_or("").substr(0, 20), references + "0002");
    ASSERT_EQ(client.send(server, 0x165A401, references + "0001"), 0);
    const auto confirm = client.receive(0x165A402).value_or("");
    ASSERT_EQ(confirm.size(), 2 * (144u - 4));
    EXPECT_EQ(confirm.substr(0, 20), references + "0001");
    EXPECT_EQ(confirm.substr(24, 28), "6f6e20666f7220373030206d7300"); // "on for 700 ms"
    EXPECT_EQ(client.receive(0x165A407).value_or("").substr(0, 20), references + "0001");
    EXPECT_EQ(client.receive(0x165A407).value_or("").substr(0, 20), references + "0002") << "by itself";
}

TEST_F(MmiUnitTest, hereIAmIsFollowedOrderedAndEndsByItself)
{
    const auto follower = follow("hereiam", "Here I Am off (2)");
    expectDone(m_unit.bcictl({"hereiam", "on"}), "Here I Am on (1), \"on for 700 ms\"\n");
    EXPECT_TRUE(told(*follower, "Here I Am on (1)"));
    EXPECT_TRUE(waitUntil([&] { // once when it subscribed, once at the end
        const auto out = follower->out();
        return out.find("Here I Am off", out.find("Here I Am on")) != std::string::npos;
    })) << follower->out();
    expectDone(m_unit.bcictl({"hereiam", "off"}), "Here I Am off (2), \"off\"\n");
    refuse({"bmmi::OrderHereIAmReq"});
    const std::string refused =
        "bcictl: hereiam: rejected, errorCode 1: See logs to reveal why the BMMI server rejected the "
        "request.\n";
    expectRejected(m_unit.bcictl({"hereiam", "on"}), refused);
    refuse({"bmmi::SubscribeHereIAmStateReq"});
    expectRejected(m_unit.bcictl({"hereiam", "on"}), refused);
    refuse({"bmmi::RegisterMmiUserReq"});
    expectRejected(m_unit.bcictl({"hereiam", "on"}),
                   "bcictl: hereiam: rejected, errorCode 1: MMI user has not been registered yet.\n");
}

TEST_F(MmiUnitTest, aKilledBoardComesBackAndServesThoseWhoConnectThen)
{
    const auto before = follow("maint", "maintenance state normal (0)");
    expectDone(m_unit.bcictl({"maint", "set", "requested"}), "requested");
    expectDone(m_unit.bcictl({"led", "set", "group1-red"}), "group1-red");
    EXPECT_TRUE(told(*before, "maintenance state requested (2)"));
    m_unit.brhd().kill();
    m_unit.startBrhd();
    ASSERT_TRUE(
        waitUntil([this] { return bmmi().value("connections", nlohmann::json::array()).size() == 1; }));
    ASSERT_TRUE(waitUntil([this] {
        return m_unit.bcictl({"led", "get", "--timeout", "1"}).status == 0;
    })) << "its lamps are as a board has them that comes up";
    expectDone(m_unit.bcictl({"led", "get"}), "group1-green (0x0110)");
    const auto after = follow("maint", "maintenance state normal (0)");
    expectDone(m_unit.bcictl({"maint", "set", "requested"}), "requested");
    EXPECT_TRUE(told(*after, "maintenance state requested (2)"));
    EXPECT_TRUE(m_unit.merlowd().running());
}

TEST_F(MmiUnitTest, clientsThatDieLeaveTheOthersTheirIndications)
{
    auto dying = follow("maint", "maintenance state normal (0)");
    auto dyingToo = follow("hereiam", "Here I Am off (2)");
    const auto living = follow("maint", "maintenance state normal (0)");
    ASSERT_TRUE(waitForSubscribers("/maintenance/subscribers", 2));
    // The board tells of a change before the server knows of the deaths, and after.
    dying->kill();
    dyingToo->kill();
    expectDone(m_unit.bcictl({"maint", "set", "requested"}), "requested");
    EXPECT_TRUE(told(*living, "maintenance state requested (2)"));
    EXPECT_TRUE(waitForSubscribers("/maintenance/subscribers", 1));
    EXPECT_TRUE(waitForSubscribers("/hereIAm/subscribers", 0));
    expectDone(m_unit.bcictl({"hereiam", "on"}), "Here I Am on (1)");
    expectDone(m_unit.bcictl({"maint", "set", "ongoing"}), "ongoing");
    EXPECT_TRUE(told(*living, "maintenance state ongoing (3)"));
    EXPECT_TRUE(m_unit.merlowd().running());
    m_unit.merlowd().kill();
    EXPECT_TRUE(waitForSubscribers("/maintenance/subscribers", 0)) << "they end with the server's connection";
}

} // namespace
} // namespace merlow::test
