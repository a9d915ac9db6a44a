#include "merlowHereIAm.h"
#include "rowTest.h"

#include "mmiFixture.h"

namespace {

namespace bmmi = boardresourcehandler::bmmi;
using support::rejectTail;

const std::string hereIAmRefusal = "See logs to reveal why the BMMI server rejected the request.";

class MerlowHereIAmTest : public MmiServiceTest<MerlowHereIAm> {
protected:
    support::VirtualClient subscriber()
    {
        const auto client = mmiUser();
        subscribe(client);
        return client;
    }
    void subscribe(const support::VirtualClient& client)
    {
        client.sendHex("0165a404 00000007 fffffffe");
        m_board.bmmi().answer(m_board.bmmi().expect<bmmi::SubscribeHereIAmStateReq>(),
                              bmmi::SubscribeHereIAmStateCfm());
        EXPECT_EQ(client.receivedHex(), "0165a405 00000007 fffffffe");
    }
};

// The subscription

TEST_F(MerlowHereIAmTest, theSubscriptionStaysAndIsNotedInTheSession)
{
    const auto client = mmiUser();
    client.sendHex("0165a404 00000007 fffffffe");
    EXPECT_EQ(m_board.bmmi().receivedHex(), "0170758f 00000001 00c0ffee 0837");
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(client.session()->getProcedureRef(0x170758F), 0U) << "not before it is confirmed";
    m_board.bmmi().sendHex("01707590 00000001 00000065");
    EXPECT_EQ(client.receivedHex(), "0165a405 00000007 fffffffe");
    EXPECT_EQ(client.session()->getProcedureRef(0x170758F), 1U);
    const auto* transaction = bmmiClient().searchTransactionProcedure(1);
    ASSERT_NE(transaction, nullptr);
    EXPECT_EQ(*transaction, (BrhClient::ProcedureTransaction{.procedureRef = 1,
                                                             .clientMbox = client.mbox(),
                                                             .serverRef = -2,
                                                             .clientRef = 7,
                                                             .data = 0x170758F}));
}

TEST_F(MerlowHereIAmTest, aRefusedSubscriptionIsGone)
{
    const auto client = mmiUser();
    client.sendHex("0165a404 00000007 fffffffe");
    m_board.bmmi().sendHex("01707591 00000001 00000065");
    EXPECT_EQ(client.receivedHex(), "0165a406 00000007 fffffffe " + rejectTail(hereIAmRefusal));
    EXPECT_EQ(openTransactions(), 0U);
    EXPECT_FALSE(client.session()->isProcedureRefInfoExist(0x170758F));
    m_board.bmmi().sendHex("01707591 00000001 00000065"); // late
    m_board.bmmi().sendHex("01707590 00000001 00000065");
    EXPECT_TRUE(client.nothingReceived());
    for (const char* answer : {"Rej.", "Cfm."}) {
        EXPECT_TRUE(m_board.traced(4, std::string("ABN: No BMMI transaction was found for procedureRef: 1. "
                                                  "Ignoring SubscribeHereIAmState") +
                                          answer));
    }
}

TEST_F(MerlowHereIAmTest, withoutABackendASubscriptionIsRejected)
{
    const auto client = mmiUser();
    m_board.bmmi().stop();
    client.sendHex("0165a404 00000007 fffffffe");
    EXPECT_EQ(client.receivedHex(),
              "0165a406 00000007 fffffffe " + rejectTail("Could not subscribe HereIAmState."));
    EXPECT_EQ(openTransactions(), 0U);
}

TEST_F(MerlowHereIAmTest, aSecondSubscriptionStandsBesideTheFirst)
{
    const auto client = subscriber();
    client.sendHex("0165a404 00000008 fffffffe");
    m_board.bmmi().sendHex("01707590 00000002 00000065");
    EXPECT_EQ(client.receivedHex(), "0165a405 00000008 fffffffe");
    EXPECT_TRUE(m_board.traced(
        4, "ABN: Cannot add procedureRef : (2) to procedureRefInfoMap.Key Value with signal Number: "
           "(24147343) already exist."));
    EXPECT_EQ(client.session()->getProcedureRef(0x170758F), 1U) << "orders go under the first";
    m_board.bmmi().sendHex("01707595 00000001 00000065 0801");
    m_board.bmmi().sendHex("01707595 00000002 00000065 0802");
    EXPECT_EQ(client.receivedHex(), "0165a407 00000007 fffffffe 00010000");
    EXPECT_EQ(client.receivedHex(), "0165a407 00000008 fffffffe 00020000");
    m_board.endSession(client);
    EXPECT_EQ(bmmiClient().searchTransactionProcedure(1), nullptr);
    EXPECT_NE(bmmiClient().searchTransactionProcedure(2), nullptr);
}

// Indications

struct HereIAmIndRow {
    const char* name;
    const char* body;
    const char* state;
};

class MerlowHereIAmIndTest : public MerlowHereIAmTest, public WithRow<HereIAmIndRow> {};

ROW_TEST(MerlowHereIAmIndTest, theStateGoesOutAsItCame)
{
    const auto client = subscriber();
    for (int i = 0; i < 2; ++i) {
        m_board.bmmi().sendHex(std::string("01707595 00000001 00000065 ") + row().body);
        EXPECT_EQ(client.receivedHex(), std::string("0165a407 00000007 fffffffe ") + row().state + "0000");
        EXPECT_TRUE(client.nothingReceived());
    }
    EXPECT_EQ(openTransactions(), 1U);
}

const HereIAmIndRow hereIAmIndRows[] = {{"zero", "0800", "0000"},        {"one", "0801", "0001"},
                                        {"two", "0802", "0002"},         {"ninetynine", "0863", "0063"},
                                        {"largest", "08ffff03", "ffff"}, {"cutTo16Bits", "08818004", "0001"}};
TEST_ROWS(all, MerlowHereIAmIndTest, hereIAmIndRows);

TEST_F(MerlowHereIAmTest, anIndicationWithoutAStateIsDroppedBeforeItsClientIsSought)
{
    const auto client = subscriber();
    m_board.bmmi().sendHex("01707595 00000001 00000065");
    m_board.bmmi().sendHex("01707595 00000009 00000065");
    EXPECT_EQ(m_board.traces().count(4, "ABN: HereIAmStateInd does not have a state."), 2U);
    EXPECT_FALSE(m_board.traces().contains(4, "No BMMI transaction"));
    EXPECT_TRUE(client.nothingReceived());
    m_board.bmmi().sendHex("01707595 00000009 00000065 0801");
    EXPECT_TRUE(m_board.traced(
        4, "ABN: No BMMI transaction was found for procedureRef: 9. Ignoring HereIAmStateInd."));
}

// Orders

struct HereIAmOrderRow {
    const char* state;
    const char* order; ///< null when there is no such order
    const char* decimal;
};

class MerlowHereIAmOrderTest : public MerlowHereIAmTest, public WithRow<HereIAmOrderRow> {};

ROW_TEST(MerlowHereIAmOrderTest, goesOutUnderTheSubscriptionOrIsRejected)
{
    const auto client = subscriber();
    client.sendHex(std::string("0165a401 00000011 00000022 ") + row().state);
    if (row().order != nullptr) {
        EXPECT_EQ(m_board.bmmi().receivedHex(),
                  std::string("0170758c 00000001 00c0ffee 083710") + row().order);
        EXPECT_TRUE(client.nothingReceived());
    } else {
        EXPECT_EQ(client.receivedHex(), "0165a403 00000011 00000022 " +
                                            rejectTail("TARN_BC_ORDE_HERE_I_AM_REQ has an invalid state."));
        EXPECT_TRUE(m_board.bmmi().nothingReceived());
        EXPECT_TRUE(m_board.traced(4, std::string("ABN: TARN_BC_ORDE_HERE_I_AM_REQ has an invalid state: ") +
                                          row().decimal));
    }
    EXPECT_EQ(openTransactions(), 1U) << "an order has no transaction of its own";
}

const HereIAmOrderRow hereIAmOrderRows[] = {{"0000", nullptr, "0"},   {"0001", "01", "1"},
                                            {"0002", "02", "2"},      {"0003", nullptr, "3"},
                                            {"0100", nullptr, "256"}, {"ffff", nullptr, "65535"}};
TEST_ROWS(all, MerlowHereIAmOrderTest, hereIAmOrderRows,
          [](const auto& row) { return "state" + std::string(row.decimal); });

TEST_F(MerlowHereIAmTest, refusalsComeInOrder)
{
    const auto client = m_board.connectClient();
    client.sendHex("0165a401 00000011 00000022 0003");
    EXPECT_EQ(client.receivedHex(),
              "0165a403 00000011 00000022 " + rejectTail("MMI user has not been registered yet."));
    EXPECT_TRUE(
        m_board.traced(4, "ABN: MMI user has not been registered yet. Ignoring TARN_BC_ORDE_HERE_I_AM_REQ!"));

    client.session()->setMmiUserId(userId);
    client.sendHex("0165a401 00000011 00000022 0003");
    EXPECT_EQ(client.receivedHex(),
              "0165a403 00000011 00000022 " + rejectTail("Here I Am client has not subscribed yet."));
    EXPECT_TRUE(m_board.traced(
        4, "ABN: Here I Am client has not subscribed yet. Ignoring TARN_BC_ORDE_HERE_I_AM_REQ!"));

    client.sendHex("0165a404 00000007 fffffffe");
    m_board.bmmi().expect<bmmi::SubscribeHereIAmStateReq>();
    client.sendHex("0165a401 00000011 00000022 0001");
    EXPECT_EQ(client.receivedHex(),
              "0165a403 00000011 00000022 " + rejectTail("Here I Am client has not subscribed yet."))
        << "not before the subscription is confirmed";

    m_board.bmmi().sendHex("01707590 00000001 00000065");
    EXPECT_EQ(client.receivedHex(), "0165a405 00000007 fffffffe");
    client.sendHex("0165a401 00000011 00000022 0003");
    EXPECT_EQ(client.receivedHex(),
              "0165a403 00000011 00000022 " + rejectTail("TARN_BC_ORDE_HERE_I_AM_REQ has an invalid state."));
    EXPECT_TRUE(m_board.bmmi().nothingReceived());
}

TEST_F(MerlowHereIAmTest, whoIsNoMmiUserCannotSubscribe)
{
    const auto client = m_board.connectClient();
    client.sendHex("0165a404 00000007 fffffffe");
    EXPECT_EQ(client.receivedHex(),
              "0165a406 00000007 fffffffe " + rejectTail("MMI user has not been registered yet."));
    EXPECT_TRUE(m_board.traced(4, "ABN: MMI user has not been registered yet. Rejecting the "
                                  "TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_REQ!"));
    EXPECT_TRUE(m_board.bmmi().nothingReceived());
}

struct HereIAmCfmRow {
    const char* name;
    std::string body;
    const char* status;
    std::string text;
};

class MerlowHereIAmCfmTest : public MerlowHereIAmTest, public WithRow<HereIAmCfmRow> {};

ROW_TEST(MerlowHereIAmCfmTest, carriesTheReferencesOfTheSubscription)
{
    const auto client = subscriber();
    client.sendHex("0165a401 00000011 00000022 0001");
    m_board.bmmi().sendBody(0x170758D, 1, row().body);
    support::Bytes text(4 + 128); // behind a number, which is cut off again
    std::copy(row().text.begin(), row().text.end(), text.begin() + 4);
    EXPECT_EQ(client.receivedHex(), std::string("0165a402 00000007 fffffffe ") + row().status + "0000 " +
                                        support::messageToHex(text).substr(9));
    EXPECT_EQ(openTransactions(), 1U);
}

const HereIAmCfmRow hereIAmCfmRows[] = {
    {"empty", "", "0000", ""},
    {"statusAlone", "\x10\x07", "0007", ""},
    {"textAlone", "\x0a\x02ok", "0000", "ok"},
    {"both", "\x0a\x02ok\x10\xff\xff\x03", "ffff", "ok"},
    {"statusCutTo16Bits", "\x10\x81\x80\x04", "0001", ""},
    {"longestText", "\x0a\x7f" + std::string(127, 'x'), "0000", std::string(127, 'x')},
    {"cutText", "\x0a\x80\x01" + std::string(128, 'x'), "0000", std::string(127, 'x')}};
TEST_ROWS(all, MerlowHereIAmCfmTest, hereIAmCfmRows);

TEST_F(MerlowHereIAmTest, aRefusedOrderLeavesTheSubscription)
{
    const auto client = subscriber();
    client.sendHex("0165a401 00000011 00000022 0002");
    m_board.bmmi().sendHex("0170758e 00000001 00000065");
    EXPECT_EQ(client.receivedHex(), "0165a403 00000007 fffffffe " + rejectTail(hereIAmRefusal));
    EXPECT_EQ(openTransactions(), 1U);
    m_board.bmmi().sendHex("01707595 00000001 00000065 0801");
    EXPECT_EQ(client.receivedHex(), "0165a407 00000007 fffffffe 00010000");
    client.sendHex("0165a401 00000011 00000022 0001");
    client.sendHex("0165a401 00000011 00000022 0002");
    EXPECT_EQ(m_board.bmmi().expect<bmmi::OrderHereIAmReq>().message.order(), 2);
    EXPECT_EQ(m_board.bmmi().expect<bmmi::OrderHereIAmReq>().message.order(), 1);
}

TEST_F(MerlowHereIAmTest, answersToOrdersOfNobodyAreTraced)
{
    m_board.bmmi().sendHex("0170758d 00000009 00000065");
    m_board.bmmi().sendHex("0170758e 00000009 00000065");
    for (const char* answer : {"Cfm.", "Rej."}) {
        EXPECT_TRUE(m_board.traced(
            4, std::string("ABN: No BMMI transaction was found for procedureRef: 9. Ignoring OrderHereIAm") +
                   answer));
    }
}

TEST_F(MerlowHereIAmTest, withoutABackendAnOrderHasNoAnswer)
{
    const auto client = subscriber();
    m_board.bmmi().stop();
    client.sendHex("0165a401 00000011 00000022 0001");
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(m_board.traced(4, "ABN: Failed to send message -- not connected to BRH server"));
    EXPECT_EQ(openTransactions(), 1U);
}

// Strangers, lengths, the session's end

TEST_F(MerlowHereIAmTest, aStrangerGetsNoAnswer)
{
    const auto stranger = m_board.newClient();
    stranger.sendHex("0165a404 00000007 fffffffe");
    stranger.sendHex("0165a401 00000007 fffffffe 0001");
    for (const char* request : {"TARN_BC_SUBSCRIBE_HERE_I_AM_STATE_REQ!", "TARN_BC_ORDE_HERE_I_AM_REQ!"}) {
        EXPECT_TRUE(
            m_board.traced(4, std::string("ABN: No session for this client exists. Ignoring ") + request));
    }
    EXPECT_TRUE(stranger.nothingReceived());
    EXPECT_TRUE(m_board.bmmi().nothingReceived());
}

TEST_F(MerlowHereIAmTest, requestsAreReadAtEveryLength)
{
    expectReadAtEveryLength(mmiUser(), "0165a404 00000007 fffffffe");
    expectReadAtEveryLength(subscriber(), "0165a401 00000007 fffffffe 0001");
}

TEST_F(MerlowHereIAmTest, theEndOfTheSessionEndsItsSubscription)
{
    const auto client = subscriber();
    client.die();
    EXPECT_TRUE(m_board.traced(5, "remove procedureRef: (1) from transaction map."));
    EXPECT_EQ(openTransactions(), 0U);
    EXPECT_TRUE(m_board.bmmi().nothingReceived()) << "there is no message that ends a subscription";
    m_board.bmmi().sendHex("01707595 00000001 00000065 0801");
    EXPECT_TRUE(m_board.traced(
        4, "ABN: No BMMI transaction was found for procedureRef: 1. Ignoring HereIAmStateInd."));
}

struct HereIAmAnswer {
    const char* name;
    std::uint32_t number;
    const char* body;
    bool endsTheTransaction;
};

class MerlowHereIAmAnswerTest : public MerlowHereIAmTest, public WithRow<HereIAmAnswer> {};

ROW_TEST(MerlowHereIAmAnswerTest, afterTheSessionFindsNobody)
{
    const auto client = mmiUser();
    client.sendHex("0165a404 00000007 fffffffe");
    m_board.endSession(client); // while it subscribes: its transaction stays
    EXPECT_FALSE(m_board.traces().contains(5, "remove procedureRef"));
    EXPECT_EQ(openTransactions(), 1U);
    m_board.bmmi().sendBody(row().number, 1, row().body);
    EXPECT_TRUE(m_board.traced(4, "ABN: No BC session found for mailbox ID: " + hexOf(client.mbox()) +
                                      ". Ignoring " + row().name + "."));
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(openTransactions(), row().endsTheTransaction ? 0U : 1U);
}

ROW_TEST(MerlowHereIAmAnswerTest, isReadAtEveryLength)
{
    const auto client = subscriber();
    expectDroppedAtEveryLength(row().number, row().name, 1);
    EXPECT_TRUE(client.nothingReceived());
}

const HereIAmAnswer hereIAmAnswers[] = {{"OrderHereIAmCfm", 0x170758D, "", false},
                                        {"OrderHereIAmRej", 0x170758E, "", false},
                                        {"SubscribeHereIAmStateCfm", 0x1707590, "", false},
                                        {"SubscribeHereIAmStateRej", 0x1707591, "", true},
                                        {"HereIAmStateInd", 0x1707595, "\x08\x01", false}};
TEST_ROWS(all, MerlowHereIAmAnswerTest, hereIAmAnswers);

} // namespace
