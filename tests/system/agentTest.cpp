// Programs that are clients of a unit by the exported client side: bbagent, and the example of the manual.

#include "unit.h"

#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <sstream>

namespace merlow::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class AgentTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_unit.start();
        ASSERT_FALSE(HasFatalFailure());
        ASSERT_TRUE(waitUntil([this] {
            return m_unit.status("brhd")
                       .value("/bri/faultSubscribers"_json_pointer, nlohmann::json::array())
                       .size() == 1;
        }));
    }

    void startAgent()
    {
        m_agent =
            std::make_unique<Process>("bbagent", std::vector<std::string>{"--json"}, m_unit.environment());
        ASSERT_TRUE(waitUntil([this] { return count("enabled") == 1; })) << m_agent->out() << m_agent->err();
    }
    void fault(std::vector<std::string> words) const
    {
        words.insert(words.begin(), "fault");
        const auto outcome = m_unit.boardctl(words);
        ASSERT_EQ(outcome.status, 0) << outcome.err;
    }
    [[nodiscard]] std::vector<nlohmann::json> events() const
    {
        std::vector<nlohmann::json> events;
        std::istringstream lines(m_agent->out());
        for (std::string line; std::getline(lines, line);) {
            events.push_back(nlohmann::json::parse(line, nullptr, false));
        }
        return events;
    }
    [[nodiscard]] std::size_t count(const std::string& event) const
    {
        std::size_t found = 0;
        for (const auto& line : events()) {
            found += line.is_object() && line.value("event", "") == event ? 1 : 0;
        }
        return found;
    }
    /// What the agent's fault manager shows: everything raised and not ceased since it was last connected.
    [[nodiscard]] std::set<int> shown() const
    {
        std::set<int> ids;
        for (const auto& line : events()) {
            const std::string event = line.is_object() ? line.value("event", "") : "";
            if (event == "connected") {
                ids.clear();
            } else if (event == "raised") {
                EXPECT_EQ(line["source"], "BB_BCI");
                ids.insert(line["faultId"].get<int>());
            } else if (event == "ceased") {
                ids.erase(line["faultId"].get<int>());
            }
        }
        return ids;
    }
    [[nodiscard]] std::set<int> refused() const
    {
        std::set<int> ids;
        for (const auto& line : events()) {
            if (line.is_object() && line.value("event", "") == "refused") {
                ids.insert(line["faultId"].get<int>());
            }
        }
        return ids;
    }
    void expectShown(const std::set<int>& ids) const
    {
        EXPECT_TRUE(waitUntil([&] { return shown() == ids; })) << m_agent->out();
    }

    Unit m_unit;
    std::unique_ptr<Process> m_agent;
};

TEST_F(AgentTest, faultsOfTheUnitAppearAndVanish)
{
    startAgent();
    EXPECT_EQ(count("connected"), 1U);
    EXPECT_EQ(count("subscribed"), 1U);
    EXPECT_EQ(count("labelsSubscribed"), 1U);
    for (const auto& line : events()) {
        if (line["event"] == "capabilities") {
            EXPECT_FALSE(line["numbers"].empty());
        }
    }
    fault({"raise", "HW_FAULT", "--case", "7"});
    expectShown({0x0101});
    fault({"cease", "HW_FAULT"});
    expectShown({});
    EXPECT_EQ(count("refused"), 0U);

    m_agent->signal(SIGTERM);
    EXPECT_EQ(m_agent->wait(), 0);
}

TEST_F(AgentTest, faultsHideEachOtherAsOnTheUnit)
{
    startAgent();
    fault({"raise", "HW_FAULT"});
    expectShown({0x0101});
    fault({"raise", "EXCEPTIONAL_TEMPERATURE_TOO_HIGH"});
    expectShown({0x0103});
    const auto faults = m_unit.bcictl({"faults"});
    EXPECT_THAT(faults.out, HasSubstr("0x0103"));
    EXPECT_THAT(faults.out, testing::Not(HasSubstr("0x0101")));
    fault({"cease", "EXCEPTIONAL_TEMPERATURE_TOO_HIGH"});
    expectShown({0x0101});
    EXPECT_THAT(m_unit.bcictl({"faults"}).out, HasSubstr("0x0101"));
}

