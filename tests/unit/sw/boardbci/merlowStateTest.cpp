#include "merlowState.h"
#include "board.h"

namespace {

using support::Board;
using support::VirtualClient;

class MerlowStateTest : public ::testing::Test {
protected:
    MerlowStateTest()
    {
        m_board.add<MerlowState>();
        m_client.emplace(m_board.connectClient({.clientRef = 7, .serverRef = 300}));
        m_board.traces().clear();
    }
    void setState(BcState state) { m_client->session()->setBcState(state); }
    BcState state() { return m_client->session()->getBcState(); }
    std::string answerTo(const std::string& hex)
    {
        m_client->sendHex(hex);
        return m_client->receivedHex();
    }
    std::vector<std::string> rushlog()
    {
        std::vector<std::string> lines;
        for (const auto& line : m_board.traces().rushlog()) {
            EXPECT_EQ(line.category, "RadioApplication,RadioBoardCtrl");
            lines.push_back(line.text);
        }
        return lines;
    }

    Board m_board{{.bri = false, .bmmi = false}};
    std::optional<VirtualClient> m_client;
};

const std::string audit = "01658400 00000007 fffffffe";
const std::string enable = "01658403 00000007 fffffffe";
const std::string disable = "01658406 00000007 fffffffe";
const std::string enabled = "01658404 00000007 fffffffe";
const std::string disabled = "01658407 00000007 fffffffe";

TEST_F(MerlowStateTest, anAuditRightAfterEstablishmentReportsStarting)
{
    EXPECT_EQ(answerTo(audit), "01658401 00000007 fffffffe 00000000");
}

TEST_F(MerlowStateTest, anAuditReportsTheStateByItsWireValue)
{
    setState(BcState::Operational);
    EXPECT_EQ(answerTo(audit), "01658401 00000007 fffffffe 00010000");
    setState(BcState::Disabled);
    EXPECT_EQ(answerTo(audit), "01658401 00000007 fffffffe 00020000");
}

TEST_F(MerlowStateTest, anAuditOfAnUnknownStateIsTracedAndNotAnswered)
{
    setState(static_cast<BcState>(9));
    EXPECT_EQ(answerTo(audit), "");
    EXPECT_TRUE(m_board.traced(1, "Unknown O&M-state Unknown"));
}

TEST_F(MerlowStateTest, enableConfirmsAndConfirmsAgain)
{
    EXPECT_EQ(answerTo(enable), enabled);
    EXPECT_EQ(state(), BcState::Operational);
    EXPECT_TRUE(m_board.traced(4, "set BC state to Operational: "));
    EXPECT_EQ(answerTo(enable), enabled);
    EXPECT_EQ(state(), BcState::Operational);
}

TEST_F(MerlowStateTest, enableIsLoggedAtItsStartAndItsEnd)
{
    answerTo(enable);
    EXPECT_EQ(rushlog(), (std::vector<std::string>{
                             "Enable Operational Mode Start clientRef=7, serverRef=-2",
                             "Enable Operational Mode End clientRef=7, serverRef=-2",
                         }));
}

TEST_F(MerlowStateTest, disableConfirmsInEveryState)
{
    for (const auto before : {BcState::Starting, BcState::Operational, BcState::Disabled}) {
        setState(before);
        m_board.traces().clear();
        EXPECT_EQ(answerTo(disable), disabled);
        EXPECT_EQ(state(), BcState::Disabled);
        EXPECT_TRUE(m_board.traced(4, "set BC state to Disabled: "));
    }
}

TEST_F(MerlowStateTest, enableAfterDisableIsRejectedWithTheStatesName)
{
    answerTo(disable);
    m_board.traces().clear();
    m_client->sendHex(enable);
    const auto rej = m_client->expect<TarnBcEnableOperationRejS>();
    EXPECT_EQ(rej.addressInfo, (TarnNodeCommonAddressInfoS{7, -2}));
    EXPECT_EQ(rej.errorCode, 1);
    EXPECT_STREQ(reinterpret_cast<const char*>(rej.errorDescription),
                 "signal expected in BcState: STARTING OPERATIONAL, received in BcState: DISABLED");
    EXPECT_EQ(state(), BcState::Disabled);
    EXPECT_EQ(rushlog(), std::vector<std::string>{"Enable Operational Mode Start clientRef=7, serverRef=-2"});
}

TEST_F(MerlowStateTest, theEnableRejectsBytes)
{
    setState(BcState::Disabled);
    const std::string hex = answerTo(enable);
    EXPECT_EQ(hex.substr(0, 45), "01658405 00000007 fffffffe 00010000 7369676e ");
    EXPECT_EQ(hex.size(), 128 / 4 * 9 - 1);
    EXPECT_EQ(hex.substr(hex.size() - 8), "00000000");
}

TEST_F(MerlowStateTest, disableInAnUnknownStateIsRejectedWithTheSameText)
{
    setState(static_cast<BcState>(9));
    m_client->sendHex(disable);
    const auto rej = m_client->expect<TarnBcDisableOperationRejS>();
    EXPECT_EQ(rej.addressInfo, (TarnNodeCommonAddressInfoS{7, -2}));
    EXPECT_EQ(rej.errorCode, 1);
    EXPECT_STREQ(reinterpret_cast<const char*>(rej.errorDescription),
                 "signal expected in BcState: STARTING OPERATIONAL, received in BcState: Unknown");
}

TEST_F(MerlowStateTest, withoutASessionNothingIsAnsweredThoughEnableIsLogged)
{
    const auto stranger = m_board.newClient();
    const std::string text =
        "ABN: BC session for mailboxID " + std::to_string(stranger.mbox()) + "not found, ignore signal";
    for (const auto& hex : {audit, enable, disable}) {
        m_board.traces().clear();
        stranger.sendHex(hex);
        EXPECT_TRUE(stranger.nothingReceived());
        EXPECT_TRUE(m_board.traced(4, text));
        EXPECT_EQ(rushlog().size(), hex == enable ? 1U : 0U);
    }
    EXPECT_EQ(state(), BcState::Starting);
}

TEST_F(MerlowStateTest, eachClientHasItsOwnState)
{
    const auto other = m_board.connectClient();
    answerTo(enable);
    EXPECT_EQ(other.session()->getBcState(), BcState::Starting);
}

} // namespace
