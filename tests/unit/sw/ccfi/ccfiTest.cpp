#include "ccfiConnEstablish.h"
#include "ccfiFixture.h"
#include "ccfiRecords.h"
#include "rowTest.h"

namespace {

using ccfi::Bytes;
using ccfi::Event;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class CcfiConnectionTest : public ccfi::CcfiTest {};

/// The reject of the procedure 0x102.
std::string reject(const std::string& text)
{
    return "017c0203 00000102 00000000 " + support::rejectTail(text);
}

// Connections begin

TEST_F(CcfiConnectionTest, aRequestIsConfirmedFromThePrivateMailbox)
{
    const auto client = m_board.newClient();
    send(client, "017c0201 00000102 fffffff0 00000001 00000001");
    EXPECT_EQ(received(client), "017c0202 00000102 00001000 00000001");
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(m_board.commonData().getNumClientSessions(), 0U);
    EXPECT_THAT(m_log.lines(),
                Contains(support::TracepointLog::Line{
                    Event::RecSig,
                    "Received signal CCFI_BC_CONN_ESTABLISH_REQ: procedureRef: 258, connectionRef: "
                    "4294967280, nbrOfSupportedProtocolRev: 1",
                    0x17C0201, 0}));
    EXPECT_THAT(m_log.lines(),
                Contains(support::TracepointLog::Line{
                    Event::SendSig,
                    "Sent signal CCFI_BC_CONN_ESTABLISH_CFM: procedureRef: 258, connectionRef: 4096, "
                    "selectedProtocolRevision: 1",
                    0x17C0202, client.mbox()}));
    EXPECT_THAT(m_log.texts(Event::Trace1), Contains(HasSubstr("Entering ")));
}

TEST_F(CcfiConnectionTest, referencesGoUpAndAreNeverGivenOutTwice)
{
    const auto client = m_board.newClient();
    EXPECT_EQ(connect(client), "00001000");
    send(client, "017c0206 00000009 00001000");
    EXPECT_EQ(received(client), "017c0207 00000009 00000007");
    EXPECT_EQ(connect(client), "00001001");
    send(client, "017c0201 00000001 00000007 00000001 00000002");
    EXPECT_THAT(received(client), HasSubstr("017c0203"));
    EXPECT_EQ(connect(m_board.newClient()), "00001002") << "a reject uses none up";
}

TEST_F(CcfiConnectionTest, revisionOneIsChosenWhereverItStands)
{
    const auto client = m_board.newClient();
    for (const auto* list : {"00000001 00000001", "00000003 00000001 00000002 00000003",
                             "00000003 00000003 00000002 00000001", "00000002 00000001 00000001"}) {
        send(client, std::string("017c0201 00000001 00000002 ") + list);
        EXPECT_THAT(received(client), testing::EndsWith(" 00000001")) << list;
    }
    EXPECT_EQ(m_board.mnet().monitorCount(), 4U + 2U) << "one for each, and the backend's two";
}

struct Refusal {
    const char* list;
    const char* text;
};

void PrintTo(const Refusal& row, std::ostream* out)
{
    *out << row.list;
}

class CcfiRefusalTest : public ccfi::CcfiTest, public WithRow<Refusal> {};

ROW_TEST(CcfiRefusalTest, namesTheRevisionsInTheirOrder)
{
    const auto client = m_board.newClient();
    const auto monitors = m_board.mnet().monitorCount();
    send(client, std::string("017c0201 00000102 00000007 ") + row().list);
    const std::string text = row().text;
    EXPECT_EQ(received(client), reject(text));
    EXPECT_EQ(m_board.mnet().monitorCount(), monitors);
    EXPECT_EQ(connect(client), "00001000");
    EXPECT_THAT(m_log.texts(Event::SendSig),
                Contains("Sent signal CCFI_BC_CONN_ESTABLISH_REJ: procedureRef: 258, connectionRef: 0, "
                         "errorCode: 1, errorDescription: " +
                         text));
}

const Refusal refusals[] = {
    {"00000000", "protocol(s) not supported:"},
    {"00000002 00000002 00000003", "protocol(s) not supported: 2 3"},
    {"00000002 00000003 00000002", "protocol(s) not supported: 3 2"},
    {"00000002 01000000 ffffffff", "protocol(s) not supported: 16777216 4294967295"},
    {"00000001 00000002 00000001", "protocol(s) not supported: 2"}, // 1 stands behind the list
    {"00000000 00000001", "protocol(s) not supported:"},
    // 26 and seven times 11 characters, and 6 of the 10 that follow a blank: 109 and no more.
    {"00000008 ffffffff ffffffff ffffffff ffffffff ffffffff ffffffff ffffffff 499602d2",
     "protocol(s) not supported: 4294967295 4294967295 4294967295 4294967295 4294967295 "
     "4294967295 4294967295 12345"}};
TEST_ROWS(Lists, CcfiRefusalTest, refusals);

TEST_F(CcfiConnectionTest, aLongListIsReadToItsEnd)
{
    const auto client = m_board.newClient();
    Bytes bytes = support::messageFromHex("017c0201 00000102 00000007 000186a0");
    for (int i = 0; i < 100000; ++i) {
        bytes.insert(bytes.end(), {0, 0, 0, 2});
    }
    client.sendBytes(bytes, privateMbox());
    const std::string rej = received(client);
    EXPECT_THAT(rej, testing::StartsWith("017c0203 00000102 00000000 00010000 70726f74")) << "\"prot\"";
    EXPECT_THAT(rej, testing::EndsWith(" 20322032 20000000")) << "109 characters";
    bytes.back() = 1;
    client.sendBytes(bytes, privateMbox());
    EXPECT_EQ(received(client), "017c0202 00000102 00001000 00000001");
}

TEST_F(CcfiConnectionTest, aCountThatLiesIsADroppedSignal)
{
    const auto client = m_board.newClient();
    struct Lie {
        const char* count;
        const char* list;
        const char* sizes;
    };
    for (const Lie& lie :
         {Lie{"00000001", "", "16 of 20"}, Lie{"00000001", "000000", "19 of 20"},
          Lie{"00000002", "00000001", "20 of 24"}, Lie{"40000000", "00000001", "20 of 4294967312"},
          Lie{"40000001", "00000001", "20 of 4294967316"},
          Lie{"ffffffff", "00000001", "20 of 17179869196"}}) {
        SCOPED_TRACE(lie.sizes);
        m_board.traces().clear();
        send(client, std::string("017c0201 00000001 00000007 ") + lie.count + lie.list);
        EXPECT_TRUE(tracedAsShort(client, "CCFI_BC_CONN_ESTABLISH_REQ (0x17c0201)", lie.sizes));
        EXPECT_TRUE(client.nothingReceived());
    }
    EXPECT_EQ(connect(client), "00001000");
}

TEST_F(CcfiConnectionTest, shortSignalsAreDroppedAtEachLength)
{
    const auto client = m_board.newClient();
    connect(client);
    struct Row {
        const char* hex;
        const char* signal;
        std::size_t size;
    };
    for (const Row& row :
         {Row{"017c0201 00000001 00000007 00000000", "CCFI_BC_CONN_ESTABLISH_REQ (0x17c0201)", 16},
          Row{"017c0206 00000001 00001000", "CCFI_BC_CONN_CLOSE_REQ (0x17c0206)", 12}}) {
        const Bytes whole = support::messageFromHex(row.hex);
        for (std::size_t size = 4; size < row.size; ++size) {
            m_board.traces().clear();
            client.sendBytes({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)},
                             privateMbox());
            EXPECT_TRUE(
                tracedAsShort(client, row.signal, std::to_string(size) + " of " + std::to_string(row.size)));
            EXPECT_TRUE(client.nothingReceived());
        }
        client.sendBytes(whole, privateMbox());
        EXPECT_FALSE(client.nothingReceived()) << row.signal;
        (void)client.receive();
    }
}

