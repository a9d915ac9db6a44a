#include "merlowBri.h"
#include "rowTest.h"

#include "board.h"
#include "brhCapabilities.h"
#include "bri.pb.h"

#include <gmock/gmock.h>

namespace bri = boardresourcehandler::bri;
using support::Board;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class MerlowBriTest : public ::testing::Test {
protected:
    void connect()
    {
        m_board.bri().start();
        m_board.bri().expect<bri::ConnEstablishReq>();
        m_board.bri().confirm();
    }
    void expectTheFourRequests(unsigned int firstRef)
    {
        for (const auto* number : {"0170773c", "0170773f", "01707730", "01707753"}) {
            std::ostringstream hex;
            hex << number << ' ' << std::hex << std::setw(8) << std::setfill('0') << firstRef++
                << " 00c0ffee";
            EXPECT_EQ(m_board.bri().receivedHex(), hex.str());
        }
        EXPECT_TRUE(m_board.bri().nothingReceived());
    }
    std::vector<std::shared_ptr<Capability>> capabilities()
    {
        std::vector<std::shared_ptr<Capability>> list;
        m_client.getCapabilities(list);
        return list;
    }

    Board m_board{Board::Options{.bri = false, .bmmi = false}};
    MerlowBri& m_bri = m_board.add<MerlowBri>();
    BrhClient& m_client = m_board.commonData().getBriClient();
};

} // namespace

TEST_F(MerlowBriTest, searchesTheServerByItsDefaultName)
{
    EXPECT_EQ(m_bri.getComponentName(), "MerlowBri");
    EXPECT_TRUE(m_board.traced(5, "Merlow is locating BriServer"));
    EXPECT_EQ(m_board.mnet().pendingLocates(), 1U);
}

TEST_F(MerlowBriTest, foundServerIsAskedForAConnection)
{
    m_board.bri().start();
    EXPECT_TRUE(m_board.traced(5, "BRI Server has come online : sending request to establish connection"));
    EXPECT_EQ(m_board.bri().receivedHex(), "0170772d 00000064 00000064 0801");
    EXPECT_TRUE(m_board.bri().nothingReceived());
}

TEST_F(MerlowBriTest, confirmBringsTheFourRequestsInTheirOrder)
{
    connect();
    EXPECT_TRUE(m_board.traced(5, "bri::ConnEstablishCfm from BRI server has selected protocol revision #1"));
    expectTheFourRequests(1);
    EXPECT_EQ(m_client.getNumTransactions(), 0U);
}

TEST_F(MerlowBriTest, refusedConfirmSendsNothing)
{
    m_board.bri().start();
    m_board.bri().expect<bri::ConnEstablishReq>();
    m_board.bri().confirm(0);
    EXPECT_TRUE(m_board.bri().nothingReceived());
    EXPECT_FALSE(m_client.isConnected());
}

TEST_F(MerlowBriTest, readinessTellsWhatIsMissing)
{
    const std::string prefix = "MerlowBri is not ready to publish.";
    EXPECT_FALSE(m_bri.isReadyToPublish());
    EXPECT_TRUE(m_board.traced(4, prefix + " Client is not connected. Capabilities have not been received."));
    connect();
    EXPECT_FALSE(m_bri.isReadyToPublish());
    EXPECT_TRUE(m_board.traced(4, prefix + " Capabilities have not been received."));
    EXPECT_EQ(m_board.checkComponentsCalls(), 0U);
    m_board.bri().sendHex("01707731 00000003 00000064"); // an empty list
    EXPECT_EQ(m_board.checkComponentsCalls(), 1U);
    EXPECT_TRUE(m_bri.isReadyToPublish());
    EXPECT_FALSE(m_client.areCapabilitiesPresent());
    m_board.bri().stop();
    EXPECT_TRUE(m_board.traced(4, "ABN: The Merlow has lost the connection to the BRI Server"));
    EXPECT_FALSE(m_bri.isReadyToPublish());
    EXPECT_TRUE(m_board.traced(4, prefix + " Client is not connected."));
    EXPECT_TRUE(m_client.areCapabilitiesReceived());
}

TEST_F(MerlowBriTest, serverThatComesBackIsConnectedAnew)
{
    connect();
    expectTheFourRequests(1);
    m_board.bri().sendHex("01707731 00000003 00000064 0800");
    m_board.bri().stop();
    m_board.traces().clear();
    m_board.bri().start();
    EXPECT_TRUE(m_board.traced(5, "BRI Server has come online : sending request to establish connection"));
    EXPECT_EQ(m_board.bri().receivedHex(), "0170772d 00000064 00000064 0801");
    m_board.bri().confirm();
    expectTheFourRequests(5);
    m_board.bri().sendHex("01707731 00000007 00000064 0800");
    EXPECT_TRUE(m_bri.isReadyToPublish());
    EXPECT_EQ(m_board.checkComponentsCalls(), 2U);
    EXPECT_EQ(capabilities().size(), 2U); // a second set of records
}

