/// Connections of both servers of brhd, whatever travels on them.
#include "brhdTest.h"
#include "rowTest.h"

#include <random>

namespace merlow::board::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

/// The numbers in which the two interfaces differ.
struct Interface {
    const char* name;
    MailboxId mailbox;
    std::string establishReq;
    std::string establishCfm;
    std::string establishRej;
    std::string capabilitiesReq;
    std::string capabilitiesCfm;
};

class BrhConnectionTest : public BrhdTest, public WithRow<Interface> {
protected:
    BrhConnectionTest() : BrhdTest({{{1, 2, 5}, 3}, {{1, 2, 5}, 3}}) {}

    const Interface& of() const { return row(); }
    MailboxId server() const { return of().mailbox; }
    std::string kind(const char* message) const { return std::string(of().name) + "::" + message; }

    /// A client connects with its reference in hexadecimal; gives the server's answer.
    std::string connect(MailboxId from, const std::string& clientRef, const std::string& revisions = "0801")
    {
        receive(server(), from, of().establishReq + clientRef + clientRef + revisions);
        return m_outbox.takeOne();
    }

    nlohmann::json status() const { return m_brhd.status().at(of().name); }
};

ROW_TEST(BrhConnectionTest, theConfirmTellsTheServersReference)
{
    EXPECT_EQ(connect(client, "00000064"), of().establishCfm + " 00000064 00000001 0801");
    EXPECT_THAT(m_outbox.watched, ElementsAre(client));
    EXPECT_THAT(status()["connections"], SizeIs(1));
    EXPECT_EQ(status()["connections"][0]["clientRef"], 100);
}

ROW_TEST(BrhConnectionTest, theHighestCommonRevisionIsSelected)
{
    EXPECT_EQ(connect(client, "00000001", "08010803080508020804"),
              of().establishCfm + " 00000001 00000001 0805");
    EXPECT_EQ(connect(client, "00000002", "08030802"), of().establishCfm + " 00000002 00000002 0802");
    EXPECT_EQ(connect(client, "00000003", "0a020102"), of().establishCfm + " 00000003 00000003 0802")
        << "packed, as some encoders write it";
}

ROW_TEST(BrhConnectionTest, withoutACommonRevisionItIsRejected)
{
    for (const char* revisions : {"0803", "", "0800", "080308040806"}) {
        EXPECT_EQ(connect(client, "00000064", revisions), of().establishRej + " 00000064 00000064 0801");
    }
    EXPECT_THAT(status()["connections"], IsEmpty());
}

ROW_TEST(BrhConnectionTest, beyondTheLimitItIsRejected)
{
    for (const char* clientRef : {"00000001", "00000002", "00000003"}) {
        connect(client, clientRef);
    }
    EXPECT_EQ(connect(client, "00000004"), of().establishRej + " 00000004 00000004 0802");
    EXPECT_EQ(connect(client, "00000003"), of().establishCfm + " 00000003 00000004 0801")
        << "a renewed connection is none more";
    m_brhd.mailboxGone(client);
    EXPECT_EQ(connect(stranger, "00000004"), of().establishCfm + " 00000004 00000005 0801");
}

ROW_TEST(BrhConnectionTest, whatCannotBeWatchedIsNotConnected)
{
    m_outbox.canWatch = false;
    EXPECT_EQ(connect(client, "00000004"), of().establishRej + " 00000004 00000004 0802");
    EXPECT_THAT(status()["connections"], IsEmpty());
}

ROW_TEST(BrhConnectionTest, theRejectEchoesTheProcedureAndAddressesTheClient)
{
    receive(server(), client, of().establishReq + "00000007 00000064 0809");
    EXPECT_EQ(m_outbox.takeOne(), of().establishRej + " 00000007 00000064 0801");
}

ROW_TEST(BrhConnectionTest, theSameClientAgainReplacesItsConnection)
{
    connect(client, "00000064");
    EXPECT_EQ(connect(client, "00000064"), of().establishCfm + " 00000064 00000002 0801");
    EXPECT_THAT(status()["connections"], SizeIs(1));
    receive(server(), client, of().capabilitiesReq + "00000001 00000001");
    expectSilence("no connection with the reference 1");
}

ROW_TEST(BrhConnectionTest, aRefusedRepetitionLeavesTheConnectionAsItIs)
{
    connect(client, "00000064");
    EXPECT_EQ(connect(client, "00000064", "0803"), of().establishRej + " 00000064 00000064 0801");
    EXPECT_THAT(ask(server(), of().capabilitiesReq + "00000001 00000001"),
                testing::StartsWith(of().capabilitiesCfm + " 00000001 00000064"));
}

