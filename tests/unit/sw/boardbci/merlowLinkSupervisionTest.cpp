#include "merlowLinkSupervision.h"
#include "rowTest.h"

#include "board.h"
#include "bri.pb.h"

namespace {

using support::rejectTail;

class MerlowLinkSupervisionTest : public testing::Test {
protected:
    support::Board m_board;
    MerlowLinkSupervision& m_linkSupervision = m_board.add<MerlowLinkSupervision>();
};

TEST_F(MerlowLinkSupervisionTest, eachRequestIsRejectedWhoeverSendsIt)
{
    const std::string reject =
        "0165801e 00000007 fffffffe " + rejectTail("Capability prerequisite not fulfilled");
    const auto client = m_board.connectClient();
    const auto stranger = m_board.newClient();
    for (int i = 0; i < 2; ++i) {
        client.sendHex("0165801c 00000007 fffffffe");
        EXPECT_EQ(client.receivedHex(), reject);
        stranger.sendHex("0165801c 00000007 fffffffe deadbeef 00");
        EXPECT_EQ(stranger.receivedHex(), reject);
    }
    m_board.bri().stop();
    client.sendHex("0165801c 00000007 fffffffe");
    EXPECT_EQ(client.receivedHex(), reject);
    EXPECT_EQ(m_board.commonData().getNumClientSessions(), 1U);
}

TEST_F(MerlowLinkSupervisionTest, aRequestWithoutItsReferencesIsDropped)
{
    const auto client = m_board.connectClient();
    const auto whole = support::messageFromHex("0165801c 00000007 fffffffe");
    for (std::size_t size = 4; size < whole.size(); ++size) {
        SCOPED_TRACE(size);
        m_board.traces().clear();
        client.sendToServer({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)});
        EXPECT_TRUE(m_board.traces().contains(4, "too short: " + std::to_string(size) + " of 12 bytes"));
        EXPECT_TRUE(client.nothingReceived());
    }
}

TEST_F(MerlowLinkSupervisionTest, theRequestThatNobodyMakesWorks)
{
    EXPECT_EQ(m_linkSupervision.sendSetLinkSupervisionTimeoutReq(300, "link"), 1U);
    EXPECT_EQ(m_board.bri().receivedHex(), "0170775b 00000001 00c0ffee 08ac0212 046c696e 6b");
    EXPECT_EQ(m_linkSupervision.sendSetLinkSupervisionTimeoutReq(0, ""), 2U);
    EXPECT_EQ(m_board.bri().receivedHex(), "0170775b 00000002 00c0ffee 08001200");
    EXPECT_EQ(m_board.commonData().getBriClient().getNumTransactions(), 0U);
    m_board.bri().stop();
    EXPECT_EQ(m_linkSupervision.sendSetLinkSupervisionTimeoutReq(300, "link"), 0U);
}

struct LinkSupervisionFrameRow {
    const char* name;
    std::uint32_t number;
};

class MerlowLinkSupervisionFrameTest : public MerlowLinkSupervisionTest,
                                       public WithRow<LinkSupervisionFrameRow> {};

ROW_TEST(MerlowLinkSupervisionFrameTest, isParsedAndTracedAndNothingElse)
{
    const auto client = m_board.connectClient();
    const std::string type = std::string("boardresourcehandler.bri.") + row().name;
    m_board.traces().clear();
    m_board.bri().sendBody(row().number, 1, "");
    EXPECT_EQ(m_board.traces().count(17, "msgNo:" + std::to_string(row().number) +
                                             " procedureRef:1 connectionRef:100 " + type + ":{}"),
              1U)
        << m_board.traces().dump();
    EXPECT_FALSE(m_board.traces().contains(1, "") || m_board.traces().contains(4, ""));

    m_board.bri().sendBody(row().number, 1, "\x08");
    EXPECT_TRUE(m_board.traced(1, "Unable to parse GPB message " + type + " of size 13 bytes"));
    EXPECT_TRUE(m_board.bri().nothingReceived());
    EXPECT_TRUE(client.nothingReceived());
}

const LinkSupervisionFrameRow linkSupervisionFrameRows[] = {
    {"SetLinkSupervisionTimeoutCfm", 0x170775C},
    {"SetLinkSupervisionTimeoutRej", 0x170775D},
    {"StartLinkTimeoutSupervisionCfm", 0x170775F},
    {"StartLinkTimeoutSupervisionRej", 0x1707760},
    {"StopLinkTimeoutSupervisionCfm", 0x1707762},
    {"StopLinkTimeoutSupervisionRej", 0x1707763},
    {"ConnectivitySetSupervisionTimeoutCfm", 0x170776E},
    {"ConnectivitySetSupervisionTimeoutRej", 0x170776F},
    {"ConnectivityConnectedCfm", 0x1707771},
    {"ConnectivityConnectedRej", 0x1707772},
    {"ConnectivityNotConnectedCfm", 0x1707774},
    {"ConnectivityNotConnectedRej", 0x1707775}};
TEST_ROWS(all, MerlowLinkSupervisionFrameTest, linkSupervisionFrameRows);

} // namespace