TEST_F(CcfiConnectionTest, withoutAWatchThereIsNoConnection)
{
    const auto client = m_board.newClient();
    using Call = support::FakeMnet::Call;
    const auto monitors = m_board.mnet().monitorCount();
    m_board.mnet().fail(Call::monitor);
    send(client, "017c0201 00000102 00000007 00000001 00000001");
    EXPECT_EQ(received(client), reject("no more connections"));

    m_board.mnet().fail(Call::alloc); // of what the watch would deliver
    send(client, "017c0201 00000102 00000007 00000001 00000001");
    EXPECT_EQ(received(client), reject("no more connections"));
    EXPECT_EQ(m_board.mnet().monitorCount(), monitors);
    EXPECT_EQ(connect(client), "00001000");
}

// Connections end

TEST_F(CcfiConnectionTest, aCloseIsConfirmedOnce)
{
    const auto client = m_board.newClient();
    connect(client, "00000055");
    m_log.clear();
    send(client, "017c0206 00000103 00001000");
    EXPECT_EQ(received(client), "017c0207 00000103 00000055");
    EXPECT_THAT(infos(),
                ElementsAre("A client with corresponding server connection reference 4096 was found.",
                            "A client with corresponding server connection reference 4096 was found.",
                            "The client with corresponding server connection reference 4096 was reset."));
    EXPECT_THAT(
        m_log.texts(Event::RecSig),
        ElementsAre("Received signal CCFI_BC_CONN_CLOSE_REQ: procedureRef: 259, connectionRef: 4096"));
    EXPECT_THAT(m_log.texts(Event::SendSig),
                ElementsAre("Sent signal CCFI_BC_CONN_CLOSE_CFM: procedureRef: 259, connectionRef: 85"));

    m_log.clear();
    send(client, "017c0206 00000104 00001000");
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_THAT(infos(),
                ElementsAre("No client with corresponding server connection reference 4096 was found.",
                            "No client with corresponding server connection reference 4096 was found."));
    EXPECT_THAT(m_log.texts(Event::SendSig), IsEmpty());
}

