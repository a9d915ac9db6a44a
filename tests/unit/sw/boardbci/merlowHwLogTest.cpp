#include "merlowHwLog.h"
#include "rowTest.h"

#include "board.h"
#include "bri.pb.h"

#include <gmock/gmock.h>
#include <sstream>

namespace {

namespace bri = boardresourcehandler::bri;
using support::Bytes;
using support::rejectTail;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string hwLogReferences = " 00000007 0000012c ";

/// `text` and zeros, `size` bytes in all.
std::string zeroPadded(std::string text, std::size_t size)
{
    text.resize(size);
    return text;
}

std::string zerosHex(std::size_t count)
{
    return std::string(2 * count, '0');
}

/// Hexadecimal in the groups in which messages are told.
std::string grouped(const std::string& hex)
{
    return support::messageToHex(support::messageFromHex(hex));
}

/// A reject with that text, whatever its code.
std::string hwLogReject(const char* number, const char* errorCode, const std::string& text)
{
    std::string tail = rejectTail(text);
    tail.replace(0, 4, errorCode);
    return number + hwLogReferences + tail;
}

class MerlowHwLogTest : public testing::Test {
protected:
    MerlowHwLogTest() { m_board.add<MerlowHwLog>(); }

    [[nodiscard]] BrhClient& briClient() { return m_board.commonData().getBriClient(); }
    [[nodiscard]] std::size_t openTransactions() { return briClient().getNumTransactions(); }
    [[nodiscard]] std::string traceOfNoSession(const support::VirtualClient& client, const char* ignored)
    {
        std::ostringstream text;
        text << "ABN: Merlow has no session for mailbox 0x" << std::hex << client.mbox() << ". Ignoring "
             << ignored << ".";
        return text.str();
    }
    /// A request to write with references 7 and 300.
    static Bytes setReq(std::uint32_t logId, std::uint32_t length, const std::string& entries,
                        const std::string& label = "label")
    {
        Bytes bytes = support::messageFromHex("0165920a" + hwLogReferences);
        const std::string paddedLabel = zeroPadded(label, 16);
        bytes.insert(bytes.end(), paddedLabel.begin(), paddedLabel.end());
        for (const std::uint32_t value : {logId, length}) {
            for (const unsigned int shift : {24U, 16U, 8U, 0U}) {
                bytes.push_back(static_cast<std::uint8_t>(value >> shift));
            }
        }
        const std::string area = zeroPadded(entries, std::max<std::size_t>(entries.size(), 424));
        bytes.insert(bytes.end(), area.begin(), area.end());
        return bytes;
    }
    static std::vector<std::string> entriesOf(const bri::HwLogSetReq& req)
    {
        return {req.entries().begin(), req.entries().end()};
    }

