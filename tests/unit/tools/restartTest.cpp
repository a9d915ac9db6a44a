// bcictl's restarts against a unit with fixed answers: signals as bytes, what is told as text.

#include "bcictlFixture.h"

namespace merlow::bcictl {
namespace {

using testing::HasSubstr;

/// The notification for the references 1 and 301, as it stands behind the number.
std::string notified(const std::string& code, const std::string& flag)
{
    return padded(references + code + "fedc" + flag + "eeee", 176);
}

constexpr std::uint32_t notification = 0x1659B03;

class RestartCommandTest : public BcictlTest {};

TEST_F(RestartCommandTest, aPlainOrderHasNoAnswer)
{
    startUnit({{0x1658400, {{0x1658401, references + "0000 0000"}}}});
    EXPECT_EQ(run({"restart"}), 0) << m_err.str();
    EXPECT_EQ(m_out.str(), "restart ordered; such an order has no answer\n");
    EXPECT_EQ(run({"restart", "--info", "why", "--json"}), 0) << m_err.str();
    EXPECT_EQ(m_out.str(), R"({"command":"restart","status":"done","sent":"TARN_BC_RESTART_BOARD_FWD",)"
                           R"("clientRef":1,"serverRef":301,"restartCode":401})"
                           "\n");
    EXPECT_EQ(run({"audit"}), 0) << m_err.str(); // comes behind it
    EXPECT_EQ(m_unit->received(0x1658003), "000000010000012d77687900");
}

TEST_F(RestartCommandTest, anOrderWithRankCarriesAllOfIt)
{
    startUnit({{0x1659B04, {{notification, notified("fff0", "0000")}, {FakeUnit::comeAgain, ""}}}});
    EXPECT_EQ(run({"restart", "--code", "-16", "--rank", "3", "--label", "lab", "--info", "why", "--wait"}),
              0)
        << m_err.str();
    EXPECT_EQ(m_unit->received(0x1659B04), "000000010000012d"
                                           "fff0"
                                           "0003" +
                                               padded("776879", 140) + "6c616200");
}

TEST_F(RestartCommandTest, waitingEndsWhenTheUnitIsBack)
{
    const FakeUnit::Reply otherClients{notification, padded("00000002 0000012d 0191", 176)};
    startUnit(
        {{0x1658003, {otherClients, {notification, notified("0191", "0000")}, {FakeUnit::comeAgain, ""}}}});
    EXPECT_EQ(run({"restart", "--wait"}), 0) << m_err.str();
    EXPECT_EQ(m_out.str(),
              "the board restarts, code 401, ordered by this client, clientRef 1, serverRef 301\n"
              "the unit went down\n"
              "the unit is back\n");
    EXPECT_EQ(run({"restart", "--wait", "--json"}), 0) << m_err.str();
    EXPECT_THAT(m_out.str(), HasSubstr(R"("restartCode":401,"initiatorFlag":0})"));
    EXPECT_THAT(m_out.str(), HasSubstr(R"({"command":"restart","status":"done",)"));
}

TEST_F(RestartCommandTest, eachStepIsWaitedForAsLongAsTheTimeoutSays)
{
    startUnit({});
    EXPECT_EQ(run({"restart", "--wait", "--timeout", "0.05"}), 3);
    EXPECT_EQ(m_err.str(), "bcictl: restart: no answer to TARN_BC_RESTART_BOARD_FWD within 0.05 s\n");
    m_unit.reset();

    startUnit({{0x1658003, {{notification, notified("0191", "0001")}}}});
    EXPECT_EQ(run({"restart", "--wait", "--timeout", "0.05"}), 3);
    EXPECT_EQ(m_out.str(), "the board restarts, code 401, initiatorFlag 1, clientRef 1, serverRef 301\n");
    EXPECT_EQ(m_err.str(), "bcictl: restart: the unit did not go away in time\n");
    m_unit.reset();

    startUnit({{0x1658003, {{notification, notified("0191", "0001")}, {FakeUnit::leave, ""}}}});
    EXPECT_EQ(run({"restart", "--wait", "--timeout", "0.05"}), 4);
    EXPECT_THAT(m_err.str(), HasSubstr("bcictl: restart: no unit in run-time folder"));
    m_unit.reset();

    startUnit({{0x1658003, {{FakeUnit::leave, ""}}}});
    EXPECT_EQ(run({"restart", "--wait"}), 4);
    EXPECT_EQ(m_err.str(), "bcictl: restart: the unit went away\n") << "nobody was told of a restart";
    m_unit.reset();

    startUnit({{0x1658003, {{notification, padded(references, 175)}}}});
    EXPECT_EQ(run({"restart", "--wait"}), 3);
    EXPECT_THAT(m_err.str(), HasSubstr("came with 179 bytes, it should have 180"));
}

TEST_F(RestartCommandTest, wrongUsageIsTold)
{
    const std::string tooLong(140, 'x');
    const std::vector<std::vector<const char*>> mistakes{
        {"restart", "--code", "1"},
        {"restart", "--code", "1", "--rank", "1"},
        {"restart", "--rank", "1", "--label", "a"},
        {"restart", "--code", "1", "--label", "a"},
        {"restart", "--code", "1", "--rank", "6", "--label", "a"},
        {"restart", "--code", "1", "--rank", "0", "--label", "a"},
        {"restart", "--code", "32768", "--rank", "1", "--label", "a"},
        {"restart", "--code", "1", "--rank", "1", "--label", "a", "--info", tooLong.c_str()},
        {"restart", "now"},
    };
    for (const auto& words : mistakes) {
        EXPECT_EQ(run(words), 2) << words.back();
        EXPECT_THAT(m_err.str(), testing::StartsWith("bcictl: restart: "));
    }
}

TEST_F(RestartCommandTest, anAnnouncementIsConfirmed)
{
    startUnit({{0x1658816, {{0x1658817, references}}}});
    EXPECT_EQ(run({"notify-restart", "4275878552", "soon"}), 0) << m_err.str();
    EXPECT_EQ(m_out.str(), "restart announced with 4275878552\n");
    EXPECT_EQ(m_unit->received(0x1658816), "000000010000012dfedcba98736f6f6e00");
    EXPECT_EQ(run({"notify-restart", "1", "soon", "--json"}), 0);
    EXPECT_THAT(m_out.str(), HasSubstr(R"("notifyValue":1,"reason":"soon"})"));
}

TEST_F(RestartCommandTest, anAnnouncementIsRejected)
{
    startUnit({{0x1658816, {{0x1658818, padded(references + "0001 0000 6e6f", 124)}}}});
    EXPECT_EQ(run({"notify-restart", "1", ""}), 1);
    EXPECT_EQ(m_err.str(), "bcictl: notify-restart: rejected, errorCode 1: no\n");
    EXPECT_EQ(m_unit->received(0x1658816), "000000010000012d0000000100");
    EXPECT_EQ(run({"notify-restart", "1"}), 2);
    EXPECT_EQ(run({"notify-restart", "-1", "soon"}), 2);
    EXPECT_THAT(m_err.str(), testing::StartsWith("bcictl: notify-restart: "));
}

TEST_F(RestartCommandTest, linkSupervisionIsRejected)
{
    startUnit({{0x165801C, {{0x165801E, padded(references + "0001 0000 6e6f", 124)}}}});
    EXPECT_EQ(run({"link-supervision"}), 1);
    EXPECT_EQ(m_err.str(), "bcictl: link-supervision: rejected, errorCode 1: no\n");
    EXPECT_EQ(m_unit->received(0x165801C), "000000010000012d");
    m_unit.reset();
    startUnit({});
    EXPECT_EQ(run({"link-supervision", "--timeout", "0.05"}), 3);
}

TEST_F(SessionTest, aRestartThatOthersOrderedIsTold)
{
    startUnit(
        {{0x1658400, {{notification, notified("0191", "0001")}, {0x1658401, references + "0000 0000"}}}});
    EXPECT_EQ(session("audit\n"), tools::ExitStatus::done);
    EXPECT_THAT(m_out.str(),
                HasSubstr("the board restarts, code 401, initiatorFlag 1, clientRef 1, serverRef 301\n"));
}

} // namespace
} // namespace merlow::bcictl
