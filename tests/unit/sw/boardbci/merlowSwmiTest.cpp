// The software component's way to its server, the store's acquisition, and what becomes of lost sessions.

#include "rowTest.h"
#include "swmiFixture.h"

#include <random>
#include <stdexcept>

using namespace std::chrono_literals;
using support::FakeSway;

namespace swmi {

// The way to the SWM server

class SwmiStartTest : public ::testing::Test {
protected:
    [[nodiscard]] bool init() { return m_swmi.init(); }
    void subscribe()
    {
        m_swmi.subscribeForCheckComponents([this] {
            ++m_checks;
            return false;
        });
    }

    support::TracepointLog m_log;
    Board m_board;
    std::vector<std::chrono::microseconds> m_waits;
    unsigned int m_checks = 0;
    MerlowSwmi m_swmi{m_board.commonData(), [this](std::chrono::microseconds time) {
                          m_waits.push_back(time);
                      }};
};

TEST_F(SwmiStartTest, nobodyToCallBackEndsTheStart)
{
    support::VirtualSwmServer::listen();
    EXPECT_FALSE(init());
    EXPECT_THAT(m_log.texts(Event::Error),
                ElementsAre("SWMI component: missing callback function to areComponentsReadyToPublish()."));
    EXPECT_EQ(FakeSway::instance().openConnections(), 0U);
}

TEST_F(SwmiStartTest, triesFiveTimesAQuarterOfASecondApart)
{
    subscribe();
    EXPECT_FALSE(init());
    EXPECT_THAT(m_waits, ElementsAre(250000us, 250000us, 250000us, 250000us, 250000us));
    EXPECT_EQ(m_log.count(Event::Error, "SWMI component: the SWMI client failed to send connEstablishReq."),
              1U);
    EXPECT_EQ(m_log.count(Event::Error,
                          "SWMClient::connEstablishReq() SWAY connection to SWMI Server was unsuccessful."),
              5U);
}

TEST_F(SwmiStartTest, theLastAttemptIsAsGoodAsTheFirst)
{
    subscribe();
    support::VirtualSwmServer::listen();
    FakeSway::instance().fail(FakeSway::Call::connect, ECONNREFUSED, 4);
    EXPECT_TRUE(init());
    EXPECT_EQ(m_waits.size(), 4U);
    EXPECT_THAT(support::VirtualSwmServer::received(), ElementsAre("00000001 00000000 0801"));
}

TEST_F(SwmiStartTest, anAttemptThatCannotSendIsFollowedByAnother)
{
    subscribe();
    support::VirtualSwmServer::listen();
    FakeSway::instance().fail(FakeSway::Call::send, EAGAIN, 1);
    EXPECT_TRUE(init());
    EXPECT_EQ(m_waits.size(), 1U);
    EXPECT_EQ(FakeSway::instance().openConnections(), 1U);
}

TEST_F(SwmiStartTest, isReadyWithTheConfirmAndReportsWithTheCapabilities)
{
    subscribe();
    support::VirtualSwmServer::listen();
    ASSERT_TRUE(init());
    EXPECT_FALSE(m_swmi.isReadyToPublish());
    EXPECT_EQ(m_swmi.getComponentName(), "MerlowSwmi");
    support::VirtualSwmServer::send("00000002 00000000 0801");
    EXPECT_TRUE(m_swmi.isReadyToPublish());
    EXPECT_EQ(m_checks, 0U);
    support::VirtualSwmServer::send("00000005 00000000");
    EXPECT_EQ(m_checks, 1U);
}

TEST_F(SwmiStartTest, aRejectLeavesItNotReady)
{
    subscribe();
    support::VirtualSwmServer::listen();
    ASSERT_TRUE(init());
    support::VirtualSwmServer::send("00000003 00000000 0803");
    EXPECT_FALSE(m_swmi.isReadyToPublish());
    EXPECT_EQ(m_checks, 0U);
}

// Acquisition and release

class SwmiResourceTest : public SwmiTest {};

TEST_F(SwmiResourceTest, aTicketIsHeardOfWhenItIsActive)
{
    m_board.commonData().setSelectLoadModule("AB_R1A");
    m_client.sendHex("01659800 00000007 0000012c 0005 0000");
    EXPECT_THAT(sent(), ElementsAre("00000007 00000001 08ac021000"));
    fromServer("00000008 00000001 08ac021009 1800");
    EXPECT_TRUE(m_client.nothingReceived());
    EXPECT_EQ(m_board.commonData().getSelectLoadModule(), "AB_R1A");
    fromServer("0000000a 00000001 0809");
    EXPECT_EQ(m_client.receivedHex(), "01659801 00000007 0000012c 00050000");
    EXPECT_EQ(m_board.commonData().getSelectLoadModule(), "");
    EXPECT_TRUE(nothingSent());
}

TEST_F(SwmiResourceTest, theSameResourceIsNotAcquiredTwice)
{
    m_client.sendHex("01659800 00000007 0000012c 0005 0000");
    (void)sent();
    m_client.sendHex("01659800 00000007 0000012c 0005 0000");
    EXPECT_EQ(m_client.receivedHex(), "01659802 00000007 0000012c 00050000 " +
                                          rejectTail("acquire resource already requested by this client"));
    EXPECT_TRUE(nothingSent());
}

TEST_F(SwmiResourceTest, anotherResourceOrReferenceIsAnotherAcquisition)
{
    m_client.sendHex("01659800 00000007 0000012c 0005 0000");
    m_client.sendHex("01659800 00000007 0000012c 0006 0000");
    m_client.sendHex("01659800 00000008 0000012c 0005 0000");
    m_client.sendHex("01659800 00000007 fffffffe 0005 0000");
    EXPECT_THAT(sent(), ElementsAre("00000007 00000001 08ac021000", "00000007 00000002 08ac021000",
                                    "00000007 00000003 08ac021000", "00000007 00000004 08feffffff0f1000"));
    EXPECT_TRUE(m_client.nothingReceived());
}

TEST_F(SwmiResourceTest, aRejectEndsTheAcquisition)
{
    m_client.sendHex("01659800 00000007 0000012c 0005 0000");
    (void)sent();
    fromServer("00000009 00000001 08ad021000"); // of another reference
    fromServer("00000009 00000002 08ac021000"); // of another procedure
    EXPECT_TRUE(nothingSent());
    fromServer("00000009 00000001 08ac021000");
    EXPECT_EQ(m_client.receivedHex(),
              "01659802 00000007 0000012c 00050000 " + rejectTail("unknown resource"));
    fromServer("00000009 00000001 08ac021000");
    EXPECT_TRUE(nothingSent());
    m_client.sendHex("01659800 00000007 0000012c 0005 0000");
    EXPECT_THAT(sent(), ElementsAre("00000007 00000002 08ac021000"));
}

TEST_F(SwmiResourceTest, answersToNobodyAreDropped)
{
    m_client.sendHex("01659800 00000007 0000012c 0005 0000");
    (void)sent();
    m_board.commonData().setSelectLoadModule("AB_R1A");
    fromServer("00000008 00000001 08ad021009"); // of another reference
    fromServer("00000008 00000002 08ac021009"); // of another procedure
    fromServer("0000000a 00000001 0809");       // the ticket is not known
    fromServer("0000000c 00000001 0809");
    fromServer("0000000d 00000001 0809");
    EXPECT_TRUE(nothingSent());
    EXPECT_EQ(m_board.commonData().getSelectLoadModule(), "AB_R1A");
}

TEST_F(SwmiResourceTest, isReleasedAndCanBeAcquiredAnew)
{
    acquire();
    m_client.sendHex("01659803 00000007 0000012c 0006 0000"); // not this one
    m_client.sendHex("01659803 00000008 0000012c 0005 0000");
    EXPECT_TRUE(nothingSent());
    m_client.sendHex("01659803 00000007 0000012c 0005 0000");
    EXPECT_THAT(sent(), ElementsAre("0000000b 00000001 0809"));
    m_client.sendHex("01659803 00000007 0000012c 0005 0000"); // under way
    EXPECT_TRUE(nothingSent());
    fromServer("0000000c 00000001 0809");
    EXPECT_EQ(m_client.receivedHex(), "01659804 00000007 0000012c 00050000");
    m_client.sendHex("01659800 00000007 0000012c 0005 0000");
    EXPECT_THAT(sent(), ElementsAre("00000007 00000002 08ac021000"));
}

TEST_F(SwmiResourceTest, aReleaseBeforeTheTicketCarriesNone)
{
    m_client.sendHex("01659800 00000007 0000012c 0005 0000");
    (void)sent();
    m_client.sendHex("01659803 00000007 0000012c 0005 0000");
    EXPECT_THAT(sent(), ElementsAre("0000000b 00000001 0800"));
}

TEST_F(SwmiResourceTest, aRefusedReleaseLeavesTheAcquisitionAsItWas)
{
    acquire();
    m_client.sendHex("01659803 00000007 0000012c 0005 0000");
    (void)sent();
    fromServer("0000000d 00000001 0809 1000");
    EXPECT_EQ(m_client.receivedHex(),
              "01659805 00000007 0000012c 00050000 " + rejectTail("unknown resource"));
    m_client.sendHex("01659800 00000007 0000012c 0005 0000");
    EXPECT_EQ(m_client.receivedHex().substr(0, 8), "01659802");
    m_client.sendHex("01659803 00000007 0000012c 0005 0000");
    EXPECT_THAT(sent(), ElementsAre("0000000b 00000001 0809"));
}

TEST_F(SwmiResourceTest, aReleaseSweepsAwayAllOfItsTicket)
{
    startLoad();
    m_client.sendHex("01658806 00000007 0000012c 0001 0000 00000001 ee");
    m_client.sendHex("01659803 00000007 0000012c 0005 0000");
    (void)sent();
    fromServer("0000000c 00000001 0809");
    EXPECT_EQ(m_client.receivedHex(), "01659804 00000007 0000012c 00050000");
    fromServer("00000012 00000003 0809 1801"); // acknowledgement
    fromServer("00000014 00000002 0809");      // end
    m_client.sendHex("01658808 00000007 0000012c");
    EXPECT_TRUE(nothingSent());
}

TEST_F(SwmiResourceTest, anAnswerThatDoesNotParseIsDropped)
{
    acquire();
    m_client.sendHex("01659803 00000007 0000012c 0005 0000");
    (void)sent();
    fromServer("0000000c 00000001 ffff");
    EXPECT_TRUE(nothingSent());
    fromServer("0000000c 00000001 0809");
    EXPECT_EQ(m_client.receivedHex(), "01659804 00000007 0000012c 00050000");
}

TEST_F(SwmiResourceTest, withoutTheServerTheClientWaits)
{
    support::VirtualSwmServer::close();
    EXPECT_TRUE(m_swmi.isReadyToPublish());
    m_client.sendHex("01659800 00000007 0000012c 0005 0000");
    m_client.sendHex("01659800 00000007 0000012c 0005 0000");
    EXPECT_EQ(m_client.receivedHex().substr(0, 8), "01659802") << "the acquisition is there";
    EXPECT_TRUE(m_client.nothingReceived());
}

struct SwmiShortRow {
    const char* name;
    const char* signal;
    std::size_t size;
};

class SwmiShortSignalTest : public SwmiTest, public WithRow<SwmiShortRow> {};

ROW_TEST(SwmiShortSignalTest, isDroppedWithATrace)
{
    startLoad();
    m_board.traces().clear();
    auto bytes = support::messageFromHex(row().signal);
    bytes.resize(row().size - 1);
    m_client.sendToServer(bytes);
    EXPECT_TRUE(nothingSent());
    std::ostringstream sender;
    sender << std::hex << m_client.mbox();
    EXPECT_NE(m_board.traces().dump().find(" from mbox: 0x" + sender.str() +
                                           " is too short: " + std::to_string(row().size - 1) + " of " +
                                           std::to_string(row().size) + " bytes. Ignoring it."),
              std::string::npos)
        << m_board.traces().dump();
}

const SwmiShortRow swmiShortRows[] = {
    {"acquire", "01659800 00000007 0000012c 0006 0000", 16},
    {"release", "01659803 00000007 0000012c 0005 0000", 16},
    {"init", "01658803 00000007 0000012c", 12},
    {"block", "01658806 00000007 0000012c 0001 0000 00000000", 20},
    {"blocksContent", "01658806 00000007 0000012c 0001 0000 00000003 aabbcc", 23},
    {"end", "01658808 00000007 0000012c", 12},
    {"select", "0165880b 00000007 0000012c", 12},
    {"list", "0165880e 00000007 0000012c", 12},
    {"listAck", "01658812 00000007 0000012c 00000000", 16},
    {"running", "01658813 00000007 0000012c", 12}};
TEST_ROWS(all, SwmiShortSignalTest, swmiShortRows);

// Automatic boot mode

class SwmiAubootTest : public SwmiTest {
protected:
    SwmiAubootTest() : SwmiTest("AUBOOT") { m_client.session()->protocolRev = 1; }
    void activate(unsigned int procRef = 1)
    {
        const std::string ref = " 0000000" + std::to_string(procRef);
        fromServer("00000008" + ref + " 08ac021009");
        fromServer("0000000a" + ref + " 0809");
    }
};

struct ImplicitRow {
    const char* name;
    const char* signal;
    const char* text; ///< null for none
    const char* request;
};

class SwmiImplicitTest : public SwmiAubootTest, public WithRow<ImplicitRow> {
protected:
    void ask()
    {
        const std::string start = row().signal;
        m_client.sendToServer(row().text == nullptr ? support::messageFromHex(start)
                                                    : signalWithText(start, row().text));
    }
};

ROW_TEST(SwmiImplicitTest, acquiresFirstAndTellsTheClientNothingOfIt)
{
    ask();
    EXPECT_THAT(sent(), ElementsAre("00000007 00000001 08ac021000"));
    activate();
    EXPECT_THAT(sent(), ElementsAre(row().request));
    EXPECT_TRUE(m_client.nothingReceived());
}

ROW_TEST(SwmiImplicitTest, onlyOnce)
{
    ask();
    (void)sent();
    ask();
    const auto frames = sent();
    ASSERT_EQ(frames.size(), 1U);
    EXPECT_EQ(frames[0].substr(0, 8), std::string(row().request).substr(0, 8));
    EXPECT_EQ(frames[0].substr(9, 13), "00000003 0800") << "the ticket is not there yet";
}

ROW_TEST(SwmiImplicitTest, notForAnotherRevision)
{
    m_client.session()->protocolRev = 2;
    ask();
    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_NE(m_client.receivedHex().find(rejectTail("ABN: Resource not acquired")), std::string::npos);
}

ROW_TEST(SwmiImplicitTest, notWithoutASession)
{
    m_board.endSession(m_client);
    ask();
    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_NE(m_client.receivedHex().find(rejectTail("ABN: Resource not acquired")), std::string::npos);
}

const ImplicitRow implicitRows[] = {
    {"load", "01658803 00000007 0000012c", "AB_R1A", "0000000e 00000002 0809120641425f523141"},
    {"select", "0165880b 00000007 0000012c", "AB_R1A", "00000020 00000002 0809"},
    {"list", "0165880e 00000007 0000012c", nullptr, "00000023 00000002 0809"}};
TEST_ROWS(all, SwmiImplicitTest, implicitRows);

TEST_F(SwmiAubootTest, theAcquisitionIsOfResourceOneAndStays)
{
    m_client.sendToServer(signalWithText("01658803 00000007 0000012c", "AB_R1A"));
    activate();
    (void)sent();
    m_client.sendHex("01659800 00000007 0000012c 0001 0000");
    EXPECT_EQ(m_client.receivedHex().substr(0, 35), "01659802 00000007 0000012c 00010000");
    m_client.sendToServer(signalWithText("0165880b 00000007 0000012c", "AB_R1A"));
    EXPECT_THAT(sent(), ElementsAre("00000020 00000003 0809"));
    m_client.sendHex("01659803 00000007 0000012c 0001 0000");
    EXPECT_THAT(sent(), ElementsAre("0000000b 00000001 0809"));
}

TEST_F(SwmiAubootTest, anAcquisitionOfTheClientsOwnIsNotConfirmed)
{
    m_client.sendHex("01659800 00000007 0000012c 0005 0000");
    (void)sent();
    activate();
    EXPECT_TRUE(nothingSent());
}

TEST_F(SwmiAubootTest, aNextProcedureThatNeedsNoTicketGetsItAllTheSame)
{
    m_client.sendHex("01659800 00000007 0000012c 0005 0000");
    m_client.sendHex("01658813 00000007 0000012c");
    (void)sent();
    activate();
    EXPECT_TRUE(nothingSent());
    fromServer("00000029 00000002 0a0141");
    EXPECT_EQ(m_client.receivedHex().substr(0, 8), "01658814");
}

TEST_F(SwmiAubootTest, whoseSessionHasGoneMeanwhileGetsTheConfirmToNobody)
{
    m_client.sendToServer(signalWithText("01658803 00000007 0000012c", "AB_R1A"));
    (void)sent();
    m_board.commonData().removeClientSession(m_client.mbox()); // and the records stay
    activate();
    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_EQ(m_client.receivedHex(), "01659801 00000007 0000012c 00010000");
}

// Nonsense from the SWM server

TEST_F(SwmiResourceTest, whateverTheServerSaysTheComponentGoesOn)
{
    std::mt19937 random{1}; // NOLINT(bugprone-random-generator-seed): the same bytes in every run
    ProductInfo info;
    info.productName = "KPX";
    info.isComplete = true;
    m_board.commonData().setProductInfoCache(info);
    const auto gsmClient = m_board.connectClient({.clientRef = 8, .serverRef = 150});
    std::uint8_t lastRef = 0;
    for (unsigned int round = 0; round < 200; ++round) {
        // Something of everything is open, with references that the frames below are likely to hit.
        for (const auto& [client, refs] :
             {std::pair(m_client, " 00000007 0000012c"), std::pair(gsmClient, " 00000008 00000096")}) {
            for (const char* signal :
                 {"01659800", "01658803", "01658806", "0165880b", "0165880e", "01658813"}) {
                client.sendHex(signal + std::string(refs) + "0001 0000 00000000");
                ++lastRef;
            }
        }
        for (std::uint8_t number = 0; number < 48; ++number) {
            if (number == 3) {
                continue; // a refused connection is closed
            }
            std::vector<std::uint8_t> frame(8 + random() % 24);
            for (auto& byte : frame) {
                byte = static_cast<std::uint8_t>(random() % 32); // small ones often are valid fields
            }
            std::fill_n(frame.begin(), 8, std::uint8_t{0});
            frame[3] = number;
            frame[7] = static_cast<std::uint8_t>(lastRef - random() % 12);
            try {
                support::VirtualSwmServer::send(frame);
            } catch (const std::out_of_range&) {
                continue; // a list without its tag
            }
        }
        (void)sent();
        for (const auto& client : {m_client, gsmClient}) {
            while (client.receive()) {
            }
        }
    }
    const auto witness = m_board.connectClient({.clientRef = 9, .serverRef = 301});
    witness.sendHex("01659800 00000009 0000012d 0005 0000");
    EXPECT_EQ(sent().size(), 1U);
    EXPECT_TRUE(witness.nothingReceived());
}

// Lost sessions

class SwmiSessionLossTest : public SwmiTest {};

TEST_F(SwmiSessionLossTest, whatIsOpenIsGivenBackTheLastFirst)
{
    startLoad();
    m_client.sendHex("0165880e 00000007 0000012c");
    (void)sent();
    m_client.die();
    EXPECT_THAT(sent(), ElementsAre("00000027 00000003 08091001", "00000013 00000002 0809",
                                    "0000000b 00000001 0809"));
    for (const char* late : {"00000014 00000002 0809", "0000000c 00000001 0809", "00000024 00000003 0809"}) {
        fromServer(late);
    }
    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_EQ(m_log.count(Event::Info, "MerlowSwmi::onBcSessionLostSwmi() had nothing to release"), 0U);
}

TEST_F(SwmiSessionLossTest, whatWaitsForAnAnswerOnlyIsLeftToIt)
{
    startLoad();
    m_client.sendHex("01658806 00000007 0000012c 0001 0000 00000001 ee");          // 3
    m_client.sendToServer(signalWithText("0165880b 00000007 0000012c", "AB_R1A")); // 4
    m_client.sendHex("01658813 00000007 0000012c");                                // 5
    m_client.sendHex("01658808 00000007 0000012c");
    m_client.sendHex("01659803 00000007 0000012c 0005 0000");
    (void)sent();
    m_board.endSession(m_client);
    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_EQ(m_log.count(Event::Info, "MerlowSwmi::onBcSessionLostSwmi() had nothing to release"), 1U);

    // The client lives on without a session, so that it hears what is sent to the old mailbox.
    fromServer("00000012 00000003 0809 1801");
    EXPECT_EQ(m_client.receivedHex(), "01658807 00000007 0000012c 00010000");
    fromServer("00000022 00000004 0809");
    EXPECT_EQ(m_client.receivedHex().substr(0, 8), "0165880d");
    fromServer("0000002a 00000005 0801");
    EXPECT_EQ(m_client.receivedHex().substr(0, 8), "01658815");
    fromServer("00000014 00000002 0809");
    EXPECT_EQ(m_client.receivedHex().substr(0, 8), "01658809");
    fromServer("0000000c 00000001 0809");
    EXPECT_EQ(m_client.receivedHex().substr(0, 8), "01659804");
}

struct LossRow {
    const char* name;
    /// What the client says (without a blank in front) and what its server does, up to the loss.
    std::vector<const char*> steps;
    std::vector<std::string> givenBack;
    const char* late; ///< what the server says of it afterwards
};

class SwmiLossInStateTest : public SwmiTest, public WithRow<LossRow> {};

ROW_TEST(SwmiLossInStateTest, givesBackWhatIsHeldAndHearsNothingOfItAnyMore)
{
    ProductInfo info;
    info.productName = "KPX";
    info.isComplete = true;
    m_board.commonData().setProductInfoCache(info);
    const auto client = m_board.connectClient({.clientRef = 8, .serverRef = 150});
    for (const char* step : row().steps) {
        if (*step == ' ') {
            fromServer(step);
        } else {
            client.sendHex(step);
        }
    }
    while (client.receive()) {
    }
    (void)sent();
    m_board.endSession(client); // it lives on, to hear what comes
    EXPECT_EQ(sent(), row().givenBack);
    fromServer(row().late);
    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_TRUE(client.nothingReceived());
}

constexpr const char* LOSS_ACQUIRE = "01659800 00000008 00000096 0005 0000";
constexpr const char* LOSS_TICKET = " 00000008 00000001 08960110091800";
constexpr const char* LOSS_INIT = "01658803 00000008 00000096 4100";
constexpr const char* LOSS_SHORTAGE = " 00000010 00000002 0809 1000";
constexpr const char* LOSS_LIST = "0165880e 00000008 00000096";
constexpr const char* LOSS_LAST_PIECE = " 00000026 00000002 0809 1001";
const std::string LOSS_RELEASED = "0000000b 00000001 0809";
const std::string LOSS_ENDED = "00000013 00000002 0809";
const std::string LOSS_GIVEN_UP = "00000027 00000002 08091001";

const LossRow lossRows[] = {
    {"requested", {LOSS_ACQUIRE}, {"0000000b 00000001 0800"}, LOSS_TICKET},
    {"ticketed", {LOSS_ACQUIRE, LOSS_TICKET}, {LOSS_RELEASED}, " 0000000a 00000001 0809"},
    {"acquired",
     {LOSS_ACQUIRE, LOSS_TICKET, " 0000000a 00000001 0809"},
     {LOSS_RELEASED},
     " 0000000c 00000001 0809"},
    {"initPending",
     {LOSS_ACQUIRE, LOSS_TICKET, LOSS_INIT},
     {LOSS_ENDED, LOSS_RELEASED},
     " 0000000f 00000002 0809"},
    {"readingTheInventory",
     {LOSS_ACQUIRE, LOSS_TICKET, LOSS_INIT, LOSS_SHORTAGE},
     {LOSS_ENDED, LOSS_RELEASED},
     " 00000021 00000002 0809"},
    {"deleting",
     {LOSS_ACQUIRE, LOSS_TICKET, LOSS_INIT, LOSS_SHORTAGE, " 00000021 00000002 0809"},
     {LOSS_ENDED, LOSS_RELEASED},
     " 0000001e 00000002 0809"},
    {"listRequested",
     {LOSS_ACQUIRE, LOSS_TICKET, LOSS_LIST},
     {LOSS_GIVEN_UP, LOSS_RELEASED},
     " 00000024 00000002 0809"},
    {"collecting",
     {LOSS_ACQUIRE, LOSS_TICKET, LOSS_LIST, " 00000024 00000002 0809"},
     {LOSS_GIVEN_UP, LOSS_RELEASED},
     LOSS_LAST_PIECE},
    {"awaitingTheRunningSoftware",
     {LOSS_ACQUIRE, LOSS_TICKET, LOSS_LIST, LOSS_LAST_PIECE},
     {LOSS_GIVEN_UP, LOSS_RELEASED},
     " 00000029 00000002"},
    {"handingOut",
     {LOSS_ACQUIRE, LOSS_TICKET, LOSS_LIST, " 00000026 00000002 0809 1001 1a0f3c507265696e7374616c6c65642f3e",
      " 00000029 00000002"},
     {LOSS_GIVEN_UP, LOSS_RELEASED},
     " 00000029 00000002"}};
TEST_ROWS(all, SwmiLossInStateTest, lossRows);

TEST_F(SwmiSessionLossTest, alsoEndsTheProceduresOfAnotherClientWithTheSameServerReference)
{
    acquire();
    const auto other = m_board.connectClient({.clientRef = 8, .serverRef = 300});
    const auto stranger = m_board.connectClient({.clientRef = 9, .serverRef = 301});
    stranger.sendHex("01659800 00000009 0000012d 0005 0000");
    (void)sent();
    other.die();
    EXPECT_THAT(sent(), ElementsAre("0000000b 00000001 0809"));
    fromServer("00000008 00000002 08ad02100a");
    fromServer("0000000a 00000002 080a");
    EXPECT_EQ(stranger.receivedHex(), "01659801 00000009 0000012d 00050000");
}

TEST_F(SwmiSessionLossTest, recordsThatNobodyAnswersDoNotGrowForEver)
{
    for (std::size_t i = 0; i < MerlowSwmi::maxAbandonedRecords; ++i) {
        m_client.sendHex("01658813 00000007 0000012c");
    }
    m_board.endSession(m_client);
    (void)sent();
    EXPECT_THAT(m_log.texts(Event::Error), IsEmpty());
    const auto stranger = m_board.newClient();
    stranger.sendHex("01658813 00000008 0000012c");
    stranger.sendHex("01658813 00000009 0000012c");
    EXPECT_THAT(m_log.texts(Event::Error),
                ElementsAre("ABN: More than 4096 software procedures without a session wait "
                            "for the SWM server: the oldest go"));
    fromServer("0000002a 00000001 0801");
    fromServer("0000002a 00000002 0801");
    EXPECT_TRUE(m_client.nothingReceived()) << "the two oldest are gone";
    fromServer("0000002a 00000003 0801");
    EXPECT_EQ(m_client.receivedHex().substr(0, 8), "01658815");
    fromServer("0000002a 00001002 0801");
    EXPECT_EQ(stranger.receivedHex().substr(0, 17), "01658815 00000009");
}

TEST_F(SwmiSessionLossTest, anAcquisitionThatGivesWayIsReleased)
{
    const auto stranger = m_board.newClient();
    stranger.sendHex("01659800 00000007 0000012c 0005 0000");
    for (std::size_t i = 0; i < MerlowSwmi::maxAbandonedRecords; ++i) {
        stranger.sendHex("01658813 00000007 0000012c");
    }
    const auto frames = sent();
    EXPECT_EQ(std::count(frames.begin(), frames.end(), "0000000b 00000001 0800"), 1);
}

TEST_F(SwmiSessionLossTest, theRecordsOfAClientThatIsThereAreNotLimited)
{
    m_client.sendHex("01658813 00000007 0000012c");
    for (std::size_t i = 0; i < MerlowSwmi::maxAbandonedRecords + 10; ++i) {
        m_client.sendHex("01658813 00000008 0000012c");
    }
    fromServer("0000002a 00000001 0801");
    EXPECT_EQ(m_client.receivedHex().substr(0, 17), "01658815 00000007");
}

} // namespace swmi
