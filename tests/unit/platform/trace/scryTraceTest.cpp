#include "scryTrace.h"

#include "rushlog.h"
#include "subject.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <gmock/gmock.h>
#include <pthread.h>
#include <set>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace merlow::test {
namespace {

using ::testing::MatchesRegex;

/// The mask of a record, to change it as scryctl would. The records lie in memory that is never read-only.
std::uint32_t& maskOf(const scry_record* record)
{
    return const_cast<scry_record*>(record)->mask;
}

class ScryTraceTest : public ::testing::Test {
protected:
    ScryTraceTest() { setenv("SCRY_OUT", m_out.c_str(), 1); }
    ~ScryTraceTest() override
    {
        unsetenv("SCRY_OUT");
        maskOf(procInfo) = m_mask;
    }

    /// A guarded trace whose text tells that it was built.
    void traceObject(unsigned int level, const scry_record* object)
    {
        if ((procInfo->mask >> SCRY_OBJ_BIT & 1u) != 0 && (object->mask >> level & 1u) != 0) {
            ++m_built;
            lttngScryIfObjTrace(level, short_fname(__FILE__), __LINE__, "flow", procInfo, object);
        }
    }

    TempFolder m_folder;
    std::string m_out = m_folder / "out";
    std::uint32_t m_mask = procInfo->mask;
    int m_built = 0;
};

TEST_F(ScryTraceTest, theLastPartOfAPathIsTheShortName)
{
    EXPECT_STREQ(short_fname("/a/b/c.cpp"), "c.cpp");
    EXPECT_STREQ(short_fname("c.cpp"), "c.cpp");
    EXPECT_STREQ(short_fname("/a/"), "");
    EXPECT_STREQ(short_fname(nullptr), "");
    EXPECT_STREQ(tpt_short_fname("/a/b/c.cpp"), "c.cpp");
}

TEST_F(ScryTraceTest, formattedTextsHaveAnyLength)
{
    EXPECT_EQ(formatStr("%d %s 0x%x", 3, "x", 255u), "3 x 0xff");
    EXPECT_EQ(formatStr("%s", ""), "");
    EXPECT_EQ(formatStr("%s", std::string(100000, 'l').c_str()), std::string(100000, 'l'));
}

TEST_F(ScryTraceTest, oneNameIsOneRecordInAllThreads)
{
    std::set<const scry_record*> found[4];
    std::vector<std::thread> threads;
    for (auto& mine : found) {
        threads.emplace_back([&mine] {
            for (int i = 0; i < 400; ++i) {
                mine.insert(scryTraceObj(("thread" + std::to_string(i % 20)).c_str()));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(found[0].size(), 20u);
    EXPECT_EQ(found[0], found[1]);
    EXPECT_EQ(found[0], found[2]);
    EXPECT_EQ(found[0], found[3]);
    const scry_record* seen = nullptr;
    std::thread([&seen] { seen = procInfo; }).join();
    EXPECT_EQ(seen, procInfo);
}

TEST_F(ScryTraceTest, withoutTheSwitchAnObjectIsSilent)
{
    const scry_record* object = scryTraceObj("silent");
    maskOf(object) = 1u << 5;
    maskOf(procInfo) = 0xFFFFFFFF & ~(1u << SCRY_OBJ_BIT);
    traceObject(5, object);
    EXPECT_EQ(m_built, 0);
    EXPECT_EQ(access(m_out.c_str(), F_OK), -1);
    maskOf(procInfo) = 1u << SCRY_OBJ_BIT;
    traceObject(5, object);
    traceObject(6, object);
    EXPECT_EQ(m_built, 1);
    EXPECT_EQ(linesOf(m_out).size(), 1u);
}

TEST_F(ScryTraceTest, aLineSaysWhenWhoWhatAndWhere)
{
    const std::string prefix = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\\.[0-9]{6}Z [^ ]+\\.[0-9]+ ";
    const scry_record* object = scryTraceObj("Lines");
    const std::uint32_t number = 0x1658000;
    lttngScryTrace(4, "a.cpp", 12, "two\nlines\t\x1b[0m", procInfo);
    lttngScryIfObjTrace(5, "b.cpp", 13, "flow", procInfo, object);
    lttngScryIfObjRecSigTrace("c.cpp", 14, reinterpret_cast<const mnet_msg*>(&number), "in", procInfo,
                              object);
    lttngScryIfObjSendSigTrace("d.cpp", 15, 0x1658001, 0xABC, "out", procInfo, object);
    const auto lines = linesOf(m_out);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_THAT(lines[0], MatchesRegex(prefix + "4 a\\.cpp:12 two lines  \\[0m$"));
    EXPECT_THAT(lines[1], MatchesRegex(prefix + "5 b\\.cpp:13 \\[Lines\\] flow$"));
    EXPECT_THAT(lines[2], MatchesRegex(prefix + "17 c\\.cpp:14 \\[Lines\\] REC 0x1658000 in$"));
    EXPECT_THAT(lines[3], MatchesRegex(prefix + "18 d\\.cpp:15 \\[Lines\\] SEND 0x1658001 to 0xabc out$"));
    struct stat status {};
    ASSERT_EQ(stat(m_out.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(ScryTraceTest, nullsAndForeignRecordsAreTraced)
{
    const scry_record mine{{0, 0, 0}, 0};
    lttngScryTrace(4, nullptr, 0, nullptr, nullptr);
    lttngScryIfObjTrace(5, "f", 1, "foreign", procInfo, &mine);
    lttngScryIfObjRecSigTrace("f", 1, nullptr, nullptr, nullptr, nullptr);
    lttngScryIfObjSendSigTrace(nullptr, 1, 2, 3, nullptr, nullptr, nullptr);
    const auto lines = linesOf(m_out);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_TRUE(lines[1].ends_with(" 5 f:1 foreign")) << lines[1];
    EXPECT_TRUE(lines[2].ends_with(" 17 f:1 REC ")) << lines[2];
}

TEST_F(ScryTraceTest, aLongTextIsCutAndSaysSo)
{
    lttngScryTrace(4, "a.cpp", 1, std::string(100000, 't').c_str(), procInfo);
    const std::string content = contentOf(m_out);
    EXPECT_LE(content.size(), 4096u);
    EXPECT_GT(content.size(), 4000u);
    EXPECT_TRUE(content.ends_with("ttt...\n"));
}

TEST_F(ScryTraceTest, linesOfManyThreadsStayWhole)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 100; ++i) {
                lttngScryTrace(4, "t.cpp", 1, "0123456789", procInfo);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const auto lines = linesOf(m_out);
    EXPECT_EQ(lines.size(), 400u);
    for (const auto& line : lines) {
        EXPECT_TRUE(line.ends_with(" 4 t.cpp:1 0123456789")) << line;
    }
}

TEST_F(ScryTraceTest, errnoIsKept)
{
    setenv("SCRY_OUT", (m_folder / "missing/out").c_str(), 1);
    errno = 4711;
    lttngScryTrace(4, "a.cpp", 1, "t", procInfo);
    EXPECT_EQ(errno, 4711);
}

TEST_F(ScryTraceTest, noTraceIsACancellationPoint)
{
    setenv("RUSHLOG_OUT", (m_folder / "log").c_str(), 1);
    std::atomic<bool> done{false};
    pthread_t thread{};
    const auto body = [](void* argument) -> void* {
        pthread_cancel(pthread_self());
        lttngScryTrace(4, "a.cpp", 1, "t", procInfo);
        scryTraceObj("cancelled");
        rushlog_log("c", "t");
        *static_cast<std::atomic<bool>*>(argument) = true;
        pthread_testcancel();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, body, &done), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    unsetenv("RUSHLOG_OUT");
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_TRUE(done);
    EXPECT_EQ(linesOf(m_out).size(), 1u);
    EXPECT_EQ(linesOf(m_folder / "log").size(), 1u);
}

TEST_F(ScryTraceTest, probesThatAreNotThereAreSaidToBeMissing)
{
    EXPECT_EQ(scryLoadProbes("libnobody-lttng.so"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(scryLoadProbes(nullptr), -1);
    setenv("SCRY_LTTNG", "0", 1);
    EXPECT_EQ(scryLoadProbes("libscry-lttng.so"), -1);
    EXPECT_EQ(errno, ECANCELED);
    unsetenv("SCRY_LTTNG");
}

} // namespace
} // namespace merlow::test
