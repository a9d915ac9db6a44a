#include "swmServer.h"
#include "rowTest.h"

#include "control.h"
#include "swmd.h"
#include "swmdTest.h"

#include <gmock/gmock.h>

namespace merlow::board::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using Texts = std::vector<std::string>;

/// "00000002 00000005 0801": number, reference, and the body as it is.
std::string frameText(BytesView frame)
{
    constexpr const char* digits = "0123456789abcdef";
    std::string text;
    for (std::size_t index = 0; index < frame.size(); ++index) {
        text += index == 4 || index == 8 ? " " : "";
        text += digits[std::to_integer<unsigned>(frame[index]) >> 4U];
        text += digits[std::to_integer<unsigned>(frame[index]) & 0xFU];
    }
    return text;
}

std::string hexOf(BytesView bytes)
{
    const std::string text = frameText(bytes);
    std::string hexDigits;
    std::copy_if(text.begin(), text.end(), std::back_inserter(hexDigits), [](char c) { return c != ' '; });
    return hexDigits;
}

std::string hexOf(const std::string& text)
{
    return hexOf(BytesView(std::as_bytes(std::span(text))));
}

class FakeSwmPeers : public SwmPeers {
public:
    void send(ConnectionId to, BytesView frame) override { sent[to].push_back(frameText(frame)); }
    void sendAfter(std::chrono::milliseconds delay, ConnectionId to, Bytes frame) override
    {
        sent[to].push_back("after " + std::to_string(delay.count()) + ": " + frameText(frame));
    }
    void close(ConnectionId connection) override { closed.push_back(connection); }
    bool logs(LogLevel /*level*/) const override { return true; }
    void log(LogLevel level, const char* /*file*/, unsigned /*line*/, const std::string& text) override
    {
        if (level == LogLevel::abnormal) {
            abnormal.push_back(text);
        }
    }

    std::map<ConnectionId, Texts> sent;
    std::vector<ConnectionId> closed;
    Texts abnormal;
};

class SwmServerTest : public testing::Test {
protected:
    static constexpr ConnectionId client = 1;
    static constexpr ConnectionId other = 2;

    SwmServerTest() { start({2, softwareOf("QXR1/1_R1A"), {}}); }

    void start(const SwStoreConfig& storeConfig, const SwmServerConfig& config = {})
    {
        m_swmd.reset();
        m_store = std::make_unique<SwStore>(storeConfig, m_disk.files, m_disk.inventory);
        std::vector<std::string> said;
        ASSERT_EQ(m_store->open(said), "");
        m_swmd = std::make_unique<Swmd>(config, *m_store, m_peers);
    }

    SwmServer& server() { return m_swmd->server(); }

    /// Lets the frame in, in a block of exactly its size; what its sender is sent.
    Texts ask(ConnectionId connection, const std::string& text)
    {
        const Bytes bytes = *bytesFromHex(text);
        const std::unique_ptr<std::byte[]> block(new std::byte[bytes.size()]);
        std::copy(bytes.begin(), bytes.end(), block.get());
        server().receive(connection, BytesView(block.get(), bytes.size()));
        return takeSent(connection);
    }

    Texts takeSent(ConnectionId connection) { return std::exchange(m_peers.sent[connection], {}); }

    void establish(ConnectionId connection)
    {
        server().connected(connection);
        ASSERT_THAT(ask(connection, "00000001 00000001 0801"), ElementsAre("00000002 00000001 0801"));
    }

    /// The client has the active ticket 1.
    void acquire()
    {
        establish(client);
        ASSERT_THAT(ask(client, "00000007 00000002 082a1000"),
                    ElementsAre("00000008 00000002 082a10011800", "0000000a 00000002 0801"));
    }

    ControlAnswer plan(const char* action, const char* kind, nlohmann::json more = nlohmann::json::object())
    {
        more["command"] = "plan";
        more["action"] = action;
        more["kind"] = kind;
        return serveControl(*m_swmd, more);
    }

    std::string content() const { return contentOf(*m_store); }

