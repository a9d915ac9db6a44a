#include "brhClient.h"
#include "rowTest.h"

#include "bmmi.pb.h"
#include "board.h"
#include "brhCapabilities.h"
#include "bri.pb.h"
#include "fakeLoop.h"

#include <gmock/gmock.h>
#include <new>
#include <random>

namespace bmmi = boardresourcehandler::bmmi;
namespace bri = boardresourcehandler::bri;
using support::Board;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr unsigned int NOTIFY = 0x17075AD;
constexpr unsigned int CONFIRM = bri::ConnEstablishCfm::MESSAGE_NUMBER;
constexpr unsigned int HWLOG_GET_CFM = bri::HwLogGetCfm::MESSAGE_NUMBER;

} // namespace

/// The BRI client of a board whose servers are not up yet.
class BrhClientTest : public ::testing::Test {
protected:
    void locate()
    {
        ASSERT_TRUE(m_bri.locateServer<bri::ConnEstablishCfm>(&m_subscription, "BriServer", NOTIFY));
    }
    void connect()
    {
        locate();
        m_board.bri().start();
        m_board.bri().confirm();
        ASSERT_TRUE(m_bri.isConnected());
    }
    void onHwLogGetCfm(BrhClient& client, std::vector<std::string>& calls, const std::string& name)
    {
        client.addHandler(&m_subscription, HWLOG_GET_CFM,
                          [&calls, name](const std::shared_ptr<mnet_msg>&) { calls.push_back(name); });
    }
    static void setLastProcedureRef(BrhClient& client, unsigned int ref) { client.m_lastProcedureRef = ref; }
    [[nodiscard]] bool isHandled(unsigned int msgNo) const
    {
        MnetMessageSubscriptionCustom::MsgHandler handler;
        return m_subscription.getMsgHandler(msgNo, handler) == 0;
    }
    static BrhClient::ProcedureTransaction transaction(unsigned int ref, unsigned int mbox)
    {
        return {.procedureRef = ref, .clientMbox = mbox, .serverRef = 1, .clientRef = 2, .data = 3};
    }

    Board m_board{Board::Options{.bri = false, .bmmi = false}};
    BrhClient& m_bri = m_board.commonData().getBriClient();
    BrhClient& m_bmmi = m_board.commonData().getBmmiClient();
    MnetMessageSubscriptionCustom& m_subscription = MnetMessageSubscriptionCustom::getInstance();
};

// References

TEST_F(BrhClientTest, clientsTakeTheFirstFreeReferences)
{
    EXPECT_EQ(m_bri.getClientRef(), 100U);
    EXPECT_EQ(m_bmmi.getClientRef(), 101U);
    EXPECT_EQ(BrhClient::generateClientRef(100), 102U);
    EXPECT_EQ(BrhClient::generateClientRef(99), 99U);
}

TEST_F(BrhClientTest, referenceIsFreeAgainAfterDestroyAndAfterTheObject)
{
    {
        const BrhClient third(100);
        EXPECT_EQ(BrhClient::generateClientRef(100), 103U);
    }
    EXPECT_EQ(BrhClient::generateClientRef(100), 102U);
    m_bri.destroy();
    EXPECT_EQ(BrhClient::generateClientRef(100), 100U);
}

TEST_F(BrhClientTest, endOfAnObjectLeavesTheReferenceToItsSuccessor)
{
    m_bri.destroy();
    const BrhClient successor(100);
    EXPECT_EQ(successor.getClientRef(), 100U);
    m_bri.destroy();
    EXPECT_EQ(BrhClient::generateClientRef(100), 102U);
}

TEST_F(BrhClientTest, clientReferenceWraps)
{
    const BrhClient last(0xFFFFFFFF);
    EXPECT_EQ(BrhClient::generateClientRef(0xFFFFFFFF), 0U);
}

TEST_F(BrhClientTest, procedureReferenceWrapsToOneAndSkipsWhatIsInUse)
{
    EXPECT_EQ(m_bri.generateProcedureRef(), 1U);
    EXPECT_EQ(m_bri.generateProcedureRef(), 2U);
    ASSERT_TRUE(m_bri.addProcedureTransaction(transaction(1, 5)));
    ASSERT_TRUE(m_bri.addProcedureTransaction(transaction(2, 5)));
    ASSERT_TRUE(m_bri.addProcedureTransaction(transaction(0xFFFFFFFF, 5)));
    setLastProcedureRef(m_bri, 0xFFFFFFFD);
    EXPECT_EQ(m_bri.generateProcedureRef(), 0xFFFFFFFEU);
    EXPECT_EQ(m_bri.generateProcedureRef(), 3U);
    m_bri.removeTransactionProcedure(0xFFFFFFFF);
    m_bri.removeTransactionProcedure(1);
    setLastProcedureRef(m_bri, 0xFFFFFFFE);
    EXPECT_EQ(m_bri.generateProcedureRef(), 0xFFFFFFFFU);
    EXPECT_EQ(m_bri.generateProcedureRef(), 1U);
}

