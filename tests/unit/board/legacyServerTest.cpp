#include "legacyServer.h"
#include "control.h"
#include "fakeOutbox.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iomanip>

namespace merlow::board::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using Result = ControlAnswer::Result;

constexpr MailboxId legacyMailbox = 0x40;
constexpr MailboxId legacyClient = 0x20;

std::string hexText(const std::string& text)
{
    std::ostringstream out;
    for (const char character : text) {
        out << std::hex << std::setw(2) << std::setfill('0') << static_cast<unsigned>(character);
    }
    return out.str();
}

std::string hex32(std::uint32_t value)
{
    std::ostringstream out;
    out << std::hex << std::setw(8) << std::setfill('0') << value;
    return out.str();
}

class LegacyServerTest : public testing::Test {
protected:
    LegacyServerTest() { m_server.attach("LegacyMerlow", legacyMailbox); }

    void receive(MailboxId sender, BytesView bytes)
    {
        const HeapMessage message(bytes);
        m_server.receive({sender, legacyMailbox, message.bytes()});
    }

    std::string ask(MailboxId sender, const std::string& text)
    {
        receive(sender, messageFrom(text));
        return m_outbox.takeOne();
    }

    /// A connection request for `serverRef` with `clientRef` 9; gives the reference of the confirm, or the
    /// reject whole.
    std::string connect(MailboxId sender, std::uint32_t serverRef, const std::string& revision = "0003")
    {
        const std::string answer = ask(sender, "01658000 00000009" + hex32(serverRef) + revision + "0000");
        const std::string confirm = "01658001 00000009 ";
        if (!answer.starts_with(confirm)) {
            return answer;
        }
        return std::to_string(*parseNumber("0x" + answer.substr(confirm.size())));
    }

    static std::string reject(std::uint32_t serverRef, const std::string& text)
    {
        std::string rest = hex32(9) + hex32(serverRef) + "00030000" + "00010000" + hexText(text);
        rest.resize(2 * (132 - 4), '0');
        return textOf(messageFrom("01658002" + rest));
    }

    ControlAnswer control(const nlohmann::json& request) { return serveControl(m_server, request); }

    FakeOutbox m_outbox;
    LegacyServer m_server{m_outbox};
};

TEST_F(LegacyServerTest, confirmsWithAReferenceOfTheRequestedRange)
{
    EXPECT_EQ(ask(legacyClient, "01658000 00000007 0000012c 0003 0000"), "01658001 00000007 0000012c");
    EXPECT_EQ(ask(0x21, "01658000 fffffffe 00000186 0001 0000"), "01658001 fffffffe 0000012d");
    EXPECT_EQ(connect(0x22, 100), "100");
    EXPECT_EQ(connect(0x23, 199), "101");
    EXPECT_EQ(connect(0x24, 499), "400");
    EXPECT_EQ(connect(0x25, 400), "401");
    EXPECT_THAT(m_outbox.watched, ElementsAre(0x20, 0x21, 0x22, 0x23, 0x24, 0x25));
    EXPECT_THAT(m_server.status()["connections"], SizeIs(6));
}

TEST_F(LegacyServerTest, theTwoUnsetBytesMayBeMissing)
{
    EXPECT_EQ(ask(legacyClient, "01658000 00000007 0000012c 0003"), "01658001 00000007 0000012c");
}

TEST_F(LegacyServerTest, aRepeatedRequestIsConfirmedWithTheSameReference)
{
    EXPECT_EQ(connect(legacyClient, 300), "300");
    EXPECT_EQ(connect(0x21, 300), "301");
    EXPECT_EQ(connect(legacyClient, 300), "300");
    EXPECT_EQ(connect(legacyClient, 355), "300");
    EXPECT_THAT(m_server.status()["connections"], SizeIs(2));
}

TEST_F(LegacyServerTest, aRequestForAnotherRangeMovesTheConnection)
{
    EXPECT_EQ(connect(legacyClient, 300), "300");
    EXPECT_EQ(connect(legacyClient, 100), "100");
    EXPECT_THAT(m_server.status()["connections"], SizeIs(1));
}

TEST_F(LegacyServerTest, referencesTakeTurns)
{
    for (std::uint32_t turn = 0; turn < 250; ++turn) {
        EXPECT_EQ(connect(legacyClient, 300), std::to_string(300 + turn % 100));
        m_server.mailboxGone(legacyClient);
    }
}

