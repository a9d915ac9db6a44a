#include "merlowEstablish.h"

#include "board.h"
#include "merlowState.h"

#include <gmock/gmock.h>

#include <cstdlib>

namespace {

using support::VirtualClient;
using testing::ElementsAre;

/// The value of `SYS_MODE` when the board is made.
struct SysMode {
    explicit SysMode(const char* mode)
    {
        if (mode != nullptr) {
            ::setenv("SYS_MODE", mode, 1);
        } else {
            ::unsetenv("SYS_MODE");
        }
    }
    ~SysMode() { ::unsetenv("SYS_MODE"); }
    SysMode(const SysMode&) = delete;
    SysMode& operator=(const SysMode&) = delete;
};

class MerlowEstablishTest : protected SysMode, public ::testing::Test {
protected:
    explicit MerlowEstablishTest(const char* mode = nullptr)
        : SysMode(mode), m_establish(m_board.add<MerlowEstablish>()), m_client(m_board.newClient())
    {
        m_board.traces().clear();
    }

    std::string ask(const VirtualClient& client, const std::string& request)
    {
        client.sendBytes(support::messageFromHex(request), m_board.commonData().getPublicMbox());
        return answerOf(client);
    }
    std::string ask(const std::string& request) { return ask(m_client, request); }
    /// The oldest message, which must have come from the private mailbox.
    std::string answerOf(const VirtualClient& client)
    {
        const auto received = client.receive();
        if (!received) {
            return "";
        }
        EXPECT_EQ(received->sender, m_board.commonData().getPrivateMbox());
        return support::messageToHex(received->bytes);
    }
    static std::string reject(const std::string& references, const std::string& revision,
                              const std::string& text)
    {
        return support::messageToHex(support::messageFromHex("01658002 " + references + " " + revision +
                                                             "0000" + support::rejectTail(text)));
    }
    std::vector<std::string> remoteLog()
    {
        std::vector<std::string> lines;
        for (const auto& line : m_board.traces().rushlog()) {
            EXPECT_EQ(line.category, "RadioApplication,RadioBoardCtrl");
            lines.push_back(line.text);
        }
        return lines;
    }