    MemoryDisk m_disk;
    FakeSwmPeers m_peers;
    std::unique_ptr<SwStore> m_store;
    std::unique_ptr<Swmd> m_swmd;
};

// PushLoadInitReq of ticket 1 for "QXR2_R1A"
const std::string initOfQxr2 = "0000000e 00000003 08011208515852325f523141";

/// PushLoadData of ticket 1 with sequence number 7.
std::string dataFrame(BytesView block)
{
    const std::string size =
        block.size() < 128 ? hexOf(std::string(1, static_cast<char>(block.size()))) : "size needs two bytes";
    return "00000011 00000004 080112" + size + hexOf(block) + "1807";
}

TEST_F(SwmServerTest, aConnectionIsEstablishedWithACommonRevision)
{
    start({2, {}, {}}, {.revisions = {1, 3}});
    server().connected(client);
    EXPECT_THAT(ask(client, "00000001 00000009 0802"), ElementsAre("00000003 00000009 0801"));
    EXPECT_THAT(ask(client, "00000001 00000009 0800"), ElementsAre("00000003 00000009 0801"));
    EXPECT_THAT(ask(client, "00000001 00000009"), ElementsAre("00000003 00000009 0801"));
    EXPECT_THAT(ask(client, "00000001 00000009 0802080308010804"), ElementsAre("00000002 00000009 0803"));
}

TEST_F(SwmServerTest, nothingIsServedBeforeTheConnectionIsEstablished)
{
    server().connected(client);
    EXPECT_THAT(ask(client, "00000028 00000001"), IsEmpty());
    EXPECT_THAT(m_peers.abnormal,
                ElementsAre("ABN: dropped swm::GetRunningSwReq of connection 1, which is not "
                            "established"));
    EXPECT_EQ(server().status()["earlyFrames"], 1);
}

TEST_F(SwmServerTest, connectionsAreCounted)
{
    start({2, {}, {}}, {.maxConnections = 1});
    establish(client);
    server().connected(other);
    EXPECT_THAT(ask(other, "00000001 00000001 0801"), ElementsAre("00000003 00000001 0803"));
    EXPECT_THAT(ask(client, "00000001 00000001 0801"), ElementsAre("00000002 00000001 0801"));
    server().ended(client);
    EXPECT_THAT(ask(other, "00000001 00000001 0801"), ElementsAre("00000002 00000001 0801"));
}

TEST_F(SwmServerTest, whoEstablishesAgainHoldsNothing)
{
    acquire();
    establish(client);
    EXPECT_THAT(ask(client, "00000020 00000003 0801"), ElementsAre("00000022 00000003 08011000"));
}

TEST_F(SwmServerTest, capabilitiesTellWhatThereIs)
{
    start({2, softwareOf("QXR1_R1A"), {}},
          {.blockSize = 65536, .bootSoftware = {softwareOf("QXC3_R2"), softwareOf("QXC4_R3")}});
    establish(client);
    EXPECT_THAT(ask(client, "00000004 00000005"),
                ElementsAre("00000005 00000005 0a0012001a00" // preinstalled, list, lockable store
                            "2218"                           // boot software
                            "0a0a0a0451584333"
                            "12025232"
                            "0a0a0a0451584334"
                            "12025233"
                            "320408808004" // blocks of 65536 bytes
                            "3a00"));
}

TEST_F(SwmServerTest, ticketsComeToTheirTurnInOrder)
{
    acquire();
    establish(other);
    EXPECT_THAT(ask(other, "00000007 0000000b 082b"), ElementsAre("00000008 0000000b 082b10021800"));
    EXPECT_THAT(ask(client, "00000007 0000000c 082c"), ElementsAre("00000008 0000000c 082c10031800"));
    EXPECT_THAT(ask(other, "00000020 00000010 0802"), ElementsAre("00000022 00000010 08021001")) << "waits";
    EXPECT_THAT(ask(other, "00000020 00000010 0801"), ElementsAre("00000022 00000010 08011000"))
        << "that of another";
    EXPECT_THAT(ask(client, "0000000b 00000002 0801"), ElementsAre("0000000c 00000002 0801"));
    EXPECT_THAT(takeSent(other), ElementsAre("0000000a 0000000b 0802"));
    EXPECT_THAT(ask(client, "0000000b 00000002 0801"), ElementsAre("0000000d 00000002 08011000")) << "gone";
    server().ended(other);
    EXPECT_THAT(takeSent(client), ElementsAre("0000000a 0000000c 0803"));
    EXPECT_THAT(ask(client, "0000000b 0000000c 0803"), ElementsAre("0000000c 0000000c 0803"));
    EXPECT_THAT(ask(client, "00000007 0000000d 082c"),
                ElementsAre("00000008 0000000d 082c10041800", "0000000a 0000000d 0804"));
}

