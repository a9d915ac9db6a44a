// The SWM client against a server that refuses, breaks off or talks nonsense.

#include "swmClientFixture.h"

#include <random>

namespace swmclient {

using support::FakeSway;
using testing::ElementsAre;
using testing::IsEmpty;

class SwmClientFailureTest : public SwmClientTest {};

// The way to the connection

TEST_F(SwmClientFailureTest, nobodyListens)
{
    sway().refuse(address);
    EXPECT_EQ(establish(), 1U);
    EXPECT_THAT(
        errors(),
        ElementsAre("SWMClient::connEstablishReq() SWAY connection to SWMI Server was unsuccessful."));
    EXPECT_THAT(infos(), IsEmpty());
    EXPECT_EQ(loop().watchCount(), 0U);
}

TEST_F(SwmClientFailureTest, unreadableLimitLeaves4096Bytes)
{
    sway().fail(FakeSway::Call::attr, EIO);
    ASSERT_EQ(establish(), 0U);
    EXPECT_THAT(errors(), ElementsAre("SWMClient::connEstablishReq() sway_attr_get() failed to get "
                                      "'max_msg_size' with error='Input/output error'"));
    m_client->addMsgHandler(18, [this](unsigned int, const char*, unsigned int size) {
        m_calls.push_back(std::to_string(size));
    });
    m_log.clear();
    Bytes frame(4097);
    frame[3] = 18;
    fromServer(frame);
    EXPECT_THAT(m_calls, IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("SWMClient: receiveHandler() msgHandler error='Message too long'"));
    frame.resize(4096);
    fromServer(frame);
    EXPECT_THAT(m_calls, ElementsAre("4088"));
}

TEST_F(SwmClientFailureTest, limitOfTheConnectionIsTheLongestFrame)
{
    sway().setMaxMsgSize(100);
    connect();
    m_client->addMsgHandler(18, [this](unsigned int, const char*, unsigned int size) {
        m_calls.push_back(std::to_string(size));
    });
    Bytes frame(101);
    frame[3] = 18;
    fromServer(frame);
    EXPECT_THAT(errors(), ElementsAre("SWMClient: receiveHandler() msgHandler error='Message too long'"));
    frame.resize(100);
    fromServer(frame);
    EXPECT_THAT(m_calls, ElementsAre("92"));
}

TEST_F(SwmClientFailureTest, limitIsReadAnewForEachConnection)
{
    sway().fail(FakeSway::Call::attr, EIO);
    ASSERT_EQ(establish(), 0U);
    m_client->destroy();
    connect();
    m_client->addMsgHandler(18, [this](unsigned int, const char*, unsigned int size) {
        m_calls.push_back(std::to_string(size));
    });
    Bytes frame(262144);
    frame[3] = 18;
    fromServer(frame);
    EXPECT_THAT(m_calls, ElementsAre("262136"));
}

TEST_F(SwmClientFailureTest, awaitFails)
{
    sway().fail(FakeSway::Call::await, ENOMEM);
    EXPECT_EQ(establish(), 1U);
    EXPECT_THAT(errors(),
                ElementsAre("SWMClient::connEstablishReq() sway_await() error='Cannot allocate memory'"));
    EXPECT_EQ(sway().openConnections(), 0U);
    EXPECT_EQ(loop().watchCount(), 0U);
    connect();
}

TEST_F(SwmClientFailureTest, eventLoopRefuses)
{
    loop().failAddFd();
    EXPECT_EQ(establish(), 1U);
    EXPECT_THAT(errors(),
                ElementsAre("SWMClient::connEstablishReq() the event loop refused the SWAY connection"));
    EXPECT_EQ(sway().openConnections(), 0U);
    connect();
}

TEST_F(SwmClientFailureTest, requestForTheConnectionIsRefused)
{
    sway().fail(FakeSway::Call::send, EPIPE);
    EXPECT_EQ(establish(), 1U);
    EXPECT_THAT(
        errors(),
        ElementsAre("SWMClient::sendMsg(msgNo=0x1, procRef=0x7) failed sway_send() error='Broken pipe'",
                    "SWMClient::connEstablishReq() failed to send ConnEstablishReq errCode(0x2)"));
    EXPECT_EQ(sway().openConnections(), 0U);
    EXPECT_EQ(loop().watchCount(), 1U) << "The descriptor stays with the loop";
    EXPECT_EQ(infos().size(), 4U);
    connect();
    EXPECT_EQ(loop().watchCount(), 2U);
}

TEST_F(SwmClientFailureTest, callbackThatIsLeftWithTheLoopOutlivesTheClient)
{
    ASSERT_EQ(establish(), 0U);
    const int fd = peer()->fd;
    fromServer("00000003 00000007 0801");
    m_client.reset();
    m_log.clear();
    // Another connection under the old number: the loop still has the callback.
    sway_socket* other = sway().open("ux:other");
    const int own = std::exchange(other->fd, fd);
    other->fromPeer.push_back(bytesOf("00000005 00000007"));
    EXPECT_TRUE(sway().isReadable(fd));
    EXPECT_TRUE(loop().callOneReadable());
    EXPECT_THAT(steps(), IsEmpty());
    other->fd = own;
    sway().close(other);
}

TEST_F(SwmClientFailureTest, eventWithoutAConnectionIsTraced)
{
    m_client->receiveHandler(5, 17);
    EXPECT_THAT(steps(), ElementsAre("SWMClient::receiveHandler(fd=5, eventMask=0x11)"));
    EXPECT_THAT(errors(), ElementsAre("SWMClient: receiveHandler() msgHandler error='Bad file descriptor'"));
    EXPECT_EQ(m_client->getRunningSwReq(1), 2U);
    EXPECT_EQ(errors().back(),
              "SWMClient::sendMsg(msgNo=0x28, procRef=0x1) failed sway_send() error='Bad file descriptor'");
}

TEST_F(SwmClientFailureTest, capabilitiesRequestIsRefused)
{
    ASSERT_EQ(establish(), 0U);
    fromServer("00000005 00000007 0a00"); // announced before its time
    EXPECT_THAT(capabilityIds(), ElementsAre(0));
    m_log.clear();
    sway().fail(FakeSway::Call::send, EAGAIN);
    fromServer("00000002 00000007 0801");
    EXPECT_THAT(errors(),
                ElementsAre("SWMClient::sendMsg(msgNo=0x4, procRef=0x7) failed sway_send() "
                            "error='Resource temporarily unavailable'",
                            "SWMClient::handleConnEstablishCfm() GetCapabilitiesReq failed to sendMsg"));
    EXPECT_THAT(capabilityIds(), IsEmpty());
    EXPECT_TRUE(m_client->isConnected());
}

// The peer's end

TEST_F(SwmClientFailureTest, peerClosesAndTheClientStillCountsAsConnected)
{
    connect();
    const int fd = peer()->fd;
    peer()->closedByPeer = true;
    loop().pumpUntilIdle();
    EXPECT_THAT(errors(), ElementsAre("SWAY connection closed by SWMI Server."));
    EXPECT_FALSE(loop().watches(fd));
    EXPECT_EQ(sway().openConnections(), 1U);
    EXPECT_TRUE(m_client->isConnected());
    EXPECT_EQ(m_client->getRunningSwReq(1), 2U);
    EXPECT_EQ(errors().back(),
              "SWMClient::sendMsg(msgNo=0x28, procRef=0x1) failed sway_send() error='Broken pipe'");
    m_client->destroy();
    EXPECT_EQ(sway().openConnections(), 0U);
}

TEST_F(SwmClientFailureTest, peerClosesAtEachStepAndWhatItHadSentCounts)
{
    const std::vector<std::string> frames = {"00000002 00000007 0801", "00000005 00000007 0a00"};
    for (std::size_t count = 0; count <= frames.size(); ++count) {
        ASSERT_EQ(establish(), 0U);
        for (std::size_t i = 0; i < count; ++i) {
            peer()->fromPeer.push_back(bytesOf(frames[i]));
        }
        peer()->closedByPeer = true;
        loop().pumpUntilIdle(); // also says that the loop does not spin
        EXPECT_EQ(m_client->isConnected(), count >= 1) << count;
        EXPECT_EQ(capabilityIds().size(), count >= 2 ? 1U : 0U) << count;
        m_client->destroy();
    }
}

TEST_F(SwmClientFailureTest, eventWithoutAMessageIsTraced)
{
    connect();
    m_client->receiveHandler(peer()->fd, 1);
    EXPECT_THAT(
        errors(),
        ElementsAre("SWMClient: receiveHandler() msgHandler error='Resource temporarily unavailable'"));
    EXPECT_TRUE(m_client->isConnected());
}

TEST_F(SwmClientFailureTest, handlerThatThrowsLosesNothingElse)
{
    connect();
    m_client->addMsgHandler(
        18, [](unsigned int, const char*, unsigned int) { throw std::runtime_error("handler"); });
    peer()->fromPeer.push_back(bytesOf("00000012 00000001"));
    EXPECT_THROW(m_client->receiveHandler(peer()->fd, 1), std::runtime_error);
    fromServer("00000005 00000007 0a00");
    EXPECT_THAT(capabilityIds(), ElementsAre(0));
}

// Frames

/// Frames of every kind that the client reads by itself.
const std::vector<std::string> swmiFrames = {
    "00000002 00000007 0801",
    "00000003 00000007 0803",
    "00000005 00000007 0a00 1200 1a00 2208 0a06 0a0161 120162 2a00 3203 088020 3a00",
    "00000006 00000007 0800",
};

TEST_F(SwmClientFailureTest, framesShorterThanTheirHeaderAreDropped)
{
    connect();
    m_client->addMsgHandler(18, recorder(18));
    const Bytes whole = bytesOf("00000012 00000007");
    for (std::size_t length = 1; length < whole.size(); ++length) {
        m_log.clear();
        fromServer(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)));
        EXPECT_THAT(errors(), ElementsAre("SWMClient: receiveHandler() msgHandler size(" +
                                          std::to_string(length) + ") < expected size(8)"));
    }
    EXPECT_THAT(m_calls, IsEmpty());
    fromServer(whole);
    EXPECT_EQ(m_calls.size(), 1U);
}