// Search and watch

TEST_F(BrhClientTest, nullSubscriptionIsANoOp)
{
    EXPECT_FALSE(m_bri.locateServer<bri::ConnEstablishCfm>(nullptr, "BriServer", NOTIFY));
    m_bri.addHandler(nullptr, HWLOG_GET_CFM, [](const std::shared_ptr<mnet_msg>&) { FAIL(); });
    EXPECT_EQ(m_board.mnet().pendingLocates(), 0U);
    EXPECT_FALSE(isHandled(NOTIFY));
    EXPECT_FALSE(isHandled(CONFIRM));
    EXPECT_FALSE(isHandled(HWLOG_GET_CFM));
}

TEST_F(BrhClientTest, findsTheServerAndWatchesIt)
{
    std::vector<std::string> notifies;
    locate();
    EXPECT_TRUE(m_bri.hasInternalHandler(NOTIFY));
    EXPECT_TRUE(m_bri.hasInternalHandler(CONFIRM));
    EXPECT_FALSE(m_bri.hasInternalHandler(HWLOG_GET_CFM));
    m_bri.addHandler(&m_subscription, NOTIFY, [&](const std::shared_ptr<mnet_msg>& msg) {
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(msg.get());
        notifies.push_back(support::messageToHex({bytes, bytes + mnet_size(msg.get())}) +
                           (m_bri.isServerFound() ? " found" : " lost"));
    });
    EXPECT_EQ(m_board.mnet().pendingLocates(), 1U);
    EXPECT_FALSE(m_bri.isServerFound());

    m_board.bri().start();
    EXPECT_THAT(notifies, ElementsAre("017075ad 00000000 00000064 found"));
    EXPECT_TRUE(m_bri.isServerFound());
    EXPECT_FALSE(m_bri.isConnected());
    EXPECT_EQ(m_board.mnet().monitorCount(), 1U);

    m_board.bri().confirm();
    EXPECT_TRUE(m_bri.isConnected());
    ASSERT_TRUE(m_bri.addProcedureTransaction(transaction(9, 5)));
    m_bri.addCapability(std::make_shared<UtcTime>());
    m_board.bri().stop();
    EXPECT_EQ(notifies.back(), "017075ad 00000000 00000064 lost");
    EXPECT_FALSE(m_bri.isServerFound());
    EXPECT_FALSE(m_bri.isConnected());
    EXPECT_EQ(m_bri.getSelectedProtocolRevision(), 0U);
    EXPECT_EQ(m_board.mnet().monitorCount(), 0U);
    EXPECT_EQ(m_board.mnet().pendingLocates(), 1U);
    EXPECT_NE(m_bri.searchTransactionProcedure(9), nullptr);
    EXPECT_TRUE(m_bri.areCapabilitiesPresent());

    for (int i = 0; i < 3; ++i) {
        m_board.bri().start();
        EXPECT_TRUE(m_bri.isServerFound());
        m_board.bri().stop();
        EXPECT_FALSE(m_bri.isServerFound());
    }
    EXPECT_EQ(notifies.size(), 8U);
}

TEST_F(BrhClientTest, serverNotifyThatSomebodySentChangesNothing)
{
    connect();
    const auto forger = m_board.newClient();
    m_board.traces().clear();
    forger.sendHex("017075ad 00000000 00000064");
    EXPECT_TRUE(m_bri.isConnected());
    EXPECT_TRUE(m_board.traces().contains(4, "ABN: Server notify message (0x17075ad) from mbox: 0x"));

    m_board.bri().stop();
    forger.sendHex("017075ad 00000000 00000064");
    EXPECT_FALSE(m_bri.isServerFound());
    for (std::size_t size = 4; size < 12; ++size) {
        auto bytes = support::messageFromHex("017075ad 00000000 00000064");
        bytes.resize(size);
        forger.sendToServer(bytes);
    }
    EXPECT_FALSE(m_bri.isServerFound());
    EXPECT_EQ(m_board.mnet().pendingLocates(), 1U);
}