TEST_F(SwmServerTest, aTicketThatWaitsCanBeReleased)
{
    acquire();
    ask(client, "00000007 00000003 082b");
    EXPECT_THAT(ask(client, "0000000b 00000003 0802"), ElementsAre("0000000c 00000003 0802"));
    EXPECT_THAT(ask(client, "0000000b 00000002 0801"), ElementsAre("0000000c 00000002 0801"));
    EXPECT_THAT(server().status()["tickets"], IsEmpty());
}

TEST_F(SwmServerTest, aReleaseWithoutATicketFreesWhatTheSameReferenceAcquired)
{
    acquire();
    ask(client, "00000007 00000003 082b");
    establish(other);
    EXPECT_THAT(ask(other, "0000000b 00000002 0800"), ElementsAre("0000000d 00000002 08001000"))
        << "the reference is its own client's";
    EXPECT_THAT(ask(client, "0000000b 00000009 0800"), ElementsAre("0000000d 00000009 08001000"));
    EXPECT_THAT(ask(client, "0000000b 00000002"),
                ElementsAre("0000000c 00000002 0801", "0000000a 00000003 0802"));
}

TEST_F(SwmServerTest, onlyTheStoreCanBeAcquired)
{
    establish(client);
    EXPECT_THAT(ask(client, "00000007 00000002 082a1001"), ElementsAre("00000009 00000002 082a1000"));
    EXPECT_THAT(ask(client, "00000007 00000002 082a"),
                ElementsAre("00000008 00000002 082a10011800", "0000000a 00000002 0801"));
}

TEST_F(SwmServerTest, aConnectionHoldsOnlySoManyTickets)
{
    acquire();
    for (int count = 1; count < 4096; ++count) {
        ask(client, "00000007 00000003 082b");
    }
    EXPECT_THAT(ask(client, "00000007 00000002 082a"), ElementsAre("00000009 00000002 082a1000"));
    EXPECT_THAT(server().status()["tickets"], SizeIs(4096));
    server().ended(client);
    EXPECT_THAT(server().status()["tickets"], IsEmpty());
    EXPECT_THAT(takeSent(client), IsEmpty()) << "none of its tickets comes to its turn any more";
}

TEST_F(SwmServerTest, aLoadMakesAModule)
{
    acquire();
    EXPECT_THAT(ask(client, initOfQxr2), ElementsAre("0000000f 00000003 0801"));
    EXPECT_EQ(content(), "0 QXR1/1_R1A running\n1 QXR2_R1A not valid\n");
    const Bytes module = moduleOf(softwareOf("QXR2_R1A"), "the software");
    EXPECT_THAT(ask(client, dataFrame(BytesView(module).first(60))),
                ElementsAre("00000012 00000004 080110001807"));
    EXPECT_THAT(ask(client, dataFrame(BytesView(module).subspan(60))),
                ElementsAre("00000012 00000004 080110001807"));
    EXPECT_EQ(server().status()["store"]["loadedBytes"], module.size());
    EXPECT_THAT(ask(client, "00000013 00000003 0801"), ElementsAre("00000014 00000003 08011000"));
    EXPECT_EQ(content(), "0 QXR1/1_R1A running\n1 QXR2_R1A\n");
    EXPECT_EQ(m_disk.files.files.at("QXR2_R1A.lm")->synced, module);
    EXPECT_THAT(ask(client, "00000013 00000003 0801"), ElementsAre("00000015 00000003 08011004"))
        << "nothing is loaded any more";
    EXPECT_EQ(server().status()["store"]["lastLoad"], "completed");
}