TEST_F(SwmClientFailureTest, everyFrameCutAtEachLengthIsSurvived)
{
    for (const auto& hex : swmiFrames) {
        const Bytes whole = bytesOf(hex);
        for (std::size_t length = 1; length <= whole.size(); ++length) {
            ASSERT_EQ(establish(), 0U);
            m_log.clear();
            fromServer(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)));
            const bool dropped = length < SWMClient::headerSize;
            EXPECT_EQ(testing::Value(errors(), testing::Contains(testing::HasSubstr("< expected size("))),
                      dropped)
                << hex << " cut at " << length;
            m_client->destroy();
        }
    }
}

TEST_F(SwmClientFailureTest, numbersWithoutAHandlerAreDroppedAndTheConnectionStays)
{
    connect();
    for (const auto& [hex, text] : std::vector<std::pair<std::string, std::string>>{
             {"0000002c 00000007", "unhandled msgNo(0x2c), procRef(0x7)"},
             {"0000002d 000000ff 0800", "unhandled msgNo(0x2d), procRef(0xff)"},
             {"00000000 00000000", "unhandled msgNo(0x0), procRef(0x0)"},
             {"02000000 07000000", "unhandled msgNo(0x2000000), procRef(0x7000000)"},
             {"ffffffff ffffffff", "unhandled msgNo(0xffffffff), procRef(0xffffffff)"}}) {
        m_log.clear();
        fromServer(hex);
        EXPECT_THAT(errors(), ElementsAre("SWMClient: receiveHandler() msgHandler " + text));
    }
    EXPECT_EQ(m_client->getRunningSwReq(1), 0U);
}