    support::Board m_board{{.bri = false, .bmmi = false}};
    MerlowEstablish& m_establish;
    VirtualClient m_client;
};

class MerlowEstablishAubootTest : public MerlowEstablishTest {
protected:
    MerlowEstablishAubootTest() : MerlowEstablishTest("AUBOOT") {}
};

TEST_F(MerlowEstablishTest, aClientGetsAReferenceAndASession)
{
    EXPECT_EQ(ask("01658000 00000007 0000013a 0002eeee"), "01658001 00000007 0000012c");
    const BcSession* session = m_client.session();
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(session->clientRef, 7);
    EXPECT_EQ(session->serverRef, 300);
    EXPECT_EQ(session->protocolRev, 2);
    EXPECT_EQ(session->extraRef, 0U);
    EXPECT_EQ(session->getMboxName(), "DU_0");
    EXPECT_THAT(remoteLog(),
                ElementsAre("Radio Merlow Connection Established, Start clientRef=7",
                            "Radio Merlow Connection Established, End clientRef=7, serverRef=300"));
    EXPECT_EQ(support::FakeBrh::instance().resetCalls, 1U);
}

TEST_F(MerlowEstablishTest, revisionsOneToThreeAreServed)
{
    EXPECT_EQ(ask("01658000 00000007 0000012c 00000000"),
              reject("00000007 0000012c", "0003", "Protocol not supported"));
    EXPECT_EQ(ask("01658000 00000007 0000012c 00040000"),
              reject("00000007 0000012c", "0003", "Protocol not supported"));
    EXPECT_EQ(support::FakeBrh::instance().resetCalls, 0U);
    EXPECT_EQ(ask("01658000 00000007 0000012c 00010000"), "01658001 00000007 0000012c");
    EXPECT_EQ(ask(m_board.newClient(), "01658000 00000007 0000012c 00020000"), "01658001 00000007 0000012d");
    EXPECT_EQ(ask(m_board.newClient(), "01658000 00000007 0000012c 00030000"), "01658001 00000007 0000012e");
}

TEST_F(MerlowEstablishTest, rangesThatAreNotServedAreRejected)
{
    for (const char* serverRef :
         {"00000063", "00000000", "ffffffff", "000000c8", "0000012b", "000001f4", "7fffffff"}) {
        const std::string references = std::string("00000007 ") + serverRef;
        EXPECT_EQ(ask("01658000 " + references + " 00030000"),
                  reject(references, "0003", "RAT not supported"));
    }
    EXPECT_EQ(m_client.session(), nullptr);
}

TEST_F(MerlowEstablishTest, theRangeReplacesTheRevisionAsTheReason)
{
    EXPECT_EQ(ask("01658000 00000007 000000c8 00090000"),
              reject("00000007 000000c8", "0003", "RAT not supported"));
}

TEST_F(MerlowEstablishTest, aClientThatHasASessionIsRejectedWhateverElseIsWrong)
{
    ask("01658000 00000007 0000012c 00030000");
    EXPECT_EQ(ask("01658000 00000008 0000012c 00030000"),
              reject("00000008 0000012c", "0003", "Client already registered"));
    EXPECT_EQ(ask("01658000 00000008 000000c8 00090000"),
              reject("00000008 000000c8", "0003", "Client already registered"));
    EXPECT_EQ(m_board.commonData().getNumClientSessions(), 1U);
    EXPECT_EQ(m_client.session()->clientRef, 7);
}

TEST_F(MerlowEstablishTest, threeClientsAreAdmitted)
{
    const VirtualClient others[] = {m_board.newClient(), m_board.newClient(), m_board.newClient()};
    ask("01658000 00000007 0000012c 00030000");
    ask(others[0], "01658000 00000007 0000012c 00030000");
    EXPECT_EQ(ask(others[1], "01658000 00000007 00000190 00030000"), "01658001 00000007 00000190");
    EXPECT_EQ(ask(others[2], "01658000 00000007 0000012c 00030000"),
              reject("00000007 0000012c", "0003", "Already at maximum client capacity"));
    EXPECT_EQ(ask(others[2], "01658000 00000007 000000c8 00090000"),
              reject("00000007 000000c8", "0003", "Already at maximum client capacity"))
        << "the lack of room replaces the other reasons";
    EXPECT_EQ(ask(others[1], "01658000 00000007 0000012c 00030000"),
              reject("00000007 0000012c", "0003", "Client already registered"));

    m_client.die();
    EXPECT_EQ(ask(others[2], "01658000 00000007 0000012c 00030000"), "01658001 00000007 0000012e");
}

TEST_F(MerlowEstablishAubootTest, oneClientOfRevisionOneIsAdmitted)
{
    EXPECT_EQ(ask("01658000 00000007 0000012c 00030000"),
              reject("00000007 0000012c", "0001", "Protocol not supported"));
    EXPECT_EQ(ask("01658000 00000007 0000012c 00010000"), "01658001 00000007 0000012c");
    EXPECT_EQ(ask(m_board.newClient(), "01658000 00000007 0000012c 00010000"),
              reject("00000007 0000012c", "0001", "Already at maximum client capacity"));
}

TEST_F(MerlowEstablishTest, eachRangeHandsItsReferencesOutInTurn)
{
    for (const int first : {100, 300, 400}) {
        for (int i = 0; i < 100; ++i) {
            EXPECT_EQ(m_establish.connEstablishRadioAccessType(first + 99 - i), first + i);
        }
        EXPECT_EQ(m_establish.connEstablishRadioAccessType(first), first);
        EXPECT_EQ(m_establish.connEstablishRadioAccessType(first), first + 1);
    }
    EXPECT_TRUE(m_board.traces().lines().empty());
}

TEST_F(MerlowEstablishTest, otherRangesHaveNoReferences)
{
    for (const int serverRef : {-1, 0, 99, 500, 0x7FFFFFFF}) {
        EXPECT_EQ(m_establish.connEstablishRadioAccessType(serverRef), 0) << serverRef;
    }
    EXPECT_TRUE(m_board.traces().lines().empty());
    EXPECT_EQ(m_establish.connEstablishRadioAccessType(200), 0);
    EXPECT_TRUE(m_board.traced(4, "ABN: WCDMA Radio Access Type not supported by Merlow, serverRef = 200"));
    EXPECT_EQ(m_establish.connEstablishRadioAccessType(299), 0);
    EXPECT_TRUE(m_board.traced(4, "ABN: WCDMA Radio Access Type not supported by Merlow, serverRef = 299"));
}

TEST_F(MerlowEstablishTest, aShortRequestIsTracedAndDropped)
{
    EXPECT_EQ(ask("01658000 00000007 0000012c 0003"), "");
    std::ostringstream text;
    text << "ABN: TARN_BC_CONN_ESTABLISH_REQ (0x1658000) from mbox: 0x" << std::hex << m_client.mbox()
         << " is too short: 14 of 16 bytes. Ignoring it.";
    EXPECT_TRUE(m_board.traced(4, text.str()));
    EXPECT_EQ(m_client.session(), nullptr);
}

TEST_F(MerlowEstablishTest, whoWasAdmittedIsServed)
{
    m_board.add<MerlowState>();
    ask("01658000 00000007 0000012c 00030000");
    m_client.sendHex("01658400 00000007 0000012c");
    EXPECT_EQ(m_client.receivedHex(), "01658401 00000007 0000012c 00000000");
}

} // namespace