TEST_F(LegacyServerTest, aReferenceInUseIsSkipped)
{
    EXPECT_EQ(connect(legacyClient, 300), "300");
    for (std::uint32_t turn = 1; turn < 100; ++turn) {
        EXPECT_EQ(connect(0x21, 300), std::to_string(300 + turn));
        m_server.mailboxGone(0x21);
    }
    EXPECT_EQ(connect(0x21, 300), "301");
}

TEST_F(LegacyServerTest, aFullRangeRejects)
{
    for (MailboxId mailbox = 1000; mailbox < 1100; ++mailbox) {
        connect(mailbox, 400);
    }
    EXPECT_EQ(connect(legacyClient, 400), reject(400, "Already at maximum client capacity"));
    EXPECT_EQ(connect(legacyClient, 300), "300");
    EXPECT_EQ(connect(1050, 400), "450") << "who holds one can ask again";
    m_server.mailboxGone(1070);
    EXPECT_EQ(connect(0x21, 400), "470");
}

TEST_F(LegacyServerTest, otherRangesAreNotSupported)
{
    for (const std::uint32_t serverRef :
         {0u, 1u, 99u, 200u, 299u, 500u, 0x7FFFFFFFu, 0xFFFFFFFFu, 0x80000064u}) {
        EXPECT_EQ(connect(legacyClient, serverRef), reject(serverRef, "RAT not supported"));
    }
    EXPECT_EQ(connect(legacyClient, 200, "0000"), reject(200, "RAT not supported"));
    EXPECT_THAT(m_server.status()["connections"], IsEmpty());
}

TEST_F(LegacyServerTest, otherRevisionsAreNotSupported)
{
    for (const char* revision : {"0000", "0004", "0100", "ffff"}) {
        EXPECT_EQ(connect(legacyClient, 300, revision), reject(300, "Protocol not supported"));
    }
    for (const char* revision : {"0001", "0002", "0003"}) {
        EXPECT_EQ(connect(legacyClient, 300, revision), "300");
    }
}

TEST_F(LegacyServerTest, theRejectHasItsLayout)
{
    const std::string answer = ask(legacyClient, "01658000 00000009 00000001 0003 0000");
    EXPECT_TRUE(answer.starts_with("01658002 00000009 00000001 00030000 00010000 52415420 6e6f7420 7375"));
    EXPECT_EQ(messageFrom(answer).size(), 132u);
}

TEST_F(LegacyServerTest, aConnectionEndsWithItsMailbox)
{
    connect(legacyClient, 300);
    m_server.mailboxGone(0x99);
    EXPECT_THAT(m_server.status()["connections"], SizeIs(1));
    m_server.mailboxGone(legacyClient);
    EXPECT_THAT(m_server.status()["connections"], IsEmpty());
    m_server.mailboxGone(legacyClient);
    EXPECT_EQ(connect(legacyClient, 300), "301");
}

TEST_F(LegacyServerTest, whatCannotBeWatchedIsNotConnected)
{
    m_outbox.canWatch = false;
    EXPECT_EQ(connect(legacyClient, 300), reject(300, "Already at maximum client capacity"));
    EXPECT_THAT(m_server.status()["connections"], IsEmpty());
}

TEST_F(LegacyServerTest, requestsThatAreTooShortAreDropped)
{
    const Bytes whole = messageFrom("01658000 00000007 0000012c 0003");
    for (std::size_t size = 4; size < whole.size(); ++size) {
        receive(legacyClient, BytesView(whole).first(size));
        EXPECT_THAT(m_outbox.takeSent(), IsEmpty());
        EXPECT_THAT(m_outbox.takeAbnormal(), ElementsAre(HasSubstr(std::to_string(size) + " bytes of 14")));
    }
    EXPECT_EQ(m_server.status()["tooShort"], 10);
}

TEST_F(LegacyServerTest, connectionAnswersAreNeverEchoed)
{
    for (const char* number : {"01658001", "01658002"}) {
        receive(legacyClient, messageFrom(std::string(number) + "00000007 0000012c"));
        EXPECT_THAT(m_outbox.takeSent(), IsEmpty());
        EXPECT_THAT(m_outbox.takeAbnormal(), ElementsAre(HasSubstr("connection answer 0x")));
    }
}

