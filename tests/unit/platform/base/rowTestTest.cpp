#include "rowTest.h"

namespace {

std::string runningTest()
{
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    return std::string(info->test_suite_name()) + "." + info->name() + "=" +
           (info->value_param() == nullptr ? "" : info->value_param());
}

struct NamedRow {
    const char* name;
    std::string test;
};

class NamedRowTest : public ::testing::Test, public WithRow<NamedRow> {
protected:
    const std::string m_test = row().test; // a fixture has its row from the start
};

ROW_TEST(NamedRowTest, above)
{
    EXPECT_EQ(runningTest(), "all/NamedRowTest.above/" + m_test);
}

const NamedRow namedRows[] = {{"one", "one="}, {"two", "two="}};
TEST_ROWS(all, NamedRowTest, namedRows);

ROW_TEST(NamedRowTest, below)
{
    EXPECT_EQ(runningTest(), "all/NamedRowTest.below/" + m_test);
}

class NumberedRowTest : public ::testing::Test, public WithRow<int> {};

ROW_TEST(NumberedRowTest, showsItsValue)
{
    const std::string test = row() < 10 ? "of/NumberedRowTest.showsItsValue/" + std::to_string(row() - 7) +
                                              "=" + std::to_string(row())
                                        : "as/NumberedRowTest.showsItsValue/ten=";
    EXPECT_EQ(runningTest(), test);
}

const std::vector<int> numberedRows = {7, 8};
TEST_ROWS(of, NumberedRowTest, numberedRows);
const int tens[] = {10};
TEST_ROWS(as, NumberedRowTest, tens, [](int) { return "ten"; });

bool addLonelyRows(const char* name)
{
    static const int row = 0;
    static std::string rowName;
    rowName = name;
    return rowtest::addRows("all", "Lonely", &row, 1, sizeof(row), [](const void*, std::size_t) {
        return rowtest::RowName{rowName, ""};
    });
}

bool addLonelyTest()
{
    return rowtest::addTest("Lonely", "test", __FILE__, __LINE__,
                            [](const void*) -> ::testing::Test* { return nullptr; });
}

TEST(RowTestDeathTest, aSuiteWithoutRowsOrTestsIsAMistake)
{
    rowtest::checkSuites();
    EXPECT_DEATH((addLonelyTest(), rowtest::checkSuites()), "Lonely has tests and no rows");
    EXPECT_DEATH((addLonelyRows("row"), rowtest::checkSuites()), "Lonely has rows and no tests");
}

TEST(RowTestDeathTest, anotherRowOfThatNameIsAMistake)
{
    EXPECT_DEATH((addLonelyTest(), addLonelyRows("row"), addLonelyRows("row")), "all/Lonely.test/row: ");
}

TEST(RowTestDeathTest, aNameIsAWord)
{
    EXPECT_DEATH((addLonelyTest(), addLonelyRows("")), "all/Lonely.test/: ");
    EXPECT_DEATH((addLonelyTest(), addLonelyRows("a row")), "all/Lonely.test/a row: ");
}

} // namespace
