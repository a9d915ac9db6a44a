#include "message.h"

#include "fakeOutbox.h"

#include <gtest/gtest.h>

namespace merlow::board::test {
namespace {

TEST(MessageTest, readsOnlyWhatIsThere)
{
    const HeapMessage message(*bytesFromHex("00112233 44556677 8899"));
    EXPECT_EQ(network32At(message.bytes(), 4), 0x44556677u);
    EXPECT_EQ(network32At(message.bytes(), 6), 0x66778899u);
    EXPECT_FALSE(network32At(message.bytes(), 7));
    EXPECT_EQ(network16At(message.bytes(), 8), 0x8899u);
    EXPECT_FALSE(network16At(message.bytes(), 9));
    EXPECT_FALSE(network16At(message.bytes(), static_cast<std::size_t>(-1)));
    EXPECT_FALSE(host32At(message.bytes().first(3), 0));
    EXPECT_FALSE(host32At({}, 0));
}

TEST(MessageTest, textsAreCutAndTerminated)
{
    Bytes bytes;
    putText(bytes, "abcdef", 4);
    putText(bytes, "a", 3);
    putText(bytes, "abc", 0);
    EXPECT_EQ(bytes, *bytesFromHex("61626300 610000"));
}

TEST(MessageTest, countsAreInTheSingularForOne)
{
    EXPECT_EQ(countOf(0, "plan"), "0 plans");
    EXPECT_EQ(countOf(1, "plan"), "1 plan");
    EXPECT_EQ(countOf(2, "plan"), "2 plans");
}

TEST(MessageTest, hexadecimalIsPairsOfDigits)
{
    EXPECT_EQ(bytesFromHex(""), Bytes{});
    EXPECT_EQ(bytesFromHex(" 0aF f"), std::nullopt);
    EXPECT_EQ(bytesFromHex(" 0a FF "), (Bytes{std::byte(0x0a), std::byte(0xff)}));
    EXPECT_EQ(bytesFromHex("0"), std::nullopt);
    EXPECT_EQ(bytesFromHex("0g"), std::nullopt);
    EXPECT_EQ(bytesFromHex("0x01"), std::nullopt);
}

TEST(MessageTest, numbersAreDecimalOrHexadecimal)
{
    EXPECT_EQ(parseNumber("0"), 0u);
    EXPECT_EQ(parseNumber("4294967295"), 4294967295u);
    EXPECT_EQ(parseNumber("0xFFffFFff"), 4294967295u);
    for (const char* text : {"", "0x", "-1", "+1", " 1", "1 ", "4294967296", "0x100000000", "12a", "0x-1"}) {
        EXPECT_EQ(parseNumber(text), std::nullopt) << text;
    }
    EXPECT_EQ(hex(0), "0x0");
    EXPECT_EQ(hex(0xFFFFFFFF), "0xffffffff");
}

} // namespace
} // namespace merlow::board::test
