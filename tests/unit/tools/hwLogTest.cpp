// bcictl's hardware log against a unit with fixed answers: signals as bytes, what is told as text.

#include "bcictlFixture.h"

namespace merlow::bcictl {
namespace {

using testing::HasSubstr;

class HwLogCommandTest : public BcictlTest {
protected:
    void startUnitWithLog(const std::string& lengthAndEntries)
    {
        startUnit({{0x165920D, {{0x165920E, padded(references + lengthAndEntries, 436)}}}});
    }
};

TEST_F(HwLogCommandTest, getListsTheEntries)
{
    startUnitWithLog("00000003 6f6e6500 00 1b5b6d00 ee"); // an empty one, one that would steer a terminal
    EXPECT_EQ(run({"hwlog", "get", "5"}), 0) << m_err.str();
    EXPECT_EQ(m_out.str(), "log 5 has 3 entries\n  one\n  \n  ?[m\n");
    EXPECT_EQ(m_unit->received(0x165920D), "000000010000012d00000005");
    EXPECT_EQ(run({"hwlog", "get", "4294967295", "--json"}), 0);
    EXPECT_EQ(m_out.str(),
              R"({"command":"hwlog","status":"done","sent":"TARN_BC_HWLOG_GET_REQ",)"
              R"("answer":"TARN_BC_HWLOG_GET_CFM","clientRef":1,"serverRef":301,"logId":4294967295,)"
              R"("entries":["one","","?[m"]})"
              "\n");
    EXPECT_EQ(m_unit->received(0x165920D), "000000010000012dffffffff");
}

TEST_F(HwLogCommandTest, aLogMayBeEmptyOrFull)
{
    startUnitWithLog("00000000 78");
    EXPECT_EQ(run({"hwlog", "get", "5"}), 0) << m_err.str();
    EXPECT_EQ(m_out.str(), "log 5 has no entries\n");
    m_unit.reset();
    startUnitWithLog("000001a8"); // 424 empty ones
    EXPECT_EQ(run({"hwlog", "get", "5"}), 0) << m_err.str();
    EXPECT_THAT(m_out.str(), HasSubstr("log 5 has 424 entries\n  \n"));
}

TEST_F(HwLogCommandTest, anAnswerThatLiesAboutItsEntriesIsNone)
{
    for (const auto& lie : {std::string("000001a9"), std::string("ffffffff"), // more than there are bytes
                            "00000001" + std::string(std::size_t{2} * 424, '7')}) {
        startUnitWithLog(lie);
        EXPECT_EQ(run({"hwlog", "get", "5"}), 3);
        EXPECT_EQ(m_out.str(), "");
        EXPECT_EQ(m_err.str(), "bcictl: hwlog: the answer holds fewer entries than it says\n");
        m_unit.reset();
    }
    startUnit({{0x165920D, {{0x165920E, padded(references, 435)}}}});
    EXPECT_EQ(run({"hwlog", "get", "5"}), 3);
    EXPECT_THAT(m_err.str(), HasSubstr("came with 439 bytes, it should have 440"));
}

TEST_F(HwLogCommandTest, setSendsTheEntries)
{
    startUnit({{0x165920A, {{0x165920B, references}}}});
    EXPECT_EQ(run({"hwlog", "set", "2", "--label", "label", "one", "two words"}), 0) << m_err.str();
    EXPECT_EQ(m_out.str(), "2 entries written to log 2\n");
    EXPECT_EQ(m_unit->received(0x165920A),
              padded("00000001 0000012d 6c616265 6c000000 00000000 00000000 00000002 00000002"
                     "6f6e6500 74776f20 776f7264 7300",
                     456));
    EXPECT_EQ(run({"hwlog", "set", "1000", "--label", "123456789012345", "one", "--json"}), 0);
    EXPECT_THAT(m_out.str(), HasSubstr(R"("logId":1000,"label":"123456789012345","written":1})"));
    EXPECT_EQ(run({"hwlog", "set", "7", "--label", ""}), 0) << m_err.str();
    EXPECT_EQ(m_out.str(), "no entries written to log 7\n");
    EXPECT_EQ(m_unit->received(0x165920A), padded(references + padded("", 16) + "00000007", 456));
}

TEST_F(HwLogCommandTest, entriesMayTakeAllTheRoomThereIs)
{
    startUnit({{0x165920A, {{0x165920B, references}}}});
    const std::string longest(423, 'x');
    EXPECT_EQ(run({"hwlog", "set", "5", "--label", "a", longest.c_str()}), 0) << m_err.str();
    EXPECT_THAT(m_unit->received(0x165920A), testing::EndsWith("787800"));
    const std::string tooLong(424, 'x');
    EXPECT_EQ(run({"hwlog", "set", "5", "--label", "a", tooLong.c_str()}), 2);
    EXPECT_THAT(m_err.str(), HasSubstr("bcictl: hwlog: ENTRY: the entries take 425 bytes, there are 424\n"));
}

TEST_F(HwLogCommandTest, rejectsAreToldWithTheirCode)
{
    const auto reject = padded(references + "0002 0000 6e6f", 124);
    startUnit({{0x165920A, {{0x165920C, reject}}}, {0x165920D, {{0x165920F, reject}}}});
    EXPECT_EQ(run({"hwlog", "set", "1000", "--label", "a", "one"}), 1);
    EXPECT_EQ(m_err.str(), "bcictl: hwlog: rejected, errorCode 2: no\n");
    EXPECT_EQ(run({"hwlog", "get", "1000"}), 1);
    EXPECT_EQ(m_err.str(), "bcictl: hwlog: rejected, errorCode 2: no\n");
}

TEST_F(HwLogCommandTest, wrongUsageIsTold)
{
    const std::vector<std::vector<const char*>> mistakes{
        {"hwlog"},
        {"hwlog", "get"},
        {"hwlog", "get", "-1"},
        {"hwlog", "get", "4294967296"},
        {"hwlog", "get", "five"},
        {"hwlog", "get", "5", "6"},
        {"hwlog", "set", "5", "one"},
        {"hwlog", "set", "5", "--label", "1234567890123456", "one"},
        {"hwlog", "set", "5", "--label", "a", "one", ""},
    };
    for (const auto& words : mistakes) {
        EXPECT_EQ(run(words), 2) << words.back();
        EXPECT_THAT(m_err.str(), testing::StartsWith("bcictl: hwlog: "));
    }
}

} // namespace
} // namespace merlow::bcictl