    support::Board m_board;
};

// Reading

TEST_F(MerlowHwLogTest, aRequestToReadGoesOutWithWhateverLogItNames)
{
    const auto client = m_board.connectClient();
    client.sendHex("0165920d 00000007 fffffffe ffffffff");
    EXPECT_EQ(m_board.bri().receivedHex(), "01707750 00000001 00c0ffee 08ffffff ff0f");
    const auto* transaction = briClient().searchTransactionProcedure(1);
    ASSERT_NE(transaction, nullptr);
    EXPECT_EQ(*transaction, (BrhClient::ProcedureTransaction{.procedureRef = 1,
                                                             .clientMbox = client.mbox(),
                                                             .serverRef = -2,
                                                             .clientRef = 7,
                                                             .data = 0x165920D}));
    EXPECT_TRUE(client.nothingReceived());
}

TEST_F(MerlowHwLogTest, entriesAreReadOneBehindTheOther)
{
    const auto client = m_board.connectClient();
    client.sendHex("0165920d 00000007 fffffffe 00000005");
    const auto briReq = m_board.bri().expect<bri::HwLogGetReq>();
    EXPECT_EQ(briReq.message.log_id(), 5U);
    bri::HwLogGetCfm cfm;
    cfm.add_entries("one");
    cfm.add_entries("");
    cfm.add_entries("two");
    m_board.bri().answer(briReq, cfm);
    EXPECT_EQ(client.receivedHex(),
              grouped("0165920e 00000007 fffffffe 00000003 6f6e6500 00 74776f00" + zerosHex(415)));
    EXPECT_EQ(openTransactions(), 0U);

    m_board.bri().answer(briReq, cfm); // late
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(m_board.traced(1, "BriHwLogGetCfm:: missing transaction for the provided procedureRef!"));
}

struct HwLogFitRow {
    const char* name;
    std::vector<std::string> entries;
    std::uint32_t length;
    std::string packed; ///< up to the zeros
};

class MerlowHwLogFitTest : public MerlowHwLogTest, public WithRow<HwLogFitRow> {};

ROW_TEST(MerlowHwLogFitTest, theAnswerEndsWithTheLastEntryThatFits)
{
    const auto client = m_board.connectClient();
    client.sendHex("0165920d 00000007 0000012c 00000005");
    bri::HwLogGetCfm cfm;
    for (const std::string& entry : row().entries) {
        cfm.add_entries(entry);
    }
    m_board.bri().answer(m_board.bri().expect<bri::HwLogGetReq>(), cfm);
    const auto received = client.receive();
    ASSERT_TRUE(received);
    ASSERT_EQ(received->bytes.size(), 440U);
    EXPECT_EQ(received->msgNo, 0x165920EU);
    EXPECT_EQ(support::wordAt(received->bytes, 12), row().length);
    EXPECT_EQ(std::string(received->bytes.begin() + 16, received->bytes.end()),
              zeroPadded(row().packed, 424));
    EXPECT_EQ(m_board.traces().count(4, "ABN: HwLogGetCfm: only " + std::to_string(row().length) + " of " +
                                            std::to_string(row().entries.size()) +
                                            " entries fit into TARN_BC_HWLOG_GET_CFM"),
              row().length < row().entries.size() ? 1U : 0U);
    EXPECT_EQ(openTransactions(), 0U);
}

const HwLogFitRow hwLogFitRows[] = {
    {"none", {}, 0, ""},
    {"emptyOnes", {"", "", "a", ""}, 4, std::string("\0\0a", 3)},
    {"justFits", {std::string(423, 'x')}, 1, std::string(423, 'x')},
    {"oneTooLong", {std::string(424, 'x')}, 0, ""},
    {"muchTooLong", {std::string(100000, 'x')}, 0, ""},
    {"nothingBehindOneThatDoesNotFit", {"a", std::string(424, 'x'), "b"}, 1, "a"},
    {"twoFillItAndAnEmptyOneIsTooMuch",
     {std::string(200, 'x'), std::string(222, 'y'), ""},
     2,
     std::string(200, 'x') + '\0' + std::string(222, 'y')},
    {"asManyAsThereAreBytes", std::vector<std::string>(425, ""), 424, ""},
    {"anEntryEndsWithItsFirstNul", {std::string("a\0b", 3), "c"}, 2, std::string("a\0c", 3)}};
TEST_ROWS(all, MerlowHwLogFitTest, hwLogFitRows);

struct HwLogGetRejectRow {
    bri::HwLogGetRej::ErrorType errorType;
    const char* errorCode;
    const char* text;
};

class MerlowHwLogGetRejectTest : public MerlowHwLogTest, public WithRow<HwLogGetRejectRow> {};

ROW_TEST(MerlowHwLogGetRejectTest, isTranslated)
{
    const auto client = m_board.connectClient();
    client.sendHex("0165920d 00000007 0000012c 00000005");
    const auto briReq = m_board.bri().expect<bri::HwLogGetReq>();
    bri::HwLogGetRej rej;
    rej.set_errortype(row().errorType);
    m_board.bri().answer(briReq, rej);
    EXPECT_EQ(client.receivedHex(), hwLogReject("0165920f", row().errorCode, row().text));
    EXPECT_EQ(openTransactions(), 0U);

    m_board.traces().clear();
    m_board.bri().answer(briReq, rej); // late
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_FALSE(m_board.traces().contains(1, "") || m_board.traces().contains(4, ""))
        << m_board.traces().dump();
}

const HwLogGetRejectRow hwLogGetRejectRows[] = {
    {bri::HwLogGetRej::LOG_ID_OUT_OF_RANGE, "0002", "logId out of range"},
    {bri::HwLogGetRej::READ_FAILED, "0001", "Reading from HW log has failed"},
    {bri::HwLogGetRej::UNKNOWN, "0001", "ABN: Unknown ErrorCode!"}};
TEST_ROWS(all, MerlowHwLogGetRejectTest, hwLogGetRejectRows,
          [](const auto& row) { return bri::HwLogGetRej::ErrorType_Name(row.errorType); });

TEST_F(MerlowHwLogTest, aRejectWithoutItsReasonIsIgnoredAndTheRequestStaysOpen)
{
    const auto client = m_board.connectClient();
    client.sendHex("0165920d 00000007 0000012c 00000005");
    for (const char* body : {"", "\x08\x07"}) { // the latter is a value that the schema does not have
        SCOPED_TRACE(body);
        m_board.traces().clear();
        m_board.bri().sendBody(0x1707752, 1, body);
        EXPECT_TRUE(m_board.traced(1, "BriHwLogGetRej missing errorType! Ignoring signal!"));
        EXPECT_TRUE(client.nothingReceived());
        EXPECT_EQ(openTransactions(), 1U);
    }
    m_board.bri().sendHex("01707751 00000001 00000064");
    EXPECT_EQ(client.receivedHex(), grouped("0165920e 00000007 0000012c 00000000" + zerosHex(424)));
    EXPECT_EQ(openTransactions(), 0U);
}

TEST_F(MerlowHwLogTest, anAnswerToReadAfterTheSessionLeavesTheRequestOpen)
{
    const auto client = m_board.connectClient();
    client.sendHex("0165920d 00000007 0000012c 00000005");
    m_board.endSession(client);
    m_board.bri().sendHex("01707751 00000001 00000064");
    EXPECT_TRUE(m_board.traced(4, "ABN: BriHwLogGetCfm:: cannot find BC session for the provided mboxID!"));
    m_board.bri().sendHex("01707752 00000001 00000064"); // before its missing reason is looked at
    EXPECT_TRUE(m_board.traced(4, "ABN: BriHwLogGetRej:: cannot find BC session for the provided mboxID!"));
    EXPECT_FALSE(m_board.traces().has(1, "BriHwLogGetRej missing errorType! Ignoring signal!"));
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(openTransactions(), 1U);
}

TEST_F(MerlowHwLogTest, aStrangersRequestReachesBriAndItsAnswerNobody)
{
    const auto stranger = m_board.newClient();
    stranger.sendHex("0165920d 00000007 0000012c 00000005");
    EXPECT_EQ(m_board.bri().receivedHex(), "01707750 00000001 00c0ffee 0805");
    m_board.bri().sendHex("01707751 00000001 00000064");
    EXPECT_TRUE(m_board.traced(4, "ABN: BriHwLogGetCfm:: cannot find BC session for the provided mboxID!"));
    EXPECT_TRUE(stranger.nothingReceived());
    EXPECT_EQ(openTransactions(), 1U);
}

TEST_F(MerlowHwLogTest, aStrangerCannotFillTheServer)
{
    const auto stranger = m_board.newClient();
    for (std::size_t i = 0; i < BrhClient::maxAbandonedTransactions + 3; ++i) {
        stranger.sendHex("0165920d 00000007 0000012c 00000005");
    }
    EXPECT_EQ(openTransactions(), BrhClient::maxAbandonedTransactions);
    EXPECT_EQ(briClient().searchTransactionProcedure(3), nullptr) << "the oldest go";
    EXPECT_NE(briClient().searchTransactionProcedure(4), nullptr);
}

TEST_F(MerlowHwLogTest, rejectsWithoutReasonCannotFillTheServer)
{
    const auto client = m_board.connectClient();
    for (std::uint32_t ref = 1; ref <= BrhClient::maxAbandonedTransactions + 3; ++ref) {
        client.sendHex("0165920d 00000007 0000012c 00000005");
        m_board.bri().sendBody(0x1707752, ref, "");
    }
    EXPECT_EQ(openTransactions(), BrhClient::maxAbandonedTransactions);
}

TEST_F(MerlowHwLogTest, aRequestToReadIsReadAtEveryLength)
{
    const auto client = m_board.connectClient();
    const Bytes whole = support::messageFromHex("0165920d 00000007 0000012c 00000005 deadbeef");
    for (std::size_t size = 4; size <= whole.size(); ++size) {
        SCOPED_TRACE(size);
        m_board.traces().clear();
        client.sendToServer({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)});
        if (size < 16) {
            EXPECT_TRUE(m_board.bri().nothingReceived());
            EXPECT_TRUE(m_board.traces().contains(4, "too short: " + std::to_string(size) + " of 16 bytes"));
        } else {
            EXPECT_EQ(m_board.bri().expect<bri::HwLogGetReq>().message.log_id(), 5U);
        }
    }
    EXPECT_TRUE(client.nothingReceived());
}

