// bcictl loading software onto a unit with fixed answers.

#include "bcictlFixture.h"
#include "rowTest.h"

#include "moduleFile.h"
#include "progress.h"

#include <filesystem>
#include <fstream>

namespace merlow::bcictl {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::MatchesRegex;

constexpr std::size_t headerSize = 96;

/// Capabilities: one of another number, and that of the loading blocks with their size as 8 digits.
std::string capabilities(const std::string& blockSize)
{
    return references + "0002 0000" + padded("0007 00dc", 220) +
           padded("0001 00dc 0001 0001 0000 0000" + blockSize, 220);
}

/// A unit that takes a whole load in blocks of that size.
FakeUnit::Answers taking(const std::string& blockSize, const std::string& result = "0000")
{
    return {{0x1658007, {{0x1658008, capabilities(blockSize)}}},
            {0x1659800, {{0x1659801, references + "0001 0000"}}},
            {0x1658803, {{0x1658804, references + "0000 0000"}}},
            {0x1658806, {{0x1658807, "@0000"}}},
            {0x1658808, {{0x1658809, references + result + "0000"}}},
            {0x1659803, {{0x1659804, references + "0001 0000"}}}};
}

std::string loadRejection(const std::string& text)
{
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    return references + "0001 0000" + padded(tools::toHex({bytes, text.size()}), 112);
}

class LoadTest : public BcictlTest {
protected:
    LoadTest() : m_path(m_runFolder.path() + "/software") {}

    void write(const std::string& bytes) const { std::ofstream(m_path, std::ios::binary) << bytes; }

    int load(std::vector<const char*> more = {})
    {
        std::vector<const char*> words{"load", m_path.c_str(), "--software", "QXR7/15_R91"};
        words.insert(words.end(), more.begin(), more.end());
        return run(words);
    }

