// Faults on their way from the board to the clients of a whole unit of real processes.

#include "runningUnit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace merlow::test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;

class FaultTest : public RunningUnitTest {
protected:
    void SetUp() override
    {
        RunningUnitTest::SetUp();
        ASSERT_FALSE(HasFatalFailure());
        ASSERT_TRUE(isToldOfFaults());
    }

    /// Connects, and gives the references of the connection as they stand in each signal.
    [[nodiscard]] std::string connect(Client& client, const std::string& clientRef) const
    {
        EXPECT_EQ(client.send(m_server, 0x1658000, clientRef + "0000012c 0003 0000"), 0);
        return client.receive(0x1658001).value_or("");
    }

    void subscribe(Client& client, const std::string& references) const
    {
        ASSERT_EQ(client.send(m_server, 0x165800A, references), 0);
        ASSERT_EQ(client.receive(0x165800B), references);
    }

    /// The server has subscribed with the brhd that runs now.
    [[nodiscard]] bool isToldOfFaults() const
    {
        return waitUntil([this] {
            return m_unit.status("brhd")
                       .value("/bri/faultSubscribers"_json_pointer, nlohmann::json::array())
                       .size() == 1;
        });
    }

    void fault(std::vector<std::string> words) const
    {
        words.insert(words.begin(), "fault");
        const auto outcome = m_unit.boardctl(words);
        ASSERT_EQ(outcome.status, 0) << outcome.err;
    }

    /// `bcictl faults` says this in the end.
    void expectFaults(const testing::Matcher<const std::string&>& expected) const
    {
        Outcome last;
        EXPECT_TRUE(waitUntil([&] {
            last = m_unit.bcictl({"faults"});
            return last.status == 0 && expected.Matches(last.out);
        })) << "the last that came:\n"
            << last.out << last.err << m_unit.boardctl({"status", "brhd"}).out;
    }

    void expectOneFault(const std::string& text) const
    {
        expectFaults(testing::AllOf(HasSubstr(text), EndsWith("\n1 active fault\n")));
    }

    /// Whatever the board told the server up to now, nothing of it stands: what it tells next is all there
    /// is.
    void expectNoFaultStands() const
    {
        fault({"raise", "EXTERNAL_POWER_SUPPLY_FAULT", "--case", "77"});
        expectOneFault("active 0x0108 POWER_FAILURE, case 77");
    }
};

/// What stands behind the number of a raise: references, id, text and case, each where it belongs.
void expectRaise(const std::optional<std::string>& raise, const std::string& references,
                 const std::string& faultId, const std::string& text, const std::string& faultCase)
{
    ASSERT_TRUE(raise);
    ASSERT_EQ(raise->size(), 2 * (144u - 4));
    EXPECT_EQ(raise->substr(0, 20), references + faultId);
    EXPECT_EQ(raise->substr(24, text.size() + 2), text + "00");
    EXPECT_EQ(raise->substr(272, 4), faultCase);
}

TEST_F(FaultTest, twoClientsGetEachRaiseAndCease)
{
    Client first(mnet_create_mailbox("du1", 0));
    Client second(mnet_create_mailbox("du2", 0));
    const auto firstRefs = connect(first, "00000007");
    const auto secondRefs = connect(second, "fffffffe");
    ASSERT_NE(firstRefs, secondRefs);
    subscribe(first, firstRefs);
    subscribe(second, secondRefs);

    fault({"raise", "HW_FAULT", "--case", "317"});
    const std::string text = "496e7465726e616c204443206661756c74"; // "Internal DC fault"
    expectRaise(first.receive(0x165800D), firstRefs, "0101", text, "013d");
    expectRaise(second.receive(0x165800D), secondRefs, "0101", text, "013d");
    EXPECT_EQ(first.lastSender(), m_server);

    fault({"cease", "HW_FAULT"});
    for (auto* const client : {&first, &second}) {
        const auto cease = client->receive(0x165800E);
        ASSERT_TRUE(cease);
        ASSERT_EQ(cease->size(), 2 * (28u - 4));
        EXPECT_EQ(cease->substr(0, 20), (client == &first ? firstRefs : secondRefs) + "0101");
        EXPECT_EQ(cease->substr(40, 4), "013d");
    }
}

TEST_F(FaultTest, whoSubscribesLaterIsToldWhatIsActive)
{
    fault({"raise", "EXTERNAL_FAN_FAILED", "--case", "3", "--fan", "KFA 1", "--slot", "2"});
    expectOneFault("active 0x0705 FAN_FAILED, case 3, \"Fan product number is KFA 1, Fan Position slot 2\"");
    const auto json = m_unit.bcictl({"faults", "--json"});
    EXPECT_EQ(json.status, 0);
    EXPECT_THAT(json.out, HasSubstr(R"("event":"faultActive","faultId":1797,"faultName":"FAN_FAILED")"));
    for (const char* kind : {"hw-label", "recovery-time"}) {
        const auto silent = m_unit.bcictl({"faults", "--kind", kind});
        EXPECT_EQ(silent.status, 0) << silent.err;
        EXPECT_THAT(silent.out, HasSubstr("sends no faults"));
    }
}