// Writing

TEST_F(MerlowHwLogTest, entriesToWriteGoOutInTheirOrder)
{
    const auto client = m_board.connectClient();
    client.sendHex("0165920a 00000007 fffffffe 6c616265 6c000000 00000000 00000000 000003e7 00000002"
                   "66697273 74007365 636f6e64" +
                   zerosHex(412));
    EXPECT_EQ(m_board.bri().receivedHex(),
              "0170774d 00000001 00c0ffee 0a056c61 62656c10 e7071a05 66697273 741a0673 65636f6e 64");
    const auto* transaction = briClient().searchTransactionProcedure(1);
    ASSERT_NE(transaction, nullptr);
    EXPECT_EQ(*transaction, (BrhClient::ProcedureTransaction{.procedureRef = 1,
                                                             .clientMbox = client.mbox(),
                                                             .serverRef = -2,
                                                             .clientRef = 7,
                                                             .data = 0x165920A}));
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(m_board.traces().has(6, "HW Log #1/2: \"first\" (size 5)"));
    EXPECT_TRUE(m_board.traces().has(6, "HW Log #2/2: \"second\" (size 6)"));
}

TEST_F(MerlowHwLogTest, theNodeConfigurationGoesOutWithTheClientsReference)
{
    const auto client = m_board.connectClient();
    client.sendToServer(setReq(2, 1, "first"));
    EXPECT_EQ(m_board.bri().receivedHex(),
              "01707764 00000001 00c0ffee 0a056c61 62656c10 0218ac02 22056669 727374");
    const auto* transaction = briClient().searchTransactionProcedure(1);
    ASSERT_NE(transaction, nullptr);
    EXPECT_EQ(transaction->data, 0x165920AU);
}