TEST_F(CcfiConnectionTest, aCloseTouchesItsOwnConnectionOnly)
{
    const auto client = m_board.newClient();
    connect(client, "0000000a");
    connect(client, "0000000b");
    connect(client, "0000000c");
    send(client, "017c0206 00000001 00001001");
    EXPECT_EQ(received(client), "017c0207 00000001 0000000b");
    const auto other = m_board.newClient();
    send(other, "017c0206 00000002 00001000");
    EXPECT_EQ(received(other), "017c0207 00000002 0000000a") << "whoever asks is answered";
    send(client, "017c0206 00000003 00001002");
    EXPECT_EQ(received(client), "017c0207 00000003 0000000c");
}

TEST_F(CcfiConnectionTest, theDeathOfAClientEndsAllItsConnections)
{
    const auto monitors = m_board.mnet().monitorCount();
    const auto client = m_board.newClient();
    const auto other = m_board.newClient();
    connect(client);
    connect(other, "00000066");
    connect(client);
    m_log.clear();
    client.die();
    EXPECT_THAT(infos(),
                ElementsAre("Client with server connection reference 4096 is disconnected.",
                            "A client with corresponding server connection reference 4096 was found.",
                            "The client with corresponding server connection reference 4096 was reset.",
                            "Client with server connection reference 4098 is disconnected.",
                            "A client with corresponding server connection reference 4098 was found.",
                            "The client with corresponding server connection reference 4098 was reset."));
    EXPECT_EQ(m_board.mnet().monitorCount(), monitors + 1);
    send(other, "017c0206 00000003 00001001");
    EXPECT_EQ(received(other), "017c0207 00000003 00000066");
}

TEST_F(CcfiConnectionTest, afterACloseTheDeathIsNoNews)
{
    const auto monitors = m_board.mnet().monitorCount();
    const auto client = m_board.newClient();
    connect(client);
    send(client, "017c0206 00000001 00001000");
    EXPECT_EQ(m_board.mnet().monitorCount(), monitors);
    m_log.clear();
    client.die();
    EXPECT_THAT(m_log.lines(), IsEmpty());
}