TEST_F(BrhClientTest, noticeForAClientThatIsGoneIsTraced)
{
    auto gone = std::make_unique<BrhClient>(100);
    ASSERT_TRUE(gone->locateServer<bri::ConnEstablishCfm>(&m_subscription, "BriServer", NOTIFY));
    gone.reset();
    m_board.bri().start();
    EXPECT_TRUE(
        m_board.traced(4, "ABN: Unroutable server notify message (0x17075ad) meant for BRH client 102"));
}

TEST_F(BrhClientTest, aSearchThatHasNoMemoryIsTriedTwiceAndThenThrows)
{
    using Call = support::FakeMnet::Call;
    for (const Call call : {Call::alloc, Call::locate}) {
        m_board.traces().clear();
        m_board.mnet().fail(call, 2);
        EXPECT_THROW(locate(), std::bad_alloc);
        EXPECT_TRUE(m_board.traced(1, "ABN: Failed to start the search for BRH server BriServer"));
        EXPECT_EQ(m_board.mnet().pendingLocates(), 0U);
    }
    m_board.mnet().fail(Call::alloc);
    locate();
    EXPECT_TRUE(m_board.traced(1, "ABN: No memory for the notify message of BRH server BriServer"));
    EXPECT_EQ(m_board.mnet().pendingLocates(), 1U);
}

TEST_F(BrhClientTest, aServerThatCannotBeWatchedIsSearchedForAgain)
{
    using Call = support::FakeMnet::Call;
    locate();
    for (const Call call : {Call::alloc, Call::monitor}) {
        m_board.traces().clear();
        m_board.mnet().fail(call, 2);
        m_board.bri().start();
        EXPECT_TRUE(m_bri.isServerFound());
        EXPECT_EQ(m_board.mnet().monitorCount(), 1U);
        EXPECT_TRUE(m_board.traced(1, "ABN: Failed to watch BRH server BriServer: searching for it again"));
        m_board.bri().stop();
    }
}

TEST_F(BrhClientTest, withoutMemoryToSearchForALostServerTheThreadEnds)
{
    connect();
    m_board.mnet().fail(support::FakeMnet::Call::locate, 2);
    m_board.bri().stop();
    EXPECT_TRUE(m_board.traced(1, "ABN: Without a search for BRH server BriServer Merlow ends"));
    EXPECT_TRUE(support::FakeLoop::instance().stopped());
}

TEST_F(BrhClientTest, aFrameThatHasNoMemoryIsTriedTwice)
{
    connect();
    m_board.mnet().fail(support::FakeMnet::Call::send);
    EXPECT_EQ(m_bri.sendMessage(bri::GetCapabilitiesReq()), 1U);
    EXPECT_EQ(m_board.bri().receivedHex(), "01707730 00000001 00c0ffee");
    m_board.mnet().fail(support::FakeMnet::Call::alloc);
    EXPECT_EQ(m_bri.sendMessage(bri::GetCapabilitiesReq()), 2U);
    EXPECT_EQ(m_board.bri().receivedHex(), "01707730 00000002 00c0ffee");
    EXPECT_TRUE(m_board.bri().nothingReceived());
}

// Connection

TEST_F(BrhClientTest, connectionRequestCarriesTheClientReferenceTwice)
{
    bri::ConnEstablishReq req;
    req.add_supported_protocol_revisions(1);
    locate();
    m_bri.sendConnEstablishReq(req); // no server yet
    m_board.bri().start();
    m_bri.sendConnEstablishReq(bri::ConnEstablishReq()); // nothing to offer
    m_bri.sendConnEstablishReq(req);
    EXPECT_EQ(m_board.bri().receivedHex(), "0170772d 00000064 00000064 0801");
    m_board.bri().confirm();
    m_bri.sendConnEstablishReq(req); // connected already
    EXPECT_TRUE(m_board.bri().nothingReceived());
}