TEST_F(MerlowHwLogTest, noEntriesAreWrittenToo)
{
    const auto client = m_board.connectClient();
    client.sendToServer(setReq(0, 0, "these are not looked at", ""));
    EXPECT_EQ(m_board.bri().receivedHex(), "0170774d 00000001 00c0ffee 0a001000");
    client.sendToServer(setReq(2, 0, "", ""));
    EXPECT_EQ(m_board.bri().receivedHex(), "01707764 00000002 00c0ffee 0a001002 18ac02");
}

TEST_F(MerlowHwLogTest, aLabelEndsWithItsField)
{
    const auto client = m_board.connectClient();
    client.sendToServer(setReq(0x0A, 0, "", "0123456789abcdef"));
    EXPECT_EQ(m_board.bri().expect<bri::HwLogSetReq>().message.log_label(), "0123456789abcdef");
    client.sendToServer(setReq(0x0A, 0, "", std::string("ab\0cd", 5)));
    EXPECT_EQ(m_board.bri().expect<bri::HwLogSetReq>().message.log_label(), "ab");
}

TEST_F(MerlowHwLogTest, theLastTextEndsWithTheSignal)
{
    const auto client = m_board.connectClient();
    client.sendToServer(setReq(5, 1, std::string(424, 'x')));
    EXPECT_THAT(entriesOf(m_board.bri().expect<bri::HwLogSetReq>().message),
                ElementsAre(std::string(424, 'x')));
    client.sendToServer(setReq(5, 1, std::string(430, 'x'))); // a longer signal
    EXPECT_THAT(entriesOf(m_board.bri().expect<bri::HwLogSetReq>().message),
                ElementsAre(std::string(430, 'x')));
}

