#include "merlowBmmi.h"
#include "rowTest.h"

#include "bmmi.pb.h"
#include "board.h"
#include "brhCapabilities.h"

#include <gmock/gmock.h>

namespace bmmi = boardresourcehandler::bmmi;
using support::Board;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class MerlowBmmiTest : public ::testing::Test {
protected:
    void connect()
    {
        m_board.bmmi().start();
        m_board.bmmi().expect<bmmi::ConnEstablishReq>();
        m_board.bmmi().confirm();
    }
    std::vector<std::shared_ptr<Capability>> capabilities()
    {
        std::vector<std::shared_ptr<Capability>> list;
        m_client.getCapabilities(list);
        return list;
    }

    Board m_board{Board::Options{.bri = false, .bmmi = false}};
    MerlowBmmi& m_bmmi = m_board.add<MerlowBmmi>();
    BrhClient& m_client = m_board.commonData().getBmmiClient();
};

} // namespace

TEST_F(MerlowBmmiTest, searchesTheServerByItsDefaultName)
{
    EXPECT_EQ(m_bmmi.getComponentName(), "MerlowBmmi");
    EXPECT_TRUE(m_board.traced(5, "Merlow is locating BmmiServer"));
    EXPECT_EQ(m_board.mnet().pendingLocates(), 1U);
}

TEST_F(MerlowBmmiTest, foundServerIsAskedForAConnection)
{
    m_board.bmmi().start();
    EXPECT_TRUE(m_board.traced(5, "BMMI Server has come online : sending request to establish connection"));
    EXPECT_EQ(m_board.bmmi().receivedHex(), "01707570 00000065 00000065 0801");
    EXPECT_TRUE(m_board.bmmi().nothingReceived());
}

TEST_F(MerlowBmmiTest, confirmBringsTheRequestForCapabilities)
{
    connect();
    EXPECT_TRUE(
        m_board.traced(5, "bmmi::ConnEstablishCfm from BMMI server has selected protocol revision #1"));
    EXPECT_EQ(m_board.bmmi().receivedHex(), "0170757d 00000001 00c0ffee");
    EXPECT_TRUE(m_board.bmmi().nothingReceived());
    EXPECT_EQ(m_client.getNumTransactions(), 0U);
}

TEST_F(MerlowBmmiTest, refusedConfirmSendsNothing)
{
    m_board.bmmi().start();
    m_board.bmmi().expect<bmmi::ConnEstablishReq>();
    m_board.bmmi().confirm(0);
    EXPECT_TRUE(m_board.bmmi().nothingReceived());
    EXPECT_FALSE(m_client.isConnected());
}

TEST_F(MerlowBmmiTest, readinessTellsWhatIsMissing)
{
    const std::string prefix = "MerlowBmmi is not ready to publish.";
    EXPECT_FALSE(m_bmmi.isReadyToPublish());
    EXPECT_TRUE(m_board.traced(4, prefix + " Client is not connected. Capabilities have not been received."));
    connect();
    EXPECT_FALSE(m_bmmi.isReadyToPublish());
    EXPECT_TRUE(m_board.traced(4, prefix + " Capabilities have not been received."));
    m_board.bmmi().sendHex("0170757e 00000001 00000065"); // no field is set
    EXPECT_EQ(m_board.checkComponentsCalls(), 1U);
    EXPECT_TRUE(m_bmmi.isReadyToPublish());
    EXPECT_FALSE(m_client.areCapabilitiesPresent());
    m_board.bmmi().stop();
    EXPECT_TRUE(m_board.traced(4, "ABN: The Merlow has lost the connection to the BMMI Server"));
    EXPECT_FALSE(m_bmmi.isReadyToPublish());
    EXPECT_TRUE(m_board.traced(4, prefix + " Client is not connected."));
}

TEST_F(MerlowBmmiTest, serverThatComesBackIsConnectedAnew)
{
    connect();
    m_board.bmmi().expect<bmmi::GetCapabilitiesReq>();
    m_board.bmmi().stop();
    m_board.bmmi().start();
    EXPECT_EQ(m_board.bmmi().receivedHex(), "01707570 00000065 00000065 0801");
    m_board.bmmi().confirm();
    EXPECT_EQ(m_board.bmmi().receivedHex(), "0170757d 00000002 00c0ffee");
}

TEST_F(MerlowBmmiTest, confirmOfAConnectedClientAsksAgain)
{
    connect();
    m_board.bmmi().expect<bmmi::GetCapabilitiesReq>();
    m_board.bmmi().confirm();
    EXPECT_EQ(m_board.bmmi().receivedHex(), "0170757d 00000002 00c0ffee");
}

TEST_F(MerlowBmmiTest, aServerFoundByAConnectedClientIsNotAskedAgain)
{
    m_board.newClient().sendHex("01707571 00000065 00c0ffee 0801"); // before the server was found
    ASSERT_TRUE(m_client.isConnected());
    m_board.bmmi().start();
    EXPECT_TRUE(m_client.isServerFound());
    EXPECT_TRUE(m_board.traced(5, "BMMI Server has come online : sending request to establish connection"));
    EXPECT_TRUE(m_board.bmmi().nothingReceived());
}

