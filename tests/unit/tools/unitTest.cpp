// A unit that cannot come up. Those that do are real ones, in the system tests.

#include "unit.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

namespace merlow::unit {
namespace {

/// A folder of programs that stand in for the parts: shell scripts.
class UnitTest : public testing::Test {
protected:
    UnitTest()
    {
        std::string path = testing::TempDir() + "merlowUnitXXXXXX";
        m_folder = mkdtemp(path.data());
        setenv("MERLOW_RUN_DIR", (m_folder + "/run").c_str(), 1);
        for (const char* part : {"legacyd", "brhd", "swmd", "merlowd"}) {
            write(part, "exec sleep 60");
        }
    }
    ~UnitTest() override
    {
        unsetenv("MERLOW_RUN_DIR");
        std::filesystem::remove_all(m_folder);
    }

    void write(const std::string& part, const std::string& text) const
    {
        const std::string path = m_folder + "/" + part;
        std::ofstream(path) << "#!/bin/sh\n" << text << "\n";
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    }
    [[noreturn]] void live(const std::string& logFile) const
    {
        Unit::Settings settings;
        settings.programDir = m_folder;
        settings.logFile = logFile;
        std::exit(Unit(settings).run());
    }

    std::string m_folder;
};

TEST(BackOffTest, theWaitDoublesUpToALimit)
{
    using std::chrono::milliseconds;
    BackOff backOff;
    const int waits[] = {100, 200, 400, 800, 1600, 3200, 6400, 10000, 10000, 10000};
    for (unsigned index = 0; index < std::size(waits); ++index) {
        EXPECT_EQ(backOff.afterEnd(BackOff::settled - milliseconds(1)).count(), waits[index]);
        EXPECT_EQ(backOff.endsInARow(), index + 1);
    }
    EXPECT_EQ(backOff.afterEnd(BackOff::settled).count(), 100) << "it had stayed up";
    EXPECT_EQ(backOff.afterEnd(milliseconds(0)).count(), 200);
    backOff.reset();
    EXPECT_EQ(backOff.endsInARow(), 0U);
    EXPECT_EQ(backOff.afterEnd(milliseconds(0)).count(), 100);
}

TEST_F(UnitTest, aNeighbourThatCannotStartEndsTheUnit)
{
    write("brhd", "exit 3");
    EXPECT_EXIT(live(""), testing::ExitedWithCode(1), "unit: brhd ended with exit status 3; ending the rest");
}

TEST_F(UnitTest, theHostHasSomeAttemptsToStart)
{
    write("merlowd", "echo start >> " + m_folder + "/starts; exit 1");
    EXPECT_EXIT(live(""), testing::ExitedWithCode(1),
                "unit: merlowd ended with exit status 1; starting it again in 100 ms\n"
                "unit: merlowd ended with exit status 1; starting it again in 200 ms\n"
                "unit: merlowd ended with exit status 1, 3 times in a row; it cannot stay up; "
                "starting it again in 400 ms\n"
                "unit: merlowd ended with exit status 1, 4 times in a row; it cannot stay up; "
                "starting it again in 800 ms\n"
                "unit: merlowd ended with exit status 1; ending the rest\n");
    std::ifstream starts(m_folder + "/starts");
    EXPECT_EQ(std::count(std::istreambuf_iterator<char>(starts), {}, '\n'), 5);
}

TEST_F(UnitTest, itSaysWhereTheWordsOfADeadPartAre)
{
    write("merlowd", "echo no luck; exit 1");
    const std::string log = m_folder + "/log";
    EXPECT_EXIT(live(log), testing::ExitedWithCode(1),
                "unit: merlowd ended with exit status 1; what it said is in " + log);
    std::string said;
    std::getline(std::ifstream(log) >> std::ws, said);
    EXPECT_EQ(said, "no luck");
}

TEST_F(UnitTest, aPartThatIsMissingIsNamed)
{
    std::filesystem::remove(m_folder + "/brhd");
    EXPECT_EXIT(live(""), testing::ExitedWithCode(1), "/brhd cannot be started: No such file or directory");
}

} // namespace
} // namespace merlow::unit