TEST_F(FaultTest, aTemperatureFaultHidesAHardwareFaultAndGivesItBack)
{
    Process follower("bcictl", {"faults", "--follow"}, m_unit.environment());
    const auto told = [&follower](const std::string& text) {
        return waitUntil([&] { return follower.out().find(text) != std::string::npos; });
    };
    ASSERT_TRUE(told("subscribed to faults\n")) << follower.err();
    fault({"raise", "HW_FAULT"});
    ASSERT_TRUE(told(" raised 0x0101 HW_FAULT, case 0, \"HW_FAULT\"")) << follower.out();
    fault({"raise", "EXCEPTIONAL_TEMPERATURE_TOO_HIGH"});
    ASSERT_TRUE(told(" ceased 0x0101 HW_FAULT")) << follower.out();
    ASSERT_TRUE(
        told(" raised 0x0103 EXCEPTIONAL_TEMPERATURE_TOO_HIGH, case 0, \"Temperature is too high.\""));
    expectOneFault("active 0x0103 EXCEPTIONAL_TEMPERATURE_TOO_HIGH, case 0, \"Temperature is too high.\"");
    fault({"cease", "EXCEPTIONAL_TEMPERATURE_TOO_HIGH"});
    ASSERT_TRUE(told(" ceased 0x0103")) << follower.out();
    expectOneFault("active 0x0101 HW_FAULT, case 0, \"HW_FAULT\"");
    m_unit.merlowd().kill();
    EXPECT_EQ(follower.wait(), 4) << follower.err();
    EXPECT_EQ(follower.err(), "bcictl: faults: the unit went away\n");
}

TEST_F(FaultTest, aLostFanHostComesAndGoes)
{
    fault({"raise", "EXTERNAL_FAN_HOST_DISCONNECTED", "--fan", "KFA 1", "--parent", "QDA 2"});
    expectOneFault("active 0x0706 FAN_DISCONNECTED, case 0, \"Contact lost with unit (QDA 2) hosting the fan "
                   "(KFA 1) and external alarm ports\"");
    fault({"cease", "EXTERNAL_FAN_HOST_DISCONNECTED"});
    expectFaults("no active faults\n");
}

TEST_F(FaultTest, aKilledBoardLosesNothingAndNothingCountsTwice)
{
    fault({"raise", "EXTERNAL_FAN_DEGRADED", "--case", "1"});
    fault({"raise", "EXTERNAL_FAN_FAILED", "--case", "2"});
    fault({"raise", "EXTERNAL_FAN_HOST_DISCONNECTED", "--parent", "QDA 2"});
    const auto before = m_unit.boardctl({"fault", "list"}).out;
    for (int round = 0; round < 3; ++round) {
        m_unit.brhd().kill();
        m_unit.startBrhd();
        ASSERT_TRUE(isToldOfFaults());
        EXPECT_EQ(m_unit.boardctl({"fault", "list"}).out, before);
    }
    fault({"raise", "EXTERNAL_POWER_SUPPLY_FAULT"});
    expectFaults(HasSubstr("active 0x0108 ")); // the server has taken all that the board told
    Client client(mnet_create_mailbox("du", 0));
    const auto references = connect(client, "00000001");
    m_unit.brhd().kill();
    subscribe(client, references);
    for (int index = 0; index < 4; ++index) {
        EXPECT_TRUE(client.receive(0x165800D)) << "they stand while the board is away";
    }
    m_unit.startBrhd();
    ASSERT_TRUE(isToldOfFaults());
    for (const char* name : {"EXTERNAL_FAN_DEGRADED", "EXTERNAL_FAN_FAILED", "EXTERNAL_FAN_HOST_DISCONNECTED",
                             "EXTERNAL_POWER_SUPPLY_FAULT"}) {
        fault({"cease", name});
    }
    expectNoFaultStands(); // one that counted twice would have to be ceased twice
}

