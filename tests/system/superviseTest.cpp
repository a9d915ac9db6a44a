// A unit that keeps its parts up: they die, cannot stay up, or have the board restarted.

#include "process.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace merlow::test {
namespace {

using testing::HasSubstr;

/// `unit` with a folder of programs of its own: each part notes its process and ends at once if the test
/// wants it, else it becomes the real program.
class SuperviseTest : public testing::Test {
protected:
    static constexpr const char* parts[] = {"legacyd", "brhd", "swmd", "merlowd"};

    SuperviseTest()
    {
        std::filesystem::copy_file(programPath("unit"), path("unit"));
        for (const std::string part : parts) {
            std::ofstream(path(part))
                << "#!/bin/sh\necho $$ >> " << path(part + ".pids") << "\nfor how in once always; do\n"
                << "  if [ -e " << path(part) << ".$how ]; then\n    status=$(cat " << path(part)
                << ".$how)\n    rm -f " << path(part + ".once") << "\n    exit $status\n  fi\ndone\nexec "
                << programPath(part) << "\n";
            std::filesystem::permissions(path(part), std::filesystem::perms::owner_all);
        }
    }

    void SetUp() override
    {
        m_unit = std::make_unique<Process>(path("unit"), std::vector<std::string>{}, m_environment);
        ASSERT_TRUE(waitUntil([this] { return m_unit->out().find("The unit is up") != std::string::npos; }))
            << m_unit->err();
    }

    std::string path(const std::string& name) const { return m_dir.path() + "/" + name; }

    /// The processes that a part has been so far.
    std::vector<pid_t> pidsOf(const std::string& part) const
    {
        std::ifstream file(path(part + ".pids"));
        return {std::istream_iterator<pid_t>(file), std::istream_iterator<pid_t>()};
    }

    void killPart(const std::string& part) const { ::kill(pidsOf(part).back(), SIGKILL); }

    /// From its next start on, the part ends with this status: once or always.
    void letEnd(const std::string& part, const char* how, int status) const
    {
        const std::string name = path(part) + "." + how;
        std::ofstream(name + ".new") << status;
        std::filesystem::rename(name + ".new", name);
    }

    bool says(const std::string& text) const
    {
        return waitUntil([&] { return m_unit->err().find(text) != std::string::npos; });
    }

    bool letsClientsIn() const
    {
        return waitUntil([this] {
            return runProgram("bcictl", {"audit", "--timeout", "1"}, m_environment).status == 0;
        });
    }

    void expectStarts(const std::vector<std::size_t>& counts) const
    {
        for (std::size_t index = 0; index < counts.size(); ++index) {
            EXPECT_EQ(pidsOf(parts[index]).size(), counts[index]) << parts[index] << "\n" << m_unit->err();
        }
    }

    TempDir m_dir;
    Process::Environment m_environment{{"MERLOW_RUN_DIR", path("run")}};
    std::unique_ptr<Process> m_unit;
};

TEST_F(SuperviseTest, aNeighbourThatDiesIsStartedAgainAlone)
{
    for (const std::string part : {"legacyd", "brhd"}) {
        killPart(part);
        EXPECT_TRUE(says("unit: " + part + " ended with signal 9 (Killed); starting it again in 100 ms\n"))
            << m_unit->err();
        EXPECT_TRUE(waitUntil([&] { return pidsOf(part).size() == 2; }));
    }
    EXPECT_TRUE(letsClientsIn()) << m_unit->err();
    expectStarts({2, 2, 1, 1});
    m_unit->signal(SIGINT);
    EXPECT_EQ(m_unit->wait(), 0) << m_unit->err();
}

TEST_F(SuperviseTest, theServerIsStartedAgainAlone)
{
    killPart("merlowd");
    EXPECT_TRUE(says("unit: merlowd ended with signal 9 (Killed); starting it again in 100 ms\n"));
    EXPECT_TRUE(says("unit: up again after "));
    EXPECT_TRUE(letsClientsIn()) << m_unit->err();
    expectStarts({1, 1, 1, 2});
}

TEST_F(SuperviseTest, theServerIsStartedAgainBehindTheSoftwareServer)
{
    const pid_t server = pidsOf("merlowd").back();
    killPart("swmd");
    EXPECT_TRUE(says("unit: swmd ended with signal 9 (Killed); starting it again in 100 ms, and merlowd "
                     "behind it\n"));
    EXPECT_TRUE(says("unit: up again after ")) << m_unit->err();
    EXPECT_TRUE(letsClientsIn()) << m_unit->err();
    expectStarts({1, 1, 2, 2});
    EXPECT_EQ(::kill(server, 0), -1) << "the old one is gone";
    EXPECT_THAT(m_unit->err(), testing::Not(HasSubstr("unit: merlowd ended")));
}

TEST_F(SuperviseTest, whatCannotStayUpIsTriedLessAndLess)
{
    letEnd("brhd", "always", 3);
    killPart("brhd");
    EXPECT_TRUE(says("unit: brhd ended with exit status 3, 6 times in a row; it cannot stay up; starting it "
                     "again in 3200 ms\n"))
        << m_unit->err();
    expectStarts({1, 6, 1, 1});
    for (const char* line : {"unit: brhd ended with signal 9 (Killed); starting it again in 100 ms\n",
                             "unit: brhd ended with exit status 3; starting it again in 200 ms\n",
                             "unit: brhd ended with exit status 3, 3 times in a row; it cannot stay up; "
                             "starting it again in 400 ms\n"}) {
        EXPECT_THAT(m_unit->err(), HasSubstr(line));
    }
    m_unit->signal(SIGINT);
    EXPECT_EQ(m_unit->wait(), 0) << m_unit->err();
    expectStarts({1, 6, 1, 1}); // it did not wait for the next try
}

TEST_F(SuperviseTest, whatStaysUpAtLastIsUsed)
{
    letEnd("legacyd", "always", 3);
    killPart("legacyd");
    EXPECT_TRUE(says("3 times in a row; it cannot stay up")) << m_unit->err();
    std::filesystem::remove(path("legacyd.always"));
    EXPECT_TRUE(letsClientsIn()) << m_unit->err();
    EXPECT_GE(pidsOf("legacyd").size(), 4U);
}

TEST_F(SuperviseTest, aBoardThatRestartsEndsAndStartsEveryPart)
{
    std::vector<pid_t> before;
    for (const char* part : parts) {
        before.push_back(pidsOf(part).back());
    }
    letEnd("brhd", "once", 86);
    killPart("brhd");
    EXPECT_TRUE(says("unit: brhd has the board restarted; starting every part again\n")) << m_unit->err();
    EXPECT_TRUE(says("unit: up again after ")) << m_unit->err();
    EXPECT_TRUE(letsClientsIn()) << m_unit->err();
    expectStarts({2, 3, 2, 2});
    for (const pid_t pid : before) {
        EXPECT_EQ(::kill(pid, 0), -1);
    }
    m_unit->signal(SIGTERM);
    EXPECT_EQ(m_unit->wait(), 0) << m_unit->err();
}

TEST_F(SuperviseTest, aBoardThatRestartsAgainAndAgainTakesItsTime)
{
    letEnd("brhd", "always", 86);
    const auto killed = Clock::now();
    killPart("brhd");
    ASSERT_TRUE(waitUntil([this] { return pidsOf("brhd").size() == 5; })) << m_unit->err();
    EXPECT_GE(Clock::now() - killed, milliseconds(100 + 100 + 200 + 400));
    m_unit->signal(SIGINT);
    EXPECT_EQ(m_unit->wait(), 0) << m_unit->err();
}

} // namespace
} // namespace merlow::test