TEST_F(BrhClientTest, confirmGivesConnectionReferenceAndRevision)
{
    std::vector<std::string> calls;
    locate();
    m_bri.addHandler(&m_subscription, CONFIRM, [&](const std::shared_ptr<mnet_msg>&) {
        calls.emplace_back(m_bri.isConnected() ? "connected" : "not connected");
    });
    m_board.bri().start();
    m_board.bri().sendHex("0170772e 00000064 00c0ffee 0803");
    EXPECT_TRUE(m_bri.isConnected());
    EXPECT_EQ(m_bri.getSelectedProtocolRevision(), 3U);
    EXPECT_THAT(calls, ElementsAre("connected"));

    bri::HwLogGetReq req;
    req.set_log_id(5);
    EXPECT_EQ(m_bri.sendMessage(req), 1U);
    EXPECT_EQ(m_bri.sendMessage(bri::GetCapabilitiesReq()), 2U);
    EXPECT_EQ(m_bri.sendMessage(req, 0x01020304), 0x01020304U);
    EXPECT_EQ(m_board.bri().receivedHex(), "01707750 00000001 00c0ffee 0805");
    EXPECT_EQ(m_board.bri().receivedHex(), "01707730 00000002 00c0ffee");
    EXPECT_EQ(m_board.bri().receivedHex(), "01707750 01020304 00c0ffee 0805");
}

struct BadConfirm {
    const char* name;
    const char* hex;
    unsigned int level;
    const char* trace;
};

class BrhClientBadConfirmTest : public BrhClientTest, public WithRow<BadConfirm> {};

ROW_TEST(BrhClientBadConfirmTest, takesTheConnectionAway)
{
    for (const bool connected : {false, true}) {
        SCOPED_TRACE(connected);
        if (connected) {
            m_board.bri().confirm();
        } else {
            locate();
            m_board.bri().start();
        }
        EXPECT_EQ(m_bri.isConnected(), connected);
        m_board.traces().clear();
        m_board.bri().sendHex(row().hex);
        EXPECT_FALSE(m_bri.isConnected());
        EXPECT_EQ(m_bri.getSelectedProtocolRevision(), 0U);
        EXPECT_TRUE(m_bri.isServerFound());
        EXPECT_TRUE(m_board.traced(row().level, row().trace));
    }
}

const BadConfirm badConfirms[] = {
    {"empty", "0170772e 00000064 00c0ffee", 4,
     "ABN: ConnEstablishCfm message invalid: selected protocol revision field is missing"},
    {"otherField", "0170772e 00000064 00c0ffee 1001", 4,
     "ABN: ConnEstablishCfm message invalid: selected protocol revision field is missing"},
    {"zero", "0170772e 00000064 00c0ffee 0800", 4,
     "ABN: ConnEstablishCfm message invalid: selected protocol revision is zero"},
    // Its reference is whole, so it is for this client, though shorter than its header.
    {"referenceAlone", "0170772e 00000064", 1,
     "Unable to parse GPB message boardresourcehandler.bri.ConnEstablishCfm of size 8 bytes"},
    {"shortHeader", "0170772e 00000064 00c0ff", 1,
     "Unable to parse GPB message boardresourcehandler.bri.ConnEstablishCfm of size 11 bytes"},
    {"cut", "0170772e 00000064 00c0ffee 08", 1,
     "Unable to parse GPB message boardresourcehandler.bri.ConnEstablishCfm of size 13 bytes"}};
TEST_ROWS(all, BrhClientBadConfirmTest, badConfirms);

TEST_F(BrhClientTest, confirmWithConnectionReferenceZeroConnectsNobody)
{
    locate();
    m_board.bri().start();
    m_board.bri().sendHex("0170772e 00000064 00000000 0801");
    EXPECT_FALSE(m_bri.isConnected());
}

TEST_F(BrhClientTest, confirmForAStrangerOrWithoutAReferenceIsDropped)
{
    connect();
    m_board.traces().clear();
    m_board.bri().sendHex("0170772e 00000063 00c0ffee 0801");
    EXPECT_TRUE(m_board.traced(
        4, "ABN: Unroutable connection establish confirm message (0x170772e) meant for BRH client 99"));
    for (std::size_t size = 4; size < 8; ++size) {
        SCOPED_TRACE(size);
        auto bytes = support::messageFromHex("0170772e 00000064");
        bytes.resize(size);
        m_board.traces().clear();
        m_board.bri().sendBytes(bytes);
        EXPECT_TRUE(m_board.traces().contains(4, " is too short: " + std::to_string(size) + " of 8 bytes."));
    }
    EXPECT_TRUE(m_bri.isConnected());
}

// Frames

