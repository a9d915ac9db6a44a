/// The programs of a unit without room in the run-time folder: a line that says so, a status, and a start
/// that works when there is room again.
#include "process.h"
#include "rowTest.h"

#include <gtest/gtest.h>
#include <string>
#include <sys/mount.h>

namespace merlow::test {
namespace {

struct ShortageProgramRow {
    const char* program;
    const char* line; ///< with an @ for the folder
};

/// A file system of a few inodes, which can also be read only.
class TinyDisk {
public:
    TinyDisk() : m_isMounted(mount("none", path().c_str(), "tmpfs", 0, "size=4k,nr_inodes=3,mode=0700") == 0)
    {
    }
    ~TinyDisk()
    {
        if (m_isMounted) {
            umount2(path().c_str(), MNT_DETACH);
        }
    }
    TinyDisk(const TinyDisk&) = delete;
    TinyDisk& operator=(const TinyDisk&) = delete;

    [[nodiscard]] bool isMounted() const { return m_isMounted; }
    [[nodiscard]] const std::string& path() const { return m_folder.path(); }
    [[nodiscard]] bool change(unsigned long flags, const char* options) const
    {
        return mount("none", path().c_str(), nullptr, MS_REMOUNT | flags, options) == 0;
    }

private:
    TempDir m_folder;
    bool m_isMounted;
};

class ShortageProgramTest : public testing::Test, public WithRow<ShortageProgramRow> {
protected:
    void SetUp() override
    {
        if (!m_disk.isMounted()) {
            GTEST_SKIP() << "only who may mount can fill a file system of its own";
        }
    }
    /// The program says why it can't, in one line, and ends.
    void expectRefusal(const std::string& reason) const
    {
        std::string line = row().line;
        if (const auto at = line.find('@'); at != std::string::npos) {
            line.replace(at, 1, m_disk.path());
        }
        const Outcome outcome = runProgram(row().program, {}, m_environment);
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err, line + ": " + reason + "\n");
    }

    TinyDisk m_disk;
    TempDir m_state;
    Process::Environment m_environment{{"MERLOW_RUN_DIR", m_disk.path()},
                                       {"MERLOW_STATE_DIR", m_state.path()},
                                       {"RUSHLOG_OUT", "/dev/null"}};
};

ROW_TEST(ShortageProgramTest, saysThatTheRunTimeFolderIsFullOrReadOnly)
{
    expectRefusal("No space left on device");
    ASSERT_TRUE(m_disk.change(MS_RDONLY, "size=4k,nr_inodes=3"));
    expectRefusal("Read-only file system");

    ASSERT_TRUE(m_disk.change(0, "size=16m,nr_inodes=1000"));
    Process program(row().program, {}, m_environment);
    const auto serves = [&program] {
        const std::string told = program.out() + program.err();
        return told.find(": serving ") != std::string::npos || told.find(": waiting ") != std::string::npos;
    };
    EXPECT_TRUE(waitUntil(serves)) << program.err();
    EXPECT_TRUE(program.running()) << program.err();
}

const ShortageProgramRow shortageProgramRows[] = {
    {"brhd", "brhd: the run-time folder @ cannot be used"},
    {"legacyd", "legacyd: the run-time folder @ cannot be used"},
    {"swmd", "swmd: cannot listen at ux:SWMServer"},
    {"merlowd", "merlowd: no mailboxes in run-time folder @"}};
TEST_ROWS(Each, ShortageProgramTest, shortageProgramRows, [](const auto& row) { return row.program; });

} // namespace
} // namespace merlow::test