TEST_F(SwmServerTest, aLoadThatEndsTooEarlyFails)
{
    acquire();
    ask(client, initOfQxr2);
    const Bytes module = moduleOf(softwareOf("QXR2_R1A"), "the software");
    ask(client, dataFrame(BytesView(module).first(100)));
    EXPECT_THAT(ask(client, "00000013 00000003 0801"), ElementsAre("00000014 00000003 08011001"));
    EXPECT_EQ(content(), "0 QXR1/1_R1A running\n");
    EXPECT_THAT(m_peers.abnormal, ElementsAre("ABN: the load of connection 1 failed: it ends after 4 of 12 "
                                              "bytes of content"));
}

TEST_F(SwmServerTest, aFileWithoutAHeaderIsAcknowledgedAndFails)
{
    acquire();
    ask(client, initOfQxr2);
    EXPECT_THAT(ask(client, dataFrame(Bytes(120, std::byte{'x'}))),
                ElementsAre("00000012 00000004 080110001807"));
    EXPECT_THAT(ask(client, "00000013 00000003 0801"), ElementsAre("00000014 00000003 08011001"));
    EXPECT_THAT(m_disk.files.files, IsEmpty());
}

TEST_F(SwmServerTest, aBlockOfNoLoadIsGivenUp)
{
    acquire();
    EXPECT_THAT(ask(client, "00000011 00000004 08011201411807"),
                ElementsAre("00000012 00000004 080110011807"));
    ask(client, initOfQxr2);
    EXPECT_THAT(ask(client, "00000011 00000004 08021201411808"),
                ElementsAre("00000012 00000004 080210011808"));
    EXPECT_THAT(ask(client, "00000011 00000004"), ElementsAre("00000012 00000004 080010011800"));
    EXPECT_EQ(m_store->loadedBytes(), 0U);
}

TEST_F(SwmServerTest, aClientThatDiesFreesTheStoreForTheNext)
{
    acquire();
    establish(other);
    ask(other, "00000007 0000000b 082b");
    ask(client, initOfQxr2);
    ask(client, dataFrame(moduleOf(softwareOf("QXR2_R1A"), "x"))); // whole, but its end was not asked for
    server().ended(client);
    EXPECT_THAT(takeSent(other), ElementsAre("0000000a 0000000b 0802"));
    EXPECT_EQ(content(), "0 QXR1/1_R1A running\n");
    EXPECT_THAT(m_disk.files.files, IsEmpty());
    EXPECT_EQ(server().status()["store"]["lastLoad"], "given up: its connection ended");
    server().ended(client); // again
}

TEST_F(SwmServerTest, aReleaseGivesAnOpenLoadUp)
{
    acquire();
    ask(client, initOfQxr2);
    EXPECT_THAT(ask(client, "0000000b 00000002 0801"), ElementsAre("0000000c 00000002 0801"));
    EXPECT_EQ(content(), "0 QXR1/1_R1A running\n");
    EXPECT_EQ(server().status()["store"]["lastLoad"], "given up: its ticket was released");
}

struct LoadRejectRow {
    const char* what;
    std::string request;
    const char* answer;
};

class SwmLoadRejectTest : public SwmServerTest, public WithRow<LoadRejectRow> {};