TEST_F(BrhClientTest, routesByTheReferenceAtOffset8)
{
    std::vector<std::string> calls;
    connect();
    onHwLogGetCfm(m_bri, calls, "bri");
    onHwLogGetCfm(m_bmmi, calls, "bmmi");
    onHwLogGetCfm(m_bri, calls, "second, refused");
    m_board.bri().sendHex("01707751 00000001 00000064");
    m_board.bri().sendHex("01707751 00000001 00000065");
    EXPECT_THAT(calls, ElementsAre("bri", "bmmi"));
}

TEST_F(BrhClientTest, frameForNobodyIsTracedAndDropped)
{
    std::vector<std::string> calls;
    connect();
    onHwLogGetCfm(m_bri, calls, "bri");
    m_board.traces().clear();
    m_board.bri().sendHex("01707751 00000064 00000066");
    EXPECT_TRUE(m_board.traced(4, "ABN: Unroutable message (0x1707751) meant for BRH client 102"));
    m_board.bri().sendHex("01707751 00000064 00000065");
    EXPECT_TRUE(m_board.traced(4,
                               "ABN: The BRH Client 101 received a message (0x1707751) but has no registered "
                               "handler for it."));
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(BrhClientTest, frameShorterThanItsHeaderIsTracedAndDropped)
{
    std::vector<std::string> calls;
    connect();
    onHwLogGetCfm(m_bri, calls, "bri");
    for (std::size_t size = 4; size < 12; ++size) {
        SCOPED_TRACE(size);
        auto bytes = support::messageFromHex("01707751 00000001 00000064");
        bytes.resize(size);
        m_board.traces().clear();
        m_board.bri().sendBytes(bytes);
        std::ostringstream text;
        text << "ABN: Frame 0x1707751 from mbox: 0x" << std::hex << m_board.bri().mbox() << std::dec
             << " is too short: " << size << " of 12 bytes. Ignoring it.";
        EXPECT_TRUE(m_board.traced(4, text.str()));
    }
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(BrhClientTest, handlerMayTakeEverythingOff)
{
    connect();
    int calls = 0;
    m_bri.addHandler(&m_subscription, HWLOG_GET_CFM, [this, &calls](const std::shared_ptr<mnet_msg>& msg) {
        m_bri.destroy();
        calls += mnet_size(msg.get()) == 12 ? 1 : 0;
    });
    m_board.bri().sendHex("01707751 00000001 00000064");
    m_board.bri().sendHex("01707751 00000001 00000064");
    EXPECT_EQ(calls, 1);
}

TEST_F(BrhClientTest, frameParsesFromTwelveBytesOn)
{
    std::vector<bool> parsed;
    connect();
    m_bri.addHandler(&m_subscription, HWLOG_GET_CFM, [&](const std::shared_ptr<mnet_msg>& msg) {
        const auto frame = readFrame<bri::HwLogGetCfm>(*msg);
        parsed.push_back(static_cast<bool>(frame));
        if (frame) {
            EXPECT_EQ(frame->msgNo, HWLOG_GET_CFM);
            EXPECT_EQ(frame->procedureRef, 7U);
            EXPECT_EQ(frame->connectionRef, 100U);
        }
    });
    m_board.traces().clear();
    m_board.bri().sendHex("01707751 00000007 00000064");
    m_board.bri().sendHex("01707751 00000007 00000064 0a0161");
    m_board.bri().sendHex("01707751 00000007 00000064 0a0261");
    EXPECT_THAT(parsed, ElementsAre(true, true, false));
    EXPECT_TRUE(m_board.traced(17, "msgNo:24147793 procedureRef:7 connectionRef:100 "
                                   "boardresourcehandler.bri.HwLogGetCfm:{entries: \"a\"}"));
    EXPECT_TRUE(m_board.traced(
        1, "Unable to parse GPB message boardresourcehandler.bri.HwLogGetCfm of size 15 bytes"));
}

TEST_F(BrhClientTest, randomBodiesNeverHarm)
{
    connect();
    unsigned int seen = 0;
    m_bri.addHandler(&m_subscription, HWLOG_GET_CFM, [&](const std::shared_ptr<mnet_msg>& msg) {
        (void)readFrame<bri::GetCapabilitiesCfm>(*msg);
        (void)readFrame<bri::FaultInd>(*msg);
        ++seen;
    });
    std::mt19937 random(1); // NOLINT(bugprone-random-generator-seed): the same bodies in every run
    for (unsigned int size = 0; size < 64; ++size) {
        for (int i = 0; i < 10; ++i) {
            std::string body(size, '\0');
            for (auto& byte : body) {
                byte = static_cast<char>(random());
            }
            m_board.bri().sendBody(HWLOG_GET_CFM, static_cast<std::uint32_t>(random()), body);
            m_board.bri().sendBody(CONFIRM, 100, body);
        }
    }
    EXPECT_EQ(seen, 640U);
}

TEST_F(BrhClientTest, sendingWithoutAConnectionGivesZero)
{
    locate();
    m_board.bri().start();
    EXPECT_EQ(m_bri.sendMessage(bri::GetCapabilitiesReq()), 0U);
    EXPECT_EQ(m_bri.sendMessage(bri::GetCapabilitiesReq(), 5), 0U);
    EXPECT_EQ(m_board.traces().count(4, "ABN: Failed to send message -- not connected to BRH server"), 2U);
    EXPECT_TRUE(m_board.bri().nothingReceived());
    m_board.bri().confirm();
    EXPECT_EQ(m_bri.sendMessage(bri::GetCapabilitiesReq()), 1U); // none was used up
}

TEST_F(BrhClientTest, lackOfMemoryForAFrameGivesZero)
{
    connect();
    m_board.mnet().fail(support::FakeMnet::Call::alloc, 2);
    EXPECT_EQ(m_bri.sendMessage(bri::GetCapabilitiesReq()), 0U);
    EXPECT_TRUE(m_board.traced(1, "Failed to encode message 24147760"));
    bri::HwLogSetReq tooLarge;
    tooLarge.set_log_label(std::string(17U << 20U, 'x'));
    EXPECT_EQ(m_bri.sendMessage(tooLarge), 0U);
    EXPECT_TRUE(m_board.traced(1, "Failed to encode message 24147789"));
    EXPECT_TRUE(m_board.bri().nothingReceived());
}

TEST_F(BrhClientTest, refusedSendStillGivesTheReference)
{
    connect();
    m_board.mnet().fail(support::FakeMnet::Call::send, 2);
    EXPECT_EQ(m_bri.sendMessage(bri::GetCapabilitiesReq()), 1U);
    EXPECT_EQ(m_board.mnet().heldMessages(), 0U);
}

TEST_F(BrhClientTest, sentFrameIsTracedWithTheServersMailbox)
{
    connect();
    m_board.traces().clear();
    bri::HwLogGetReq req;
    req.set_log_id(5);
    m_bri.sendMessage(req);
    EXPECT_TRUE(m_board.traced(18, "msgNo:24147792 procedureRef:1 connectionRef:12648430 "
                                   "boardresourcehandler.bri.HwLogGetReq:{log_id: 5}"));
    EXPECT_EQ(m_board.traces().lines().back().sigNo, 0x1707750U);
    EXPECT_EQ(m_board.traces().lines().back().receiver, m_board.bri().mbox());
}

TEST_F(BrhClientTest, clearedMasksSilenceEverything)
{
    m_board.traces().setProcMask(0);
    m_board.traces().setObjMask(0);
    connect();
    m_bri.sendMessage(bri::GetCapabilitiesReq());
    m_board.bri().sendHex("0170772e 00000064 00c0ffee 08");
    m_bri.sendMessage(bri::GetCapabilitiesReq());
    EXPECT_THAT(m_board.traces().lines(), IsEmpty());
}

// Transactions

TEST_F(BrhClientTest, transactionsAreKeptByTheirReference)
{
    EXPECT_TRUE(m_bri.addProcedureTransaction(transaction(4, 50)));
    EXPECT_FALSE(m_bri.addProcedureTransaction(transaction(4, 51)));
    ASSERT_NE(m_bri.searchTransactionProcedure(4), nullptr);
    EXPECT_EQ(*m_bri.searchTransactionProcedure(4), transaction(4, 50));
    EXPECT_EQ(m_bri.searchTransactionProcedure(5), nullptr);
    EXPECT_EQ(m_bmmi.searchTransactionProcedure(4), nullptr);
    EXPECT_FALSE(m_bri.removeTransactionProcedure(5));
    EXPECT_TRUE(m_bri.removeTransactionProcedure(4));
    EXPECT_FALSE(m_bri.removeTransactionProcedure(4));

    EXPECT_TRUE(m_bri.addProcedureTransaction(transaction(6, 50)));
    EXPECT_EQ(m_bri.takeTransaction(6), transaction(6, 50));
    EXPECT_EQ(m_bri.takeTransaction(6), std::nullopt);
    EXPECT_EQ(transaction(6, 50).addressInfo(), (TarnNodeCommonAddressInfoS{.clientRef = 2, .serverRef = 1}));
}

TEST_F(BrhClientTest, ofAbandonedTransactionsTheYoungest4096AreKept)
{
    const auto living = m_board.connectClient();
    ASSERT_TRUE(m_bri.addProcedureTransaction(transaction(1, living.mbox())));
    unsigned int ref = 1;
    for (unsigned int round = 0; round < 1100; ++round) {
        const auto client = m_board.connectClient();
        for (int i = 0; i < 4; ++i) {
            ASSERT_TRUE(m_bri.addProcedureTransaction(transaction(++ref, client.mbox())));
        }
        client.die();
        ASSERT_LE(m_bri.getNumTransactions(), 4097U);
    }
    EXPECT_EQ(m_bri.getNumTransactions(), 4097U);
    EXPECT_NE(m_bri.searchTransactionProcedure(1), nullptr);
    EXPECT_EQ(m_bri.searchTransactionProcedure(ref - 4096), nullptr);
    EXPECT_NE(m_bri.searchTransactionProcedure(ref - 4095), nullptr);
    EXPECT_NE(m_bri.searchTransactionProcedure(ref), nullptr);
    EXPECT_TRUE(m_board.traced(
        4, "ABN: More than 4096 unanswered transactions without a session at BRH server : the oldest go"));
}

TEST_F(BrhClientTest, anAnsweredTransactionIsNotAbandonedAnyMore)
{
    for (unsigned int ref = 1; ref <= 4096; ++ref) {
        ASSERT_TRUE(m_bri.addProcedureTransaction(transaction(ref, 50)));
    }
    m_bri.abandonTransactions(50);
    m_bri.abandonTransactions(50); // the same ones
    EXPECT_TRUE(m_bri.removeTransactionProcedure(1));
    ASSERT_TRUE(m_bri.addProcedureTransaction(transaction(1, 60))); // the reference, used again
    ASSERT_TRUE(m_bri.addProcedureTransaction(transaction(5000, 51)));
    m_bri.abandonTransactions(51);
    EXPECT_EQ(m_bri.getNumTransactions(), 4097U);
    ASSERT_TRUE(m_bri.addProcedureTransaction(transaction(5001, 52)));
    m_bri.abandonTransactions(52);
    EXPECT_EQ(m_bri.getNumTransactions(), 4097U);
    EXPECT_EQ(m_bri.searchTransactionProcedure(2), nullptr);
    EXPECT_NE(m_bri.searchTransactionProcedure(1), nullptr);
}

TEST_F(BrhClientTest, aSingleTransactionIsAbandonedOnceAndOnlyWhileItIsThere)
{
    m_bri.abandonTransaction(1); // not there
    for (std::uint32_t ref = 1; ref <= 4096; ++ref) {
        ASSERT_TRUE(m_bri.addProcedureTransaction(transaction(ref, 50)));
    }
    m_bri.abandonTransaction(2);
    m_bri.abandonTransaction(2);
    m_bri.abandonTransactions(50);
    EXPECT_EQ(m_bri.getNumTransactions(), 4096U);
    ASSERT_TRUE(m_bri.addProcedureTransaction(transaction(5000, 51)));
    EXPECT_EQ(m_bri.getNumTransactions(), 4097U) << "nothing was abandoned";
    m_bri.abandonTransaction(5000);
    EXPECT_EQ(m_bri.getNumTransactions(), 4096U);
    EXPECT_EQ(m_bri.searchTransactionProcedure(2), nullptr) << "the first that was abandoned";
    EXPECT_NE(m_bri.searchTransactionProcedure(1), nullptr);
}

// Capabilities

TEST_F(BrhClientTest, capabilitiesAreAppendedInTheirOrder)
{
    std::vector<std::shared_ptr<Capability>> list{std::make_shared<HereIAm>()};
    EXPECT_FALSE(m_bri.getCapabilities(list));
    EXPECT_FALSE(m_bri.areCapabilitiesPresent());
    EXPECT_FALSE(m_bri.isCapabilityPresent(CAP_SUPPORT_UTC_TIME));
    m_bri.addCapability(std::make_shared<UtcTime>());
    m_bri.addCapability(std::make_shared<MarketPid>());
    m_bri.addCapability(std::make_shared<UtcTime>());
    EXPECT_TRUE(m_bri.getCapabilities(list));
    std::vector<unsigned int> ids;
    for (const auto& capability : list) {
        ids.push_back(capability->id);
    }
    EXPECT_THAT(ids, ElementsAre(34U, 37U, 42U, 37U));
    EXPECT_TRUE(m_bri.isCapabilityPresent(CAP_SUPPORT_UTC_TIME));
    EXPECT_FALSE(m_bri.isCapabilityPresent(CAP_SUPPORT_HW_LOG));
    EXPECT_FALSE(m_bri.areCapabilitiesReceived());
    m_bri.setCapabilitiesReceived();
    EXPECT_TRUE(m_bri.areCapabilitiesReceived());
}

TEST_F(BrhClientTest, capabilityCapLosesNoId)
{
    m_bri.addCapability(std::make_shared<HwLogSupport>()); // announced once, long ago
    for (unsigned int i = 0; i < 3000; ++i) {
        m_bri.addCapability(std::make_shared<RestartRankLabelSupport>(i));
        m_bri.addCapability(std::make_shared<UtcTime>());
    }
    std::vector<std::shared_ptr<Capability>> list;
    EXPECT_TRUE(m_bri.getCapabilities(list));
    ASSERT_EQ(list.size(), 4096U);
    EXPECT_EQ(list.front()->id, CAP_SUPPORT_HW_LOG);
    EXPECT_EQ(list.back()->id, CAP_SUPPORT_UTC_TIME);
    const auto* newest = dynamic_cast<const RestartRankLabelSupport*>(list[4094].get());
    ASSERT_NE(newest, nullptr);
    EXPECT_EQ(newest->supportedRestartRanks, 2999U);
    EXPECT_TRUE(m_board.traced(
        4, "ABN: More than 4096 capability records of BRH server : the oldest repeated ones go"));
}

// The end

TEST_F(BrhClientTest, destroyTakesEverythingOff)
{
    std::vector<std::string> calls;
    connect();
    onHwLogGetCfm(m_bri, calls, "bri");
    EXPECT_TRUE(isHandled(NOTIFY));
    EXPECT_TRUE(isHandled(CONFIRM));
    EXPECT_TRUE(isHandled(HWLOG_GET_CFM));
    m_bri.destroy();
    EXPECT_FALSE(m_bri.isConnected());
    EXPECT_FALSE(m_bri.isServerFound());
    EXPECT_FALSE(isHandled(NOTIFY));
    EXPECT_FALSE(isHandled(CONFIRM));
    EXPECT_FALSE(isHandled(HWLOG_GET_CFM));
    EXPECT_EQ(m_board.mnet().monitorCount(), 0U);
    m_bri.destroy();
    EXPECT_EQ(BrhClient::generateClientRef(100), 100U);
}

TEST_F(BrhClientTest, routeStaysAsLongAsAnotherClientNeedsIt)
{
    std::vector<std::string> calls;
    connect();
    onHwLogGetCfm(m_bri, calls, "bri");
    ASSERT_TRUE(m_bmmi.locateServer<bmmi::ConnEstablishCfm>(&m_subscription, "BmmiServer", 0x17075BD));
    onHwLogGetCfm(m_bmmi, calls, "bmmi");
    m_bri.destroy();
    EXPECT_TRUE(isHandled(HWLOG_GET_CFM));
    m_board.bri().sendHex("01707751 00000001 00000065");
    m_board.bri().sendHex("01707751 00000001 00000064");
    EXPECT_THAT(calls, ElementsAre("bmmi"));
    m_bmmi.destroy();
    EXPECT_FALSE(isHandled(HWLOG_GET_CFM));
    EXPECT_FALSE(isHandled(0x17075BD));
}

TEST_F(BrhClientTest, searchAfterDestroyWorksAsTheFirst)
{
    connect();
    m_bri.destroy();
    m_board.bri().stop();
    connect();
    EXPECT_EQ(m_bri.getClientRef(), 100U);

    m_bri.destroy();
    m_board.bri().stop();
    const BrhClient other(100);
    connect();
    EXPECT_EQ(m_bri.getClientRef(), 102U);
    EXPECT_EQ(other.getClientRef(), 100U);
}

TEST_F(BrhClientTest, frameAfterTheObjectIsUnroutable)
{
    std::vector<std::string> calls;
    connect();
    auto third = std::make_unique<BrhClient>(100);
    onHwLogGetCfm(*third, calls, "third");
    third.reset();
    m_board.bri().sendHex("01707751 00000001 00000066");
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_TRUE(m_board.traced(4, "ABN: Unroutable message (0x1707751) meant for BRH client 102"));
}