TEST_F(LegacyServerTest, anyOtherSignalGoesBackUnchanged)
{
    const Bytes longest = messageFrom("0165ffff 00000007 0000012c 01020304 05");
    for (std::size_t size = 4; size <= longest.size(); ++size) {
        receive(legacyClient, BytesView(longest).first(size));
        EXPECT_EQ(m_outbox.takeSent(),
                  (std::vector<Sent>{{legacyMailbox, legacyClient, textOf(BytesView(longest).first(size))}}));
    }
    EXPECT_EQ(m_outbox.sentBack, 14) << "without a copy";
    EXPECT_EQ(ask(legacyClient, "01658003 00"), "01658003 00");
    EXPECT_EQ(ask(legacyClient, "01657fff 00"), "01657fff 00");
}

TEST_F(LegacyServerTest, connectionsAreRejectedOnDemand)
{
    EXPECT_EQ(control({{"command", "plan"}, {"action", "refuse"}, {"kind", "legacy::Connect"}}).result,
              Result::done);
    EXPECT_EQ(control({{"command", "plan"},
                       {"action", "refuse"},
                       {"kind", "legacy::Connect"},
                       {"cause", std::string(200, 'x')}})
                  .result,
              Result::done);
    EXPECT_EQ(connect(legacyClient, 300), reject(300, "Already at maximum client capacity"));
    EXPECT_EQ(connect(legacyClient, 300), reject(300, std::string(109, 'x'))) << "cut, and terminated";
    EXPECT_EQ(connect(legacyClient, 300), "300");
}

TEST_F(LegacyServerTest, answersAreDelayedAndDropped)
{
    control({{"command", "plan"}, {"action", "delay"}, {"kind", "legacy::Connect"}, {"ms", 30}});
    receive(legacyClient, messageFrom("01658000 00000007 0000012c 0003 0000"));
    EXPECT_EQ(m_outbox.takeSent(),
              (std::vector<Sent>{{legacyMailbox, legacyClient, "01658001 00000007 0000012c", 30}}));

    control({{"command", "plan"}, {"action", "delay"}, {"kind", "legacy::0x165FFFF"}, {"ms", 40}});
    control({{"command", "plan"}, {"action", "drop"}, {"kind", "legacy::23461887"}}); // 0x165ffff again
    receive(legacyClient, messageFrom("0165ffff 01020304 05"));
    EXPECT_EQ(m_outbox.takeSent(),
              (std::vector<Sent>{{legacyMailbox, legacyClient, "0165ffff 01020304 05", 40}}));
    receive(legacyClient, messageFrom("0165ffff 01020304 05"));
    EXPECT_THAT(m_outbox.takeSent(), IsEmpty());
    EXPECT_EQ(ask(legacyClient, "0165ffff 01020304 05"), "0165ffff 01020304 05");
    EXPECT_EQ(m_server.status()["dropped"], 1);
    EXPECT_EQ(m_server.status()["delayed"], 2);
}

TEST_F(LegacyServerTest, plansForWhatHasNoAnswerOrNoRejectAreRefused)
{
    const auto planResult = [this](const char* action, const char* kind) {
        return control({{"command", "plan"}, {"action", action}, {"kind", kind}}).result;
    };
    EXPECT_EQ(planResult("refuse", "legacy::0x165ffff"), Result::refused);
    EXPECT_EQ(planResult("drop", "legacy::0x1658001"), Result::usage);
    EXPECT_EQ(planResult("drop", "legacy::"), Result::usage);
    EXPECT_EQ(planResult("drop", "legacy::NUMBER"), Result::usage);
    EXPECT_EQ(planResult("drop", "bri::SetUtcTimeReq"), Result::usage);
}

TEST_F(LegacyServerTest, aRuleAnswersInPlaceOfTheEcho)
{
    const nlohmann::json rule{
        {"command", "answer"}, {"signal", 0x165FFF0}, {"number", 0x165FFF1}, {"fields", "0102 ff"}};
    EXPECT_EQ(control(rule).result, Result::done);
    EXPECT_EQ(ask(legacyClient, "0165fff0 00000007 0000012c aa"), "0165fff1 00000007 0000012c 0102ff");
    EXPECT_EQ(ask(legacyClient, "0165fff0 000007"), "0165fff1 00000000 00000000 0102ff")
        << "missing ones are 0";
    EXPECT_EQ(ask(legacyClient, "0165fff1 00000007"), "0165fff1 00000007");
    EXPECT_EQ(m_server.clear().text, "legacyd cleared 0 plans and 1 rule");
    EXPECT_EQ(ask(legacyClient, "0165fff0 000007"), "0165fff0 000007");
}