TEST_F(MerlowBriTest, aServerFoundByAConnectedClientIsNotAskedAgain)
{
    m_board.newClient().sendHex("0170772e 00000064 00c0ffee 0801"); // before the server was found
    ASSERT_TRUE(m_client.isConnected());
    m_board.bri().start();
    EXPECT_TRUE(m_client.isServerFound());
    EXPECT_TRUE(m_board.traced(5, "BRI Server has come online : sending request to establish connection"));
    EXPECT_TRUE(m_board.bri().nothingReceived());
}

struct BriRejectRow {
    const char* name;
    const char* body;
    const char* trace;
};

class MerlowBriRejectTest : public MerlowBriTest, public WithRow<BriRejectRow> {};

ROW_TEST(MerlowBriRejectTest, rejectIsTracedAndNotRetried)
{
    m_board.bri().start();
    m_board.bri().expect<bri::ConnEstablishReq>();
    m_board.bri().sendHex(std::string("0170772f 00000064 00000064") + row().body);
    EXPECT_TRUE(m_board.traced(4, row().trace));
    EXPECT_TRUE(m_board.bri().nothingReceived());
    EXPECT_TRUE(m_client.isServerFound());
    EXPECT_FALSE(m_client.isConnected());
}

const BriRejectRow briRejectRows[] = {
    {"revision", "0801",
     "ABN: Merlow connection to the BRI Server has been rejected: NO_SUPPORTED_PROTOCOL_REVISION"},
    {"connections", "0802",
     "ABN: Merlow connection to the BRI Server has been rejected: MAX_NUMBER_OF_CONNECTIONS_EXCEEDED"},
    {"none", "", "ABN: bri::ConnEstablishRej provided no reason"},
    {"unknown", "0809", "ABN: bri::ConnEstablishRej provided no reason"}};
TEST_ROWS(all, MerlowBriRejectTest, briRejectRows);

TEST_F(MerlowBriTest, unreadableRejectIsTraced)
{
    m_board.bri().start();
    m_board.bri().sendHex("0170772f 00000064 00000064 08");
    EXPECT_TRUE(m_board.traced(
        1, "Unable to parse GPB message boardresourcehandler.bri.ConnEstablishRej of size 13 bytes"));
    EXPECT_FALSE(m_board.traces().contains(4, "provided no reason"));
}

// Capabilities

struct CapabilityRow {
    unsigned int type;
    const char* trace;
    unsigned int id;
};

class MerlowBriCapabilityTest : public MerlowBriTest, public WithRow<CapabilityRow> {};

ROW_TEST(MerlowBriCapabilityTest, eachValueGivesItsRecord)
{
    connect();
    m_board.traces().clear();
    m_board.bri().sendBody(bri::GetCapabilitiesCfm::MESSAGE_NUMBER, 3,
                           {'\x08', static_cast<char>(row().type)});
    ASSERT_EQ(capabilities().size(), 1U);
    EXPECT_EQ(capabilities()[0]->id, row().id);
    EXPECT_TRUE(m_client.areCapabilitiesReceived());
    EXPECT_TRUE(m_board.traced(17, "handleBriGetCapabilitiesCfm"));
    if (row().trace != nullptr) {
        EXPECT_TRUE(m_board.traced(5, row().trace));
    } else {
        EXPECT_FALSE(m_board.traces().contains(5, "adding"));
    }
}

const CapabilityRow capabilityRows[] = {{0, "adding 'Utc Time' Capability", 37},
                                        {1, "adding 'Hw Log' Capability", 38},
                                        {2, "adding 'Product Inventory' Capability", 39},
                                        {3, "adding 'ContainerPid' Capability", 40},
                                        {4, "adding 'IntegratedHwCategory_1' Capability", 41},
                                        {5, "adding 'MarketPid' Capability", 42},
                                        {6, "adding 'ExtendedMarketPid' Capability", 43},
                                        {7, "adding 'NotifyRestart' Capability", 44},
                                        {8, "adding 'TemperatureLevelMeasurement' Capability", 46},
                                        {9, "adding 'ClimateControl' Capability", 47},
                                        {10, "adding 'RestartNotification' Capability", 48},
                                        {11, "adding 'RestartRankLabel' Capability", 49},
                                        {12, nullptr, 50}};
TEST_ROWS(all, MerlowBriCapabilityTest, capabilityRows,
          [](const auto& row) { return std::to_string(row.type); });

