// What the unit tells of a part that dies.

#include "unit.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

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

TEST_F(UnitTest, aPartThatDiesEndsTheUnit)
{
    write("brhd", "exit 3");
    EXPECT_EXIT(live(""), testing::ExitedWithCode(1), "unit: brhd ended with exit status 3; ending the rest");
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
