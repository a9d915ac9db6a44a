#include "bci/bciMmi.h"
#include "bci/bciSoftware.h"
#include "bci/bciState.h"
#include "bci/bciTime.h"
#include "coreFixture.h"

#include <set>

namespace {

using core::InMemoryTest;
using support::Bytes;

class BciRecordTest : public InMemoryTest {
protected:
    template <class R> static std::string wireOf(const R& record)
    {
        const MnetMsgPtr msg = toMessage(record);
        Bytes bytes(mnet_size(msg.get()));
        std::memcpy(bytes.data(), msg.get(), bytes.size());
        return support::messageToHex(bytes);
    }
    static MnetMsgPtr message(const std::string& hex)
    {
        const Bytes bytes = support::messageFromHex(hex);
        MnetMsgPtr msg = allocMsg(bytes.size(), 0);
        std::memcpy(msg.get(), bytes.data(), bytes.size());
        return msg;
    }
};

struct Expected {
    std::uint32_t number;
    const char* name;
    std::size_t size;
};

TEST(BciSignalTable, holdsNumberNameAndSizeOfEachSignal)
{
    const Expected rows[] = {
        {0x1658000, "TARN_BC_CONN_ESTABLISH_REQ", 16},
        {0x1658001, "TARN_BC_CONN_ESTABLISH_CFM", 12},
        {0x1658002, "TARN_BC_CONN_ESTABLISH_REJ", 132},
        {0x165800A, "TARN_BC_SUBSCRIBE_FAULTS_REQ", 12},
        {0x165800B, "TARN_BC_SUBSCRIBE_FAULTS_CFM", 12},
        {0x165800D, "TARN_BC_FAULT_IND", 144},
        {0x165800E, "TARN_BC_FAULTCEASE_IND", 28},
        {0x1658012, "TARN_BC_SELECT_MMI_REQ", 16},
        {0x1658013, "TARN_BC_SELECT_MMI_CFM", 12},
        {0x1658014, "TARN_BC_SELECT_MMI_REJ", 128},
        {0x1658400, "TARN_BC_AUDIT_REQ", 12},
        {0x1658401, "TARN_BC_AUDIT_CFM", 16},
        {0x1658403, "TARN_BC_ENABLE_OPERATION_REQ", 12},
        {0x1658404, "TARN_BC_ENABLE_OPERATION_CFM", 12},
        {0x1658405, "TARN_BC_ENABLE_OPERATION_REJ", 128},
        {0x1658406, "TARN_BC_DISABLE_OPERATION_REQ", 12},
        {0x1658407, "TARN_BC_DISABLE_OPERATION_CFM", 12},
        {0x1658408, "TARN_BC_DISABLE_OPERATION_REJ", 128},
        {0x1659500, "TARN_BC_SET_UTC_TIME_REQ", 16},
        {0x1659501, "TARN_BC_SET_UTC_TIME_CFM", 12},
        {0x1659502, "TARN_BC_SET_UTC_TIME_REJ", 128},
        {0x165A002, "TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_CFM", 12},
        {0x165A004, "TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_REQ", 12},
        {0x165A104, "TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_CFM", 12},
        {0x165A107, "TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REQ", 12},
    };
    for (const Expected& row : rows) {
        const BciSignal* signal = findBciSignal(row.number);
        ASSERT_NE(signal, nullptr) << row.name;
        EXPECT_EQ(signal->name, row.name);
        EXPECT_EQ(signal->size, row.size) << row.name;
    }
    EXPECT_EQ(findBciSignal(0x1658FFF), nullptr);
}

TEST(BciSignalTable, holdsNoNumberAndNoNameTwice)
{
    std::set<std::uint32_t> numbers;
    std::set<std::string_view> names;
    for (const BciSignal& signal : BCI_SIGNALS) {
        EXPECT_TRUE(numbers.insert(signal.number).second) << signal.name;
        EXPECT_TRUE(names.insert(signal.name).second) << signal.name;
    }
}

TEST_F(BciRecordTest, anAnswerHasItsReferencesInNetworkOrderAndItsNumberInHostOrder)
{
    auto cfm = answerTo<TarnBcAuditCfmS>({.clientRef = 7, .serverRef = -2});
    cfm.state = 2;
    EXPECT_EQ(wireOf(cfm), "01658401 00000007 fffffffe 00020000");
    const MnetMsgPtr msg = toMessage(cfm);
    EXPECT_EQ(msg->msgNo, 0x1658401U);
}

TEST_F(BciRecordTest, aSignalOfReferencesAloneHasTwelveBytes)
{
    EXPECT_EQ(wireOf(answerTo<TarnBcEnableOperationCfmS>({.clientRef = 1, .serverRef = 0x01020304})),
              "01658404 00000001 01020304");
}

TEST_F(BciRecordTest, aRejectHasItsCodeAtTwelveAndItsTextAtSixteen)
{
    auto rej = answerTo<TarnBcSetUtcTimeRejS>({.clientRef = 1, .serverRef = 2});
    rej.errorCode = 0x0102;
    rej.errorDescription[0] = 'A';
    rej.errorDescription[109] = 'Z';
    const std::string hex = wireOf(rej);
    EXPECT_EQ(hex.substr(0, 45), "01659502 00000001 00000002 01020000 41000000 ");
    EXPECT_EQ(hex.substr(hex.size() - 17), "00000000 005a0000");
}

TEST_F(BciRecordTest, theConnectionsRejectHasAnOwnLayout)
{
    auto rej = answerTo<TarnBcConnEstablishRejS>({.clientRef = 1, .serverRef = 2});
    rej.protocolRev = 3;
    rej.errorCode = 1;
    rej.errorDescription[0] = 'A';
    rej.errorDescription[109] = 'Z';
    const std::string hex = wireOf(rej);
    EXPECT_EQ(hex.substr(0, 54), "01658002 00000001 00000002 00030000 00010000 41000000 ");
    EXPECT_EQ(hex.substr(hex.size() - 17), "00000000 005a0000");
}

TEST_F(BciRecordTest, aReadRecordIsInHostOrder)
{
    const auto req = readSignal<TarnBcSetUtcTimeReqS>(*message("01659500 00000007 fffffffe 11223344"));
    ASSERT_TRUE(req);
    EXPECT_EQ(req->msgNo, 0x1659500U);
    EXPECT_EQ(req->addressInfo, (TarnNodeCommonAddressInfoS{7, -2}));
    EXPECT_EQ(req->utcTime, 0x11223344U);

    const auto establish =
        readSignal<TarnBcConnEstablishReqS>(*message("01658000 00000001 00000064 0003ffff"));
    ASSERT_TRUE(establish);
    EXPECT_EQ(establish->protocolRev, 3);

    const auto select = readSignal<TarnBcSelectMmiReqS>(*message("01658012 00000001 00000064 00000001"));
    ASSERT_TRUE(select);
    EXPECT_EQ(select->mmiMode, 1U);
}

TEST_F(BciRecordTest, theSignalsOfTheSoftwareStoreHaveTheirFieldsInPlace)
{
    auto acquired = answerTo<TarnBcAcquireResourceCfmS>({.clientRef = 1, .serverRef = 2});
    acquired.resource = 0x0102;
    EXPECT_EQ(wireOf(acquired), "01659801 00000001 00000002 01020000");
    auto rej = answerTo<TarnBcReleaseResourceRejS>({.clientRef = 1, .serverRef = 2});
    rej.resource = 0x0102;
    rej.errorCode = 1;
    rej.errorDescription[0] = 'A';
    rej.errorDescription[109] = 'Z';
    const std::string hex = wireOf(rej);
    EXPECT_EQ(hex.substr(0, 54), "01659805 00000001 00000002 01020000 00010000 41000000 ");
    EXPECT_EQ(hex.substr(hex.size() - 17), "00000000 005a0000");
    EXPECT_EQ(hex.size(), 2 * 132U + 32);

    auto ready = answerTo<TarnBcLmcInitCfmS>({.clientRef = 1, .serverRef = 2});
    ready.loadStatus = TarnBcLmcInitCfmS::RUNNING;
    EXPECT_EQ(wireOf(ready), "01658804 00000001 00000002 00020000");
    auto ack = answerTo<TarnBcLmcDataAckS>({.clientRef = 1, .serverRef = 2});
    ack.lmSeqNr = 0xABCD;
    EXPECT_EQ(wireOf(ack), "01658807 00000001 00000002 abcd0000");
    auto end = answerTo<TarnBcLmcEndCfmS>({.clientRef = 1, .serverRef = 2});
    end.result = TarnBcLmcEndCfmS::FAILED;
    EXPECT_EQ(wireOf(end), "01658809 00000001 00000002 00010000");
    auto piece = answerTo<TarnBcSwCompListDataS>({.clientRef = 1, .serverRef = 2});
    piece.end = 1;
    piece.length = 0x0102;
    EXPECT_EQ(wireOf(piece), "01658811 00000001 00000002 00000001 00000102");
    auto running = answerTo<TarnBcGetRunningLmcCfmS>({.clientRef = 1, .serverRef = 2});
    running.runningSoftware[0] = 'A';
    running.runningSoftware[35] = 'Z';
    EXPECT_EQ(wireOf(running), "01658814 00000001 00000002 41000000 00000000 00000000 00000000 00000000 "
                               "00000000 00000000 00000000 0000005a");

    const auto block =
        readSignal<TarnBcLmcDataS>(*message("01658806 00000007 fffffffe abcd0000 00000003 010203"));
    ASSERT_TRUE(block);
    EXPECT_EQ(block->lmSeqNr, 0xABCD);
    EXPECT_EQ(block->size, 3U);
    const auto taken = readSignal<TarnBcSwCompListAckS>(*message("01658812 00000007 fffffffe 01020304"));
    ASSERT_TRUE(taken);
    EXPECT_EQ(taken->abort, 0x01020304U);
}

TEST_F(BciRecordTest, whatFollowsTheRecordIsNotLookedAt)
{
    EXPECT_TRUE(readSignal<TarnBcAuditReqS>(*message("01658400 00000007 fffffffe aabbccdd ee")));
}

TEST_F(BciRecordTest, aShortSignalGivesNothingAndATraceOfNameSenderAndBothSizes)
{
    const core::Peer client;
    const core::Peer server;
    client.send("01659500 00000007 fffffffe 112233", server.mbox());
    // The receiving process is the fixture's peer, so the message is read where it arrives.
    const std::string hex = server.receive().hex;
    EXPECT_EQ(hex, "01659500 00000007 fffffffe 112233");

    EXPECT_FALSE(readSignal<TarnBcSetUtcTimeReqS>(*message(hex)));
    EXPECT_TRUE(traced(4, "ABN: TARN_BC_SET_UTC_TIME_REQ (0x1659500) from mbox: 0xffffffff is too short: "
                          "15 of 16 bytes. Ignoring it."));
}

TEST_F(BciRecordTest, aFieldThatIsCutOrMissingReadsAsZero)
{
    const MnetMsgPtr msg = message("01658000 00000007 fffffffe 00");
    EXPECT_EQ(Bci::referencesOf(*msg), (TarnNodeCommonAddressInfoS{7, -2}));
    EXPECT_EQ(Bci::fieldOrZero<std::uint16_t>(*msg, 12), 0);
    EXPECT_EQ(Bci::fieldOrZero<std::uint16_t>(*msg, 13), 0);
    EXPECT_EQ(Bci::fieldOrZero<std::uint16_t>(*msg, static_cast<std::size_t>(-1)), 0);
    EXPECT_EQ(Bci::referencesOf(*message("01658000 00000007 ffffff")), (TarnNodeCommonAddressInfoS{7, 0}));
    EXPECT_EQ(Bci::referencesOf(*message("01658000")), (TarnNodeCommonAddressInfoS{0, 0}));
}

TEST_F(BciRecordTest, withoutMemoryThereIsNoMessage)
{
    mnet().fail(support::FakeMnet::Call::alloc);
    EXPECT_EQ(toMessage(answerTo<TarnBcAuditCfmS>({})), nullptr);
}

/// Every width and an array of words, as later records have them.
struct WideS {
    std::uint32_t msgNo;
    TarnNodeCommonAddressInfoS addressInfo;
    std::int16_t small;
    unsigned char text[2];
    std::uint32_t list[2];
    std::uint64_t wide;
};

} // namespace

template <> struct BciRecord<WideS> {
    static constexpr std::uint32_t number = 0x1658FFF;
    static constexpr std::size_t size = 32;
    static constexpr auto fields = std::tuple{&WideS::small, &WideS::text, &WideS::list, &WideS::wide};
};

namespace {

TEST_F(BciRecordTest, everyWidthIsSwappedAndBytesAreNot)
{
    auto record = answerTo<WideS>({.clientRef = 1, .serverRef = 2});
    record.small = -2;
    record.text[0] = 'a';
    record.text[1] = 'b';
    record.list[0] = 3;
    record.list[1] = 4;
    record.wide = 0x0102030405060708;
    const std::string wire = "01658fff 00000001 00000002 fffe6162 00000003 00000004 01020304 05060708";
    EXPECT_EQ(wireOf(record), wire);

    const auto read = readSignal<WideS>(*message(wire));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->small, -2);
    EXPECT_EQ(read->text[1], 'b');
    EXPECT_EQ(read->list[1], 4U);
    EXPECT_EQ(read->wide, 0x0102030405060708U);
}

} // namespace
