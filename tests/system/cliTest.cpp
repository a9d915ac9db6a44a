// The command-line tools as a user types them, against a whole unit.

#include "client.h"
#include "unit.h"

#include <algorithm>
#include <csignal>
#include <gtest/gtest.h>

namespace merlow::test {
namespace {

class CliTest : public ::testing::Test {
protected:
    void SetUp() override { m_unit.start(); }

    Unit m_unit;
};

std::vector<nlohmann::json> linesOf(const std::string& text)
{
    std::vector<nlohmann::json> objects;
    std::string::size_type start = 0;
    while (start < text.size()) {
        const auto end = text.find('\n', start);
        objects.push_back(nlohmann::json::parse(text.substr(start, end - start), nullptr, false));
        start = end == std::string::npos ? text.size() : end + 1;
    }
    return objects;
}

TEST_F(CliTest, eachCommandEndsWithStatusZeroAndSaysWhatCame)
{
    auto outcome = m_unit.bcictl({"audit"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_NE(outcome.out.find("STARTING"), std::string::npos) << outcome.out;
    EXPECT_EQ(m_unit.bcictl({"enable"}).status, 0);
    EXPECT_EQ(m_unit.bcictl({"disable"}).status, 0);
    outcome = m_unit.bcictl({"capabilities"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_NE(outcome.out.find("\n   41  platform text: \"MERLOW\"\n"), std::string::npos) << outcome.out;
    EXPECT_EQ(m_unit.bcictl({"utc", "now"}).status, 0);
    EXPECT_EQ(m_unit.bcictl({"utc", "1700000000"}).status, 0);
    EXPECT_EQ(m_unit.bcictl({"mmi", "1"}).status, 0);
    outcome = m_unit.bcictl({"raw", "0x1658fff", "c0ffee"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_NE(outcome.out.find("c0 ff ee"), std::string::npos) << outcome.out;
}

TEST_F(CliTest, whatCannotBeWrittenIsAFailure)
{
    const std::vector<std::string> commands[] = {
        {"bcictl", "audit"},      {"bcictl", "audit", "--json"}, {"ccfictl", "connect"},
        {"boardctl", "status"},   {"scryctl", "list"},           {"bcictl", "--help"},
        {"ccfictl", "--version"}, {"boardctl", "--version"},     {"scryctl", "--version"},
        {"bbagent", "--version"}, {"unit", "--version"},         {"merlowd", "--version"},
        {"brhd", "--version"},    {"legacyd", "--version"},      {"swmd", "--version"},
        {"bcictl", "session"},
    };
    for (const auto& command : commands) {
        std::vector<std::string> words{"-c", R"(exec "$0" "$@" >/dev/full)", programPath(command.front())};
        words.insert(words.end(), command.begin() + 1, command.end());
        const auto outcome = runProgram("/bin/sh", words, m_unit.environment());
        EXPECT_EQ(outcome.status, 5) << command.front() << " " << command.back();
        EXPECT_EQ(outcome.err, command.front() + ": standard output cannot be written\n");
    }
}

TEST_F(CliTest, aRefusalIsStatusOneWithCodeAndText)
{
    const auto outcome = m_unit.bcictl({"mmi", "2"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE((outcome.out + outcome.err).find("Unsupported MMI mode"), std::string::npos);
    EXPECT_NE((outcome.out + outcome.err).find('1'), std::string::npos);
    const auto connect = m_unit.bcictl({"audit", "--server-ref", "250"});
    EXPECT_EQ(connect.status, 1);
    EXPECT_NE((connect.out + connect.err).find("RAT not supported"), std::string::npos);
}

TEST_F(CliTest, wrongWordsAreStatusTwo)
{
    for (const std::vector<std::string>& words : {std::vector<std::string>{},
                                                  {"nothing"},
                                                  {"utc"},
                                                  {"utc", "soon"},
                                                  {"mmi", "x"},
                                                  {"raw"},
                                                  {"raw", "0x1", "abc"},
                                                  {"audit", "--timeout", "-1"},
                                                  {"audit", "--server-ref", "many"}}) {
        const auto outcome = m_unit.bcictl(words);
        EXPECT_EQ(outcome.status, 2) << (words.empty() ? "" : words.back()) << outcome.err;
        EXPECT_FALSE(outcome.err.empty());
    }
    EXPECT_EQ(m_unit.bcictl({"--help"}).status, 0);
}

TEST_F(CliTest, anAnswerThatDoesNotComeIsStatusThree)
{
    ASSERT_EQ(m_unit.boardctl({"drop", "bri::SetUtcTimeReq"}).status, 0);
    const auto outcome = m_unit.bcictl({"utc", "1", "--timeout", "0.3"});
    EXPECT_EQ(outcome.status, 3) << outcome.err;
    EXPECT_EQ(m_unit.bcictl({"utc", "1"}).status, 0) << "one was dropped, not more";
}

TEST_F(CliTest, withoutAUnitItIsStatusFour)
{
    Unit empty;
    const auto outcome = empty.bcictl({"audit", "--timeout", "0.1"});
    EXPECT_EQ(outcome.status, 4);
    EXPECT_NE(outcome.err.find(empty.runDir()), std::string::npos) << outcome.err;
    EXPECT_EQ(empty.boardctl({"status"}).status, 4);
}

TEST_F(CliTest, jsonIsOneObjectALine)
{
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"audit"}, {"enable"}, {"mmi", "2"}, {"raw", "0x1658fff", "01"}}) {
        auto arguments = words;
        arguments.emplace_back("--json");
        const auto outcome = m_unit.bcictl(arguments);
        const auto objects = linesOf(outcome.out);
        ASSERT_EQ(objects.size(), 1u) << outcome.out << outcome.err;
        EXPECT_TRUE(objects.front().is_object()) << outcome.out;
    }
}

TEST_F(CliTest, aSessionKeepsItsStateOverItsCommands)
{
    const auto outcome =
        m_unit.bcictl({"session"}, "audit\nenable\naudit\ndisable\nenable\nmmi 2\nnonsense\naudit\n");
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    const auto starting = outcome.out.find("STARTING");
    const auto operational = outcome.out.find("OPERATIONAL");
    ASSERT_NE(starting, std::string::npos) << outcome.out;
    ASSERT_NE(operational, std::string::npos) << outcome.out;
    EXPECT_LT(starting, operational);
    const auto all = outcome.out + outcome.err;
    EXPECT_NE(all.find("received in BcState: DISABLED"), std::string::npos) << all;
    EXPECT_NE(all.find("Unsupported MMI mode"), std::string::npos) << all;
    EXPECT_NE(all.find("nonsense"), std::string::npos) << all;
}

TEST_F(CliTest, aSessionTellsThatTheUnitWentAway)
{
    Process session("bcictl", {"session"}, m_unit.environment());
    session.write("audit\n");
    ASSERT_TRUE(waitUntil([&] { return session.out().find("STARTING") != std::string::npos; }));
    m_unit.merlowd().kill();
    EXPECT_TRUE(waitUntil([&] { return !session.running(); }));
    EXPECT_NE(session.wait(), 0);
    EXPECT_FALSE(session.err().empty());
}

TEST_F(CliTest, theNextConnectionIsRefusedOnDemand)
{
    ASSERT_EQ(m_unit.boardctl({"refuse", "legacy::Connect"}).status, 0)
        << m_unit.boardctl({"refuse", "?"}).err;
    EXPECT_EQ(m_unit.bcictl({"audit"}).status, 1);
    EXPECT_EQ(m_unit.bcictl({"audit"}).status, 0);
}

TEST_F(CliTest, aConnectionThatIsLostIsMadeAnew)
{
    ASSERT_EQ(m_unit.boardctl({"lose", "bri"}).status, 0) << m_unit.boardctl({"lose", "--help"}).out;
    EXPECT_TRUE(waitUntil([this] { return m_unit.bcictl({"utc", "5", "--timeout", "1"}).status == 0; }));
}

TEST_F(CliTest, levelsChangeWhileTheServerRuns)
{
    const auto list = runProgram("scryctl", {"list"}, m_unit.environment());
    EXPECT_EQ(list.status, 0) << list.err;
    for (const char* name : {"merlowd", "brhd", "legacyd"}) {
        EXPECT_NE(list.out.find(name), std::string::npos) << list.out;
    }
    EXPECT_EQ(
        runProgram("scryctl", {"set", "merlowd", "--proc", "1,4", "--obj", "5,17"}, m_unit.environment())
            .status,
        0);
    EXPECT_EQ(runProgram("scryctl", {"set", "nobody", "--proc", "1"}, m_unit.environment()).status, 1);
}

TEST(BoardExampleTest, liesBesideTheProgramsAndCanBeServedFrom)
{
    const std::string example = programPath("board.example.json");
    Unit unit;
    unit.setVariable("MERLOW_BOARD_FILE", example);
    unit.startBrhd();
    ASSERT_TRUE(waitUntil([&unit] { return unit.boardctl({"describe"}).status == 0; })) << unit.brhd().err();
    EXPECT_NE(unit.boardctl({"describe"}).out.find(example), std::string::npos);
}

} // namespace
} // namespace merlow::test