TEST_F(CcfiConnectionTest, aNoticeForAConnectionThatHasEndedIsOnlyTraced)
{
    const auto client = m_board.newClient();
    mnet_msg* ind =
        toMessage(CcfiMerlowMnetMonitorIndS{.msgNo = 0, .serverConnectionReference = 0x2000}).release();
    mnet_monitor(client.mbox(), &ind);
    client.die();
    EXPECT_THAT(infos(),
                ElementsAre("Client with server connection reference 8192 is disconnected.",
                            "No client with corresponding server connection reference 8192 was found."));
}

TEST_F(CcfiConnectionTest, nobodyEndsAConnectionWithANoticeThatIsNone)
{
    const auto client = m_board.newClient();
    connect(client);
    m_log.clear();
    const auto stranger = m_board.newClient();
    for (const auto* reference : {"00001000", "00100000"}) { // in either byte order
        m_board.traces().clear();
        send(stranger, std::string("017c0209 ") + reference);
        std::ostringstream text;
        text << "ABN: CCFI_MERLOW_MNET_MONITOR_IND from mbox: 0x" << std::hex << stranger.mbox()
             << " is no notice. Ignoring it.";
        EXPECT_TRUE(m_board.traced(4, text.str()));
    }
    EXPECT_THAT(infos(), IsEmpty());
    send(client, "017c0206 00000001 00001000");
    EXPECT_EQ(received(client), "017c0207 00000001 00000007");
}

// The component

TEST(CcfiLifeTest, isReadyOnceItHasBegunAndLeavesNothingBehind)
{
    support::Board board;
    const auto client = board.newClient();
    {
        Merlow::Ccfi::Ccfi component(board.commonData());
        EXPECT_FALSE(component.isReadyToPublish());
        client.sendBytes(support::messageFromHex("017c0201 00000001 00000007 00000001 00000001"),
                         board.commonData().getPrivateMbox());
        EXPECT_EQ(board.unhandled().size(), 1U);
        EXPECT_TRUE(component.init());
        EXPECT_TRUE(component.isReadyToPublish());
        EXPECT_EQ(component.getComponentName(), "");
    }
    for (const auto* hex : {"017c0201", "017c0204", "017c0205", "017c0206", "017c0209"}) {
        client.sendBytes(support::messageFromHex(hex), board.commonData().getPrivateMbox());
    }
    EXPECT_EQ(board.unhandled().size(), 6U);
}

TEST(CcfiLifeTest, aNewServerThreadForgetsConnectionsAndGoesOnCounting)
{
    support::Board board;
    auto& component = board.add<Merlow::Ccfi::Ccfi>();
    const auto client = board.newClient();
    const auto ask = [&](const char* hex) {
        client.sendBytes(support::messageFromHex(hex), board.commonData().getPrivateMbox());
        const auto answer = client.receive();
        return answer ? support::messageToHex(answer->bytes) : std::string();
    };
    EXPECT_EQ(ask("017c0201 00000001 00000007 00000001 00000001"), "017c0202 00000001 00001000 00000001");
    EXPECT_TRUE(component.init());
    EXPECT_EQ(ask("017c0206 00000001 00001000"), "");
    EXPECT_EQ(ask("017c0201 00000001 00000007 00000001 00000001"), "017c0202 00000001 00001001 00000001");
}

TEST(CcfiLifeTest, afterTheLastReferenceThereAreNoConnectionsAnyMore)
{
    support::Board board;
    Merlow::Ccfi::CcfiClient client;
    Merlow::Ccfi::CcfiConnEstablish establish(client, 0xFFFFFFFF);
    establish.initialize();
    const auto peer = board.newClient();
    const auto ask = [&] {
        peer.sendBytes(support::messageFromHex("017c0201 00000001 00000007 00000001 00000001"),
                       board.commonData().getPrivateMbox());
        return support::messageToHex(peer.receive().value_or(support::Received{}).bytes);
    };
    EXPECT_EQ(ask(), "017c0202 00000001 ffffffff 00000001");
    EXPECT_THAT(ask(), testing::StartsWith("017c0203 00000001 00000000 00010000 6e6f206d")) << "\"no m\"";
}

} // namespace