// Ticket 1 is active, ticket 2 waits; one of two slots holds QXR2_R1A, and QXR3_R1A is being loaded.
const LoadRejectRow loadRejects[] = {
    {"noSuchTicket", "0000000e 00000009 08091208515852355f523141", "00000010 00000009 08091001"},
    {"alreadyLoaded", "0000000e 00000009 08011208515852325f523141", "00000010 00000009 08011002"},
    {"sameIsOnItsWay", "0000000e 00000009 08011208515852335f523141", "00000010 00000009 08011003"},
    {"otherIsOnItsWay", "0000000e 00000009 08011208515852355f523141", "00000010 00000009 08011003"},
    {"runs", "0000000e 00000009 0801120a515852312f315f523141", "00000010 00000009 08011004"},
    {"ticketWaits", "0000000e 00000009 08021208515852355f523141", "00000010 00000009 08021005"},
    {"noName", "0000000e 00000009 0801", "00000010 00000009 08011006"},
    {"noValidName", "0000000e 00000009 080112062e2e2f2e2e2f", "00000010 00000009 08011006"},
    {"endOfNoTicket", "00000013 00000009 0809", "00000015 00000009 08091000"},
    {"endOfWaitingTicket", "00000013 00000009 0802", "00000015 00000009 08021001"},
    {"pullOfNoTicket", "00000016 00000009 0809", "00000018 00000009 08091001"},
    {"pull", "00000016 00000009 0801", "00000018 00000009 08011006"},
    {"pullOfWaitingTicket", "00000016 00000009 0802", "00000018 00000009 08021005"},
    {"pullAbort", "0000001a 00000009 0801", "0000001c 00000009 08011002"},
    {"pullAbortOfNoTicket", "0000001a 00000009 0809", "0000001c 00000009 08091000"},
    {"deleteOfNoTicket", "0000001d 00000009 0809", "0000001f 00000009 08091000"},
    {"deleteOfWaitingTicket", "0000001d 00000009 0802", "0000001f 00000009 08021001"},
    {"deleteOnItsWay", "0000001d 00000009 08011208515852335f523141", "0000001f 00000009 08011004"},
    {"deletePreinstalled", "0000001d 00000009 0801120a515852312f315f523141", "0000001f 00000009 08011006"},
    {"deleteUnknown", "0000001d 00000009 08011208515852395f523141", "0000001f 00000009 08011006"},
    {"deleteNothing", "0000001d 00000009 08011200", "0000001f 00000009 08011006"},
    {"inventoryOfNoTicket", "00000020 00000009 0809", "00000022 00000009 08091000"},
    {"inventoryOfWaitingTicket", "00000020 00000009 0802", "00000022 00000009 08021001"},
    {"listOfNoTicket", "00000023 00000009 0809", "00000025 00000009 08091000"},
    {"listOfWaitingTicket", "00000023 00000009 0802", "00000025 00000009 08021001"},
};

ROW_TEST(SwmLoadRejectTest, hasItsReasonAndChangesNothing)
{
    ASSERT_TRUE(loadInto(*m_store, "QXR2_R1A", "a"));
    acquire();
    ask(client, "00000007 00000003 082b");
    ask(client, "0000000e 00000004 08011208515852335f523141");
    const std::string before = content();
    EXPECT_EQ(before, "0 QXR1/1_R1A running\n1 QXR2_R1A\n2 QXR3_R1A not valid\n");
    EXPECT_THAT(ask(client, row().request), ElementsAre(row().answer));
    EXPECT_EQ(content(), before);
    EXPECT_TRUE(m_store->isLoading());
}

TEST_ROWS(All, SwmLoadRejectTest, loadRejects, [](const auto& row) { return row.what; });

TEST_F(SwmServerTest, aFullStoreIsShortOfSlotsUntilOneIsDeleted)
{
    ASSERT_TRUE(loadInto(*m_store, "QXR3_R1A", "a"));
    ASSERT_TRUE(loadInto(*m_store, "QXR4_R1A", "b"));
    acquire();
    EXPECT_THAT(ask(client, initOfQxr2), ElementsAre("00000010 00000003 08011000"));
    EXPECT_THAT(ask(client, "0000001d 00000003 08011208515852335f523141"),
                ElementsAre("0000001e 00000003 0801"));
    EXPECT_THAT(ask(client, initOfQxr2), ElementsAre("0000000f 00000003 0801"));
}

TEST_F(SwmServerTest, whatRunsIsNotDeleted)
{
    ASSERT_TRUE(loadInto(*m_store, "QXR2_R1A", "a"));
    start({2, softwareOf("QXR1/1_R1A"), softwareOf("QXR2_R1A")});
    acquire();
    EXPECT_THAT(ask(client, "0000001d 00000003 08011208515852325f523141"),
                ElementsAre("0000001f 00000003 08011004"));
}

