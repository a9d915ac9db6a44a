#include "stateFile.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace merlow::board::test {
namespace {

namespace fs = std::filesystem;

class StateFileTest : public testing::Test {
protected:
    StateFileTest()
    {
        std::string path = fs::temp_directory_path() / "merlow-state.XXXXXX";
        EXPECT_NE(mkdtemp(path.data()), nullptr);
        m_folder = path;
        setenv("MERLOW_RUN_DIR", (m_folder / "unit").c_str(), 1);
    }

    ~StateFileTest() override
    {
        unsetenv("MERLOW_RUN_DIR");
        fs::remove_all(m_folder);
    }

    fs::path m_folder;
    StateFile m_file{"some.state"};
};

TEST_F(StateFileTest, whatIsSavedIsLoaded)
{
    EXPECT_EQ(m_file.place(), m_folder / "unit/some.state");
    EXPECT_EQ(m_file.load().text, "");
    EXPECT_EQ(m_file.load().error, "") << "nothing was ever saved, and nothing is wrong with that";
    const std::string longText(100'000, 'x');
    for (const std::string& text : {std::string("one"), longText, std::string("three\n")}) {
        EXPECT_EQ(m_file.save(text), "");
        EXPECT_EQ(m_file.load().text, text);
        EXPECT_EQ(StateFile("some.state").load().text, text);
    }
    struct stat status {};
    ASSERT_EQ(stat(m_file.place().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    EXPECT_EQ(std::distance(fs::directory_iterator(m_folder / "unit"), fs::directory_iterator()), 1)
        << "nothing stays beside it";
}

TEST_F(StateFileTest, aSaveThatFailsLeavesTheOldText)
{
    ASSERT_EQ(m_file.save("old"), "");
    fs::create_directory(m_folder / "unit/some.state.new"); // stands where the new text has to go
    EXPECT_NE(m_file.save("new"), "");
    EXPECT_EQ(m_file.load().text, "old");
}

TEST_F(StateFileTest, aHalfWrittenSuccessorIsNotRead)
{
    ASSERT_EQ(m_file.save("old"), "");
    std::ofstream(m_folder / "unit/some.state.new") << "half a new te";
    EXPECT_EQ(m_file.load().text, "old");
    EXPECT_EQ(m_file.save("new"), "");
    EXPECT_EQ(m_file.load().text, "new");
}

TEST_F(StateFileTest, whatIsNoFileIsToldAndNotFollowed)
{
    fs::create_directories(m_folder / "unit");
    fs::permissions(m_folder / "unit", fs::perms::owner_all);
    fs::create_symlink(m_folder / "elsewhere", m_folder / "unit/some.state");
    EXPECT_NE(m_file.load().error, "");
    EXPECT_EQ(m_file.save("text"), "");
    EXPECT_FALSE(fs::exists(m_folder / "elsewhere"));
    EXPECT_EQ(m_file.load().text, "text");
}

TEST_F(StateFileTest, aFolderThatCannotBeIsTold)
{
    std::ofstream(m_folder / "file") << "x";
    setenv("MERLOW_RUN_DIR", (m_folder / "file/unit").c_str(), 1);
    EXPECT_NE(m_file.save("text"), "");
    EXPECT_NE(m_file.load().error, "");
}

TEST_F(StateFileTest, whatOutlivesALossOfPowerHasAFolderOfItsOwn)
{
    StateFile file("some.state", StateFile::Folder::state);
    EXPECT_EQ(file.place(), m_folder / "unit/state/some.state");
    EXPECT_EQ(file.load().error, "");
    EXPECT_EQ(file.save("text"), "");
    EXPECT_TRUE(fs::exists(m_folder / "unit/state/some.state"));
    EXPECT_EQ(m_file.load().text, "");

    setenv("MERLOW_STATE_DIR", (m_folder / "else/where").c_str(), 1);
    EXPECT_EQ(file.place(), m_folder / "else/where/some.state");
    EXPECT_EQ(file.load().text, "");
    EXPECT_EQ(file.save("another"), "");
    EXPECT_EQ(StateFile("some.state", StateFile::Folder::state).load().text, "another");
    EXPECT_TRUE(fs::exists(m_folder / "else/where/some.state"));
    std::ofstream(m_folder / "file") << "x";
    setenv("MERLOW_STATE_DIR", (m_folder / "file/where").c_str(), 1);
    EXPECT_NE(file.save("text"), "");
    unsetenv("MERLOW_STATE_DIR");
    EXPECT_EQ(file.load().text, "text");
}

} // namespace
} // namespace merlow::board::test