struct HwLogSetRejectRow {
    const char* name;
    std::uint32_t logId;
    std::uint32_t length;
    std::string entries;
    std::size_t size;
    const char* errorCode;
    const char* text;
};

class MerlowHwLogSetRejectTest : public MerlowHwLogTest, public WithRow<HwLogSetRejectRow> {};

ROW_TEST(MerlowHwLogSetRejectTest, comesAtOnce)
{
    const auto client = m_board.connectClient();
    auto req = setReq(row().logId, row().length, row().entries);
    req.resize(row().size);
    client.sendToServer(req);
    EXPECT_EQ(client.receivedHex(), hwLogReject("0165920c", row().errorCode, row().text));
    EXPECT_TRUE(m_board.bri().nothingReceived());
    EXPECT_EQ(openTransactions(), 0U);
}

const HwLogSetRejectRow hwLogSetRejectRows[] = {
    {"logId", 1000, 1, "a", 460, "0002", "logId out of range,logId:1000"},
    {"largestLogId", 0xFFFFFFFF, 1, "a", 460, "0002", "logId out of range,logId:4294967295"},
    {"logIdBeforeSize", 1000, 1, "a", 32, "0002", "logId out of range,logId:1000"},
    {"logIdBeforeCount", 1000, 9, "a", 460, "0002", "logId out of range,logId:1000"},
    {"aCutLogIdIsZero", 0xFFFFFFFF, 1, "a", 31, "0001",
     "input signal (size=31) is too small to be a TarnBcHwLogSetReqS (size=460)"},
    {"size", 999, 1, "a", 459, "0001",
     "input signal (size=459) is too small to be a TarnBcHwLogSetReqS (size=460)"},
    {"sizeBeforeCount", 999, 9, "a", 459, "0001",
     "input signal (size=459) is too small to be a TarnBcHwLogSetReqS (size=460)"},
    {"count", 999, 2, "a", 460, "0001", "length field of 2 is different from the number of entries 0"},
    {"largestCount", 2, 0xFFFFFFFF, "a", 460, "0001",
     "length field of 4294967295 is different from the number of entries 0"}};
TEST_ROWS(all, MerlowHwLogSetRejectTest, hwLogSetRejectRows);

TEST_F(MerlowHwLogTest, aRequestToWriteIsAnsweredFromItsReferencesOn)
{
    const auto client = m_board.connectClient();
    const Bytes whole = setReq(5, 1, "a");
    for (std::size_t size = 4; size < 460; ++size) {
        SCOPED_TRACE(size);
        m_board.traces().clear();
        client.sendToServer({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)});
        if (size < 12) {
            EXPECT_TRUE(m_board.traces().contains(4, "too short: " + std::to_string(size) + " of 12 bytes"));
            EXPECT_TRUE(client.nothingReceived());
        } else {
            EXPECT_EQ(client.receivedHex(),
                      hwLogReject("0165920c", "0001",
                                  "input signal (size=" + std::to_string(size) +
                                      ") is too small to be a TarnBcHwLogSetReqS (size=460)"));
        }
    }
    EXPECT_TRUE(m_board.bri().nothingReceived());
}

TEST_F(MerlowHwLogTest, aStrangerMayNotWrite)
{
    const auto stranger = m_board.newClient();
    for (const std::size_t size : {4U, 12U, 460U}) {
        m_board.traces().clear();
        auto req = setReq(1000, 1, "a");
        req.resize(size);
        stranger.sendToServer(req);
        EXPECT_TRUE(m_board.traced(4, traceOfNoSession(stranger, "TARN_BC_HWLOG_SET_REQ")));
        EXPECT_TRUE(stranger.nothingReceived());
    }
    EXPECT_TRUE(m_board.bri().nothingReceived());
}

