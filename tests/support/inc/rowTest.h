/// Tests of a table: each test of a suite runs once for each row, and has a name for each.
///
///     struct SizeRow { const char* name; int size; };
///     class SizeTest : public ::testing::Test, public WithRow<SizeRow> {};
///
///     ROW_TEST(SizeTest, isKept) { EXPECT_EQ(kept(row().size), row().size); }
///
///     const SizeRow sizes[] = {{"none", 0}, {"one", 1}};
///     TEST_ROWS(all, SizeTest, sizes);
///
/// makes the tests all/SizeTest.isKept/none and all/SizeTest.isKept/one. They do what GoogleTest's TEST_P and
/// INSTANTIATE_TEST_SUITE_P do, whose templates are half of what a source of such tests costs to compile. A
/// suite's tests and its rows may come in any order, and several times. A suite with tests and no rows, and
/// two tests of one name, fail the program.
#pragma once

#include <cstddef>
#include <gtest/gtest.h>
#include <iterator>
#include <string>

/// The row of the running test, for its fixture.
template <class RowType> class WithRow {
public:
    using Row = RowType;

    /// From the fixture's construction to the end of the test.
    [[nodiscard]] static const Row& row() { return *s_row; }
    static void setRow(const void* row) { s_row = static_cast<const Row*>(row); }

private:
    inline static const Row* s_row = nullptr;
};

namespace rowtest {

/// How a row is told from the others in the names of its tests.
struct RowName {
    std::string name;
    std::string value; ///< what a failed test and ctest show where the name is but a number
};

bool addTest(const char* suite, const char* test, const char* file, int line,
             ::testing::Test* (*create)(const void* row));
/// Rows stay where they are as long as the program runs.
bool addRows(const char* prefix, const char* suite, const void* rows, std::size_t count, std::size_t size,
             RowName (*nameOf)(const void* row, std::size_t index));

/// Ends the program unless each suite has tests and rows; done before the first test.
void checkSuites();

/// A row is told by its member `name`; one without has a number, and what GoogleTest prints of it.
template <class Row> RowName nameOf(const Row& row, std::size_t index)
{
    if constexpr (requires { row.name; })
        return {row.name, ""};
    else
        return {std::to_string(index), ::testing::PrintToString(row)};
}
template <class Row, class Name> RowName nameOf(const Row& row, std::size_t, Name name)
{
    return {name(row), ""};
}

} // namespace rowtest

/// A test that runs for each row of `suite`, a fixture that is a WithRow.
#define ROW_TEST(suite, test)                                                                                \
    class suite##_##test##_Test : public suite {                                                             \
        void TestBody() override;                                                                            \
        static ::testing::Test* create(const void* row)                                                      \
        {                                                                                                    \
            setRow(row);                                                                                     \
            return new suite##_##test##_Test;                                                                \
        }                                                                                                    \
        static const bool s_added;                                                                           \
    };                                                                                                       \
    const bool suite##_##test##_Test::s_added =                                                              \
        ::rowtest::addTest(#suite, #test, __FILE__, __LINE__, create);                                       \
    void suite##_##test##_Test::TestBody()

/// The rows of `suite`, an array or a vector that stays, and what names one where it has no member `name`.
/// Names are of letters and digits.
#define TEST_ROWS(prefix, suite, table, ...)                                                                 \
    [[maybe_unused]] const bool rowsOf_##prefix##_##suite =                                                  \
        ::rowtest::addRows(#prefix, #suite, std::data(table), std::size(table), sizeof(suite::Row),          \
                           [](const void* tableRow, std::size_t tableIndex) {                                \
                               return ::rowtest::nameOf(*static_cast<const suite::Row*>(tableRow),           \
                                                        tableIndex __VA_OPT__(, ) __VA_ARGS__);              \
                           })