ROW_TEST(BrhConnectionTest, oneMailboxMayHoldSeveralAndOneReferenceMayComeFromSeveral)
{
    EXPECT_EQ(connect(client, "00000064"), of().establishCfm + " 00000064 00000001 0801");
    EXPECT_EQ(connect(client, "00000065"), of().establishCfm + " 00000065 00000002 0801");
    EXPECT_EQ(connect(stranger, "00000064"), of().establishCfm + " 00000064 00000003 0801");
    m_brhd.mailboxGone(client);
    ASSERT_THAT(status()["connections"], SizeIs(1));
    EXPECT_EQ(status()["connections"][0]["ref"], 3);
}

ROW_TEST(BrhConnectionTest, aRequestCountsOnlyOnItsOwnConnection)
{
    connect(client, "00000064");
    const std::string request = of().capabilitiesReq + "00000001";
    receive(server(), client, request + "00000002");
    expectSilence("no connection with the reference 2");
    receive(server(), client, request + "00000000");
    expectSilence("no connection with the reference 0");
    receive(server(), client, request + "00000064");
    expectSilence("no connection with the reference 100");
    receive(server(), stranger, request + "00000001");
    expectSilence("no connection with the reference 1");
    EXPECT_EQ(status()["wrongReferences"], 4);
}

ROW_TEST(BrhConnectionTest, cutFramesAreDropped)
{
    connect(client, "00000064");
    for (const std::string& number : {of().establishReq, of().capabilitiesReq}) {
        const Bytes whole = messageFrom(number + "00000001 00000001");
        for (std::size_t size = 4; size < whole.size(); ++size) {
            receive(server(), client, BytesView(whole).first(size));
            expectSilence("cut frame from 0x20: " + std::to_string(size) + " bytes of 12");
        }
    }
    EXPECT_EQ(status()["cutFrames"], 16);
}

ROW_TEST(BrhConnectionTest, bodiesThatDoNotParseAreDropped)
{
    connect(client, "00000064");
    for (const std::string& number : {of().establishReq, of().capabilitiesReq}) {
        for (const char* body : {"08", "ff", "0aff", "0a05010203", "0000", "08ffffffffffffffffffff01"}) {
            receive(server(), client, number + "00000001 00000001" + body);
            expectSilence("does not parse");
        }
    }
    EXPECT_EQ(status()["malformed"][kind("GetCapabilitiesReq")], 6);
    EXPECT_THAT(status()["connections"], SizeIs(1));
}

ROW_TEST(BrhConnectionTest, unknownFramesAreDropped)
{
    connect(client, "00000064");
    for (const std::string& number :
         {std::string("00000000"), std::string("0170ffff"), of().establishCfm, of().establishRej,
          of().capabilitiesCfm, std::string("017075ad"), std::string("017075bd")}) {
        receive(server(), client, number + "00000001 00000001");
        expectSilence("unknown frame");
    }
    EXPECT_EQ(status()["unknownFrames"], 7);
}

ROW_TEST(BrhConnectionTest, randomContentLeavesTheServerServing)
{
    connect(client, "00000064");
    std::mt19937 engine(20261121);
    const auto random = [&engine] {
        return static_cast<std::uint32_t>(engine());
    };
    const std::uint32_t base = *parseNumber("0x" + of().establishReq);
    for (int round = 0; round < 20000; ++round) {
        Bytes bytes;
        putHost32(bytes, base + random() % 64);
        putNetwork32(bytes, random());
        putNetwork32(bytes, random() % 2 == 0 ? 1 : random());
        const std::size_t length = random() % 24;
        for (std::size_t index = 0; index < length; ++index) {
            bytes.push_back(static_cast<std::byte>(random() % (random() % 2 == 0 ? 32 : 256)));
        }
        receive(server(), round % 3 == 0 ? stranger : client, bytes);
        m_outbox.takeSent();
        m_outbox.takeAbnormal();
    }
    m_brhd.mailboxGone(stranger);
    m_brhd.mailboxGone(client);
    EXPECT_THAT(status()["connections"], IsEmpty());
    EXPECT_TRUE(connect(client, "00000064").starts_with(of().establishCfm));
}

ROW_TEST(BrhConnectionTest, noLineIsBuiltWhenItsLevelIsOff)
{
    m_outbox.logsOn = false;
    connect(client, "00000064");
    receive(server(), client, "00000000 00");
    m_brhd.mailboxGone(client);
    EXPECT_THAT(m_outbox.logged, IsEmpty());
}