TEST_F(MerlowHwLogTest, withoutBriThereIsNoAnswer)
{
    const auto client = m_board.connectClient();
    m_board.bri().stop();
    client.sendToServer(setReq(5, 1, "a"));
    client.sendToServer(setReq(2, 1, "a"));
    client.sendHex("0165920d 00000007 0000012c 00000005");
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(openTransactions(), 0U);
}

struct HwLogSetAnswerRow {
    const char* briName;
    std::uint32_t logId;
    std::uint32_t number;
    const char* answerName;
    bool isConfirm;
};

class MerlowHwLogSetAnswerTest : public MerlowHwLogTest, public WithRow<HwLogSetAnswerRow> {};

ROW_TEST(MerlowHwLogSetAnswerTest, reachesTheClientAndEndsTheRequest)
{
    const auto client = m_board.connectClient();
    client.sendToServer(setReq(row().logId, 1, "a"));
    m_board.bri().sendBody(row().number, 1, "\x08"); // unreadable
    EXPECT_TRUE(m_board.traced(1, std::string("Unable to parse GPB message boardresourcehandler.bri.") +
                                      row().briName + " of size 13 bytes"));
    EXPECT_EQ(openTransactions(), 1U);
    EXPECT_TRUE(client.nothingReceived());
    m_board.bri().sendBody(row().number, 1, "");
    EXPECT_EQ(client.receivedHex(),
              row().isConfirm ? "0165920b 00000007 0000012c" : hwLogReject("0165920c", "0001", ""));
    EXPECT_EQ(openTransactions(), 0U);

    m_board.bri().sendBody(row().number, 1, ""); // late
    EXPECT_TRUE(
        m_board.traced(4, std::string("ABN: No BRI transaction was found for procedureRef: 1. Ignoring ") +
                              row().briName + "."));
    EXPECT_TRUE(client.nothingReceived());
}

ROW_TEST(MerlowHwLogSetAnswerTest, afterTheSessionEndsTheRequestToo)
{
    const auto client = m_board.connectClient();
    client.sendToServer(setReq(row().logId, 1, "a"));
    m_board.endSession(client);
    m_board.bri().sendBody(row().number, 1, "");
    EXPECT_TRUE(m_board.traced(4, traceOfNoSession(client, row().answerName)));
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(openTransactions(), 0U);
}

const HwLogSetAnswerRow hwLogSetAnswerRows[] = {
    {"HwLogSetCfm", 5, 0x170774E, "TARN_BC_HWLOG_SET_CFM", true},
    {"HwLogSetRej", 5, 0x170774F, "TARN_BC_HWLOG_SET_REJ", false},
    {"StoreNodeConfigEntryCfm", 2, 0x1707765, "TARN_BC_HWLOG_SET_CFM", true},
    {"StoreNodeConfigEntryRej", 2, 0x1707766, "TARN_BC_HWLOG_SET_REJ", false}};
TEST_ROWS(all, MerlowHwLogSetAnswerTest, hwLogSetAnswerRows, [](const auto& row) { return row.briName; });

TEST_F(MerlowHwLogTest, unreadableAnswersToReadLeaveTheRequestOpen)
{
    const auto client = m_board.connectClient();
    client.sendHex("0165920d 00000007 0000012c 00000005");
    for (const auto& [number, name] :
         {std::pair(0x1707751U, "HwLogGetCfm"), std::pair(0x1707752U, "HwLogGetRej")}) {
        m_board.bri().sendBody(number, 1, "\x0A");
        EXPECT_TRUE(m_board.traced(1, std::string("Unable to parse GPB message boardresourcehandler.bri.") +
                                          name + " of size 13 bytes"));
        const auto frame = support::makeFrame(number, 1, 100, "");
        m_board.traces().clear();
        m_board.bri().sendBytes({frame.begin(), frame.end() - 1});
        EXPECT_TRUE(m_board.traces().contains(4, " is too short: 11 of 12 bytes"));
    }
    EXPECT_EQ(openTransactions(), 1U);
    EXPECT_TRUE(client.nothingReceived());
}

