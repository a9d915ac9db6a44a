#include "merlowRestart.h"
#include "rowTest.h"

#include "board.h"
#include "brhCapabilities.h"
#include "bri.pb.h"
#include "fwdMbox.h"

#include <array>
#include <random>
#include <sstream>
#include <tuple>

namespace {

namespace bri = boardresourcehandler::bri;
using support::Bytes;
using support::FakeBrh;
using support::rejectTail;

void putHalf(Bytes& bytes, std::size_t offset, std::uint16_t value)
{
    bytes.at(offset) = static_cast<std::uint8_t>(value >> 8U);
    bytes.at(offset + 1) = static_cast<std::uint8_t>(value);
}

class MerlowRestartTest : public testing::Test {
protected:
    MerlowRestartTest() : m_legacy(m_board.newClient()) { m_board.add<MerlowRestart>(); }

    void announceRanks(std::uint32_t mask)
    {
        m_board.commonData().getBriClient().addCapability(std::make_shared<RestartRankLabelSupport>(mask));
    }
    /// A client whose session has a clone, as each has that came in through the server.
    support::VirtualClient clientWithClone(std::int32_t clientRef = 7)
    {
        auto client = m_board.connectClient({.clientRef = clientRef});
        auto* clone =
            new FwdMbox(m_board.commonData().getPrivateMbox(), "BcFwdMbox_" + std::to_string(clientRef));
        client.session()->setFwdMbox(clone);
        EXPECT_EQ(clone->start(), 0);
        return client;
    }
    static mnet_mbox_id_t cloneOf(const support::VirtualClient& client)
    {
        return client.session()->getFwdMailboxId();
    }
    /// An order with rank and label from references 7 and 300: trace information "why" in 140 bytes, and
    /// label.
    static Bytes rankOrder(std::uint16_t code, std::uint16_t rank, const std::string& label = "label")
    {
        Bytes bytes = support::messageFromHex("01659b04 00000007 0000012c 0000 0000 776879");
        bytes.resize(156);
        putHalf(bytes, 12, code);
        putHalf(bytes, 14, rank);
        bytes.insert(bytes.end(), label.begin(), label.end());
        return bytes;
    }
    /// A notification for references 7 and 300, its last bytes counting up.
    static Bytes notification(std::uint16_t code, std::uint16_t flag)
    {
        Bytes bytes = support::messageFromHex("01659b03 00000007 0000012c 0000 fedc 0000");
        while (bytes.size() < 180) {
            bytes.push_back(static_cast<std::uint8_t>(bytes.size()));
        }
        putHalf(bytes, 12, code);
        putHalf(bytes, 16, flag);
        return bytes;
    }
    /// What reaches the client of a notification, which must not differ from `sent` but for its flag.
    std::uint32_t flagFor(const support::VirtualClient& client, Bytes sent)
    {
        m_legacy.sendBytes(sent, cloneOf(client));
        const std::string received = client.receivedHex();
        if (received.empty()) {
            ADD_FAILURE() << "No notification";
            return 0xFFFF;
        }
        const Bytes bytes = support::messageFromHex(received);
        const auto flag = static_cast<std::uint16_t>(support::wordAt(bytes, 16) >> 16U);
        putHalf(sent, 16, flag);
        EXPECT_EQ(received, support::messageToHex(sent));
        return flag;
    }

