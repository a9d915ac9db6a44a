#include "levelList.h"
#include "rowTest.h"

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

class LevelListTest : public ::testing::Test, public WithRow<Row> {};

ROW_TEST(LevelListTest, partsThatAreNoLevelAreNamedAndLeftOut)
{
    const LevelList list = parseLevels(row().text);
    EXPECT_EQ(list.mask, row().mask);
    EXPECT_EQ(list.malformed, row().malformed);
}

const Row levelListRows[] = {{"1,4", 0x12, ""},
                             {"", 0, ""},
                             {"none", 0, ""},
                             {" 1 , 4 ", 0x12, ""},
                             {"0,31", 0x80000001, ""},
                             {"all", 0xFFDFFFFF, ""},
                             {"all,21", 0xFFFFFFFF, ""},
                             {"1,1", 2, ""},
                             {"32", 0, "\"32\""},
                             {"1,x,4", 0x12, "\"x\""},
                             {"-1,1", 2, "\"-1\""},
                             {"1,,4,", 0x12, "\"\", \"\""},
                             {"+1", 0, "\"+1\""},
                             {"1 4", 0, "\"1 4\""},
                             {"0x1", 0, "\"0x1\""},
                             {"99999999999999999999", 0, "\"99999999999999999999\""}};
TEST_ROWS(Texts, LevelListTest, levelListRows);

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
    EXPECT_EQ(BoundedName("merlowd").text(), "merlowd");
    EXPECT_EQ(BoundedName("").text(), "unnamed");
    EXPECT_EQ(BoundedName("..").text(), "_.");
    EXPECT_EQ(BoundedName("a/b c\n\xff").text(), "a_b_c__");
    EXPECT_EQ(BoundedName(std::string(48, 'n')).text(), std::string(47, 'n'));
}

} // namespace
} // namespace merlow::trace
