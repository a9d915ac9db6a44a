#include "runDir.h"
#include "unixSocket.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace merlow::base {
namespace {

class RunDirTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        unsetenv("MERLOW_GROUP");
        std::string name = ::testing::TempDir() + "merlowRunDirXXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        m_top = name;
    }
    void TearDown() override { std::filesystem::remove_all(m_top); }

    static mode_t modeOf(const std::string& path)
    {
        struct stat status {};
        return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
    }

    std::string m_top;
};

TEST_F(RunDirTest, variablesAreTriedInOrderAndEmptyOnesCountAsUnset)
{
    setenv("MERLOW_RUN_DIR", "/a/b", 1);
    setenv("XDG_RUNTIME_DIR", "/x", 1);
    EXPECT_EQ(runDirPath(), "/a/b");
    setenv("MERLOW_RUN_DIR", "", 1);
    EXPECT_EQ(runDirPath(), "/x/merlow");
    unsetenv("XDG_RUNTIME_DIR");
    EXPECT_EQ(runDirPath(), "/run/merlow");
}

TEST_F(RunDirTest, missingFoldersAreMadePrivate)
{
    setenv("MERLOW_RUN_DIR", (m_top + "/p/run").c_str(), 1);
    const int fd = openRunSubdir("mnet/names");
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(modeOf(m_top + "/p/run"), 0700u);
    EXPECT_EQ(modeOf(m_top + "/p/run/mnet/names"), 0700u);
}

TEST_F(RunDirTest, withAGroupFoldersAreTheGroups)
{
    setenv("MERLOW_RUN_DIR", (m_top + "/run").c_str(), 1);
    setenv("MERLOW_GROUP", std::to_string(getegid()).c_str(), 1);
    std::optional<gid_t> group;
    ASSERT_TRUE(accessGroup(group));
    ASSERT_EQ(group, getegid());
    const int fd = openRunSubdir("sway");
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(modeOf(m_top + "/run"), 02770u);
    EXPECT_EQ(modeOf(m_top + "/run/sway"), 02770u);
}

TEST_F(RunDirTest, aFolderThatAnyoneMayWriteToIsRefused)
{
    const std::string open = m_top + "/open";
    ASSERT_EQ(mkdir(open.c_str(), 0700), 0);
    ASSERT_EQ(chmod(open.c_str(), 01777), 0);
    setenv("MERLOW_RUN_DIR", open.c_str(), 1);
    EXPECT_EQ(openRunSubdir(""), -1);
    EXPECT_EQ(errno, EPERM);
}

TEST_F(RunDirTest, aFileInPlaceOfTheFolderIsAnError)
{
    const std::string file = m_top + "/file";
    fclose(fopen(file.c_str(), "w"));
    setenv("MERLOW_RUN_DIR", file.c_str(), 1);
    EXPECT_EQ(openRunSubdir(""), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(RunDirTest, socketsWorkBelowNamesLongerThanASocketAddress)
{
    const std::string deep = m_top + "/" + std::string(120, 'd') + "/" + std::string(120, 'e');
    setenv("MERLOW_RUN_DIR", deep.c_str(), 1);
    const int dir = openRunSubdir("sway");
    ASSERT_GE(dir, 0);
    const int server = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const int client = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bindAt(server, dir, "name"), 0);
    EXPECT_EQ(modeOf(deep + "/sway/name"), 0600u);
    ASSERT_EQ(listen(server, 1), 0);
    ASSERT_EQ(connectAt(client, dir, "name"), 0);
    ucred peer{};
    ASSERT_TRUE(peerCredentials(client, peer));
    EXPECT_EQ(peer.pid, getpid());
    EXPECT_TRUE(peerAllowed(client));
    for (const int fd : {dir, server, client}) {
        close(fd);
    }
}

} // namespace
} // namespace merlow::base