struct BmmiRejectRow {
    const char* name;
    const char* body;
    const char* reason;
};

class MerlowBmmiRejectTest : public MerlowBmmiTest, public WithRow<BmmiRejectRow> {};

ROW_TEST(MerlowBmmiRejectTest, rejectIsTracedAndNotRetried)
{
    m_board.bmmi().start();
    m_board.bmmi().expect<bmmi::ConnEstablishReq>();
    m_board.bmmi().sendHex(std::string("01707572 00000065 00000065") + row().body);
    EXPECT_TRUE(m_board.traced(
        4, std::string("ABN: Merlow connection to the BMMI Server has been rejected: ") + row().reason));
    EXPECT_TRUE(m_board.bmmi().nothingReceived());
    EXPECT_FALSE(m_client.isConnected());
}

const BmmiRejectRow bmmiRejectRows[] = {{"revision", "0801", "NO_SUPPORTED_PROTOCOL_REVISION"},
                                        {"connections", "0802", "MAX_NUMBER_OF_CONNECTIONS_EXCEEDED"},
                                        {"none", "", "reason not set by server"},
                                        {"unknown", "0809", "reason not set by server"}};
TEST_ROWS(all, MerlowBmmiRejectTest, bmmiRejectRows);

// Capabilities

TEST_F(MerlowBmmiTest, eachFieldGivesItsRecord)
{
    connect();
    m_board.traces().clear();
    m_board.bmmi().sendHex("0170757e 00000001 00000065 1a00 1200 0a00");
    const auto list = capabilities();
    ASSERT_EQ(list.size(), 3U);
    EXPECT_EQ(list[0]->id, 23);
    EXPECT_THAT(dynamic_cast<const SpecialIndicator&>(*list[0]).indicators,
                ElementsAre("Support Unit Fault Indicator"));
    EXPECT_EQ(list[1]->id, 34);
    EXPECT_EQ(list[2]->id, 7);
    std::vector<std::string> traces;
    for (const auto& line : m_board.traces().lines()) {
        if (line.level == 5) {
            traces.push_back(line.text);
        }
    }
    EXPECT_THAT(traces, ElementsAre(" adding 'Support Unit Fault Indicator' Capability",
                                    " adding 'Here I Am' Capability", " adding 'Common MMI' Capability"));
    EXPECT_TRUE(m_board.traces().contains(17, "procedureRef:1 connectionRef:101"));
    EXPECT_EQ(m_board.checkComponentsCalls(), 1U);
}

TEST_F(MerlowBmmiTest, oneFieldGivesOneRecord)
{
    connect();
    m_board.bmmi().sendHex("0170757e 00000001 00000065 1200");
    ASSERT_EQ(capabilities().size(), 1U);
    EXPECT_EQ(capabilities()[0]->id, 34);
    EXPECT_FALSE(m_client.isCapabilityPresent(CAP_SUPPORT_COMMON_MMI));
}

TEST_F(MerlowBmmiTest, unreadableFramesChangeNothing)
{
    connect();
    m_board.traces().clear();
    m_board.bmmi().sendHex("0170757e 00000001 00000065 1a");
    EXPECT_TRUE(m_board.traced(
        1, "Unable to parse GPB message boardresourcehandler.bmmi.GetCapabilitiesCfm of size 13 bytes"));
    m_board.bmmi().sendHex("0170757e 00000001 000000");
    EXPECT_TRUE(m_board.traces().contains(4, " is too short: 11 of 12 bytes. Ignoring it."));
    m_board.bmmi().sendHex("01707572 00000065 00000065 08");
    EXPECT_TRUE(m_board.traced(
        1, "Unable to parse GPB message boardresourcehandler.bmmi.ConnEstablishRej of size 13 bytes"));
    EXPECT_FALSE(m_client.areCapabilitiesReceived());
    EXPECT_THAT(capabilities(), IsEmpty());
}

TEST_F(MerlowBmmiTest, capabilitiesWithoutASubscribedCoreAreTaken)
{
    m_bmmi.subscribeForCheckComponents({});
    connect();
    m_board.bmmi().sendHex("0170757e 00000001 00000065");
    EXPECT_TRUE(m_bmmi.isReadyToPublish());
    EXPECT_EQ(m_board.checkComponentsCalls(), 0U);
}

TEST_F(MerlowBmmiTest, refusedCapabilitiesAreTracedAndNotReady)
{
    connect();
    m_board.bmmi().sendHex("0170757f 00000001 00000065");
    EXPECT_TRUE(m_board.traced(1, "The BMMI Server failed to get the capabilities"));
    EXPECT_FALSE(m_bmmi.isReadyToPublish());
    EXPECT_EQ(m_board.checkComponentsCalls(), 0U);
}