    std::string m_path;
};

TEST_F(LoadTest, aFileGoesOutInBlocksWithTheHeaderOfALoadModuleInFront)
{
    write("hello");
    startUnit(taking("00000040")); // 64: 96 + 5 bytes are two blocks
    EXPECT_EQ(load(), 0) << m_err.str();
    EXPECT_THAT(m_out.str(),
                MatchesRegex("loaded QXR7/15_R91: 101 bytes in 2 blocks, [0-9]+\\.[0-9] s, .*\n"));
    EXPECT_EQ(m_unit->received(0x1658803), "000000010000012d"
                                           "515852372f31355f52393100");
    const std::string rest = padded("", 80 - 64) + padded("523931", 16) + "68656c6c6f";
    EXPECT_EQ(m_unit->received(0x1658806), "000000010000012d"
                                           "0001"
                                           "0000"
                                           "00000025" +
                                               rest);
    EXPECT_EQ(m_unit->received(0x1658808), "000000010000012d");
    EXPECT_EQ(m_unit->received(0x1659803), "000000010000012d00010000");
}

TEST_F(LoadTest, aBlockThatIsNotAcknowledgedEndsItThoughLaterOnesAre)
{
    write(std::string(1000000, 'x'));
    auto answers = taking("00000001"); // a million blocks: their numbers come round many times
    answers[0x1658806].insert(answers[0x1658806].begin(), {FakeUnit::nextTime, ""});
    startUnit(answers);
    EXPECT_EQ(load({"--timeout", "0.3"}), 3);
    EXPECT_EQ(m_err.str(), "bcictl: load: block 0 of 1000096 was not acknowledged: no answer to "
                           "TARN_BC_LMC_DATA within 0.3 s\n");
    EXPECT_EQ(m_unit->received(0x1659803), "000000010000012d00010000");
}

TEST_F(LoadTest, jsonTellsFigures)
{
    write("hello");
    startUnit(taking("00001000"));
    EXPECT_EQ(load({"--json", "--window", "1"}), 0) << m_err.str();
    EXPECT_THAT(m_out.str(), HasSubstr(R"("bytes":101,"blocks":1,"blockSize":4096,"milliseconds":)"));
    EXPECT_THAT(m_out.str(), HasSubstr(R"("software":"QXR7/15_R91","loadStatus":0)"));
}

TEST_F(LoadTest, aLoadModuleGoesOutAsItIs)
{
    startUnit(taking("00001000"));
    write("raw");
    auto module = std::get<ModuleFile>(ModuleFile::open(m_path, {"QXR7/15", "R91"}));
    std::string bytes(module.size(), '\0');
    ASSERT_EQ(bytes.size(), headerSize + 3);
    ASSERT_TRUE(module.read(std::as_writable_bytes(std::span(bytes))));
    EXPECT_FALSE(module.read(std::as_writable_bytes(std::span(bytes))));
    write(bytes);
    EXPECT_EQ(load(), 0) << m_err.str();
    EXPECT_EQ(m_unit->received(0x1658806),
              "000000010000012d"
              "0000"
              "0000"
              "00000063" +
                  tools::toHex({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()}));
    EXPECT_EQ(run({"load", m_path.c_str(), "--software", "QXR8_R1"}), 2);
    EXPECT_THAT(m_err.str(), HasSubstr(" is the load module QXR7/15_R91\n"));
    write(bytes + "x");
    EXPECT_EQ(load(), 2);
    EXPECT_THAT(m_err.str(), HasSubstr("4 bytes of content, its header says 3\n"));
    write(bytes.substr(0, 20));
    EXPECT_EQ(load(), 2);
    EXPECT_THAT(m_err.str(), HasSubstr(" is a broken load module: "));
}

TEST_F(LoadTest, theNumbersOfBlocksStartAnew)
{
    write(std::string(65540, 'x'));
    startUnit(taking("00000001"));
    EXPECT_EQ(load({"--window", "64"}), 0) << m_err.str();
    EXPECT_THAT(m_out.str(), HasSubstr(" in 65636 blocks"));
    EXPECT_EQ(m_unit->received(0x1658806), "000000010000012d"
                                           "0063"
                                           "0000"
                                           "00000001"
                                           "78");
}

TEST_F(LoadTest, noMoreIsUnderWayThanTheUnitKeeps)
{
    write(std::string(20U << 20U, 'x'));
    auto answers = taking("00100000"); // 1 MiB
    answers.erase(0x1658806);
    startUnit(answers);
    EXPECT_EQ(load({"--window", "128", "--timeout", "0.3"}), 3);
    EXPECT_EQ(m_unit->received(0x1658806).substr(0, 20), "000000010000012d"
                                                         "0007");
}

TEST_F(LoadTest, whatIsOnTheUnitAlreadyIsNotLoaded)
{
    write("hello");
    for (const auto& [status, text] : {std::pair{"0001", "is stored"}, std::pair{"0002", "runs"}}) {
        auto answers = taking("00001000");
        answers[0x1658803] = {{0x1658804, references + status + "0000"}};
        startUnit(answers);
        EXPECT_EQ(load(), 0) << m_err.str();
        EXPECT_EQ(m_out.str(),
                  std::string("QXR7/15_R91 ") + text + " on the unit already; nothing was loaded\n");
        EXPECT_EQ(m_unit->received(0x1658806), "");
        EXPECT_EQ(m_unit->received(0x1658808), "");
        EXPECT_EQ(m_unit->received(0x1659803), "000000010000012d00010000");
        m_unit.reset();
    }
}

struct LoadFailureRow {
    const char* name;
    std::uint32_t request;
    std::vector<FakeUnit::Reply> replies;
    int status;
    const char* text;
    bool isReleased;
};

class LoadFailureTest : public LoadTest, public WithRow<LoadFailureRow> {};

ROW_TEST(LoadFailureTest, isToldWithItsStepAndLeavesNothingHeld)
{
    const LoadFailureRow& row = this->row();
    write("hello");
    auto answers = taking("00000040");
    answers[row.request] = row.replies;
    startUnit(answers);
    // One block at a time, so that none is on its way to a unit that goes.
    EXPECT_EQ(load({"--window", "1", "--timeout", "0.3"}), row.status);
    EXPECT_EQ(m_out.str(), "");
    EXPECT_EQ(m_err.str(), "bcictl: load: " + std::string(row.text) + "\n");
    EXPECT_EQ(m_unit->received(0x1659803), row.isReleased ? "000000010000012d00010000" : "");
}

const LoadFailureRow loadFailureRows[] = {
    {"noCapabilities",
     0x1658007,
     {},
     3,
     "reading the capabilities: no answer to TARN_BC_GET_CAPABILITIES_REQ within 0.3 s",
     false},
    {"noRecords",
     0x1658007,
     {{0x1658008, references + "0000 0000"}},
     3,
     "reading the capabilities: the unit names no size of blocks for loading",
     false},
    {"noLoadingBlocks",
     0x1658007,
     {{0x1658008, references + "0009 0000" + padded("0007 00dc", 220)}},
     3,
     "reading the capabilities: the unit names no size of blocks for loading",
     false},
    {"blocksOfNoSize",
     0x1658007,
     {{0x1658008, capabilities("00000000")}},
     3,
     "reading the capabilities: the unit names no size of blocks for loading",
     false},
    {"blocksOfTooLargeASize",
     0x1658007,
     {{0x1658008, capabilities("00800001")}},
     3,
     "reading the capabilities: the unit names no size of blocks for loading",
     false},
    {"startRefused",
     0x1658803,
     {{0x1658805, loadRejection("Busy")}},
     1,
     "starting the load: rejected, errorCode 1: Busy",
     true},
    {"noAcknowledgement",
     0x1658806,
     {},
     3,
     "block 0 of 2 was not acknowledged: no answer to TARN_BC_LMC_DATA within 0.3 s",
     true},
    {"acknowledgementOfAnother",
     0x1658806,
     {{0x1658807, references + "0001 0000"}},
     3,
     "block 0 of 2 was not acknowledged: no answer to TARN_BC_LMC_DATA within 0.3 s",
     true},
    {"endRefused",
     0x1658808,
     {{0x165880A, loadRejection("ticket in queue")}},
     1,
     "ending the load: rejected, errorCode 1: ticket in queue",
     true},
    {"notTaken",
     0x1658808,
     {{0x1658809, references + "0001 0000"}},
     1,
     "ending the load: the unit did not take the load module, it gives no reason",
     true},
    {"unitGone",
     0x1658806,
     {{FakeUnit::leave, ""}},
     4,
     "block 0 of 2 was not acknowledged: the unit went away",
     false}};
TEST_ROWS(Rows, LoadFailureTest, loadFailureRows);

class LoadSessionTest : public SessionTest {
protected:
    /// One block goes out and gets an acknowledgement without a number.
    void loadInASessionThatHoldsTheStore(const FakeUnit::Reply& end)
    {
        auto answers = taking("00001000");
        answers[0x1658806] = {{0x1658807, references}};
        answers[0x1658808] = {end};
        startUnit(answers);
        const std::string path = m_runFolder.path() + "/software";
        std::ofstream(path) << "hello";
        EXPECT_EQ(session("acquire\nload " + path + " --software QXR7_R91\n"), tools::ExitStatus::done);
        EXPECT_EQ(m_unit->received(0x1658808), "000000010000012d");
        EXPECT_EQ(m_unit->received(0x1659803), "") << "the store was given back";
    }