TEST_F(MerlowBriTest, unknownValuesDoNotStopTheLoop)
{
    connect();
    m_board.bri().sendHex(
        "01707731 00000003 00000064 0805 080d 0863 0805"); // 13 is named, 99 is lost in parsing
    std::vector<unsigned int> ids;
    for (const auto& capability : capabilities()) {
        ids.push_back(capability->id);
    }
    EXPECT_THAT(ids, ElementsAre(42U, 42U));
    EXPECT_TRUE(m_board.traced(4, "MerlowBri::handleBriGetCapabilitiesCfm got unhandled CAP: 13"));
    EXPECT_TRUE(m_client.areCapabilitiesReceived());
    EXPECT_EQ(m_board.checkComponentsCalls(), 1U);
}

TEST_F(MerlowBriTest, parametersAreNarrowedAndTheFirstTwoOfALevelSwapped)
{
    bri::GetCapabilitiesCfm cfm;
    cfm.add_capabilities(bri::GetCapabilitiesCfm::TEMPERATURE_LEVEL_MEASUREMENT);
    cfm.add_capabilities(bri::GetCapabilitiesCfm::CLIMATE_CONTROL);
    cfm.add_capabilities(bri::GetCapabilitiesCfm::RESTART_RANK_LABEL);
    auto* level = cfm.add_temperature_level_measurement_params();
    level->set_lower_level(1);
    level->set_upper_level(2);
    level->set_hysteresis(-3);
    cfm.add_temperature_level_measurement_params()->set_upper_level(0x12345);
    auto* hotspot = cfm.add_hotspot_params();
    hotspot->set_sensor(4);
    hotspot->set_threshold(5);
    hotspot->set_hysteresis(0x7FFF8001);
    cfm.set_supported_restart_ranks(0x80000005);
    connect();
    m_board.bri().send(cfm, 3);

    const auto list = capabilities();
    ASSERT_EQ(list.size(), 3U);
    const auto& levels = dynamic_cast<const TemperatureLevelMeasurement&>(*list[0]).params;
    ASSERT_EQ(levels.size(), 2U);
    EXPECT_EQ(levels[0]->upperLevel, 2);
    EXPECT_EQ(levels[0]->lowerLevel, 1);
    EXPECT_EQ(levels[0]->hysteresis, -3);
    EXPECT_EQ(levels[1]->upperLevel, 0x2345);
    EXPECT_EQ(levels[1]->lowerLevel, 0);
    const auto& hotspots = dynamic_cast<const ClimateControl&>(*list[1]).params;
    ASSERT_EQ(hotspots.size(), 1U);
    EXPECT_EQ(hotspots[0]->sensor, 4);
    EXPECT_EQ(hotspots[0]->threshold, 5);
    EXPECT_EQ(hotspots[0]->hysteresis, -32767);
    EXPECT_EQ(dynamic_cast<const RestartRankLabelSupport&>(*list[2]).supportedRestartRanks, 0x80000005U);
}

TEST_F(MerlowBriTest, unreadableCapabilitiesChangeNothing)
{
    connect();
    m_board.traces().clear();
    m_board.bri().sendHex("01707731 00000003 00000064 0805 08");
    EXPECT_TRUE(m_board.traced(
        1, "Unable to parse GPB message boardresourcehandler.bri.GetCapabilitiesCfm of size 15 bytes"));
    EXPECT_FALSE(m_client.areCapabilitiesReceived());
    EXPECT_THAT(capabilities(), IsEmpty());
    EXPECT_EQ(m_board.checkComponentsCalls(), 0U);
}

TEST_F(MerlowBriTest, capabilitiesWithoutASubscribedCoreAreTaken)
{
    m_bri.subscribeForCheckComponents({});
    connect();
    m_board.bri().sendHex("01707731 00000003 00000064 0805");
    EXPECT_TRUE(m_bri.isReadyToPublish());
    EXPECT_EQ(m_board.checkComponentsCalls(), 0U);
}

TEST_F(MerlowBriTest, refusedCapabilitiesAreTracedAndNotReady)
{
    connect();
    m_board.bri().sendHex("01707732 00000003 00000064");
    EXPECT_TRUE(
        m_board.traced(1, "MerlowBri::handleBriGetCapabilitiesRej(), Unable to get BriServer Capabilities"));
    EXPECT_FALSE(m_bri.isReadyToPublish());
    EXPECT_EQ(m_board.checkComponentsCalls(), 0U);
}

TEST_F(MerlowBriTest, capabilitiesOfAServerThatKeepsReconnectingAreBounded)
{
    std::string all;
    for (char type = 0; type <= 12; ++type) {
        all += {'\x08', type};
    }
    connect();
    for (int i = 0; i < 400; ++i) {
        m_board.bri().sendBody(bri::GetCapabilitiesCfm::MESSAGE_NUMBER, 3, all);
        m_board.traces().clear();
    }
    const auto list = capabilities();
    ASSERT_EQ(list.size(), 4096U);
    EXPECT_EQ(list.back()->id, 50);
    EXPECT_EQ(m_board.checkComponentsCalls(), 400U);
}
