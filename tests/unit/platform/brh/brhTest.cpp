// The restart announcement, and what the unit has by its board description.

#include "brhRestart.h"
#include "capabilitiesV2.h"
#include "restartAnnouncement.h"
#include "rushlog.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

std::mutex linesMutex;
std::vector<std::string> lines;

std::vector<std::string> takeLines()
{
    const std::lock_guard lock(linesMutex);
    return std::exchange(lines, {});
}

const std::vector<CapSupport_en> wantedByTheServer = {
    CAP_SUPPORT_2,  CAP_SUPPORT_3,  CAP_SUPPORT_22, CAP_SUPPORT_24,   CAP_SUPPORT_26,
    CAP_SUPPORT_28, CAP_SUPPORT_32, CAP_SUPPORT_33, CAP_SUPPORT_TEXT, CAP_SUPPORT_36};

/// The ids of the records for `wanted`, with the text of a text record: "3 24 35(MERLOW)".
std::string capabilities(const std::vector<CapSupport_en>& wanted = wantedByTheServer)
{
    std::vector<std::shared_ptr<Capability>> records;
    getCapabilitiesV2(records, 100, wanted);
    std::string text;
    for (const auto& record : records) {
        text += (text.empty() ? "" : " ") + std::to_string(record->id);
        if (const auto* withText = dynamic_cast<const TextCapability*>(record.get())) {
            text += "(" + withText->text + ")";
        }
    }
    return text;
}

const std::string builtIn = "3 24 26 28 35(MERLOW) 36";

/// A board description in a folder of its own.
class BoardFile : public ::testing::Test {
protected:
    BoardFile()
    {
        std::array<char, 32> path{"/tmp/brhTestXXXXXX"};
        EXPECT_NE(mkdtemp(path.data()), nullptr);
        m_folder = path.data();
        m_path = m_folder + "/board.json";
        setenv("MERLOW_BOARD_FILE", m_path.c_str(), 1);
        takeLines();
    }
    ~BoardFile() override
    {
        unsetenv("MERLOW_BOARD_FILE");
        std::filesystem::remove_all(m_folder);
    }

    void write(const std::string& text) const { std::ofstream(m_path) << text; }

    /// The built-in description is used, and one line tells the file and `reason`.
    void expectRefused(const std::string& reason) const
    {
        EXPECT_EQ(capabilities(), builtIn) << reason;
        const auto told = takeLines();
        ASSERT_EQ(told.size(), 1u) << reason;
        EXPECT_NE(told[0].find(m_path), std::string::npos) << told[0];
        EXPECT_NE(told[0].find(reason), std::string::npos) << told[0];
    }

    std::string m_folder;
    std::string m_path;
};

} // namespace

void rushlog_log(const char* category, const char* text)
{
    const std::lock_guard lock(linesMutex);
    lines.push_back(std::string(category) + ": " + text);
}

TEST(Capabilities, areBuiltInWithoutAFile)
{
    takeLines();
    unsetenv("MERLOW_BOARD_FILE");
    EXPECT_EQ(capabilities(), builtIn);
    setenv("MERLOW_BOARD_FILE", "", 1);
    EXPECT_EQ(capabilities(), builtIn);
    unsetenv("MERLOW_BOARD_FILE");
    EXPECT_TRUE(takeLines().empty());
}

TEST(Capabilities, comeInTheOrderOfWhatIsWantedAndBehindWhatIsThere)
{
    std::vector<std::shared_ptr<Capability>> records{std::make_shared<Capability>(CAP_SUPPORT_HW_LOG)};
    getCapabilitiesV2(records, -1, {CAP_SUPPORT_36, CAP_SUPPORT_2, CAP_SUPPORT_3, CAP_SUPPORT_36});
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[0]->id, CAP_SUPPORT_HW_LOG);
    EXPECT_EQ(records[1]->id, CAP_SUPPORT_36);
    EXPECT_EQ(records[2]->id, CAP_SUPPORT_3);
    EXPECT_EQ(records[3]->id, CAP_SUPPORT_36);
    EXPECT_EQ(capabilities({}), "");
}

TEST_F(BoardFile, tellsWhatTheUnitHas)
{
    write(R"({"capabilities": [36, 2, 99, 35, 2], "capabilityText": "UNIT 7", "sensors": {"count": 3}})");
    EXPECT_EQ(capabilities(), "2 35(UNIT 7) 36");
    write(R"({"capabilities": []})");
    EXPECT_EQ(capabilities(), "");
    write(R"({"capabilities": [35]})");
    EXPECT_EQ(capabilities(), "35(MERLOW)");
    write(R"({"capabilities": [35], "capabilityText": ""})");
    EXPECT_EQ(capabilities(), "35()");
    EXPECT_TRUE(takeLines().empty());
}