    const std::string m_failure =
        "bcictl: load: block 0 of 1 was not acknowledged: TARN_BC_LMC_DATA_ACK came "
        "with 12 bytes, it should have 16";
};

TEST_F(LoadSessionTest, aLoadThatFailsIsEndedSoThatTheNextOneCanBegin)
{
    loadInASessionThatHoldsTheStore({0x1658809, references + "0001 0000"});
    EXPECT_EQ(m_err.str(), m_failure + "\n");
}

TEST_F(LoadSessionTest, aLoadThatFailsAndIsThereNeverthelessIsToldAsBoth)
{
    loadInASessionThatHoldsTheStore({0x1658809, references + "0000 0000"});
    EXPECT_EQ(m_err.str(), m_failure + "; the unit has the whole load module all the same\n");
}

TEST(ProgressTest, tellsHowFarItIs)
{
    EXPECT_EQ(progressText(0, 1024, milliseconds(0)), "[------------------------]   0% 0 bytes of 1.0 KiB");
    EXPECT_EQ(progressText(24U << 20U, 96U << 20U, milliseconds(2000)),
              "[######------------------]  25% 24.0 MiB of 96.0 MiB, 12.0 MiB/s, 0:06 left");
    EXPECT_EQ(progressText(1, 1, milliseconds(10)),
              "[########################] 100% 1 byte of 1 byte, 100 bytes/s, 0:00 left");
    EXPECT_EQ(progressText(1U << 30U, 121ULL << 30U, milliseconds(1000)),
              "[------------------------]   1% 1.0 GiB of 121.0 GiB, 1.0 GiB/s, 2:00 left");
    EXPECT_EQ(rateText(5, milliseconds(0)), "-");
}

} // namespace
} // namespace merlow::bcictl