TEST_F(LegacyServerTest, rulesThatMakeNoSenseAreRefused)
{
    nlohmann::json rule{{"command", "answer"}, {"signal", 1}, {"number", 2}, {"fields", "0"}};
    EXPECT_EQ(control(rule).result, Result::usage);
    rule["fields"] = "00";
    rule["signal"] = -1;
    EXPECT_EQ(control(rule).result, Result::usage);
    rule["signal"] = 0x1658000;
    EXPECT_EQ(control(rule).result, Result::refused);
    rule["signal"] = 1;
    rule["number"] = 0x1658001;
    EXPECT_EQ(control(rule).result, Result::refused);
    EXPECT_THAT(m_server.status()["rules"], IsEmpty());
}

TEST_F(LegacyServerTest, losingItReopensItsMailbox)
{
    connect(legacyClient, 300);
    EXPECT_EQ(m_server.lose("legacy", std::nullopt).result, Result::done);
    EXPECT_THAT(m_outbox.reopened, ElementsAre(legacyMailbox));
    EXPECT_THAT(m_server.status()["connections"], IsEmpty());
    EXPECT_EQ(m_server.lose("bri", std::nullopt).result, Result::usage);
    m_outbox.nextMailbox = noMailbox;
    EXPECT_EQ(m_server.lose("legacy", std::nullopt).result, Result::refused);
}

TEST_F(LegacyServerTest, oneConnectionCanBeLost)
{
    connect(legacyClient, 300);
    EXPECT_EQ(m_server.lose("legacy", 301).result, Result::notFound);
    EXPECT_EQ(m_server.lose("legacy", 300).result, Result::done);
    EXPECT_THAT(m_server.status()["connections"], IsEmpty());
}

TEST_F(LegacyServerTest, countsSignalsOfABoundedNumberOfNumbers)
{
    for (std::uint32_t number = 1; number <= 300; ++number) {
        ask(legacyClient, hex32(number));
    }
    ask(legacyClient, hex32(1));
    const auto status = m_server.status();
    EXPECT_EQ(status["received"]["legacy::0x1"], 2);
    EXPECT_THAT(status["received"], SizeIs(256 + 1)) << "and the connection requests";
    EXPECT_EQ(status["receivedUncounted"], 44);
}

TEST_F(LegacyServerTest, aRestartIsToldToEachClientWithItsOwnReferences)
{
    connect(legacyClient, 300);
    ask(0x21, "01658000 fffffffe 00000064 0001 0000");
    EXPECT_EQ(control({{"command", "restart"}, {"code", 0xFFF0}}).text, "legacyd notified 2 clients");
    const std::string rest(2 * 162, '0');
    const auto ind = [&rest](const std::string& head) {
        return textOf(messageFrom("01659b03" + head + rest));
    };
    EXPECT_THAT(m_outbox.takeSent(),
                ElementsAre(Sent{legacyMailbox, 0x20, ind("00000009 0000012c fff0 0000 0001")},
                            Sent{legacyMailbox, 0x21, ind("fffffffe 00000064 fff0 0000 0001")}));
    EXPECT_EQ(ind("00000009 0000012c fff0 0000 0001").size(), std::size_t{180 / 4 * 9 - 1});

    m_server.mailboxGone(legacyClient);
    m_server.mailboxGone(0x21);
    EXPECT_EQ(control({{"command", "restart"}, {"code", 401}}).text, "legacyd notified 0 clients");
    EXPECT_THAT(m_outbox.takeSent(), IsEmpty());
}

TEST_F(LegacyServerTest, aRestartWithoutACodeIsNotTold)
{
    connect(legacyClient, 300);
    for (const nlohmann::json& code : {nlohmann::json(), nlohmann::json(-1), nlohmann::json(0x10000)}) {
        EXPECT_EQ(control({{"command", "restart"}, {"code", code}}).result, Result::usage) << code;
    }
    EXPECT_THAT(m_outbox.takeSent(), IsEmpty());
}

} // namespace
} // namespace merlow::board::test