ROW_TEST(BrhConnectionTest, aPlannedRefusalCarriesItsCauseAndHappensOnce)
{
    EXPECT_EQ(
        plan("refuse", kind("ConnEstablishReq"), {{"cause", "MAX_NUMBER_OF_CONNECTIONS_EXCEEDED"}}).result,
        ControlAnswer::Result::done);
    EXPECT_EQ(connect(client, "00000064"), of().establishRej + " 00000064 00000064 0802");
    EXPECT_THAT(status()["connections"], IsEmpty());
    EXPECT_EQ(connect(client, "00000064"), of().establishCfm + " 00000064 00000001 0801");

    EXPECT_EQ(plan("refuse", kind("GetCapabilitiesReq"), {{"count", 2}}).result, ControlAnswer::Result::done);
    for (const char* answer : {"Rej", "Rej", "Cfm"}) {
        const std::string text = ask(server(), of().capabilitiesReq + "00000009 00000001");
        EXPECT_EQ(text.starts_with(of().capabilitiesCfm), std::string(answer) == "Cfm") << text;
        EXPECT_EQ(text.substr(8, 18), " 00000009 00000064");
    }
    EXPECT_EQ(status()["rejected"][kind("GetCapabilitiesReq")], 2);
}

ROW_TEST(BrhConnectionTest, aDroppedConfirmLeavesTheConnection)
{
    plan("drop", kind("ConnEstablishReq"));
    receive(server(), client, of().establishReq + "00000064 00000064 0801");
    EXPECT_THAT(m_outbox.takeSent(), IsEmpty());
    EXPECT_THAT(status()["connections"], SizeIs(1));
    EXPECT_EQ(status()["dropped"][kind("ConnEstablishReq")], 1);
}

ROW_TEST(BrhConnectionTest, aDelayedAnswerGoesOutLater)
{
    connect(client, "00000064");
    plan("delay", kind("GetCapabilitiesReq"), {{"ms", 250}});
    receive(server(), client, of().capabilitiesReq + "00000009 00000001");
    const auto sent = m_outbox.takeSent();
    ASSERT_THAT(sent, SizeIs(1));
    EXPECT_EQ(sent[0].delayMs, 250);
    EXPECT_EQ(sent[0].from, server());
    EXPECT_EQ(sent[0].to, client);
    EXPECT_TRUE(sent[0].text.starts_with(of().capabilitiesCfm));
}

ROW_TEST(BrhConnectionTest, aMalformedRequestUsesNoPlanUp)
{
    connect(client, "00000064");
    plan("drop", kind("GetCapabilitiesReq"));
    receive(server(), client, of().capabilitiesReq + "00000009 00000001 ff");
    receive(server(), stranger, of().capabilitiesReq + "00000009 00000001");
    EXPECT_THAT(m_brhd.status()["plans"], SizeIs(1));
}

ROW_TEST(BrhConnectionTest, losingTheServerReopensItsMailbox)
{
    connect(client, "00000064");
    const auto answer = m_brhd.lose(of().name, std::nullopt);
    EXPECT_EQ(answer.result, ControlAnswer::Result::done);
    EXPECT_THAT(m_outbox.reopened, ElementsAre(server()));
    EXPECT_THAT(status()["connections"], IsEmpty());
    receive(m_outbox.nextMailbox, client, of().establishReq + "00000064 00000064 0801");
    EXPECT_EQ(m_outbox.takeSent(), (std::vector<Sent>{{m_outbox.nextMailbox, client,
                                                       of().establishCfm + " 00000064 00000002 0801"}}));
}

ROW_TEST(BrhConnectionTest, aServerThatDoesNotComeBackIsRefused)
{
    m_outbox.nextMailbox = noMailbox;
    EXPECT_EQ(m_brhd.lose(of().name, std::nullopt).result, ControlAnswer::Result::refused);
}

ROW_TEST(BrhConnectionTest, oneConnectionCanBeLost)
{
    connect(client, "00000064");
    connect(client, "00000065");
    EXPECT_EQ(m_brhd.lose(of().name, 1).result, ControlAnswer::Result::done);
    EXPECT_THAT(status()["connections"], SizeIs(1));
    EXPECT_EQ(m_brhd.lose(of().name, 1).result, ControlAnswer::Result::notFound);
    EXPECT_THAT(m_outbox.reopened, IsEmpty());
}

const Interface interfaces[] = {
    {"bri", briMailbox, "0170772d", "0170772e", "0170772f", "01707730", "01707731"},
    {"bmmi", bmmiMailbox, "01707570", "01707571", "01707572", "0170757d", "0170757e"}};
TEST_ROWS(Interfaces, BrhConnectionTest, interfaces);

} // namespace
} // namespace merlow::board::test
