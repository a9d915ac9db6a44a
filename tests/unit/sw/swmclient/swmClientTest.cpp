// The SWM client on good terms with its server.

#include "rowTest.h"
#include "swmClientFixture.h"
#include "swmi.pb.h"

#include <functional>

namespace swmclient {

using testing::ElementsAre;
using testing::IsEmpty;

// Connection

TEST_F(SwmClientTest, startsIdle)
{
    EXPECT_FALSE(m_client->isConnected());
    EXPECT_EQ(m_client->getSelectedProtocolRev(), 0U);
    EXPECT_THAT(capabilityIds(), IsEmpty());
}

TEST_F(SwmClientTest, asksForTheConnectionWithTheRevisionsInTheirOrder)
{
    EXPECT_EQ(establish({3, 1, 300}), 0U);
    EXPECT_THAT(sent(), ElementsAre("00000001 00000007 0803080108ac02"));
    EXPECT_FALSE(peer()->blocking);
    EXPECT_TRUE(loop().watches(peer()->fd));
    EXPECT_FALSE(m_client->isConnected());
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_THAT(infos(),
                ElementsAre("SWMClient::addMsgHandler(msgNo=0x2)", "SWMClient::addMsgHandler(msgNo=0x3)",
                            "SWMClient::addMsgHandler(msgNo=0x5)", "SWMClient::addMsgHandler(msgNo=0x6)"));
    EXPECT_THAT(steps(), ElementsAre("SWMClient::sendMsg(msgNo=0x1, procRef=0x7)"));
}

TEST_F(SwmClientTest, confirmConnectsAndAsksForCapabilitiesWithTheSameReference)
{
    ASSERT_EQ(establish(), 0U);
    sent();
    m_log.clear();
    fromServer("00000002 0000002a 0803");
    EXPECT_TRUE(m_client->isConnected());
    EXPECT_EQ(m_client->getSelectedProtocolRev(), 3U);
    EXPECT_THAT(sent(), ElementsAre("00000004 0000002a"));
    EXPECT_THAT(capabilityIds(), IsEmpty());
    EXPECT_EQ(m_readyCalls, 0U);
    EXPECT_THAT(steps(),
                ElementsAre("SWMClient::receiveHandler(fd=" + std::to_string(peer()->fd) + ", eventMask=0x1)",
                            "SWMClient::handleConnEstablishCfm(procRef=0x2a, size=0x2)",
                            "SWMClient::handleConnEstablishCfm() GetCapabilitiesReq",
                            "SWMClient::sendMsg(msgNo=0x4, procRef=0x2a)"));
}

TEST_F(SwmClientTest, revisionZeroCountsAsNotConnected)
{
    ASSERT_EQ(establish(), 0U);
    sent();
    fromServer("00000002 00000007 0800");
    EXPECT_FALSE(m_client->isConnected());
    EXPECT_THAT(sent(), ElementsAre("00000004 00000007"));
}

TEST_F(SwmClientTest, rejectClosesTheConnectionAndLeavesTheDescriptorWithTheLoop)
{
    ASSERT_EQ(establish(), 0U);
    const int fd = peer()->fd;
    m_log.clear();
    fromServer("00000003 00000007 0803");
    EXPECT_FALSE(m_client->isConnected());
    EXPECT_EQ(sway().openConnections(), 0U);
    EXPECT_TRUE(loop().watches(fd));
    EXPECT_THAT(errors(), ElementsAre("SWMClient::handleConnEstablishRej() reason(3)"));
    EXPECT_THAT(steps(), testing::Contains("SWMClient::handleConnEstablishRej(procRef=0x7, size=0x2)"));
}

TEST_F(SwmClientTest, connectsAnewAfterAReject)
{
    ASSERT_EQ(establish(), 0U);
    fromServer("00000003 00000007 0801");
    m_log.clear();
    connect();
    EXPECT_EQ(sway().openConnections(), 1U);
}

TEST_F(SwmClientTest, secondAttemptKeepsTheHandlersOfTheFirst)
{
    ASSERT_EQ(establish(), 0U);
    m_client->destroy();
    m_log.clear();
    ASSERT_EQ(establish(), 0U);
    EXPECT_THAT(infos(), ElementsAre("SWMClient::addMsgHandler(msgNo=0x2) ALREADY_EXISTS",
                                     "SWMClient::addMsgHandler(msgNo=0x3) ALREADY_EXISTS",
                                     "SWMClient::addMsgHandler(msgNo=0x5) ALREADY_EXISTS",
                                     "SWMClient::addMsgHandler(msgNo=0x6) ALREADY_EXISTS"));
    fromServer("00000002 00000007 0801");
    EXPECT_TRUE(m_client->isConnected());
}

TEST_F(SwmClientTest, connectionThatIsStillThereIsClosedFirst)
{
    connect();
    const int fd = peer()->fd;
    ASSERT_EQ(establish(), 0U);
    EXPECT_EQ(sway().openConnections(), 1U);
    EXPECT_FALSE(loop().watches(fd));
    EXPECT_FALSE(m_client->isConnected());
}

TEST_F(SwmClientTest, destroyClosesAndForgets)
{
    connect();
    fromServer("00000005 00000007 0a00");
    const int fd = peer()->fd;
    m_client->destroy();
    EXPECT_EQ(sway().openConnections(), 0U);
    EXPECT_FALSE(loop().watches(fd));
    EXPECT_FALSE(m_client->isConnected());
    EXPECT_THAT(capabilityIds(), IsEmpty());
    m_client->destroy();
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(SwmClientTest, theEndOfTheObjectClosesTheConnection)
{
    connect();
    m_client.reset();
    EXPECT_EQ(sway().openConnections(), 0U);
    EXPECT_EQ(loop().watchCount(), 0U);
}

// Capabilities

TEST_F(SwmClientTest, capabilitiesComeInTheOrderOfTheirIdsWithTheirContent)
{
    connect();
    // The block size first on the wire: the order of the records is the table's. Field 5 is not read.
    fromServer("00000005 00000007"
               "32 03 08 80 20"                                  // block size 4096
               "22 10 0a06 0a01 61 1201 62 0a06 0a01 63 1201 64" // inventory a/b, c/d
               "2a 00 3a 00 1a 00 12 00 0a 00");
    EXPECT_THAT(capabilityIds(), ElementsAre(0, 1, 2, 3, 4, 5));
    EXPECT_EQ(m_readyCalls, 1U);
    std::vector<std::shared_ptr<SWAYCapability>> capabilities;
    m_client->getCapabilities(capabilities);
    EXPECT_EQ(static_cast<const SWAYCapBootSwInventory&>(*capabilities[3]).inventory,
              (SWAYCapBootSwInventory::Inventory{{"a", "b"}, {"c", "d"}}));
    EXPECT_EQ(static_cast<const SWAYCapLoadingBlockSize&>(*capabilities[4]).blockSize, 4096);
    EXPECT_THAT(steps(), testing::IsSupersetOf({"SWMClient::handleGetCapabilitiesCfm(procRef=0x7, size=0x21)",
                                                "SWMClient::handleGetCapabilitiesCfm() "
                                                "readyForPublicAccess()"}));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(SwmClientTest, eachCapabilityStandsAlone)
{
    const std::vector<std::pair<std::string, unsigned int>> rows = {{"0a00", 0}, {"1200", 1}, {"1a00", 2},
                                                                    {"2200", 3}, {"3200", 4}, {"3a00", 5}};
    for (const auto& [body, id] : rows) {
        connect();
        fromServer("00000005 00000007" + body);
        EXPECT_THAT(capabilityIds(), ElementsAre(id)) << body;
        m_client->destroy();
    }
}

TEST_F(SwmClientTest, pullLoadSupportGivesNoRecordAndTheServerIsReady)
{
    connect();
    fromServer("00000005 00000007 2a00");
    EXPECT_THAT(capabilityIds(), IsEmpty());
    EXPECT_EQ(m_readyCalls, 1U);
}

TEST_F(SwmClientTest, secondCapabilitiesConfirmAppendsAndIsReadyAgain)
{
    connect();
    fromServer("00000005 00000007 0a001200");
    fromServer("00000005 00000007 0a00");
    EXPECT_THAT(capabilityIds(), ElementsAre(0, 1, 0));
    EXPECT_EQ(m_readyCalls, 2U);
}

TEST_F(SwmClientTest, getCapabilitiesAppendsAndSharesTheRecords)
{
    connect();
    fromServer("00000005 00000007 0a001200");
    std::vector<std::shared_ptr<SWAYCapability>> capabilities;
    m_client->getCapabilities(capabilities);
    m_client->getCapabilities(capabilities);
    ASSERT_EQ(capabilities.size(), 4U);
    EXPECT_EQ(capabilities[0], capabilities[2]);
    EXPECT_EQ(capabilities[1], capabilities[3]);
    m_client.reset();
    EXPECT_EQ(capabilities[1]->id, 1);
}

TEST_F(SwmClientTest, capabilitiesRejectEmptiesTheListAndKeepsTheConnection)
{
    connect();
    fromServer("00000005 00000007 0a00");
    m_log.clear();
    fromServer("00000006 00000007 0800");
    EXPECT_THAT(capabilityIds(), IsEmpty());
    EXPECT_EQ(m_readyCalls, 1U);
    EXPECT_TRUE(m_client->isConnected());
    EXPECT_EQ(sway().openConnections(), 1U);
    EXPECT_THAT(errors(), ElementsAre("SWMClient::handleGetCapabilitiesRej() reason(0)"));
    EXPECT_THAT(steps(), testing::Contains("SWMClient::handleGetCapabilitiesRej(procRef=0x7, size=0x2)"));
}

TEST_F(SwmClientTest, withoutSomebodyToTellCapabilitiesAreKeptAllTheSame)
{
    ASSERT_EQ(m_client->connEstablishReq({}, 7, address, {1}), 0U);
    fromServer("00000002 00000007 0801");
    m_log.clear();
    fromServer("00000005 00000007 0a00");
    EXPECT_THAT(capabilityIds(), ElementsAre(0));
    EXPECT_THAT(steps(), testing::Not(testing::Contains("SWMClient::handleGetCapabilitiesCfm() "
                                                        "readyForPublicAccess()")));
}

TEST_F(SwmClientTest, capabilitiesAreBoundedAndNoKindIsLost)
{
    connect();
    fromServer("00000005 00000007 3a00"); // announced once
    for (std::size_t i = 0; i < SWMClient::maxCapabilities + 10; ++i) {
        fromServer("00000005 00000007 0a00");
    }
    const auto ids = capabilityIds();
    EXPECT_EQ(ids.size(), SWMClient::maxCapabilities);
    EXPECT_EQ(ids.front(), 5U);
    EXPECT_EQ(m_readyCalls, SWMClient::maxCapabilities + 11);
    EXPECT_THAT(
        errors(),
        ElementsAre("ABN: More than 4096 capability records of the SWM server: the oldest repeated ones go"));
}

// Handlers

TEST_F(SwmClientTest, handlerGetsReferenceAndBody)
{
    connect();
    EXPECT_EQ(m_client->addMsgHandler(18, recorder(18)), 0U);
    fromServer("00000012 fffffffe 616263");
    EXPECT_THAT(m_calls, ElementsAre("18: ref 4294967294, 3 abc"));
}

TEST_F(SwmClientTest, frameOfExactlyEightBytesHasAnEmptyBody)
{
    connect();
    m_client->addMsgHandler(18, recorder(18));
    fromServer("00000012 00000001");
    EXPECT_THAT(m_calls, ElementsAre("18: ref 1, 0 "));
}

TEST_F(SwmClientTest, firstHandlerOfANumberStays)
{
    connect();
    EXPECT_EQ(m_client->addMsgHandler(18, recorder(18)), 0U);
    EXPECT_EQ(m_client->addMsgHandler(18, recorder(99)), 3U);
    EXPECT_THAT(infos(), ElementsAre("SWMClient::addMsgHandler(msgNo=0x12)",
                                     "SWMClient::addMsgHandler(msgNo=0x12) ALREADY_EXISTS"));
    fromServer("00000012 00000001");
    EXPECT_THAT(m_calls, ElementsAre("18: ref 1, 0 "));
}

TEST_F(SwmClientTest, theNumberAloneSelectsTheHandlerToRemove)
{
    connect();
    m_client->addMsgHandler(18, recorder(18));
    m_log.clear();
    EXPECT_EQ(m_client->removeMsgHandler(18, recorder(99)), 0U);
    EXPECT_EQ(m_client->removeMsgHandler(18, {}), 4U);
    EXPECT_THAT(infos(), ElementsAre("SWMClient::removeMsgHandler(msgNo=0x12)",
                                     "SWMClient::removeMsgHandler(msgNo=0x12) NOT_FOUND"));
    fromServer("00000012 00000001");
    EXPECT_THAT(m_calls, IsEmpty());
}

TEST_F(SwmClientTest, handlerMayRemoveItselfAndEndTheConnection)
{
    connect();
    const std::string longText(100, 'x'); // what the handler holds must outlive its own removal
    m_client->addMsgHandler(18, [this, longText](unsigned int, const char* buffer, unsigned int size) {
        m_client->removeMsgHandler(18, {});
        m_client->destroy();
        m_calls.push_back(longText.substr(0, 1) + std::string(buffer, size));
    });
    fromServer("00000012 00000001 6162");
    EXPECT_THAT(m_calls, ElementsAre("xab"));
    EXPECT_EQ(sway().openConnections(), 0U);
}

TEST_F(SwmClientTest, readyCallbackMayAskForANewConnection)
{
    const std::string longText(100, 'x');
    ASSERT_EQ(m_client->connEstablishReq(
                  [this, longText] {
                      EXPECT_EQ(establish(), 0U);
                      m_calls.push_back(longText.substr(99));
                  },
                  7, address, {1}),
              0U);
    fromServer("00000002 00000007 0801");
    fromServer("00000005 00000007 0a00");
    EXPECT_THAT(m_calls, ElementsAre("x"));
    EXPECT_EQ(sway().openConnections(), 1U);
    EXPECT_FALSE(m_client->isConnected());
}

namespace {

/// Takes the place of one of the class's own handlers.
class DerivedClient : public SWMClient {
public:
    unsigned int confirms = 0;

protected:
    void handleConnEstablishCfm(unsigned int procRef, const char* /*buffer*/, unsigned int size) override
    {
        confirms += procRef + size;
    }
};

} // namespace

TEST_F(SwmClientTest, derivedClassReplacesAHandler)
{
    auto derived = std::make_unique<DerivedClient>();
    const DerivedClient& replaced = *derived;
    m_client = std::move(derived);
    ASSERT_EQ(establish(), 0U);
    fromServer("00000002 00000028 0801");
    EXPECT_EQ(replaced.confirms, 42U);
    EXPECT_FALSE(m_client->isConnected());
}

// Requests

namespace {

struct RequestRow {
    const char* name;
    std::function<unsigned int(SWMClient&)> send;
    const char* frame;
};

const std::vector<RequestRow>& requestRows()
{
    static const std::string software = "QXR1_R2";
    static const std::vector<RequestRow> rows = {
        {"getCapabilities", [](SWMClient& c) { return c.getCapabilitiesReq(0x01020304); },
         "00000004 01020304"},
        {"acquireResource", [](SWMClient& c) { return c.acquireResourceReq(9, 300, 0); },
         "00000007 00000009 08ac021000"},
        {"releaseResource", [](SWMClient& c) { return c.releaseResourceReq(9, 5); },
         "0000000b 00000009 0805"},
        {"releaseTicketZero", [](SWMClient& c) { return c.releaseResourceReq(9, 0); },
         "0000000b 00000009 0800"},
        {"pushLoadInitPointer", [](SWMClient& c) { return c.pushLoadInitReq(9, 5, "QXR1_R2"); },
         "0000000e 00000009 0805120751585231 5f5232"},
        {"pushLoadInitNull", [](SWMClient& c) { return c.pushLoadInitReq(9, 5, nullptr); },
         "0000000e 00000009 0805"},
        {"pushLoadInitEmpty", [](SWMClient& c) { return c.pushLoadInitReq(9, 5, ""); },
         "0000000e 00000009 08051200"},
        {"pushLoadInitString", [](SWMClient& c) { return c.pushLoadInitReq(9, 5, software); },
         "0000000e 00000009 08051207515852315f5232"},
        {"pushLoadData", [](SWMClient& c) { return c.pushLoadData(9, 5, 65535, "\x01\x02\xff", 3); },
         "00000011 00000009 080512030102ff18ffff03"},
        {"pushLoadDataEmpty", [](SWMClient& c) { return c.pushLoadData(9, 5, 0, nullptr, 0); },
         "00000011 00000009 080512001800"},
        {"pushLoadEnd", [](SWMClient& c) { return c.pushLoadEndReq(9, 5); }, "00000013 00000009 0805"},
        {"deletePointer", [](SWMClient& c) { return c.deleteReq(9, 5, "QXR1_R2"); },
         "0000001d 00000009 08051207515852315f5232"},
        {"deleteNull", [](SWMClient& c) { return c.deleteReq(9, 5, nullptr); }, "0000001d 00000009 0805"},
        {"deleteString", [](SWMClient& c) { return c.deleteReq(9, 5, software); },
         "0000001d 00000009 08051207515852315f5232"},
        {"getSwProductInv", [](SWMClient& c) { return c.getSwProductInvReq(9, 0xFFFFFFFF); },
         "00000020 00000009 08ffffffff0f"},
        {"swCompList", [](SWMClient& c) { return c.swCompListReq(9, 5); }, "00000023 00000009 0805"},
        {"swCompListAckGoesOn", [](SWMClient& c) { return c.swCompListAck(9, 5, false); },
         "00000027 00000009 08051000"},
        {"swCompListAckAborts", [](SWMClient& c) { return c.swCompListAck(9, 5, true); },
         "00000027 00000009 08051001"},
        {"getRunningSw", [](SWMClient& c) { return c.getRunningSwReq(9); }, "00000028 00000009"},
        {"setCurrentSlotWorking", [](SWMClient& c) { return c.setCurrentSlotWorkingReq(9); },
         "0000002b 00000009"},
    };
    return rows;
}

} // namespace

class SwmClientRequestTest : public SwmClientTest, public WithRow<RequestRow> {};

ROW_TEST(SwmClientRequestTest, isThisFrame)
{
    connect();
    EXPECT_EQ(row().send(*m_client), 0U);
    EXPECT_THAT(sent(), ElementsAre(support::frameToHex(bytesOf(row().frame))));
    EXPECT_THAT(errors(), IsEmpty());
}

ROW_TEST(SwmClientRequestTest, failsWithTheConnectionAndSaysSo)
{
    connect();
    sway().fail(support::FakeSway::Call::send, EAGAIN);
    EXPECT_EQ(row().send(*m_client), 2U);
    EXPECT_THAT(sent(), IsEmpty());
    ASSERT_EQ(errors().size(), 1U);
    EXPECT_THAT(errors()[0], testing::MatchesRegex("SWMClient::sendMsg\\(msgNo=0x[0-9a-f]+, "
                                                   "procRef=0x[0-9a-f]+\\) failed sway_send\\(\\) "
                                                   "error='Resource temporarily unavailable'"));
    EXPECT_EQ(row().send(*m_client), 0U) << "The next one finds room";
    EXPECT_EQ(sent().size(), 1U) << "What was refused is not sent again";
}

TEST_ROWS(All, SwmClientRequestTest, requestRows());

TEST_F(SwmClientTest, blockIsFramedAsTheSchemaSerialisesIt)
{
    connect();
    for (const std::size_t size : {std::size_t{1}, std::size_t{127}, std::size_t{128}, std::size_t{16383},
                                   std::size_t{16384}, std::size_t{65536}, std::size_t{200000}}) {
        std::string block(size, '\0');
        for (std::size_t i = 0; i < size; ++i) {
            block[i] = static_cast<char>(i * 7);
        }
        swm::PushLoadData expected;
        expected.set_ticket_number(77);
        expected.set_data(block);
        expected.set_sequence_number(1000);
        ASSERT_EQ(m_client->pushLoadData(5, 77, 1000, block.data(), size), 0U);
        const Bytes& frame = peer()->toPeer.back();
        EXPECT_TRUE(std::string(frame.begin() + 8, frame.end()) == expected.SerializeAsString()) << size;
    }
}

TEST_F(SwmClientTest, anyMessageIsFramed)
{
    connect();
    swm::PullLoadEndInd message;
    message.set_status(swm::PullLoadEndInd::TIMEOUT);
    EXPECT_EQ(m_client->sendMsg(0x01020304, 0x05060708, message), 0U);
    EXPECT_THAT(sent(), ElementsAre("01020304 05060708 1005"));
}

} // namespace swmclient