TEST_F(BoardFile, isToldInTheLogWhenItCannotBeRead)
{
    expectRefused("No such file or directory");
    ASSERT_EQ(mkdir(m_path.c_str(), 0700), 0);
    expectRefused("not a regular file");
    ASSERT_EQ(rmdir(m_path.c_str()), 0);
    ASSERT_EQ(mkfifo(m_path.c_str(), 0600), 0);
    expectRefused("not a regular file");
    ASSERT_EQ(unlink(m_path.c_str()), 0);
    write(std::string((1 << 20) + 1, ' '));
    expectRefused("larger than 1048576 bytes");
    if (geteuid() != 0) {
        write("{}");
        ASSERT_EQ(chmod(m_path.c_str(), 0), 0);
        expectRefused("Permission denied");
    }
}

TEST_F(BoardFile, isToldInTheLogWhenItIsMalformed)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "line 1, column 1"},
        {"{\n  \"capabilities\": [3,\n}", "line 3, column 1"},
        {"{\"capabilities\": [3]", "line 1"},
        {"{\"capabilities\": [3]} trailing", "line 1, column 25"},
        {"[3]", "not a JSON object"},
        {"{}", "\"capabilities\" is missing"},
        {R"({"capabilities": 3})", "\"capabilities\" is not a list"},
        {R"({"capabilities": null})", "\"capabilities\" is not a list"},
        {R"({"capabilities": [3, "24"]})", "entry 1 is not a number from 0 to 65535"},
        {R"({"capabilities": [-1]})", "entry 0 is not a number from 0 to 65535"},
        {R"({"capabilities": [3, 3, 3.5]})", "entry 2 is not a number from 0 to 65535"},
        {R"({"capabilities": [65536]})", "entry 0 is not a number from 0 to 65535"},
        {R"({"capabilities": [3], "capabilityText": 35})", "\"capabilityText\" is not a text"},
        {"{\"capabilities\": [35], \"capabilityText\": \"\xFF\"}", "invalid"},
        {std::string(100'000, '['), "line 1"},
    };
    for (const auto& [text, reason] : cases) {
        write(text);
        expectRefused(reason);
    }
}

TEST_F(BoardFile, mayBeReadByManyThreads)
{
    write(R"({"capabilities": [3, 35]})");
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int round = 0; round < 50; ++round) {
                EXPECT_EQ(capabilities(), "3 35(MERLOW)");
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

TEST(BrhRestart, keepsTheLatestAnnouncementUntilItIsReset)
{
    auto& restart = BrhRestart::getInstance();
    EXPECT_EQ(&restart, &BrhRestart::getInstance());
    restart.reset();
    EXPECT_FALSE(brh::standingAnnouncement());

    std::string error = "untouched";
    EXPECT_TRUE(restart.notifyRestart(7, 1, "upgrade", error));
    EXPECT_TRUE(restart.notifyRestart(8, 2, "power", error));
    EXPECT_EQ(error, "untouched");
    auto standing = brh::standingAnnouncement();
    ASSERT_TRUE(standing);
    EXPECT_EQ(standing->timeSource, 8u);
    EXPECT_EQ(standing->notifyValue, 2u);
    EXPECT_EQ(standing->reason, "power");

    EXPECT_FALSE(restart.notifyRestart(9, 3, "", error));
    EXPECT_EQ(error, "Reason for restart missing");
    standing = brh::standingAnnouncement();
    ASSERT_TRUE(standing) << "what stands is left alone";
    EXPECT_EQ(standing->reason, "power");

    restart.reset();
    EXPECT_FALSE(brh::standingAnnouncement());
}

TEST(BrhRestart, mayBeUsedByManyThreads)
{
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            std::string error;
            for (int round = 0; round < 500; ++round) {
                EXPECT_TRUE(BrhRestart::getInstance().notifyRestart(i, i, std::string(i + 1, 'r'), error));
                if (i == 3) {
                    BrhRestart::getInstance().reset();
                }
                if (const auto standing = brh::standingAnnouncement()) {
                    EXPECT_EQ(standing->reason.size(), standing->timeSource + 1);
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    BrhRestart::getInstance().reset();
}