TEST_F(MerlowHwLogTest, twoClientsGetTheirOwnAnswers)
{
    const auto writer = m_board.connectClient();
    const auto reader = m_board.connectClient();
    writer.sendToServer(setReq(5, 1, "a"));
    reader.sendHex("0165920d 00000009 0000012e 00000005");
    m_board.bri().sendHex("01707751 00000002 00000064 0a0161");
    EXPECT_TRUE(writer.nothingReceived());
    EXPECT_EQ(reader.receivedHex(), grouped("0165920e 00000009 0000012e 00000001 6100" + zerosHex(422)));
    m_board.bri().sendHex("0170774e 00000001 00000064");
    EXPECT_EQ(writer.receivedHex(), "0165920b 00000007 0000012c");
    EXPECT_TRUE(reader.nothingReceived());
}

// The packed entries

struct HwLogDataRow {
    const char* name;
    std::uint32_t length;
    std::string area; ///< zeros behind it up to 424 bytes
    std::vector<std::string> entries;
    bool isMalformed = false;
};

class HwLogDataTest : public MerlowHwLogTest, public WithRow<HwLogDataRow> {};

ROW_TEST(HwLogDataTest, isUnpacked)
{
    const std::string whole = zeroPadded(row().area, std::max<std::size_t>(row().area.size(), 424));
    const std::vector<char> area(whole.begin(), whole.end()); // with nothing behind its end
    EXPECT_EQ(getHwLogData(row().length, {area.data(), area.size()}), row().entries);
    EXPECT_EQ(m_board.traces().contains(4, "ABN: Malformed HwLog data can't find all " +
                                               std::to_string(row().length) + " entries: \""),
              row().isMalformed);
}

std::string repeatedText(const std::string& text, int times)
{
    std::string all;
    while (times-- > 0) {
        all += text;
    }
    return all;
}

const HwLogDataRow hwLogDataRows[] = {
    {"noneWanted", 0, "abc", {}},
    {"one", 1, "abc", {"abc"}},
    {"threeOfFour", 3, std::string("a\0b\0c\0d", 7), {"a", "b", "c"}},
    {"twoOfThree", 3, std::string("a\0b\0\0d", 6), {}, true},
    {"firstIsEmpty", 1, std::string("\0abc", 4), {}, true},
    {"nothing", 1, "", {}, true},
    {"farTooMany", 0xFFFFFFFF, "abc", {}, true},
    {"asManyAsCanBe", 212, repeatedText(std::string("a\0", 2), 212), std::vector<std::string>(212, "a")},
    {"oneMoreThanCanBe", 213, repeatedText(std::string("a\0", 2), 212), {}, true},
    {"oneMoreThanCanBeInALongerSignal", 213, repeatedText(std::string("a\0", 2), 213), {}, true},
    {"fullWithoutNul", 1, std::string(424, 'x'), {std::string(424, 'x')}},
    {"fullWithoutNulWantsMore", 2, std::string(424, 'x'), {}, true},
    {"runsOnToTheNul", 1, std::string(426, 'x') + '\0' + "y", {std::string(426, 'x')}},
    {"runsOnToTheEnd", 1, std::string(430, 'x'), {std::string(430, 'x')}},
    {"beginsAtTheLastByte", 2, std::string(422, 'x') + '\0' + 'y', {std::string(422, 'x'), "y"}},
    {"beginsBehindTheLastByte", 2, std::string(423, 'x') + '\0' + "yy", {}, true}};
TEST_ROWS(all, HwLogDataTest, hwLogDataRows);

TEST_F(MerlowHwLogTest, malformedEntriesAreTracedWithControlCharactersAsNumbers)
{
    const std::string area = zeroPadded("a \x1f\x01\n\x7f\x80\"", 424) + "not part of it";
    EXPECT_THAT(getHwLogData(2, area), IsEmpty());
    EXPECT_TRUE(
        m_board.traced(4, "ABN: Malformed HwLog data can't find all 2 entries: \"a \\31\\1\\10\x7f\x80\"" +
                              repeatedText("\\0", 416) + "\""));
}

} // namespace