TEST_F(SwmClientFailureTest, bodiesThatDoNotParseCountAsFarAsTheyDo)
{
    struct Row {
        const char* body;
        unsigned int revision;
    };
    for (const Row& row :
         {Row{"", 0}, Row{"08", 0}, Row{"08ffffffffffffffffffff01", 0}, Row{"0a01", 0}, Row{"0805ff", 5},
          Row{"08050aff01", 5}, Row{"08050803", 3}, Row{"100108029f", 2}}) {
        ASSERT_EQ(establish(), 0U);
        fromServer(std::string("00000002 00000007") + row.body);
        EXPECT_EQ(m_client->getSelectedProtocolRev(), row.revision) << row.body;
        m_client->destroy();
    }
}

TEST_F(SwmClientFailureTest, lengthsThatLieReadNothingBeyondTheFrame)
{
    // Length fields of capabilities that promise more than the frame holds, up to more than memory.
    for (const std::string body : {"2202", "22ff01", "22ffffffff07", "22ffffffff0f", "2204 0a02 0aff",
                                   "2206 0a04 0aff 0161", "22 ffffffffffffffffff01", "3205 0880"}) {
        connect();
        fromServer("00000005 00000007 0a00" + body);
        EXPECT_THAT(capabilityIds(), testing::Contains(0U)) << body;
        EXPECT_EQ(m_readyCalls, 1U) << body;
        m_readyCalls = 0;
        m_client->destroy();
    }
}

TEST_F(SwmClientFailureTest, reasonsThatAreMissingOrUnknownReadAsTheFirst)
{
    for (const std::string body : {"", "08", "0802", "0863"}) {
        ASSERT_EQ(establish(), 0U);
        m_log.clear();
        fromServer("00000003 00000007" + body);
        EXPECT_THAT(errors(), ElementsAre("SWMClient::handleConnEstablishRej() reason(1)")) << body;
        ASSERT_EQ(establish(), 0U);
        m_log.clear();
        fromServer("00000006 00000007" + body);
        EXPECT_THAT(errors(), ElementsAre("SWMClient::handleGetCapabilitiesRej() reason(0)")) << body;
    }
}

TEST_F(SwmClientFailureTest, garbageUnderEveryNumberIsSurvived)
{
    std::mt19937 random(1); // NOLINT(cert-msc51-cpp): the same garbage each time
    for (unsigned int round = 0; round < 2000; ++round) {
        if (peer() == nullptr) {
            ASSERT_EQ(establish(), 0U);
        }
        Bytes frame(8 + random() % 64);
        std::generate(frame.begin(), frame.end(), [&] { return static_cast<std::uint8_t>(random()); });
        std::fill(frame.begin(), frame.begin() + 3, std::uint8_t{0});
        frame[3] = static_cast<std::uint8_t>(random() % 48);
        fromServer(frame);
        sent();
    }
    m_client->destroy();
    connect();
    fromServer("00000005 00000007 0a00");
    EXPECT_THAT(capabilityIds(), ElementsAre(0));
}

TEST_F(SwmClientFailureTest, rejectAfterTheConfirmClosesAndKeepsTheRevision)
{
    connect();
    fromServer("00000003 00000007 0801");
    EXPECT_EQ(sway().openConnections(), 0U);
    EXPECT_TRUE(m_client->isConnected());
    EXPECT_EQ(m_client->getRunningSwReq(1), 2U);
}

} // namespace swmclient