TEST_F(SwmServerTest, aDiskThatFailsIsAnInternalError)
{
    ASSERT_TRUE(loadInto(*m_store, "QXR3_R1A", "a"));
    acquire();
    m_disk.fate.arm(DiskFate::Kind::fail, 0);
    EXPECT_THAT(ask(client, initOfQxr2), ElementsAre("00000010 00000003 08011006"));
    m_disk.fate.arm(DiskFate::Kind::fail, 0);
    EXPECT_THAT(ask(client, "0000001d 00000003 08011208515852335f523141"),
                ElementsAre("0000001f 00000003 08011003"));
    EXPECT_THAT(m_peers.abnormal, ElementsAre("ABN: no load of \"QXR2_R1A\": No space left on device",
                                              "ABN: the deletion of QXR3_R1A: No space left on device"));
    m_disk.fate.arm(DiskFate::Kind::fail, 1);
    EXPECT_THAT(ask(client, "0000001d 00000003 08011208515852335f523141"),
                ElementsAre("0000001e 00000003 0801"))
        << "no module any more; its file goes at the next start";
}

TEST_F(SwmServerTest, theInventoryTellsEachModule)
{
    ASSERT_TRUE(loadInto(*m_store, "QXR2_R1A", "a"));
    acquire();
    ask(client, "0000000e 00000004 08011208515852335f523141");
    EXPECT_THAT(ask(client, "00000020 00000005 0801"), ElementsAre("00000021 00000005 0801"
                                                                   "1219"
                                                                   "0a06515852312f31"
                                                                   "1203523141"
                                                                   "1801"
                                                                   "2002"
                                                                   "2800"
                                                                   "3000"
                                                                   "3800"
                                                                   "4000"
                                                                   "1217"
                                                                   "0a0451585232"
                                                                   "1203523141"
                                                                   "1800"
                                                                   "2000"
                                                                   "2861"
                                                                   "3000"
                                                                   "3801"
                                                                   "4001"
                                                                   "1217"
                                                                   "0a0451585233"
                                                                   "1203523141"
                                                                   "1800"
                                                                   "2000"
                                                                   "2800"
                                                                   "3003"
                                                                   "3801"
                                                                   "4002"));
}

TEST_F(SwmServerTest, theListComesInPieces)
{
    start({2, softwareOf("QXR1/1_R1A"), {}}, {.listPiece = 100});
    acquire();
    const std::string list = m_store->componentList();
    ASSERT_EQ(list.size(), 221U);
    EXPECT_THAT(
        ask(client, "00000023 00000005 0801"),
        ElementsAre("00000024 00000005 0801", "00000026 00000005 080110001a64" + hexOf(list.substr(0, 100))));
    EXPECT_THAT(ask(client, "00000027 00000005 08011000"),
                ElementsAre("00000026 00000005 080110001a64" + hexOf(list.substr(100, 100))));
    EXPECT_THAT(ask(client, "00000027 00000006 08011000"), IsEmpty()) << "another reference";
    EXPECT_THAT(ask(client, "00000027 00000005 08021000"), IsEmpty()) << "another ticket";
    EXPECT_THAT(m_peers.abnormal, SizeIs(2));
    EXPECT_THAT(ask(client, "00000027 00000005 0801"),
                ElementsAre("00000026 00000005 080110011a15" + hexOf(list.substr(200))));
    EXPECT_THAT(ask(client, "00000027 00000005 0801"), IsEmpty());
    EXPECT_THAT(m_peers.abnormal, SizeIs(2)) << "the last piece is acknowledged as well";
    EXPECT_THAT(ask(client, "00000027 00000005 0801"), IsEmpty());
    EXPECT_THAT(m_peers.abnormal, SizeIs(3)) << "but once";
}

