#include "brhdTest.h"
#include "brhFrame.h"
#include "briDescription.h"
#include "rowTest.h"

namespace merlow::board::test {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

class BriServerTest : public BrhdTest {
protected:
    BriServerTest() { connect(client, "00000064"); }

    void connect(MailboxId from, const std::string& clientRef)
    {
        receive(briMailbox, from, "0170772d" + clientRef + clientRef + "0801");
        m_outbox.takeSent();
    }

    std::string ask(const std::string& text) { return BrhdTest::ask(briMailbox, text); }

    /// A source of the client's first connection. Accuracy "01" or "02".
    void registerSource(const std::string& accuracy) { ask("01707733 00000001 00000001 08" + accuracy); }
};

TEST_F(BriServerTest, announcesAllThatTheBoardHas)
{
    std::string answer = ask("01707730 00000005 00000001");
    std::erase(answer, ' ');
    EXPECT_EQ(answer, "01707731"
                      "00000005"
                      "00000064"
                      "08000801080208030804080508060807080808090" // the capabilities 0 to 12
                      "80a080b080c"
                      "121008b6fdffffffffffffff0110a6041814" // temperature ranges -330 to 550, 20
                      "1207080010d206181e"                   // and 0 to 850, 30
                      "1a07080010d206181e"                   // hot spots 0 at 850, 30
                      "1a07080110b607181e"                   // and 1 at 950, 30
                      "201f");                               // restart ranks
}

TEST(BriDescriptionTest, namesTheCapabilitiesAsTheSchemaDoes)
{
    using Announced = boardresourcehandler::bri::GetCapabilitiesCfm;
    for (std::size_t value = 0; value < briCapabilityNames.size(); ++value) {
        EXPECT_EQ(briCapabilityNames[value],
                  Announced::CapabilityType_Name(static_cast<Announced::CapabilityType>(value)));
    }
    EXPECT_EQ(briCapabilityNames.size(), 13u);
}

struct AnnouncedRow {
    std::vector<std::uint32_t> capabilities;
    std::vector<std::uint32_t> ranks;
    std::string body;
};

void PrintTo(const AnnouncedRow& row, std::ostream* out)
{
    *out << row.body;
}

class BriAnnouncementTest : public testing::Test, public WithRow<AnnouncedRow> {};

ROW_TEST(BriAnnouncementTest, followsTheDescription)
{
    BoardDescription board;
    board.bri = {row().capabilities, {{-1, 2, 3}}, {}};
    board.restart.ranks = row().ranks;
    EXPECT_EQ(textOf(encodeFrame(0x1707731, 5, 0x64, briCapabilitiesOf(board))),
              textOf(messageFrom("01707731 00000005 00000064" + row().body)));
}

const std::string theRange = "120f08ffffffffffffffffff0110021803"; // -1 to 2, 3

const AnnouncedRow announcedRows[] = {{{12, 0}, {1}, "080c0800" + theRange + "2001"},
                                      {{}, {2, 3}, theRange + "2006"},
                                      {{}, {4}, theRange + "2010"},
                                      {{}, {5}, theRange + "2008"},
                                      {{}, {}, theRange + "2000"}};
TEST_ROWS(Boards, BriAnnouncementTest, announcedRows);

TEST(BriDescriptionTest, whatTheBoardDoesNotTellIsAbsent)
{
    const ProductData product{"d", std::nullopt, "", "r", std::nullopt, "s", std::nullopt};
    EXPECT_EQ(textOf(encodeFrame(0x170773D, 5, 0x64, productOf(product))),
              textOf(messageFrom("0170773d 00000005 00000064 0a0164 1a00 220172 320173")));
    EXPECT_EQ(textOf(encodeFrame(0x1707740, 5, 0x64, containerOf({{}, "n", {}, {}, "m", {}}))),
              textOf(messageFrom("01707740 00000005 00000064 12016e 2a016d")));
}

TEST_F(BriServerTest, everySourceHasItsOwnReference)
{
    EXPECT_EQ(ask("01707733 00000002 00000001 0801"), "01707734 00000002 00000064 0801");
    EXPECT_EQ(ask("01707733 00000003 00000001 0802"), "01707734 00000003 00000064 0802");
    ASSERT_THAT(statusAt("/bri/timeSources"), SizeIs(2));
    EXPECT_EQ(statusAt("/bri/timeSources/0/accuracy"), "NORMAL");
    EXPECT_EQ(statusAt("/bri/timeSources/1/accuracy"), "REDUCED");
}

TEST_F(BriServerTest, aSourceWithoutAKnownAccuracyIsRefused)
{
    for (const char* body : {"", "0800", "0803"}) {
        EXPECT_EQ(ask(std::string("01707733 00000002 00000001") + body), "01707735 00000002 00000064");
    }
    EXPECT_THAT(statusAt("/bri/timeSources"), IsEmpty());
}

TEST_F(BriServerTest, aConnectionHasNotSourcesWithoutEnd)
{
    for (std::size_t i = 0; i < RefTable<int>::maxPerConnection; ++i) {
        ASSERT_TRUE(ask("01707733 00000002 00000001 0801").starts_with("01707734"));
    }
    EXPECT_EQ(ask("01707733 00000002 00000001 0801"), "01707735 00000002 00000064");
    EXPECT_TRUE(ask("01707736 00000002 00000001 0801").starts_with("01707737"));
    EXPECT_TRUE(ask("01707733 00000002 00000001 0801").starts_with("01707734"));
}

TEST_F(BriServerTest, unregistersWhatIsRegistered)
{
    registerSource("01");
    EXPECT_EQ(ask("01707736 00000003 00000001 0801"), "01707737 00000003 00000064");
    EXPECT_THAT(statusAt("/bri/timeSources"), IsEmpty());
    EXPECT_EQ(ask("01707736 00000004 00000001 0801"), "01707738 00000004 00000064");
}

TEST_F(BriServerTest, nothingIsWrongWithUnregisteringNothing)
{
    EXPECT_EQ(ask("01707736 00000003 00000001 0800"), "01707737 00000003 00000064");
    EXPECT_EQ(ask("01707736 00000003 00000001"), "01707737 00000003 00000064");
}

TEST_F(BriServerTest, setsTheBoardsTimeAndNotTheSystems)
{
    registerSource("01");
    EXPECT_EQ(ask("01707739 00000003 00000001 08011080c2d72f"), "0170773a 00000003 00000064");
    EXPECT_EQ(statusAt("/bri/utcTime/now"), 100'000'000);
    EXPECT_EQ(statusAt("/bri/utcTime/offset"), 99'000'000);
    EXPECT_EQ(statusAt("/bri/utcTime/believedSource"), 1);
    m_time += 60;
    EXPECT_EQ(statusAt("/bri/utcTime/now"), 100'000'060);
}

TEST_F(BriServerTest, anUnknownSourceSetsNoTime)
{
    registerSource("01");
    for (const char* body : {"08001001", "08021001", "1001", "0801", "", "08ffffffff0f1001"}) {
        EXPECT_EQ(ask(std::string("01707739 00000003 00000001") + body), "0170773b 00000003 00000064");
    }
    EXPECT_EQ(statusAt("/bri/utcTime/offset"), 0);
}

TEST_F(BriServerTest, theSourceOfAnotherConnectionIsUnknown)
{
    registerSource("01");
    connect(stranger, "00000065");
    receive(briMailbox, stranger, "01707739 00000003 00000002 08011001");
    EXPECT_EQ(m_outbox.takeOne(), "0170773b 00000003 00000065");
    receive(briMailbox, stranger, "01707736 00000003 00000002 0801");
    EXPECT_EQ(m_outbox.takeOne(), "01707738 00000003 00000065");
    EXPECT_THAT(statusAt("/bri/timeSources"), SizeIs(1));
}

TEST_F(BriServerTest, whatAConnectionHeldEndsWithItsMailbox)
{
    registerSource("01");
    registerSource("02");
    connect(stranger, "00000065");
    receive(briMailbox, stranger, "01707733 00000001 00000002 0801");
    m_brhd.mailboxGone(client);
    ASSERT_THAT(statusAt("/bri/timeSources"), SizeIs(1));
    EXPECT_EQ(statusAt("/bri/timeSources/0/connectionRef"), 2);
    m_brhd.mailboxGone(client);
    m_brhd.mailboxGone(0x999);
    EXPECT_THAT(statusAt("/bri/timeSources"), SizeIs(1));
}

TEST_F(BriServerTest, whatAConnectionHeldEndsWhenItIsReplaced)
{
    registerSource("01");
    connect(client, "00000064");
    EXPECT_THAT(statusAt("/bri/timeSources"), IsEmpty());
}

TEST_F(BriServerTest, aRefusedRequestChangesNothing)
{
    plan("refuse", "bri::RegisterUtcTimeSourceReq");
    EXPECT_EQ(ask("01707733 00000002 00000001 0801"), "01707735 00000002 00000064");
    EXPECT_THAT(statusAt("/bri/timeSources"), IsEmpty());
}

TEST_F(BriServerTest, aDroppedAnswerComesFromAServedRequest)
{
    plan("drop", "bri::RegisterUtcTimeSourceReq");
    receive(briMailbox, client, "01707733 00000002 00000001 0801");
    EXPECT_THAT(m_outbox.takeSent(), IsEmpty());
    EXPECT_THAT(statusAt("/bri/timeSources"), SizeIs(1));
}

TEST_F(BriServerTest, tellsWhatTheUnitAndItsContainerAre)
{
    std::string answer = ask("0170773c 00000005 00000001");
    std::erase(answer, ' ');
    EXPECT_EQ(answer, "0170773d"
                      "00000005"
                      "00000064"
                      "0a083230323430313331" // "20240131"
                      "12084d4c552033303230" // "MLU 3020"
                      "1a0b514441203730342031"
                      "2f31"                                                       // "QDA 704 1/1"
                      "2203523141"                                                 // "R1A"
                      "2a064d65726c6f77"                                           // "Merlow"
                      "320a4d303030303030303031"                                   // "M000000001"
                      "3a1a4d65726c6f77205265666572656e636520556e69742033303230"); // "Merlow Reference ..."
    answer = ask("0170773f 00000006 00000001");
    std::erase(answer, ' ');
    EXPECT_EQ(answer, "01707740"
                      "00000006"
                      "00000064"
                      "0a083230323430313135"           // "20240115"
                      "120d4d4c5520436162696e65742032" // "MLU Cabinet 2"
                      "1a0b4d5242203230302032"
                      "2f31"                       // "MRB 200 2/1"
                      "2203523242"                 // "R2B"
                      "2a064d65726c6f77"           // "Merlow"
                      "320a43303030303030303031"); // "C000000001"
}

TEST_F(BriServerTest, productAndContainerDataAreRefusedAndDroppedOnDemand)
{
    plan("refuse", "bri::GetProductInfoReq");
    EXPECT_EQ(ask("0170773c 00000005 00000001"), "0170773e 00000005 00000064");
    plan("refuse", "bri::GetContainerPidReq");
    EXPECT_EQ(ask("0170773f 00000005 00000001"), "01707741 00000005 00000064");
    plan("drop", "bri::GetProductInfoReq");
    receive(briMailbox, client, "0170773c 00000005 00000001");
    EXPECT_THAT(m_outbox.takeSent(), IsEmpty());
    EXPECT_TRUE(ask("0170773c 00000005 00000001").starts_with("0170773d"));
}

TEST_F(BriServerTest, theOtherServersFramesAreUnknown)
{
    receive(briMailbox, client, "01707580 00000002 00000001 0801");
    expectSilence("unknown frame 0x1707580");
}

} // namespace
} // namespace merlow::board::test
