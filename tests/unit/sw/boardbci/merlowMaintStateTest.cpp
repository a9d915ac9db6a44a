#include "merlowMaintState.h"
#include "rowTest.h"

#include "mmiFixture.h"

namespace {

namespace bmmi = boardresourcehandler::bmmi;
using support::rejectTail;

class MerlowMaintStateTest : public MmiServiceTest<MerlowMaintState> {
protected:
    /// A client whose subscription `procedureRef` is confirmed.
    support::VirtualClient subscriber()
    {
        const auto client = mmiUser();
        subscribe(client);
        return client;
    }
    void subscribe(const support::VirtualClient& client)
    {
        client.sendHex("01658015 00000007 0000012c");
        m_board.bmmi().answer(m_board.bmmi().expect<bmmi::SubscribeMaintStateReq>(),
                              bmmi::SubscribeMaintStateCfm());
        EXPECT_EQ(client.receivedHex(), "01658016 00000007 0000012c");
    }
};

// Setting

struct MaintStateSetRow {
    const char* bci;
    const char* bmmi; ///< null when the state cannot be asked for
    const char* decimal;
};

class MerlowMaintStateSetTest : public MerlowMaintStateTest, public WithRow<MaintStateSetRow> {};

ROW_TEST(MerlowMaintStateSetTest, theStateIsTranslatedOrRejected)
{
    const auto client = mmiUser();
    client.sendHex(std::string("01658019 00000007 fffffffe ") + row().bci);
    if (row().bmmi == nullptr) {
        // A reject without a text.
        EXPECT_EQ(client.receivedHex(), "0165801b 00000007 fffffffe " + rejectTail(""));
        EXPECT_TRUE(m_board.bmmi().nothingReceived());
        EXPECT_EQ(openTransactions(), 0U);
        EXPECT_TRUE(
            m_board.traced(4, std::string("ABN: TARN_BC_SET_MAINT_STATE_REQ contains an invalid maintState "
                                          "field: ") +
                                  row().decimal));
        return;
    }
    EXPECT_EQ(m_board.bmmi().receivedHex(), std::string("01707573 00000001 00c0ffee 083710") + row().bmmi);
    const auto* transaction = bmmiClient().searchTransactionProcedure(1);
    ASSERT_NE(transaction, nullptr);
    EXPECT_EQ(*transaction, (BrhClient::ProcedureTransaction{.procedureRef = 1,
                                                             .clientMbox = client.mbox(),
                                                             .serverRef = -2,
                                                             .clientRef = 7,
                                                             .data = 0x1658019}));
    EXPECT_TRUE(client.nothingReceived());
}

const MaintStateSetRow maintStateSetRows[] = {
    {"00000000", "00", "0"},           {"00000001", nullptr, "1"},
    {"00000002", "01", "2"},           {"00000003", "02", "3"},
    {"00000004", "03", "4"},           {"00000005", nullptr, "5"},
    {"02000000", nullptr, "33554432"}, {"ffffffff", nullptr, "4294967295"}};
TEST_ROWS(all, MerlowMaintStateSetTest, maintStateSetRows,
          [](const auto& row) { return "state" + std::string(row.decimal); });

TEST_F(MerlowMaintStateTest, theConfirmGoesToTheClientOnce)
{
    const auto client = mmiUser();
    client.sendHex("01658019 00000007 fffffffe 00000002");
    m_board.bmmi().sendHex("01707574 00000001 00000065");
    EXPECT_EQ(client.receivedHex(), "0165801a 00000007 fffffffe");
    EXPECT_EQ(openTransactions(), 0U);
    m_board.bmmi().sendHex("01707574 00000001 00000065"); // late
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(m_board.traced(
        4, "ABN: No BMMI transaction was found for procedureRef: 1. Ignoring SetMaintStateCfm."));
}

struct MaintStateRejRow {
    const char* name;
    const char* body; ///< of the board's reject
    const char* errorCode;
    const char* text;
    const char* trace; ///< null for none
};

constexpr const char* unknownMaintStateCode = "ABN: Unknown errorCode or errorDescription!";
constexpr const char* missingMaintStateCode = "ABN: SetMaintStateRej missing errorCode! sending default "
                                              "errorCode and errorDescription to client.";

class MerlowMaintStateRejTest : public MerlowMaintStateTest, public WithRow<MaintStateRejRow> {};

ROW_TEST(MerlowMaintStateRejTest, theCauseIsTranslated)
{
    const auto client = mmiUser();
    client.sendHex("01658019 00000007 fffffffe 00000002");
    m_board.bmmi().sendHex(std::string("01707575 00000001 00000065 ") + row().body);
    auto expected = rejectTail(row().text);
    expected.replace(0, 4, row().errorCode);
    EXPECT_EQ(client.receivedHex(), "0165801b 00000007 fffffffe " + expected);
    for (const char* trace : {unknownMaintStateCode, missingMaintStateCode}) {
        EXPECT_EQ(m_board.traces().count(4, trace), trace == row().trace ? 1U : 0U) << trace;
    }
    EXPECT_EQ(openTransactions(), 0U);
    m_board.bmmi().sendHex(std::string("01707575 00000001 00000065 ") + row().body); // late
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(m_board.traced(
        4, "ABN: No BMMI transaction was found for procedureRef: 1. Ignoring SetMaintStateRej."));
}

const MaintStateRejRow maintStateRejRows[] = {
    {"unspecified", "0800", "0001", " ", nullptr},
    {"notActivated", "0801", "0001", "Maintenance State handling not activated", nullptr},
    {"illegalTransition", "0802", "0002", "Illegal state transition requested", nullptr},
    {"serviceMan", "0803", "0002", "Prohibited due to service man present", nullptr},
    {"unassigned", "0804", "0001", "", unknownMaintStateCode},
    {"missing", "", "0001", " ", missingMaintStateCode},
    // What the schema does not name is as good as missing.
    {"beyondTheSchema", "0863", "0001", " ", missingMaintStateCode}};
TEST_ROWS(all, MerlowMaintStateRejTest, maintStateRejRows);

// The subscription

TEST_F(MerlowMaintStateTest, theSubscriptionStaysAndIsNotedInTheSession)
{
    const auto client = mmiUser();
    client.sendHex("01658015 00000007 fffffffe");
    EXPECT_EQ(m_board.bmmi().receivedHex(), "01707577 00000001 00c0ffee 0837");
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(client.session()->getProcedureRef(0x1707577), 0U) << "not before it is confirmed";
    m_board.bmmi().sendHex("01707578 00000001 00000065");
    EXPECT_EQ(client.receivedHex(), "01658016 00000007 fffffffe");
    EXPECT_EQ(client.session()->getProcedureRef(0x1707577), 1U);
    const auto* transaction = bmmiClient().searchTransactionProcedure(1);
    ASSERT_NE(transaction, nullptr);
    EXPECT_EQ(*transaction, (BrhClient::ProcedureTransaction{.procedureRef = 1,
                                                             .clientMbox = client.mbox(),
                                                             .serverRef = -2,
                                                             .clientRef = 7,
                                                             .data = 0x1658015}));
}

TEST_F(MerlowMaintStateTest, aRefusedSubscriptionIsGone)
{
    const auto client = mmiUser();
    client.sendHex("01658015 00000007 fffffffe");
    m_board.bmmi().sendHex("01707579 00000001 00000065");
    EXPECT_EQ(client.receivedHex(), "01658017 00000007 fffffffe " +
                                        rejectTail("subscribing to maintenance state was unsuccessful"));
    EXPECT_EQ(openTransactions(), 0U);
    EXPECT_FALSE(client.session()->isProcedureRefInfoExist(0x1707577));
    m_board.bmmi().sendHex("01707579 00000001 00000065");
    m_board.bmmi().sendHex("01707578 00000001 00000065");
    EXPECT_TRUE(client.nothingReceived());
    for (const char* answer : {"Rej.", "Cfm."}) {
        EXPECT_TRUE(m_board.traced(4, std::string("ABN: No BMMI transaction was found for procedureRef: 1. "
                                                  "Ignoring SubscribeMaintState") +
                                          answer));
    }
}

struct MaintStateIndRow {
    const char* name;
    const char* body;
    const char* bci;   ///< null when the client is told nothing
    const char* trace; ///< null for none
};

constexpr const char* unknownMaintState = "ABN: Merlow:: Unknown Maintenance state!";
constexpr const char* missingMaintState = "ABN: missing maintState in the MaintStateInd! Ignoring signal!";

class MerlowMaintStateIndTest : public MerlowMaintStateTest, public WithRow<MaintStateIndRow> {};

ROW_TEST(MerlowMaintStateIndTest, theStateIsTranslatedOrNotTold)
{
    const auto client = subscriber();
    for (int i = 0; i < 2; ++i) {
        m_board.traces().clear();
        m_board.bmmi().sendHex(std::string("01707576 00000001 00000065 ") + row().body);
        if (row().bci != nullptr) {
            EXPECT_EQ(client.receivedHex(), std::string("01658018 00000007 0000012c ") + row().bci);
        }
        EXPECT_TRUE(client.nothingReceived());
        for (const char* trace : {unknownMaintState, missingMaintState}) {
            EXPECT_EQ(m_board.traces().count(4, trace), trace == row().trace ? 1U : 0U) << trace;
        }
    }
    EXPECT_EQ(openTransactions(), 1U);
}

const MaintStateIndRow maintStateIndRows[] = {{"state0", "0800", "00000000", nullptr},
                                              {"state1", "0801", "00000002", nullptr},
                                              {"state2", "0802", "00000003", nullptr},
                                              {"state3", "0803", "00000004", nullptr},
                                              {"state4", "0804", "00000001", nullptr},
                                              {"state5", "0805", nullptr, unknownMaintState},
                                              {"beyondTheSchema", "0806", nullptr, missingMaintState},
                                              {"missing", "", nullptr, missingMaintState}};
TEST_ROWS(all, MerlowMaintStateIndTest, maintStateIndRows);

TEST_F(MerlowMaintStateTest, indicationsOfNobodyAreTraced)
{
    m_board.bmmi().sendHex("01707576 00000009 00000065 0801");
    EXPECT_TRUE(
        m_board.traced(4, "ABN: No BMMI transaction was found for procedureRef: 9. Ignoring MaintStateInd."));
}

TEST_F(MerlowMaintStateTest, eachSubscriberIsToldUnderItsOwnReferences)
{
    const auto first = subscriber();
    const auto second = mmiUser();
    second.sendHex("01658015 00000009 0000012d");
    m_board.bmmi().sendHex("01707578 00000002 00000065");
    EXPECT_EQ(second.receivedHex(), "01658016 00000009 0000012d");
    m_board.bmmi().sendHex("01707576 00000002 00000065 0804");
    EXPECT_TRUE(first.nothingReceived());
    EXPECT_EQ(second.receivedHex(), "01658018 00000009 0000012d 00000001");
    m_board.bmmi().sendHex("01707576 00000001 00000065 0803");
    EXPECT_EQ(first.receivedHex(), "01658018 00000007 0000012c 00000004");
    EXPECT_TRUE(second.nothingReceived());
}

TEST_F(MerlowMaintStateTest, aSecondSubscriptionStandsBesideTheFirst)
{
    const auto client = subscriber();
    subscribe(client);
    EXPECT_TRUE(m_board.traced(
        4, "ABN: Cannot add procedureRef : (2) to procedureRefInfoMap.Key Value with signal Number: "
           "(24147319) already exist."));
    EXPECT_EQ(client.session()->getProcedureRef(0x1707577), 1U);
    m_board.bmmi().sendHex("01707576 00000001 00000065 0800");
    m_board.bmmi().sendHex("01707576 00000002 00000065 0801");
    EXPECT_EQ(client.receivedHex(), "01658018 00000007 0000012c 00000000");
    EXPECT_EQ(client.receivedHex(), "01658018 00000007 0000012c 00000002");

    m_board.endSession(client); // takes the one that was noted
    EXPECT_EQ(bmmiClient().searchTransactionProcedure(1), nullptr);
    EXPECT_NE(bmmiClient().searchTransactionProcedure(2), nullptr);
    EXPECT_TRUE(m_board.traced(5, "remove procedureRef: (1) from transaction map."));
    m_board.bmmi().sendHex("01707576 00000002 00000065 0801");
    EXPECT_TRUE(m_board.traced(4, "ABN: Merlow has no session for mailbox " + hexOf(client.mbox()) +
                                      ". Ignoring TARN_BC_SET_MAINT_STATE_IND."));
    EXPECT_EQ(openTransactions(), 0U) << "the indication takes what the session left";
    EXPECT_TRUE(client.nothingReceived());
}

TEST_F(MerlowMaintStateTest, theEndOfTheSessionEndsItsSubscription)
{
    const auto client = subscriber();
    const auto other = subscriber();
    client.die();
    EXPECT_TRUE(m_board.traced(5, "remove procedureRef: (1) from transaction map."));
    EXPECT_TRUE(m_board.bmmi().nothingReceived()) << "there is no message that ends a subscription";
    m_board.bmmi().sendHex("01707576 00000001 00000065 0801");
    EXPECT_TRUE(
        m_board.traced(4, "ABN: No BMMI transaction was found for procedureRef: 1. Ignoring MaintStateInd."));
    EXPECT_EQ(openTransactions(), 1U);
    m_board.bmmi().sendHex("01707576 00000002 00000065 0801");
    EXPECT_EQ(other.receivedHex(), "01658018 00000007 0000012c 00000002");
}

TEST_F(MerlowMaintStateTest, theEndOfASessionWithoutASubscriptionRemovesNothing)
{
    const auto client = mmiUser();
    client.sendHex("01658015 00000007 0000012c");
    m_board.endSession(client);
    EXPECT_FALSE(m_board.traces().contains(5, "remove procedureRef"));
    EXPECT_EQ(openTransactions(), 1U) << "stays for its answer";
}

// Both alike

struct MaintStateAnswer {
    const char* name;
    const char* request;
    std::uint32_t number;
    const char* ignored;
};

class MerlowMaintStateAnswerTest : public MerlowMaintStateTest, public WithRow<MaintStateAnswer> {};

ROW_TEST(MerlowMaintStateAnswerTest, afterTheSessionFindsTheTransactionAndNobody)
{
    const auto client = mmiUser();
    client.sendHex(row().request);
    m_board.endSession(client);
    EXPECT_EQ(openTransactions(), 1U);
    m_board.bmmi().sendBody(row().number, 1, "");
    EXPECT_TRUE(m_board.traced(4, "ABN: Merlow has no session for mailbox " + hexOf(client.mbox()) +
                                      ". Ignoring " + row().ignored + "."));
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(openTransactions(), 0U);
}

ROW_TEST(MerlowMaintStateAnswerTest, isReadAtEveryLength)
{
    const auto client = mmiUser();
    client.sendHex(row().request);
    expectDroppedAtEveryLength(row().number, row().name, 1);
    EXPECT_TRUE(client.nothingReceived());
}

const MaintStateAnswer maintStateAnswers[] = {
    {"SetMaintStateCfm", "01658019 00000007 0000012c 00000002", 0x1707574, "TARN_BC_SET_MAINT_STATE_CFM"},
    {"SetMaintStateRej", "01658019 00000007 0000012c 00000002", 0x1707575, "TARN_BC_SET_MAINT_STATE_REJ"},
    {"MaintStateInd", "01658015 00000007 0000012c", 0x1707576, "TARN_BC_SET_MAINT_STATE_IND"},
    {"SubscribeMaintStateCfm", "01658015 00000007 0000012c", 0x1707578, "TARN_BC_SUBSCRIBE_MAINT_STATE_CFM"},
    {"SubscribeMaintStateRej", "01658015 00000007 0000012c", 0x1707579, "TARN_BC_SUBSCRIBE_MAINT_STATE_REJ"}};
TEST_ROWS(all, MerlowMaintStateAnswerTest, maintStateAnswers);

struct MaintStateRequest {
    const char* name;
    const char* request;
};

class MerlowMaintStateRequestTest : public MerlowMaintStateTest, public WithRow<MaintStateRequest> {};

ROW_TEST(MerlowMaintStateRequestTest, aStrangerGetsNoAnswer)
{
    const auto stranger = m_board.newClient();
    stranger.sendHex(row().request);
    EXPECT_TRUE(m_board.traced(4, "ABN: Merlow has no session for mailbox " + hexOf(stranger.mbox()) +
                                      ". Ignoring " + row().name + "."));
    EXPECT_TRUE(stranger.nothingReceived());
    EXPECT_TRUE(m_board.bmmi().nothingReceived());
}

ROW_TEST(MerlowMaintStateRequestTest, whoIsNoMmiUserGetsNoAnswer)
{
    const auto client = m_board.connectClient();
    client.sendHex(row().request);
    EXPECT_TRUE(m_board.traced(4, "ABN: The session has not subscribed as an MMI User: ID=0"));
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(m_board.bmmi().nothingReceived());
    EXPECT_EQ(openTransactions(), 0U);
}

ROW_TEST(MerlowMaintStateRequestTest, withoutABackendThereIsNoAnswer)
{
    const auto client = mmiUser();
    m_board.bmmi().stop();
    client.sendHex(row().request);
    EXPECT_TRUE(m_board.traced(4, "ABN: Failed to send message -- not connected to BRH server"));
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(openTransactions(), 0U);
}

ROW_TEST(MerlowMaintStateRequestTest, isReadAtEveryLength)
{
    expectReadAtEveryLength(mmiUser(), row().request);
}

const MaintStateRequest maintStateRequests[] = {
    {"TARN_BC_SET_MAINT_STATE_REQ", "01658019 00000007 0000012c 00000002"},
    {"TARN_BC_SUBSCRIBE_MAINT_STATE_REQ", "01658015 00000007 0000012c"}};
TEST_ROWS(all, MerlowMaintStateRequestTest, maintStateRequests);

TEST_F(MerlowMaintStateTest, aBadStateOfWhoIsNoMmiUserIsNotRejected)
{
    const auto client = m_board.connectClient();
    client.sendHex("01658019 00000007 0000012c 00000001");
    EXPECT_TRUE(m_board.traced(4, "ABN: The session has not subscribed as an MMI User: ID=0"));
    EXPECT_TRUE(client.nothingReceived());
}

} // namespace