TEST_F(AgentTest, fansAndPowerAreRefused)
{
    startAgent();
    fault({"raise", "EXTERNAL_FAN_DEGRADED", "--fan", "KFA 111 22/1", "--slot", "2"});
    fault({"raise", "EXTERNAL_POWER_SUPPLY_FAULT"});
    EXPECT_TRUE(waitUntil([this] { return refused() == std::set<int>{0x0108, 0x0704}; })) << m_agent->out();
    EXPECT_THAT(m_unit.bcictl({"faults"}).out, testing::AllOf(HasSubstr("0x0108"), HasSubstr("0x0704")));
    EXPECT_THAT(shown(), IsEmpty());
    fault({"raise", "HW_FAULT"});
    expectShown({0x0101});
}

TEST_F(AgentTest, afterTheUnitsLossItStartsAfresh)
{
    startAgent();
    fault({"raise", "HW_FAULT"});
    expectShown({0x0101});
    m_unit.merlowd().kill();
    ASSERT_TRUE(waitUntil([this] { return count("lost") == 1; }));
    m_unit.startMerlowd();
    ASSERT_TRUE(waitUntil([this] { return count("enabled") == 2; })) << m_agent->out();
    expectShown({0x0101});
    fault({"cease", "HW_FAULT"});
    expectShown({});
}

TEST_F(AgentTest, itTellsPeopleInWords)
{
    Process agent("bbagent", {}, m_unit.environment());
    ASSERT_TRUE(waitUntil([&] { return agent.out().find("operation enabled\n") != std::string::npos; }));
    fault({"raise", "HW_FAULT", "--case", "7"});
    EXPECT_TRUE(waitUntil([&] {
        return agent.out().find("raised 0x0101 HW_FAULT, case 7, source BB_BCI") != std::string::npos;
    })) << agent.out();
    EXPECT_THAT(agent.out(),
                HasSubstr("looking for the unit\nconnected, client reference 1, server reference "));
    EXPECT_EQ(agent.err(), "");
}

TEST_F(AgentTest, aUnitThatRefusesItIsStatusOne)
{
    ASSERT_EQ(m_unit.boardctl({"refuse", "legacy::Connect"}).status, 0);
    Process agent("bbagent", {"--json"}, m_unit.environment());
    EXPECT_EQ(agent.wait(), 1) << agent.out();
    EXPECT_THAT(agent.out(), HasSubstr("\"event\":\"rejected\""));
}

/// The first block of C++ in the manual's page.
std::string exampleOfTheManual()
{
    std::ifstream page(std::string(MERLOW_SOURCE_DIR) + "/docs/client.md");
    std::string example;
    bool within = false;
    for (std::string line; std::getline(page, line);) {
        if (within && line == "```") {
            break;
        }
        example += within ? line + "\n" : "";
        within = within || line == "```cpp";
    }
    return example;
}

TEST_F(AgentTest, theExampleOfTheManualIsBuiltWithWhatIsInstalledAndRuns)
{
    const TempDir folder;
    const std::string prefix = folder.path() + "/opt";
    const Process::Environment tools{{"PATH", "/usr/local/bin:/usr/bin:/bin"},
                                     {"PKG_CONFIG_PATH", prefix + "/lib/pkgconfig"}};
    const auto installed = runProgram(
        MERLOW_CMAKE, {"--install", MERLOW_BUILD_DIR, "--prefix", prefix, "--component", "libraries"}, tools);
    ASSERT_EQ(installed.status, 0) << installed.err;
    std::ofstream(folder.path() + "/faultwatch.cpp") << exampleOfTheManual();
    const auto built =
        runProgram("/bin/sh",
                   {"-c", std::string(MERLOW_CXX) + " " + MERLOW_CXX_SANITIZE + " -std=c++20 '" +
                              folder.path() + "/faultwatch.cpp' $(pkg-config --cflags --libs merlow)" +
                              " -Wl,-rpath,$(pkg-config --variable=libdir merlow) -o '" + folder.path() +
                              "/faultwatch'"},
                   tools);
    ASSERT_EQ(built.status, 0) << built.err;

    Process watch(folder.path() + "/faultwatch", {}, m_unit.environment());
    ASSERT_TRUE(waitUntil([&] { return watch.out() == "subscribed\n"; })) << watch.out() << watch.err();
    fault({"raise", "HW_FAULT"});
    fault({"cease", "HW_FAULT"});
    EXPECT_TRUE(waitUntil([&] {
        return watch.out() == "subscribed\nraised TARN_CONST_FH_FAULT_ID_HW_FAULT (0x101)\n"
                              "ceased TARN_CONST_FH_FAULT_ID_HW_FAULT (0x101)\n";
    })) << watch.out();
    m_unit.merlowd().kill();
    EXPECT_EQ(watch.wait(), 0) << watch.err();
}

} // namespace
} // namespace merlow::test
