#include "bciDecode.h"
#include "fakeUnit.h"

#include "bci/bciState.h"

#include <gtest/gtest.h>

namespace merlow::tools {
namespace {

Signal signalOf(std::uint32_t number, const std::string& hex)
{
    Signal signal;
    signal.bytes.resize(sizeof(number));
    std::memcpy(signal.bytes.data(), &number, sizeof(number));
    const auto rest = bytesOf(hex);
    signal.bytes.insert(signal.bytes.end(), rest.begin(), rest.end());
    return signal;
}

std::string repeated(const std::string& text, int times)
{
    std::string all;
    for (int i = 0; i < times; ++i) {
        all += text;
    }
    return all;
}

TEST(BciDecodeTest, referencesAreReadAsFarAsTheyReach)
{
    const auto whole = signalOf(1, "00000007 fffffffe 0102");
    EXPECT_EQ(whole.addressInfo(), (TarnNodeCommonAddressInfoS{7, -2}));
    EXPECT_EQ(whole.fields().size(), 2u);
    const auto cut = signalOf(1, "00000007 ffffff");
    EXPECT_EQ(cut.addressInfo(), (TarnNodeCommonAddressInfoS{7, 0}));
    EXPECT_TRUE(cut.fields().empty());
    const Signal nothing;
    EXPECT_EQ(nothing.number(), 0u);
    EXPECT_EQ(nothing.addressInfo(), (TarnNodeCommonAddressInfoS{0, 0}));
}

TEST(BciDecodeTest, aRecordIsReadWhenItIsWhole)
{
    const auto cfm = decode<TarnBcAuditCfmS>(signalOf(0x1658401, "00000001 0000012c 0002 0000"));
    ASSERT_TRUE(cfm);
    EXPECT_EQ(cfm->state, 2);
    EXPECT_FALSE(decode<TarnBcAuditCfmS>(signalOf(0x1658401, "00000001 0000012c 00")));
}

TEST(BciDecodeTest, rejectsHaveThreeLayouts)
{
    const auto common = decodeReject(
        signalOf(0x1658014, "00000001 0000012c 0001 0000 4e6f 00" + repeated("ff", 107) + "0000"));
    ASSERT_TRUE(common);
    EXPECT_EQ(common->errorCode, 1);
    EXPECT_EQ(common->errorDescription, "No");

    const auto connect = decodeReject(
        signalOf(0x1658002, "00000001 0000012c 0003 0000 0005 0000 4e6f 00" + repeated("ff", 107) + "0000"));
    ASSERT_TRUE(connect);
    EXPECT_EQ(connect->errorCode, 5);
    EXPECT_EQ(connect->errorDescription, "No");

    for (const std::uint32_t number : {0x1659802U, 0x1659805U}) {
        const auto resource = decodeReject(
            signalOf(number, "00000001 0000012c 0003 ffff 0001 ffff 4e6f 00" + repeated("ff", 107) + "0000"));
        ASSERT_TRUE(resource);
        EXPECT_EQ(resource->errorCode, 1);
        EXPECT_EQ(resource->errorDescription, "No");
    }
}

TEST(BciDecodeTest, aTextWithoutEndStopsAtItsArray)
{
    const auto reject =
        decodeReject(signalOf(0x1658014, "00000001 0000012c 0001 0000" + repeated("41", 110) + "4242"));
    ASSERT_TRUE(reject);
    EXPECT_EQ(reject->errorDescription, std::string(110, 'A'));
}

TEST(BciDecodeTest, aShortRejectIsNone)
{
    EXPECT_FALSE(decodeReject(signalOf(0x1658014, "00000001 0000012c 0001 0000" + repeated("41", 110))));
    EXPECT_FALSE(decodeReject(signalOf(0x1658002, "")));
}

TEST(BciDecodeTest, textsDoNotSteerTheTerminal)
{
    const auto bytes = bytesOf("41 1b 5b 32 4a 0a e2 42 00 43");
    EXPECT_EQ(textOf(bytes), "A?[2J??B");
}

TEST(BciDecodeTest, onlyRejectsAreRejects)
{
    EXPECT_TRUE(isReject(TARN_BC_SET_UTC_TIME_REJ));
    EXPECT_TRUE(isReject(TARN_BC_CONN_ESTABLISH_REJ));
    EXPECT_FALSE(isReject(TARN_BC_SET_UTC_TIME_CFM));
    EXPECT_FALSE(isReject(0x1658FFF));
}

TEST(BciDecodeTest, numbersHaveNamesAndNamesNumbers)
{
    EXPECT_EQ(signalName(0x1658400), "TARN_BC_AUDIT_REQ");
    EXPECT_EQ(signalName(0x1658FFF), "0x1658fff");
    EXPECT_EQ(parseSignalNumber("TARN_BC_AUDIT_REQ"), 0x1658400u);
    EXPECT_EQ(parseSignalNumber("0x1658FFF"), 0x1658FFFu);
    EXPECT_EQ(parseSignalNumber("4294967295"), 0xFFFFFFFFu);
    for (const char* text : {"", "0x", "4294967296", "0x100000000", "-1", "12 ", "1658fff", "TARN_BC"}) {
        EXPECT_FALSE(parseSignalNumber(text)) << text;
    }
}

} // namespace
} // namespace merlow::tools
