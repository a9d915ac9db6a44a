#include "rowTest.h"
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <vector>

namespace rowtest {
namespace {

struct Test {
    const char* name;
    const char* file;
    int line;
    ::testing::Test* (*create)(const void* row);
};

struct Row {
    const void* row;
    RowName name;
};

struct Table {
    const char* prefix;
    std::vector<Row> rows;
};

struct Suite {
    std::vector<Test> tests;
    std::vector<Table> tables;
};

[[noreturn]] void fail(const std::string& what)
{
    std::fprintf(stderr, "%s\n", what.c_str());
    std::abort();
}

class Suites : public ::testing::Environment {
public:
    std::map<std::string, Suite> suites;
    std::set<std::string> names;

    // GoogleTest owns it from here on.
    static Suites& get()
    {
        static auto* const the = static_cast<Suites*>(::testing::AddGlobalTestEnvironment(new Suites));
        return *the;
    }
    void SetUp() override { checkSuites(); }
};

bool isWord(const std::string& text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(),
                                        [](unsigned char c) { return std::isalnum(c) != 0 || c == '_'; });
}

void add(const std::string& suite, const Test& test, const Table& table)
{
    const std::string prefixed = std::string(table.prefix) + "/" + suite;
    for (const Row& row : table.rows) {
        const std::string name = std::string(test.name) + "/" + row.name.name;
        if (!isWord(row.name.name) || !Suites::get().names.insert(prefixed + "." + name).second)
            fail(prefixed + "." + name + ": a row's name must be of letters and digits, and the only such");
        const char* value = row.name.value.empty() ? nullptr : row.name.value.c_str();
        ::testing::RegisterTest(prefixed.c_str(), name.c_str(), nullptr, value, test.file, test.line,
                                [create = test.create, data = row.row] { return create(data); });
    }
}

} // namespace

bool addTest(const char* suite, const char* test, const char* file, int line,
             ::testing::Test* (*create)(const void* row))
{
    Suite& of = Suites::get().suites[suite];
    of.tests.push_back({test, file, line, create});
    for (const Table& table : of.tables)
        add(suite, of.tests.back(), table);
    return true;
}

bool addRows(const char* prefix, const char* suite, const void* rows, std::size_t count, std::size_t size,
             RowName (*nameOf)(const void* row, std::size_t index))
{
    Suite& of = Suites::get().suites[suite];
    Table& table = of.tables.emplace_back(Table{prefix, {}});
    const auto* row = static_cast<const std::byte*>(rows);
    for (std::size_t i = 0; i < count; ++i, row += size)
        table.rows.push_back({row, nameOf(row, i)});
    for (const Test& test : of.tests)
        add(suite, test, table);
    return true;
}

void checkSuites()
{
    for (const auto& [name, suite] : Suites::get().suites) {
        if (suite.tests.empty() || suite.tables.empty())
            fail(name + (suite.tests.empty() ? " has rows and no tests" : " has tests and no rows"));
    }
}

} // namespace rowtest
