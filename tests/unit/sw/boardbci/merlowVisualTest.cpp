#include "merlowVisual.h"
#include "rowTest.h"

#include "mmiFixture.h"

#include <algorithm>
#include <iomanip>

namespace {

namespace bmmi = boardresourcehandler::bmmi;
using support::rejectTail;

const std::string visualReferences = " 00000007 0000012c";

class MerlowVisualTest : public MmiServiceTest<MerlowVisual> {
protected:
    void setProduct(const std::string& name, bool isComplete = true)
    {
        ProductInfo info;
        info.productName = name;
        info.isComplete = isComplete;
        m_board.commonData().setProductInfoCache(info);
    }
    /// What the client is told when the board answers its `request` with `body`.
    std::string readBack(const support::VirtualClient& client, const std::string& request,
                         const std::string& body)
    {
        client.sendHex(request + visualReferences);
        const auto bmmiReq = m_board.bmmi().expect<bmmi::GetVisualIndicationReq>();
        m_board.bmmi().sendBody(0x170758A, bmmiReq.procedureRef, body);
        EXPECT_EQ(openTransactions(), 0U);
        return client.receivedHex();
    }
    static std::string hex16(unsigned int value)
    {
        std::ostringstream text;
        text << std::hex << std::setw(4) << std::setfill('0') << value;
        return text.str();
    }
};

// Setting

struct VisualSetRow {
    std::uint16_t bci;
    int bmmi;
};

/// Written by hand, as everything that goes over the wire.
const VisualSetRow visualSetRows[] = {
    {0x0010, 19}, {0x0011, 20}, {0x0060, 17}, {0x0061, 18}, {0x0110, 1}, {0x0111, 2},  {0x0120, 3},
    {0x0121, 4},  {0x0130, 5},  {0x0131, 6},  {0x0140, 7},  {0x0141, 8}, {0x0310, 11}, {0x0311, 12},
    {0x0320, 13}, {0x0321, 14}, {0x0331, 15}, {0x0332, 16}, {0x0410, 9}, {0x0411, 10},
};

TEST_F(MerlowVisualTest, everyStateThatCanBeSetGoesOutAndEveryOtherIsRejected)
{
    const auto client = mmiUser();
    m_board.traces().setProcMask(0);
    std::size_t set = 0;
    for (unsigned int state = 0; state <= 0xFFFF; state += state < 0x0500 ? 1 : 0x101) {
        client.sendHex("01658004" + visualReferences + " " + hex16(state));
        const auto* row = std::find_if(std::begin(visualSetRows), std::end(visualSetRows),
                                       [&](const auto& r) { return r.bci == state; });
        if (row == std::end(visualSetRows)) {
            ASSERT_EQ(client.receivedHex(),
                      "01658006" + visualReferences + " " +
                          rejectTail("Invalid parameter VisualizedState: " + std::to_string(state)));
            continue;
        }
        ++set;
        const auto bmmiReq = m_board.bmmi().expect<bmmi::SetVisualIndicationReq>();
        EXPECT_EQ(bmmiReq.message.mmi_user_id(), userId);
        EXPECT_EQ(bmmiReq.message.visual_state(), row->bmmi) << state;
        EXPECT_EQ(bmmiReq.procedureRef, set);
        EXPECT_TRUE(client.nothingReceived());
    }
    EXPECT_EQ(set, 20U);
    EXPECT_EQ(openTransactions(), 20U);
    EXPECT_TRUE(m_board.bmmi().nothingReceived());
}

TEST_F(MerlowVisualTest, anOrderGoesOutAndIsConfirmed)
{
    const auto client = mmiUser();
    client.sendHex("01658004 00000007 fffffffe 0010");
    EXPECT_EQ(m_board.bmmi().receivedHex(), "01707586 00000001 00c0ffee 08371013");
    const auto* transaction = bmmiClient().searchTransactionProcedure(1);
    ASSERT_NE(transaction, nullptr);
    EXPECT_EQ(
        *transaction,
        (BrhClient::ProcedureTransaction{
            .procedureRef = 1, .clientMbox = client.mbox(), .serverRef = -2, .clientRef = 7, .data = 0}));
    m_board.bmmi().sendHex("01707587 00000001 00000065");
    EXPECT_EQ(client.receivedHex(), "01658005 00000007 fffffffe");
    EXPECT_EQ(openTransactions(), 0U);
    m_board.bmmi().sendHex("01707587 00000001 00000065"); // late
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(m_board.traced(
        1, "Cannot find a matching transaction for this SetVisualIndicationCfm with procedureRef 1"));
}

TEST_F(MerlowVisualTest, aRefusedOrderIsAFixedText)
{
    const auto client = mmiUser();
    client.sendHex("01658004 00000007 fffffffe 0010");
    m_board.bmmi().sendHex("01707588 00000001 00000065");
    EXPECT_EQ(client.receivedHex(),
              "01658006 00000007 fffffffe " +
                  rejectTail("See logs to reveal why the BMMI server rejected the request"));
    EXPECT_EQ(openTransactions(), 0U);
    m_board.bmmi().sendHex("01707588 00000001 00000065");
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(m_board.traced(
        1, "Cannot find a matching transaction for this SetVisualIndicationRej with procedureRef 1"));
}

TEST_F(MerlowVisualTest, whoIsNoMmiUserIsToldSoUnlessTheStateIsBad)
{
    const auto client = m_board.connectClient();
    client.sendHex("01658004" + visualReferences + " 0110");
    EXPECT_EQ(client.receivedHex(), "01658006" + visualReferences + " " +
                                        rejectTail("The session has not subscribed as an MMI User: ID=0"));
    client.sendHex("01658004" + visualReferences + " 0312");
    EXPECT_EQ(client.receivedHex(),
              "01658006" + visualReferences + " " + rejectTail("Invalid parameter VisualizedState: 786"));
    EXPECT_TRUE(m_board.bmmi().nothingReceived());
    EXPECT_EQ(openTransactions(), 0U);
}

// GSM clients on units of one family

TEST_F(MerlowVisualTest, onKpxUnitsEveryOrderOfAGsmClientIsConfirmedAndNothingDone)
{
    setProduct("KPX");
    for (const char* serverRef : {"00000064", "00000096", "000000c7"}) {
        m_board.traces().clear();
        const auto client = m_board.connectClient(); // no MMI user
        const std::string references = std::string(" 00000007 ") + serverRef;
        for (const char* state : {" 0000", " 0110", " ffff"}) {
            client.sendHex("01658004" + references + state);
            EXPECT_EQ(client.receivedHex(), "01658005" + references);
        }
        EXPECT_EQ(m_board.traces().count(4, "Disabled Led handling for GSM serverRef:" +
                                                std::to_string(std::stoi(serverRef, nullptr, 16))),
                  3U);
    }
    EXPECT_TRUE(m_board.bmmi().nothingReceived());
    EXPECT_EQ(openTransactions(), 0U);
}

struct VisualOrdinaryRow {
    const char* name;
    const char* serverRef;
    const char* product;
    bool isComplete;
};

class MerlowVisualOrdinaryTest : public MerlowVisualTest, public WithRow<VisualOrdinaryRow> {};

ROW_TEST(MerlowVisualOrdinaryTest, theOrderIsCheckedAndGoesOut)
{
    setProduct(row().product, row().isComplete);
    const auto client = mmiUser({.serverRef = 150}); // the request's own reference counts
    const std::string references = std::string(" 00000007 ") + row().serverRef;
    client.sendHex("01658004" + references + " 0000");
    EXPECT_EQ(client.receivedHex(),
              "01658006" + references + " " + rejectTail("Invalid parameter VisualizedState: 0"));
    client.sendHex("01658004" + references + " 0110");
    EXPECT_EQ(m_board.bmmi().receivedHex(), "01707586 00000001 00c0ffee 08371001");
    EXPECT_TRUE(client.nothingReceived());
}

const VisualOrdinaryRow visualOrdinaryRows[] = {
    {"below", "00000063", "KPX 1", true},        {"above", "000000c8", "KPX 1", true},
    {"negative", "ffffffff", "KPX 1", true},     {"otherFamily", "00000096", "KRU 7", true},
    {"notAtTheStart", "00000096", "AKPX", true}, {"tooShort", "00000096", "KP", true},
    {"unnamed", "00000096", "", true},           {"incomplete", "00000096", "KPX 1", false}};
TEST_ROWS(all, MerlowVisualOrdinaryTest, visualOrdinaryRows);

TEST_F(MerlowVisualTest, onKpxUnitsAGsmClientReadsLikeEverybody)
{
    setProduct("KPX 1");
    const auto client = mmiUser();
    client.sendHex("0165800f 00000007 00000096");
    EXPECT_EQ(m_board.bmmi().receivedHex(), "01707589 00000001 00c0ffee 0837");
    const auto stranger = m_board.newClient();
    stranger.sendHex("01658004 00000007 00000096 0110");
    EXPECT_TRUE(stranger.nothingReceived()) << "a session is needed all the same";
}

// Reading

struct VisualReadRow {
    const char* name;
    std::string body;
    const char* states;
};

class MerlowVisualReadTest : public MerlowVisualTest, public WithRow<VisualReadRow> {};

ROW_TEST(MerlowVisualReadTest, theStatesAreTranslated)
{
    EXPECT_EQ(readBack(mmiUser(), "0165800f", row().body),
              "01658010" + visualReferences + " " + row().states);
}

const VisualReadRow visualReadRows[] = {
    {"nothingTold", "", "00ff00ff 00ff00ff"},
    {"a1", "\x08\x01", "041100ff 00ff00ff"},
    {"a2", "\x08\x02", "041000ff 00ff00ff"},
    {"a3", "\x08\x03", "00ff00ff 00ff00ff"},
    {"b1", "\x10\x01", "00ff0120 00ff00ff"},
    {"b2", "\x10\x02", "00ff0121 00ff00ff"},
    {"b3", "\x10\x03", "00ff0130 00ff00ff"},
    {"b4", "\x10\x04", "00ff0140 00ff00ff"},
    {"b5", "\x10\x05", "00ff0110 00ff00ff"},
    {"b6", "\x10\x06", "00ff0110 00ff00ff"},
    {"b7", "\x10\x07", "00ff0110 00ff00ff"},
    {"b8", "\x10\x08", "00ff00ff 00ff00ff"},
    {"c1", "\x18\x01", "00ff00ff 00ff0311"},
    {"c2", "\x18\x02", "00ff00ff 00ff0310"},
    {"c3", "\x18\x03", "00ff00ff 00ff0331"},
    {"c4", "\x18\x04", "00ff00ff 00ff0320"},
    {"c5", "\x18\x05", "00ff00ff 00ff0313"},
    {"c6", "\x18\x06", "00ff00ff 00ff0312"},
    {"c7", "\x18\x07", "00ff00ff 00ff00ff"},
    {"d1", "\x20\x01", "00ff00ff 000100ff"},
    {"d2", "\x20\x02", "00ff00ff 000400ff"},
    {"d3", "\x20\x03", "00ff00ff 00ff00ff"},
    {"all", "\x08\x01\x10\x02\x18\x05\x20\x02", "04110121 00040313"},
    {"beyondTheSchema", "\x08\x63\x10\x63\x18\x63\x20\x63", "00ff00ff 00ff00ff"}};
TEST_ROWS(all, MerlowVisualReadTest, visualReadRows);

TEST_F(MerlowVisualTest, theSpecialIndicatorIsListedWhenItsStateIsKnown)
{
    const auto client = mmiUser();
    const std::string one = "01659a01" + visualReferences +
                            " 00000001"
                            // "Support Unit Fault Indicator" in 128 bytes
                            " 53757070 6f727420 556e6974 20466175 6c742049 6e646963 61746f72";
    std::string rest;
    for (int i = 28; i < 128; i += 4) {
        rest += " 00000000";
    }
    EXPECT_EQ(readBack(client, "01659a00", "\x20\x01"), one + rest + " 00010000");
    EXPECT_EQ(readBack(client, "01659a00", "\x08\x01\x20\x02"), one + rest + " 00040000");
    EXPECT_TRUE(m_board.traces().has(5, "TARN_BC_GET_SPECIAL_INDICATOR_CFM with 1 special indicators"));
    m_board.traces().clear();
    for (const char* body : {"", "\x20\x03", "\x20\x63", "\x08\x01\x10\x01\x18\x01"}) {
        EXPECT_EQ(readBack(client, "01659a00", body), "01659a01" + visualReferences + " 00000000");
    }
    EXPECT_EQ(m_board.traces().count(5, "TARN_BC_GET_SPECIAL_INDICATOR_CFM with 0 special indicators"), 4U);
}

TEST_F(MerlowVisualTest, eachClientIsToldWhatItAskedFor)
{
    const auto first = mmiUser();
    const auto second = mmiUser();
    first.sendHex("0165800f 00000001 0000012c");
    second.sendHex("01659a00 00000002 0000012d");
    EXPECT_EQ(m_board.bmmi().receivedHex(), "01707589 00000001 00c0ffee 0837");
    EXPECT_EQ(m_board.bmmi().receivedHex(), "01707589 00000002 00c0ffee 0837");
    m_board.bmmi().sendHex("0170758a 00000002 00000065");
    EXPECT_TRUE(first.nothingReceived());
    EXPECT_EQ(second.receivedHex(), "01659a01 00000002 0000012d 00000000");
    m_board.bmmi().sendHex("0170758a 00000001 00000065 2002");
    EXPECT_EQ(first.receivedHex(), "01658010 00000001 0000012c 00ff00ff 000400ff");
    EXPECT_TRUE(second.nothingReceived());
}

TEST_F(MerlowVisualTest, anAnswerToAnotherRequestIsTracedAndEndsIt)
{
    const auto client = mmiUser();
    client.sendHex("01658004" + visualReferences + " 0110");
    m_board.bmmi().sendHex("0170758a 00000001 00000065 2002");
    EXPECT_TRUE(m_board.traced(
        4, "ABN: Unrecognized message number stored in transaction from GetVisualIndicationCfm"));
    EXPECT_EQ(openTransactions(), 0U);
    client.sendHex("01658004" + visualReferences + " 0110");
    m_board.bmmi().sendHex("0170758b 00000002 00000065");
    EXPECT_EQ(openTransactions(), 0U);
    EXPECT_TRUE(client.nothingReceived());
}

struct VisualReadRequest {
    const char* name;
    const char* request;
    const char* reject;
    std::uint32_t number;
};

class MerlowVisualReadRequestTest : public MerlowVisualTest, public WithRow<VisualReadRequest> {};

ROW_TEST(MerlowVisualReadRequestTest, leavesATransactionOfItsOwnNumber)
{
    const auto client = mmiUser();
    client.sendHex(row().request + visualReferences);
    const auto* transaction = bmmiClient().searchTransactionProcedure(1);
    ASSERT_NE(transaction, nullptr);
    EXPECT_EQ(*transaction, (BrhClient::ProcedureTransaction{.procedureRef = 1,
                                                             .clientMbox = client.mbox(),
                                                             .serverRef = 300,
                                                             .clientRef = 7,
                                                             .data = row().number}));
}

ROW_TEST(MerlowVisualReadRequestTest, isRejectedToWhoIsNoMmiUser)
{
    const auto client = m_board.connectClient();
    client.sendHex(row().request + visualReferences);
    EXPECT_EQ(client.receivedHex(), row().reject + visualReferences + " " +
                                        rejectTail("The session has not subscribed as an MMI User"));
    EXPECT_TRUE(m_board.bmmi().nothingReceived());
}

ROW_TEST(MerlowVisualReadRequestTest, isRejectedWhenTheBoardRefuses)
{
    const auto client = mmiUser();
    client.sendHex(row().request + visualReferences);
    m_board.bmmi().sendHex("0170758b 00000001 00000065");
    EXPECT_EQ(client.receivedHex(),
              row().reject + visualReferences + " " + rejectTail("Interaction failure"));
    EXPECT_EQ(openTransactions(), 0U);
    m_board.bmmi().sendHex("0170758b 00000001 00000065"); // late
    m_board.bmmi().sendHex("0170758a 00000001 00000065");
    EXPECT_TRUE(client.nothingReceived());
    for (const char* answer : {"Rej", "Cfm"}) {
        EXPECT_TRUE(
            m_board.traced(1, std::string("Cannot find a matching transaction for this GetVisualIndication") +
                                  answer + " with procedureRef 1"));
    }
}

const VisualReadRequest visualReadRequests[] = {{"states", "0165800f", "01658011", 0x165800F},
                                                {"special", "01659a00", "01659a02", 0x1659A00}};
TEST_ROWS(all, MerlowVisualReadRequestTest, visualReadRequests);

// All alike

struct VisualRequest {
    const char* name;
    const char* request;
    const char* bmmiName; ///< without Req
};

class MerlowVisualRequestTest : public MerlowVisualTest, public WithRow<VisualRequest> {};

ROW_TEST(MerlowVisualRequestTest, aStrangerGetsNoAnswer)
{
    const auto stranger = m_board.newClient();
    stranger.sendHex(row().request);
    EXPECT_TRUE(
        m_board.traced(4, "ABN: There is no session for the received message " + hexOf(stranger.mbox())));
    EXPECT_TRUE(stranger.nothingReceived());
    EXPECT_TRUE(m_board.bmmi().nothingReceived());
}

ROW_TEST(MerlowVisualRequestTest, withoutABackendThereIsNoAnswer)
{
    const auto client = mmiUser();
    m_board.bmmi().stop();
    client.sendHex(row().request);
    EXPECT_TRUE(
        m_board.traced(1, std::string("Cannot send bmmi::") + row().bmmiName + "Req to the BMMI server"));
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(openTransactions(), 0U);
}

ROW_TEST(MerlowVisualRequestTest, isReadAtEveryLength)
{
    expectReadAtEveryLength(mmiUser(), row().request);
}

const VisualRequest visualRequests[] = {{"set", "01658004 00000007 0000012c 0110", "SetVisualIndication"},
                                        {"get", "0165800f 00000007 0000012c", "GetVisualIndication"},
                                        {"special", "01659a00 00000007 0000012c", "GetVisualIndication"}};
TEST_ROWS(all, MerlowVisualRequestTest, visualRequests);

struct VisualAnswer {
    const char* name;
    const char* request;
    std::uint32_t number;
    const char* traced; ///< without the mailbox
    bool isHex;         ///< how the mailbox is told
};

class MerlowVisualAnswerTest : public MerlowVisualTest, public WithRow<VisualAnswer> {};

ROW_TEST(MerlowVisualAnswerTest, afterTheSessionFindsTheTransactionAndNobody)
{
    const auto client = mmiUser();
    client.sendHex(row().request);
    m_board.endSession(client);
    EXPECT_EQ(openTransactions(), 1U);
    m_board.bmmi().sendBody(row().number, 1, "");
    EXPECT_TRUE(m_board.traced(4, std::string("ABN: Cannot find a matching session for this ") +
                                      row().traced + " with mailbox " +
                                      (row().isHex ? hexOf(client.mbox()) : std::to_string(client.mbox()))));
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(openTransactions(), 0U);
}

ROW_TEST(MerlowVisualAnswerTest, isReadAtEveryLength)
{
    const auto client = mmiUser();
    client.sendHex(row().request);
    expectDroppedAtEveryLength(row().number, row().name, 1);
    EXPECT_TRUE(client.nothingReceived());
}

const VisualAnswer visualAnswers[] = {
    {"SetVisualIndicationCfm", "01658004 00000007 0000012c 0110", 0x1707587, "GetVisualIndicationCfm", false},
    {"SetVisualIndicationRej", "01658004 00000007 0000012c 0110", 0x1707588, "GetVisualIndicationCfm", false},
    {"GetVisualIndicationCfm", "0165800f 00000007 0000012c", 0x170758A, "GetVisualIndicationCfm", true},
    {"GetVisualIndicationRej", "0165800f 00000007 0000012c", 0x170758B, "GetVisualIndicationRej", true}};
TEST_ROWS(all, MerlowVisualAnswerTest, visualAnswers);

} // namespace
