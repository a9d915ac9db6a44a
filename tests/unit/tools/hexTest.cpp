#include "hex.h"

#include <gtest/gtest.h>

namespace merlow::tools {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(HexTest, digitsComeInPairsWithBlanksAndColonsBetween)
{
    EXPECT_EQ(parseHex(""), Bytes{});
    EXPECT_EQ(parseHex("00fF"), (Bytes{0x00, 0xFF}));
    EXPECT_EQ(parseHex("0xC0FFEE"), (Bytes{0xC0, 0xFF, 0xEE}));
    EXPECT_EQ(parseHex("c0 ff:ee "), (Bytes{0xC0, 0xFF, 0xEE}));
}

TEST(HexTest, anythingElseIsNothing)
{
    for (const char* text : {"a", "abc", "0x1", "zz", "1g", "a b", "12-34"}) {
        EXPECT_FALSE(parseHex(text)) << text;
    }
}

TEST(HexTest, aViewShowsOffsetBytesAndText)
{
    EXPECT_EQ(hexView({}), "");
    Bytes bytes;
    for (unsigned int i = 0; i < 18; ++i) {
        bytes.push_back(static_cast<std::uint8_t>('0' + i));
    }
    bytes[1] = 0x00;
    bytes[2] = 0x7F;
    EXPECT_EQ(hexView(bytes),
              "  000000 30 00 7f 33 34 35 36 37  38 39 3a 3b 3c 3d 3e 3f  |0..3456789:;<=>?|\n"
              "  000010 40 41                                             |@A|\n");
}

TEST(HexTest, digitsAreLowerCase)
{
    EXPECT_EQ(toHex(Bytes{0x00, 0xAB, 0x10}), "00ab10");
}

} // namespace
} // namespace merlow::tools