TEST_F(SwmServerTest, aListCanBeGivenUp)
{
    start({2, softwareOf("QXR1/1_R1A"), {}}, {.listPiece = 100});
    acquire();
    ask(client, "00000023 00000005 0801");
    EXPECT_THAT(ask(client, "00000027 00000005 08011001"), IsEmpty());
    EXPECT_THAT(m_peers.abnormal, IsEmpty());
    EXPECT_THAT(ask(client, "00000027 00000005 0801"), IsEmpty());
    EXPECT_THAT(m_peers.abnormal, SizeIs(1));
    EXPECT_THAT(ask(client, "00000023 00000005 0801"), SizeIs(2)) << "and asked for again";
}

TEST_F(SwmServerTest, whatRunsIsToldWithPercentSigns)
{
    establish(client);
    EXPECT_THAT(ask(client, "00000028 00000005"),
                ElementsAre("00000029 00000005 0a0a5158523125315f523141")); // QXR1%1_R1A
    EXPECT_THAT(ask(client, "0000002b 00000006"), ElementsAre("0000002c 00000006"));
    start({2, {}, {}});
    establish(client);
    EXPECT_THAT(ask(client, "00000028 00000005"), ElementsAre("0000002a 00000005 0801"));
    EXPECT_THAT(ask(client, "0000002b 00000006"), ElementsAre("0000002d 00000006 0800"));
}

TEST_F(SwmServerTest, framesThatAreNoneAreDroppedAndTold)
{
    acquire();
    const std::string whole = "00000028 000000";
    for (std::size_t size = 0; size < 8; ++size) {
        EXPECT_THAT(ask(client, std::string("0000002800000005").substr(0, 2 * size)), IsEmpty());
    }
    EXPECT_EQ(server().status()["cutFrames"], 8);
    EXPECT_EQ(m_peers.abnormal.back(), "ABN: dropped a cut frame of connection 1: 7 bytes of 8");
    for (const char* text : {"00000000 00000005", "00000002 00000005 0801", "0000000a 00000005 0801",
                             "0000002e 00000005", "ffffffff 00000005"}) {
        EXPECT_THAT(ask(client, text), IsEmpty());
    }
    EXPECT_EQ(server().status()["unknownFrames"], 5);
    server().receivedTooLong(client);
    EXPECT_EQ(server().status()["tooLongFrames"], 1);
    EXPECT_THAT(m_peers.abnormal.back(), HasSubstr("longer than any may be"));
    EXPECT_THAT(ask(client, "00000028 00000005"), SizeIs(1)) << "and the connection goes on";
}

TEST_F(SwmServerTest, aBodyThatDoesNotParseCountsAsFarAsItDoes)
{
    acquire();
    EXPECT_THAT(ask(client, "00000020 00000005 ff"), ElementsAre("00000022 00000005 08001000"));
    EXPECT_THAT(ask(client, "00000020 00000005 0801ff"), SizeIs(1));
    EXPECT_EQ(server().status()["malformed"]["swm::GetSwProductInvReq"], 2);
    EXPECT_THAT(m_peers.abnormal, SizeIs(2));
    // The block is cut short of the size that it names, and so makes no module.
    ask(client, initOfQxr2);
    EXPECT_THAT(ask(client, "00000011 00000004 0801180712ff01"),
                ElementsAre("00000012 00000004 080110001807"));
    EXPECT_THAT(ask(client, "00000013 00000003 0801"), ElementsAre("00000014 00000003 08011001"));
}

TEST_F(SwmServerTest, everyRequestSurvivesEachCutAndItsNeighbours)
{
    acquire();
    for (unsigned number = 0; number <= 46; ++number) {
        std::string bytes = "000000" + hexOf(std::string(1, static_cast<char>(number))) +
                            "00000002"
                            "0801"
                            "1208515852325f523141"
                            "1801"
                            "2001"
                            "ff";
        for (; bytes.size() > 2; bytes.resize(bytes.size() - 2)) {
            ask(client, bytes);
        }
    }
    establish(client);
    EXPECT_THAT(ask(client, "00000028 00000005"), SizeIs(1));
}

// What boardctl asks for