    support::Board m_board;
    support::VirtualClient m_legacy;
};

// Announcing a restart

TEST_F(MerlowRestartTest, anAnnouncementGoesToTheBoardWithTheSessionsTimeSource)
{
    const auto client = m_board.connectClient();
    client.session()->setUtcTimeSourceRef(77);
    client.sendHex("01658816 00000007 fffffffe fedcba98 7768792c 00 66"); // "why,", and rubbish
    EXPECT_EQ(client.receivedHex(), "01658817 00000007 fffffffe");
    ASSERT_TRUE(FakeBrh::instance().announcement);
    EXPECT_EQ(FakeBrh::instance().announcement->timeSource, 77U);
    EXPECT_EQ(FakeBrh::instance().announcement->notifyValue, 0xFEDCBA98U);
    EXPECT_EQ(FakeBrh::instance().announcement->reason, "why,");
    EXPECT_TRUE(m_board.traced(4, "why,"));
    EXPECT_TRUE(m_board.bri().nothingReceived());
}

TEST_F(MerlowRestartTest, aRefusedAnnouncementIsRejectedWithTheBoardsText)
{
    const auto client = m_board.connectClient();
    for (const char* reason : {"", "00", "00 776879"}) {
        client.sendHex(std::string("01658816 00000007 fffffffe 00000001 ") + reason);
        EXPECT_EQ(client.receivedHex(),
                  "01658818 00000007 fffffffe " + rejectTail("Reason for restart missing"));
    }
    EXPECT_FALSE(FakeBrh::instance().announcement);
}

TEST_F(MerlowRestartTest, aReasonEndsWithTheSignal)
{
    const auto client = m_board.connectClient();
    client.sendHex("01658816 00000007 fffffffe 00000001 776879");
    EXPECT_EQ(client.receivedHex(), "01658817 00000007 fffffffe");
    EXPECT_EQ(FakeBrh::instance().announcement->reason, "why");
}

TEST_F(MerlowRestartTest, aStrangerAnnouncesNothing)
{
    const auto stranger = m_board.newClient();
    stranger.sendHex("01658816 00000007 fffffffe 00000001 776879");
    EXPECT_TRUE(m_board.traced(4, "why")) << "the reason is traced whoever gives it";
    EXPECT_TRUE(m_board.traced(4, "ABN: No session for this client exists. Ignoring REQ!"));
    EXPECT_TRUE(stranger.nothingReceived());
    EXPECT_EQ(FakeBrh::instance().notifyCalls, 0U);
}

struct RestartShortRow {
    const char* name;
    std::uint32_t number;
    std::size_t needed;
};

class MerlowRestartShortTest : public MerlowRestartTest, public WithRow<RestartShortRow> {};

ROW_TEST(MerlowRestartShortTest, isDroppedAtEachLength)
{
    announceRanks(0xFF);
    const auto client = clientWithClone();
    for (std::size_t size = 4; size < row().needed; ++size) {
        SCOPED_TRACE(size);
        m_board.traces().clear();
        Bytes bytes(size, 'x');
        std::memcpy(bytes.data(), &row().number, 4);
        client.sendToServer(bytes);
        m_legacy.sendBytes(bytes, cloneOf(client));
        const std::string sizes =
            "too short: " + std::to_string(size) + " of " + std::to_string(row().needed) + " bytes";
        EXPECT_TRUE(m_board.traces().contains(4, sizes)) << m_board.traces().dump();
        ASSERT_TRUE(client.nothingReceived() && m_board.bri().nothingReceived());
    }
    EXPECT_EQ(FakeBrh::instance().notifyCalls, 0U);
    EXPECT_TRUE(m_board.traces().rushlog().empty());
}

const RestartShortRow restartShortRows[] = {{"notifyReq", 0x1658816, 16},
                                            {"order", 0x1658003, 12},
                                            {"rankOrder", 0x1659B04, 156},
                                            {"notification", 0x1659B03, 180}};
TEST_ROWS(all, MerlowRestartShortTest, restartShortRows);

// Ordering a restart

TEST_F(MerlowRestartTest, anOrderGoesOutWithItsFixedCodeAndRank)
{
    m_board.commonData().setSelectLoadModule("LM_1");
    const auto client = m_board.connectClient();
    client.sendHex("01658003 00000007 fffffffe 77687900 66");
    EXPECT_EQ(m_board.bri().receivedHex(), "01707749 00000001 00c0ffee 0a044c4d 5f311203 77687918 91032802");
    EXPECT_TRUE(m_board.traced(4, "why"));
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(m_board.commonData().getBriClient().getNumTransactions(), 0U);
    EXPECT_FALSE(m_board.traces().contains(5, "'m_selectLoadModule' is empty."));
    EXPECT_TRUE(m_board.traces().rushlog().empty());
}

TEST_F(MerlowRestartTest, anOrderNeedsNoLoadModuleNoTextAndNoSession)
{
    const auto stranger = m_board.newClient();
    stranger.sendHex("01658003 00000007 fffffffe");
    EXPECT_EQ(m_board.bri().receivedHex(), "01707749 00000001 00c0ffee 0a001200 18910328 02");
    EXPECT_TRUE(
        m_board.traces().has(5, "MerlowRestart::handleRestartBoardFwd() 'm_selectLoadModule' is empty."));
    stranger.sendHex("01658003 00000007 fffffffe 776879");
    EXPECT_EQ(m_board.bri().receivedHex(), "01707749 00000002 00c0ffee 0a001203 77687918 91032802");
    EXPECT_TRUE(stranger.nothingReceived());
}

TEST_F(MerlowRestartTest, anOrderWithRankAndLabelGoesOutWithThem)
{
    announceRanks(0x1F);
    m_board.commonData().setSelectLoadModule("LM_1");
    const auto client = m_board.connectClient();
    std::string traceInfo = "77687900 66"; // "why", and rubbish
    traceInfo.resize(traceInfo.size() + std::size_t{2} * (140 - 5), '0');
    client.sendHex("01659b04 00000007 fffffffe 0102 0003" + traceInfo + "6c616265 6c0066");
    EXPECT_EQ(m_board.bri().receivedHex(),
              "01707749 00000001 00c0ffee 0a044c4d 5f311203 77687918 82022205 6c616265 6c2803");
    EXPECT_TRUE(m_board.traced(4, "why"));
    ASSERT_EQ(m_board.traces().rushlog().size(), 1U);
    EXPECT_EQ(m_board.traces().rushlog()[0].category, "RadioApplication,RadioBoardCtrl");
    EXPECT_EQ(m_board.traces().rushlog()[0].text, "Ordered Cold Restart Received");
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_FALSE(m_board.traces().contains(5, "'m_selectLoadModule' is empty."));
}

TEST_F(MerlowRestartTest, textsOfAnOrderEndWithTheirFieldAndTheSignal)
{
    announceRanks(0x1F);
    const auto stranger = m_board.newClient();
    auto order = rankOrder(0xFFFF, 1, "label");
    std::fill(order.begin() + 16, order.begin() + 156, 'x');
    stranger.sendToServer(order);
    const auto briFwd = m_board.bri().expect<bri::RestartBoardFwd>();
    EXPECT_EQ(briFwd.message.trace_info(), std::string(140, 'x'));
    EXPECT_EQ(briFwd.message.label(), "label");
    EXPECT_EQ(briFwd.message.restartcode(), -1);
    EXPECT_EQ(briFwd.message.load_module(), "");
    EXPECT_TRUE(m_board.traces().has(
        5, "MerlowRestart::handleRestartBoardRankLabelFwd() 'm_selectLoadModule' is empty."));
    stranger.sendToServer(rankOrder(1, 1, "")); // the shortest that there is
    const auto without = m_board.bri().expect<bri::RestartBoardFwd>();
    EXPECT_TRUE(without.message.has_label());
    EXPECT_EQ(without.message.label(), "");
}

struct RestartRankRow {
    std::uint32_t mask;
    std::uint16_t rank;
    bool isSupported;
};

class MerlowRestartRankTest : public MerlowRestartTest, public WithRow<RestartRankRow> {};

ROW_TEST(MerlowRestartRankTest, isOrderedWhenItsBitIsSet)
{
    announceRanks(row().mask);
    const auto client = clientWithClone();
    client.sendToServer(rankOrder(5, row().rank));
    EXPECT_EQ(m_board.traces().rushlog().size(), 1U);
    const std::string refusal =
        "ABN: Requested restart rank " + std::to_string(static_cast<std::int16_t>(row().rank)) +
        " in restart signal TARN_BC_RESTART_BOARD_WITH_RANK_AND_LABEL_FWD is not supported!";
    if (row().isSupported) {
        const auto briFwd = m_board.bri().expect<bri::RestartBoardFwd>();
        EXPECT_EQ(static_cast<int>(briFwd.message.restart_rank_v2()), static_cast<int>(row().rank));
        EXPECT_FALSE(m_board.traces().has(4, refusal));
    } else {
        EXPECT_TRUE(m_board.bri().nothingReceived());
        EXPECT_TRUE(m_board.traced(4, refusal));
    }
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(flagFor(client, notification(5, 1)), row().isSupported ? 0U : 1U)
        << "an order that did not go out has no initiator";
}

const RestartRankRow restartRankRows[] = {{0x01, 1, true},
                                          {0xFFFFFFFE, 1, false},
                                          {0x02, 2, true},
                                          {0xFFFFFFFD, 2, false},
                                          {0x04, 3, true},
                                          {0xFFFFFFFB, 3, false},
                                          {0x10, 4, true},
                                          {0xFFFFFFEF, 4, false},
                                          {0x08, 5, true},
                                          {0xFFFFFFF7, 5, false},
                                          {0x08, 4, false},
                                          {0x08, 3, false},
                                          {0xFFFFFFFF, 0, false},
                                          {0xFFFFFFFF, 6, false},
                                          {0xFFFFFFFF, 0x7FFF, false},
                                          {0xFFFFFFFF, 0xFFFF, false},
                                          {0xFFFFFFFF, 0x8000, false},
                                          {0, 1, false}};
TEST_ROWS(all, MerlowRestartRankTest, restartRankRows, [](const auto& row) {
    std::ostringstream name;
    name << "rank" << row.rank << "mask" << std::hex << row.mask;
    return name.str();
});

TEST_F(MerlowRestartTest, theFirstAnnouncementOfTheRanksCounts)
{
    announceRanks(0x01);
    announceRanks(0x02);
    const auto client = m_board.connectClient();
    client.sendToServer(rankOrder(5, 2));
    EXPECT_TRUE(m_board.bri().nothingReceived());
    client.sendToServer(rankOrder(5, 1));
    EXPECT_EQ(m_board.bri().expect<bri::RestartBoardFwd>().message.restart_rank_v2(),
              bri::RestartBoardFwd::RANK_1);
}

TEST_F(MerlowRestartTest, withoutTheCapabilityAnOrderWithRankIsLoggedAndNothingElse)
{
    m_board.commonData().getBriClient().addCapability(std::make_shared<HwLogSupport>());
    const auto client = clientWithClone();
    client.sendToServer(rankOrder(5, 1));
    EXPECT_EQ(m_board.traces().rushlog().size(), 1U);
    EXPECT_TRUE(m_board.traced(4, "why"));
    EXPECT_FALSE(m_board.traces().contains(4, "ABN: ")) << m_board.traces().dump();
    EXPECT_TRUE(m_board.bri().nothingReceived());
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(flagFor(client, notification(5, 1)), 1U);
}

TEST_F(MerlowRestartTest, withoutBriAnOrderIsLost)
{
    announceRanks(0xFF);
    const auto client = m_board.connectClient();
    m_board.bri().stop();
    client.sendHex("01658003 00000007 0000012c");
    client.sendToServer(rankOrder(5, 1));
    EXPECT_EQ(m_board.traces().count(4, "ABN: Failed to send message -- not connected to BRH server"), 2U);
    EXPECT_TRUE(client.nothingReceived());
}

// The notification

TEST_F(MerlowRestartTest, theNotificationIsMarkedForWhoeverGaveTheOrder)
{
    const auto client = clientWithClone();
    EXPECT_EQ(flagFor(client, notification(401, 1)), 1U) << "nobody has";
    client.sendHex("01658003 00000007 0000012c");
    for (int i = 0; i < 2; ++i) { // the order is remembered
        EXPECT_EQ(flagFor(client, notification(401, 1)), 0U);
        EXPECT_EQ(flagFor(client, notification(401, 2)), 2U);
        EXPECT_EQ(flagFor(client, notification(401, 0)), 0U);
        EXPECT_EQ(flagFor(client, notification(401, 0xFFFF)), 0U);
        EXPECT_EQ(flagFor(client, notification(402, 1)), 1U) << "another code";
    }
    auto other = notification(401, 1);
    other[7] = 8;
    EXPECT_EQ(flagFor(client, other), 1U) << "another client's";
    other = notification(401, 3);
    other[11] = 0x2D;
    EXPECT_EQ(flagFor(client, other), 3U) << "another server's";
}

TEST_F(MerlowRestartTest, aNegativeCodeIsKnownAgain)
{
    announceRanks(0x1F);
    const auto client = clientWithClone();
    client.sendToServer(rankOrder(0xFF00, 5));
    EXPECT_EQ(flagFor(client, notification(0xFF00, 1)), 0U);
    EXPECT_EQ(flagFor(client, notification(0x0000, 1)), 1U);
}

TEST_F(MerlowRestartTest, theNotificationIsForTheClientOfTheClone)
{
    const auto first = clientWithClone(7);
    const auto second = clientWithClone(8);
    EXPECT_EQ(flagFor(second, notification(401, 1)), 1U) << "its references do not decide";
    EXPECT_TRUE(first.nothingReceived());
}

TEST_F(MerlowRestartTest, ofALongerNotification180BytesAreForwarded)
{
    const auto client = clientWithClone();
    auto longer = notification(401, 1);
    longer.resize(200, 0xEE);
    m_legacy.sendBytes(longer, cloneOf(client));
    EXPECT_EQ(client.receivedHex(), support::messageToHex(notification(401, 1)));
}

TEST_F(MerlowRestartTest, aNotificationForASessionThatIsGoneIsDropped)
{
    const auto client = clientWithClone();
    for (const auto to : {m_board.commonData().getPrivateMbox(), m_board.commonData().getPublicMbox()}) {
        std::ostringstream text;
        text << "ABN: No session for forward mailbox 0x" << std::hex << to
             << ". Ignoring TARN_BC_RESTART_BOARD_NOTIFICATION_IND.";
        m_legacy.sendBytes(notification(401, 1), to);
        EXPECT_TRUE(m_board.traced(4, text.str()));
    }
    // On its way when the session goes, it may come later than the clone's end.
    client.session()->setFwdMbox(new FwdMbox(m_board.commonData().getPrivateMbox(), "not started"));
    m_legacy.sendBytes(notification(401, 1), m_board.commonData().getPrivateMbox());
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(m_legacy.nothingReceived());
}

TEST_F(MerlowRestartTest, aNotificationThatIsQueuedWhenItsSessionEndsReachesNobody)
{
    const auto client = clientWithClone(7);
    const auto other = clientWithClone(8);
    for (const auto& of : {client, other}) {
        const auto bytes = notification(401, 1);
        const support::FakeMnet::As legacy(m_legacy.process());
        mnet_msg* msg = mnet_alloc(bytes.size(), 0);
        std::memcpy(msg, bytes.data(), bytes.size());
        ASSERT_EQ(mnet_send(&msg, cloneOf(of), m_legacy.mbox()), 0);
    }
    m_board.endSession(client);
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(other.receivedHex(), support::messageToHex(notification(401, 1))) << "the next one is served";
    EXPECT_TRUE(m_legacy.nothingReceived());
}

// Who gave orders

TEST_F(MerlowRestartTest, initiatorsAreKnownAsIfEachOrderWereKept)
{
    announceRanks(0x1F);
    const auto client = clientWithClone();
    std::vector<std::tuple<std::uint8_t, std::uint8_t, std::uint16_t>> orders; // all of them, literally
    std::mt19937 random{7}; // NOLINT(bugprone-random-generator-seed): the same orders in every run
    for (int i = 0; i < 4000; ++i) {
        // 8 * 8 * 15 different ones.
        const auto clientRef = static_cast<std::uint8_t>(random() % 8);
        const auto serverRef = static_cast<std::uint8_t>(random() % 8);
        const auto code = static_cast<std::uint16_t>(random() % 15);
        if (random() % 2 == 0) {
            auto order = rankOrder(code, 1);
            order[7] = clientRef;
            order[11] = serverRef;
            client.sendToServer(order);
            orders.emplace_back(clientRef, serverRef, code);
        } else {
            auto ind = notification(code, 1);
            ind[7] = clientRef;
            ind[11] = serverRef;
            const bool isKnown = std::find(orders.begin(), orders.end(),
                                           std::tuple(clientRef, serverRef, code)) != orders.end();
            ASSERT_EQ(flagFor(client, ind), isKnown ? 0U : 1U);
        }
    }
}

TEST_F(MerlowRestartTest, ofMoreInitiatorsThose1024WithTheLatestOrdersAreKnown)
{
    announceRanks(0x1F);
    const auto client = clientWithClone();
    for (std::uint16_t code = 0; code < 1024; ++code) {
        client.sendToServer(rankOrder(code, 1));
    }
    const char* trace = "ABN: More than 1024 initiators of restarts: the oldest go";
    client.sendToServer(rankOrder(0, 1)); // again: now its order is the latest
    EXPECT_FALSE(m_board.traces().has(4, trace));
    client.sendToServer(rankOrder(1024, 1));
    client.sendToServer(rankOrder(1025, 1));
    EXPECT_TRUE(m_board.traced(4, trace)) << "once";
    for (const auto code : std::to_array<std::uint16_t>({1, 2})) {
        EXPECT_EQ(flagFor(client, notification(code, 1)), 1U) << code;
    }
    for (const auto code : std::to_array<std::uint16_t>({0, 3, 4, 1023, 1024, 1025})) {
        EXPECT_EQ(flagFor(client, notification(code, 1)), 0U) << code;
    }
}

} // namespace