TEST_F(FaultTest, faultsOfABoardThatDiesWhileItTellsAreToldOnce)
{
    fault({"raise", "EXTERNAL_FAN_DEGRADED"});
    for (int round = 0; round < 8; ++round) {
        Process raising("boardctl", {"fault", "raise", "EXTERNAL_FAN_DEGRADED", "--timeout", "0.3"},
                        m_unit.environment());
        // Anywhere from before the request to behind the answer.
        (void)waitUntil([&] { return !raising.running(); }, milliseconds(round * 3));
        m_unit.brhd().kill();
        raising.wait();
        m_unit.startBrhd();
        ASSERT_TRUE(isToldOfFaults());
    }
    while (m_unit.boardctl({"fault", "cease", "EXTERNAL_FAN_DEGRADED"}).status == 0) {
    }
    EXPECT_EQ(m_unit.boardctl({"fault", "list"}).out, "no active faults\n");
    expectNoFaultStands();
}

TEST_F(FaultTest, aServerThatDiesIsToldAllAnew)
{
    fault({"raise", "EXTERNAL_FAN_DEGRADED"});
    m_unit.merlowd().kill();
    ASSERT_TRUE(waitUntil([this] {
        return m_unit.status("brhd").value("/bri/faultMemory/clients"_json_pointer, -1) == 0;
    })) << m_unit.status("brhd").dump(2);
    m_unit.startMerlowd();
    ASSERT_TRUE(isToldOfFaults());
    expectOneFault("active 0x0704 FAN_DEGRADED, case 0, \"RU External Fan Degraded\"");
    fault({"cease", "EXTERNAL_FAN_DEGRADED"});
    expectFaults("no active faults\n");
}

TEST_F(FaultTest, withPowerDropSupervisionThePowerSupplyFaultIsSuppressed)
{
    m_unit.merlowd().kill();
    ASSERT_TRUE(waitUntil([this] {
        return m_unit.status("brhd").value("/bri/faultMemory/clients"_json_pointer, -1) == 0;
    })) << m_unit.status("brhd").dump(2);
    m_unit.startMerlowd({"--power-drop-supervision"});
    ASSERT_TRUE(isToldOfFaults());

    fault({"raise", "EXTERNAL_POWER_SUPPLY_FAULT"});
    fault({"raise", "EXTERNAL_FAN_DEGRADED"}); // once it is told, the server has taken the first one too
    expectOneFault("active 0x0704 FAN_DEGRADED, case 0, \"RU External Fan Degraded\"");
    EXPECT_THAT(m_unit.boardctl({"fault", "list"}).out, HasSubstr("EXTERNAL_POWER_SUPPLY_FAULT"));
    fault({"cease", "EXTERNAL_POWER_SUPPLY_FAULT"});
    fault({"cease", "EXTERNAL_FAN_DEGRADED"});
    expectFaults("no active faults\n");
}

TEST_F(FaultTest, aSubscriberThatDiesLeavesTheOthersTheirFaults)
{
    Client client(mnet_create_mailbox("du", 0));
    const auto references = connect(client, "00000001");
    subscribe(client, references);
    Process dying("bcictl", {"faults", "--follow"}, m_unit.environment());
    ASSERT_TRUE(waitUntil([&] { return dying.out().find("subscribed") != std::string::npos; }))
        << dying.err();
    fault({"raise", "HW_FAULT"});
    EXPECT_TRUE(waitUntil([&] { return dying.out().find("raised 0x0101") != std::string::npos; }));
    EXPECT_TRUE(client.receive(0x165800D));
    dying.kill();
    fault({"cease", "HW_FAULT"});
    EXPECT_TRUE(client.receive(0x165800E));
    fault({"raise", "EXCEPTIONAL_TEMPERATURE_TOO_LOW"});
    expectRaise(client.receive(0x165800D), references, "0104",
                "54656d706572617475726520697320746f6f206c6f772e", "0000"); // "Temperature is too low."
    EXPECT_TRUE(waitUntil([this] {
        return m_unit.status("legacyd").value("/connections"_json_pointer, nlohmann::json::array()).size() ==
               1;
    })) << "the dead one's session is gone";
    EXPECT_TRUE(m_unit.merlowd().running());
}

TEST_F(FaultTest, aSessionPrintsFaultsAsTheyCome)
{
    Process session("bcictl", {"session"}, m_unit.environment());
    session.write("faults\n");
    ASSERT_TRUE(waitUntil([&] { return session.out().find("no active faults\n") != std::string::npos; }))
        << session.err();
    fault({"raise", "HW_FAULT_FOR_EVALUATION_INIT_FAULT"});
    EXPECT_TRUE(waitUntil([&] {
        return session.out().find("raised 0x0300 HWF_FOR_EVALUATION, case 0, \"Initialization failure\"") !=
               std::string::npos;
    })) << session.out();
    session.write("audit\nquit\n");
    EXPECT_EQ(session.wait(), 0) << session.err();
    EXPECT_THAT(session.out(), HasSubstr("state STARTING"));
}

} // namespace
} // namespace merlow::test
