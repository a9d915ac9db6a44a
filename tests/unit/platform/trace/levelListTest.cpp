#include "levelList.h"

#include "recordFile.h"

#include <gtest/gtest.h>
#include <ostream>

namespace merlow::trace {
namespace {

struct Row {
    const char* text;
    std::uint32_t mask;
    const char* malformed;
};

void PrintTo(const Row& row, std::ostream* out)
{
    *out << '"' << row.text << '"';
}

class LevelListTest : public ::testing::TestWithParam<Row> {};

TEST_P(LevelListTest, partsThatAreNoLevelAreNamedAndLeftOut)
{
    const LevelList list = parseLevels(GetParam().text);
    EXPECT_EQ(list.mask, GetParam().mask);
    EXPECT_EQ(list.malformed, GetParam().malformed);
}

INSTANTIATE_TEST_SUITE_P(Texts, LevelListTest,
                         ::testing::Values(Row{"1,4", 0x12, ""}, Row{"", 0, ""}, Row{"none", 0, ""},
                                           Row{" 1 , 4 ", 0x12, ""}, Row{"0,31", 0x80000001, ""},
                                           Row{"all", 0xFFDFFFFF, ""}, Row{"all,21", 0xFFFFFFFF, ""},
                                           Row{"1,1", 2, ""}, Row{"32", 0, "\"32\""},
                                           Row{"1,x,4", 0x12, "\"x\""}, Row{"-1,1", 2, "\"-1\""},
                                           Row{"1,,4,", 0x12, "\"\", \"\""}, Row{"+1", 0, "\"+1\""},
                                           Row{"1 4", 0, "\"1 4\""}, Row{"0x1", 0, "\"0x1\""},
                                           Row{"99999999999999999999", 0, "\"99999999999999999999\""}));

TEST(FormatLevels, isReadBackAsTheSame)
{
    EXPECT_EQ(formatLevels(0), "none");
    EXPECT_EQ(formatLevels(0x80000012), "1,4,31");
    for (const std::uint32_t mask : {0u, 1u, 0x80000000u, 0xFFFFFFFFu, 0x12345678u}) {
        EXPECT_EQ(parseLevels(formatLevels(mask)).mask, mask);
    }
}

TEST(BoundedName, holdsWhatAFileNameAndALineCanHold)
{
    EXPECT_EQ(boundedName("merlowd"), "merlowd");
    EXPECT_EQ(boundedName(""), "unnamed");
    EXPECT_EQ(boundedName(".."), "_.");
    EXPECT_EQ(boundedName("a/b c\n\xff"), "a_b_c__");
    EXPECT_EQ(boundedName(std::string(48, 'n')), std::string(47, 'n'));
}

} // namespace
} // namespace merlow::trace