TEST_F(SwmServerTest, aRefusalCarriesWhatItsRequestNamed)
{
    establish(client);
    plan("refuse", "swm::AcquireResourceReq");
    EXPECT_THAT(ask(client, "00000007 00000002 082a1000"), ElementsAre("00000009 00000002 082a10001800"));
    ask(client, "00000007 00000002 082a1000");
    plan("refuse", "swm::PushLoadInitReq", {{"cause", "BUSY"}});
    EXPECT_THAT(ask(client, initOfQxr2), ElementsAre("00000010 00000003 08011003"));
    EXPECT_FALSE(m_store->isLoading());
    plan("refuse", "swm::ReleaseResourceReq");
    EXPECT_THAT(ask(client, "0000000b 00000002 0801"), ElementsAre("0000000d 00000002 08011000"));
    EXPECT_THAT(ask(client, initOfQxr2), ElementsAre("0000000f 00000003 0801")) << "the ticket is still held";
    EXPECT_EQ(plan("refuse", "swm::PushLoadData").result, ControlAnswer::Result::refused);
    EXPECT_EQ(plan("abort", "swm::PushLoadInitReq").result, ControlAnswer::Result::refused);
    EXPECT_EQ(plan("refuse", "swm::DeleteReq", {{"cause", "NONE"}}).result, ControlAnswer::Result::usage);
    EXPECT_EQ(plan("refuse", "bri::DeleteReq").result, ControlAnswer::Result::usage);
}

TEST_F(SwmServerTest, aDelayedConfirmTakesItsIndicationAlong)
{
    establish(client);
    plan("delay", "swm::AcquireResourceReq", {{"ms", 70}});
    EXPECT_THAT(ask(client, "00000007 00000002 082a"),
                ElementsAre("after 70: 00000008 00000002 082a10011800", "after 70: 0000000a 00000002 0801"));
    ask(client, "0000000b 00000002 0801");
    plan("delay", "swm::AcquireResourceInd", {{"ms", 90}});
    EXPECT_THAT(ask(client, "00000007 00000002 082a"),
                ElementsAre("00000008 00000002 082a10021800", "after 90: 0000000a 00000002 0802"));
    ask(client, "0000000b 00000002 0802");
    plan("drop", "swm::AcquireResourceInd");
    EXPECT_THAT(ask(client, "00000007 00000002 082a"), ElementsAre("00000008 00000002 082a10031800"));
    EXPECT_EQ(server().status()["dropped"]["swm::AcquireResourceInd"], 1);
    EXPECT_EQ(server().status()["delayed"]["swm::AcquireResourceInd"], 2);
}

TEST_F(SwmServerTest, anAbortedBlockCostsTheLoad)
{
    acquire();
    ask(client, initOfQxr2);
    EXPECT_EQ(plan("abort", "swm::PushLoadData").result, ControlAnswer::Result::done);
    const Bytes module = moduleOf(softwareOf("QXR2_R1A"), "x");
    EXPECT_THAT(ask(client, dataFrame(module)), ElementsAre("00000012 00000004 080110011807"));
    EXPECT_THAT(ask(client, "00000013 00000003 0801"), ElementsAre("00000014 00000003 08011001"));
    plan("drop", "swm::PushLoadEndReq");
    ask(client, initOfQxr2);
    ask(client, dataFrame(module));
    EXPECT_THAT(ask(client, "00000013 00000003 0801"), IsEmpty());
    EXPECT_EQ(content(), "0 QXR1/1_R1A running\n1 QXR2_R1A\n") << "it is carried out all the same";
}

TEST_F(SwmServerTest, connectionsCanBeLost)
{
    acquire();
    establish(other);
    EXPECT_EQ(m_swmd->lose("swm", 7).result, ControlAnswer::Result::notFound);
    EXPECT_EQ(m_swmd->lose("bri", {}).result, ControlAnswer::Result::usage);
    EXPECT_EQ(m_swmd->lose("swm", client).text, "swm closed connection 1");
    EXPECT_EQ(m_swmd->lose("swm", {}).text, "swm closed 1 connection");
    EXPECT_THAT(m_peers.closed, ElementsAre(client, other));
    EXPECT_THAT(server().status()["tickets"], IsEmpty());
}

} // namespace
} // namespace merlow::board::test
