// The unit's software, with the real store: loaded, selected and listed by clients, some of which die.

#include "client.h"
#include "rowTest.h"
#include "terminal.h"
#include "unit.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

namespace merlow::test {
namespace {

constexpr std::size_t headerSize = 96;
constexpr std::size_t blockSize = 65536;

std::string randomBytes(std::size_t size, std::mt19937_64& random)
{
    std::string bytes(size + sizeof(std::uint64_t), '\0');
    for (std::size_t i = 0; i < size; i += sizeof(std::uint64_t)) {
        const std::uint64_t word = random();
        std::memcpy(bytes.data() + i, &word, sizeof(word));
    }
    bytes.resize(size);
    return bytes;
}

std::string contentOf(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

class SoftwareTest : public ::testing::Test {
protected:
    void SetUp() override { m_unit.start(); }

    /// Random bytes in a file of their own.
    std::string file(std::size_t size)
    {
        const std::string path = m_files.path() + "/file" + std::to_string(m_random());
        std::ofstream(path, std::ios::binary) << randomBytes(size, m_random);
        return path;
    }
    [[nodiscard]] nlohmann::json swmd(const char* pointer) const
    {
        return m_unit.status("swmd").value(nlohmann::json::json_pointer(pointer), nlohmann::json());
    }
    [[nodiscard]] std::string storedFile(const std::string& software) const
    {
        return swmd("/store/place").get<std::string>() + "/" + software + ".lm";
    }
    /// The valid modules; one that is being written counts with a question mark.
    [[nodiscard]] std::vector<std::string> stored() const
    {
        std::vector<std::string> names;
        for (const auto& module : swmd("/store/modules")) {
            names.push_back(module.value("software", "") +
                            (module.value("status", "") == "VALID" ? "" : "?"));
        }
        return names;
    }
    [[nodiscard]] bool isStored(const std::string& software) const
    {
        const auto names = stored();
        return std::count(names.begin(), names.end(), software) == 1;
    }
    /// Nobody has a ticket, and no load is on its way.
    [[nodiscard]] bool isStoreFree() const
    {
        const auto status = m_unit.status("swmd");
        return status.is_object() && status.at("tickets").empty() &&
               !status.at("store").contains("loadedBytes");
    }
    [[nodiscard]] Outcome load(const std::string& path, const std::string& software,
                               const std::vector<std::string>& more = {}) const
    {
        std::vector<std::string> words{"load", path, "--software", software};
        words.insert(words.end(), more.begin(), more.end());
        return m_unit.bcictl(words);
    }
    /// A client with three blocks under way whose acknowledgements it will miss for long.
    std::unique_ptr<Process> stuckLoad(const std::string& software)
    {
        EXPECT_EQ(m_unit.boardctl({"drop", "swm::PushLoadData", "--count", "3"}).status, 0);
        auto process =
            std::make_unique<Process>("bcictl",
                                      std::vector<std::string>{"load", file(10 * blockSize), "--software",
                                                               software, "--window", "3", "--timeout", "600"},
                                      m_unit.environment());
        EXPECT_TRUE(waitUntil([this] { return swmd("/store/loadedBytes") == 3 * blockSize; }))
            << process->err();
        return process;
    }

    Unit m_unit;
    TempDir m_files;
    std::mt19937_64 m_random{1}; // NOLINT(bugprone-random-generator-seed): the same bytes in every run
};

// Loads

struct SizeRow {
    std::size_t size;
    std::size_t blocks;
};

TEST_F(SoftwareTest, aFileIsStoredBehindTheHeaderOfALoadModule)
{
    const SizeRow rows[] = {{0, 1}, {1, 1}, {blockSize - headerSize, 1}, {blockSize - headerSize + 1, 2}};
    int number = 0;
    for (const auto& [size, blocks] : rows) {
        const std::string software = "QXR" + std::to_string(++number) + "_R1A";
        const std::string path = file(size);
        const auto outcome = load(path, software, {"--json"});
        ASSERT_EQ(outcome.status, 0) << outcome.err;
        const auto told = nlohmann::json::parse(outcome.out);
        EXPECT_EQ(told.at("bytes"), size + headerSize);
        EXPECT_EQ(told.at("blocks"), blocks);
        EXPECT_EQ(told.at("blockSize"), blockSize);
        EXPECT_EQ(outcome.err, "") << "no progress is shown where there is no terminal";
        const std::string whole = contentOf(storedFile(software));
        EXPECT_EQ(whole.substr(0, 8), "MERLOWLM");
        EXPECT_EQ(whole.size(), size + headerSize);
        EXPECT_TRUE(whole.substr(headerSize) == contentOf(path)) << size;
        EXPECT_TRUE(isStored(software));
        EXPECT_TRUE(isStoreFree());
    }
}

TEST_F(SoftwareTest, aLoadModuleIsStoredAsItIsUnderItsOwnNameOnly)
{
    ASSERT_EQ(load(file(100000), "QXR1_R1A").status, 0);
    const std::string module = m_files.path() + "/module";
    std::ofstream(module, std::ios::binary) << contentOf(storedFile("QXR1_R1A"));

    Unit other;
    other.start();
    auto outcome = other.bcictl({"load", module, "--software", "QXR1_R1B"});
    EXPECT_EQ(outcome.status, 2) << outcome.err;
    outcome = other.bcictl({"load", module, "--software", "QXR1_R1A"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    const auto place = other.status("swmd").at("store").at("place").get<std::string>();
    EXPECT_TRUE(contentOf(place + "/QXR1_R1A.lm") == contentOf(module));
}

// Sanitizers make each byte many times as dear.
#if defined(MERLOW_ADDRESS_SANITIZER) || defined(MERLOW_THREAD_SANITIZER)
constexpr std::size_t largeMebibytes = 4;
#else
constexpr std::size_t largeMebibytes = 64;
#endif

TEST_F(SoftwareTest, aLargeModuleArrivesWholeWhateverTheWindow)
{
    const std::string path = file(largeMebibytes << 20U);
    const std::string content = contentOf(path);
    for (const char* window : {"1", "8", "64"}) {
        const std::string software = "QXR" + std::string(window) + "_R1A";
        const auto outcome = load(path, software, {"--window", window});
        ASSERT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_NE(outcome.out.find("loaded " + software + ": " + std::to_string(largeMebibytes) +
                                   ".0 MiB in " + std::to_string(largeMebibytes * 16 + 1) + " blocks, "),
                  std::string::npos)
            << outcome.out;
        EXPECT_TRUE(contentOf(storedFile(software)).substr(headerSize) == content) << window;
    }
}

/// A user who is nobody in particular: the kernel grants its sockets no more than it grants by itself.
constexpr uid_t ordinaryUser = 65534;

TEST(OrdinaryUserSoftwareTest, aLargeModuleArrivesWholeThroughTheKernelsDefaultBuffers)
{
    std::optional<uid_t> user;
    if (geteuid() == 0) {
        user = ordinaryUser;
        if (runProgram("bcictl", {"--version"}, {}, {}, user).status != 0) {
            GTEST_SKIP() << "the folder of the programs is closed to ordinary users";
        }
    }
    Unit unit(user);
    unit.start();
    const std::string path = unit.runDir() + "/file";
    std::mt19937_64 random{1}; // NOLINT(bugprone-random-generator-seed): the same bytes in every run
    const std::string content = randomBytes(largeMebibytes << 20U, random);
    std::ofstream(path, std::ios::binary) << content;
    for (const char* window : {"1", "64"}) {
        const std::string software = "QXR" + std::string(window) + "_R1A";
        const auto outcome = unit.bcictl({"load", path, "--software", software, "--window", window});
        ASSERT_EQ(outcome.status, 0) << outcome.err;
        const auto place = unit.status("swmd").at("store").at("place").get<std::string>();
        struct stat status {};
        ASSERT_EQ(stat((place + "/" + software + ".lm").c_str(), &status), 0);
        EXPECT_NE(status.st_uid, 0U) << "this was no ordinary user";
        EXPECT_TRUE(contentOf(place + "/" + software + ".lm").substr(headerSize) == content) << window;
    }
}

TEST_F(SoftwareTest, onATerminalABarShowsHowFarALoadIs)
{
    if (!Terminal::areToBeHad()) {
        GTEST_SKIP() << "there are no terminals here";
    }
    const std::string path = file(3 * blockSize);
    for (const bool isJson : {false, true}) {
        std::vector<std::string> words{"load", path, "--software", isJson ? "QXR2_R1A" : "QXR1_R1A"};
        if (isJson) {
            words.emplace_back("--json");
        }
        const auto load = Terminal().run("bcictl", words, m_unit.environment());
        EXPECT_EQ(load.status, 0) << load.err;
        const std::string& text = load.out;
        if (isJson) {
            EXPECT_EQ(text.find('\x1b'), std::string::npos) << text;
            EXPECT_TRUE(nlohmann::json::accept(text)) << text;
            continue;
        }
        EXPECT_TRUE(text.starts_with("\r[")) << text;
        EXPECT_NE(text.find("% "), std::string::npos) << text;
        EXPECT_NE(text.find(" of 192.1 KiB"), std::string::npos) << text;
        EXPECT_NE(text.find("\r\x1b[Kloaded QXR1_R1A: 192.1 KiB in 4 blocks, "), std::string::npos)
            << "the last line takes the bar's place: " << text;
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
        EXPECT_TRUE(text.ends_with("\r\n")) << text;
    }
}

TEST_F(SoftwareTest, whatIsThereOrRunsIsNotLoadedAgain)
{
    const std::string path = file(10);
    ASSERT_EQ(load(path, "QXR1_R1A").status, 0);
    auto outcome = load(path, "QXR1_R1A");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.out.find("is stored on the unit already; nothing was loaded"), std::string::npos);
    outcome = load(path, "QXR7041162/15_R91KT");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.out.find("runs on the unit already; nothing was loaded"), std::string::npos);
    EXPECT_TRUE(isStoreFree());
}

TEST_F(SoftwareTest, whenTheSlotsAreFullTheOldestRevisionGivesWay)
{
    const std::string path = file(10);
    for (const char* software : {"QXR1_R3A", "QXR1_R1B", "QXR1_R1A", "QXR1_R2A", "QXR1_R4A"}) {
        const auto outcome = load(path, software);
        EXPECT_EQ(outcome.status, 0) << software << outcome.err;
    }
    EXPECT_EQ(stored(), (std::vector<std::string>{"QXR7041162/15_R91KT", "QXR1_R3A", "QXR1_R1B", "QXR1_R4A",
                                                  "QXR1_R2A"}));
    ASSERT_EQ(m_unit.boardctl({"refuse", "swm::DeleteReq"}).status, 0);
    const auto outcome = load(path, "QXR1_R5A");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.err.find("starting the load: "), std::string::npos) << outcome.err;
    EXPECT_NE(outcome.err.find("No LMC slots available"), std::string::npos) << outcome.err;
    EXPECT_TRUE(isStoreFree());
}

TEST_F(SoftwareTest, aBlockThatIsNotAcknowledgedIsNamed)
{
    for (const char* what : {"drop", "abort"}) {
        ASSERT_EQ(m_unit.boardctl({what, "swm::PushLoadData"}).status, 0);
        const auto outcome = load(file(3 * blockSize), "QXR1_R1A", {"--window", "1", "--timeout", "0.5"});
        EXPECT_EQ(outcome.status, 3);
        EXPECT_NE(outcome.err.find("block 0 of 4 was not acknowledged"), std::string::npos) << outcome.err;
        EXPECT_TRUE(isStoreFree()) << what;
        EXPECT_FALSE(isStored("QXR1_R1A"));
    }
}

// Selection, the running module, the list

TEST_F(SoftwareTest, whatIsStoredIsSelectedAndListed)
{
    ASSERT_EQ(load(file(10), "QXR1/2_R1A").status, 0);
    EXPECT_EQ(m_unit.bcictl({"running"}).out, "running QXR7041162%15_R91KT\n");
    EXPECT_EQ(m_unit.bcictl({"select", "QXR1/2_R1A"}).out, "QXR1/2_R1A runs from the next restart on\n");
    const auto refused = m_unit.bcictl({"select", "QXR1/2_R1B"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("selecting: "), std::string::npos) << refused.err;
    EXPECT_NE(refused.err.find("ABN: Resource not acquired"), std::string::npos) << refused.err;

    const std::string list = m_unit.bcictl({"components"}).out;
    EXPECT_NE(list.find("<ProdNbr>QXR7041162/15</ProdNbr>\n<Rev>R91KT</Rev>\n<Preinstalled/>\n"),
              std::string::npos)
        << list;
    EXPECT_NE(list.find("<ProdNbr>QXR1/2</ProdNbr>\n<Rev>R1A</Rev>\n"), std::string::npos) << list;
    EXPECT_EQ(nlohmann::json::parse(m_unit.bcictl({"components", "--json"}).out).at("list"), list);
    EXPECT_EQ(nlohmann::json::parse(m_unit.bcictl({"running", "--json"}).out).at("runningSoftware"),
              "QXR7041162%15_R91KT");
    EXPECT_TRUE(isStoreFree());
}

TEST_F(SoftwareTest, aListOfManyPiecesIsWhole)
{
    Unit unit;
    unit.startLegacyd();
    unit.startBrhd();
    unit.startSwmd({"--list-piece", "7"});
    unit.startMerlowd();
    ASSERT_TRUE(unit.waitUntilItLetsClientsIn());
    EXPECT_EQ(unit.bcictl({"components"}).out, m_unit.bcictl({"components"}).out);
}

TEST_F(SoftwareTest, aGsmClientOfAKpxUnitGetsTwoPiecesOfAListAtMost)
{
    const std::string board = m_files.path() + "/board.json";
    auto description = nlohmann::json::parse(m_unit.boardctl({"describe", "--json"}).out);
    description["product"]["name"] = "KPX 12";
    std::ofstream(board) << description;
    Unit unit;
    unit.setVariable("MERLOW_BOARD_FILE", board);
    unit.start();
    ASSERT_EQ(unit.bcictl({"pid", "hw"}).status, 0);
    auto whole = unit.bcictl({"components"}).out;
    ASSERT_LE(whole.size(), 255U);
    EXPECT_EQ(unit.bcictl({"components", "--server-ref", "150"}).out, whole);
    for (const char* software : {"QXR7/15_R1A", "QXR7/16_R1A"}) {
        ASSERT_EQ(unit.bcictl({"load", file(10), "--software", software}).status, 0);
    }
    whole = unit.bcictl({"components"}).out;
    ASSERT_GT(whole.size(), 510U);
    // The second product number is that of the running module, too, which it is already.
    const auto cut = unit.bcictl({"components", "--server-ref", "150", "--timeout", "0.5"});
    EXPECT_EQ(cut.status, 3);
    EXPECT_NE(cut.out.find(whole.substr(0, 510)), std::string::npos) << cut.out;
    EXPECT_EQ(cut.out.find(whole.substr(0, 511)), std::string::npos) << cut.out;
}

// Clients that compete, stop, die

TEST_F(SoftwareTest, theSecondClientWaitsForTheFirst)
{
    Process first("bcictl", {"acquire"}, m_unit.environment());
    ASSERT_TRUE(waitUntil([&] { return first.out().find("store acquired") != std::string::npos; }))
        << first.err();
    Process second("bcictl", {"load", file(10), "--software", "QXR1_R1A", "--timeout", "600"},
                   m_unit.environment());
    ASSERT_TRUE(waitUntil([this] { return swmd("/tickets").size() == 2; }));
    const auto impatient = m_unit.bcictl({"select", "QXR1_R1A", "--timeout", "0.1"});
    EXPECT_EQ(impatient.status, 3);
    EXPECT_NE(impatient.err.find("acquiring the store: "), std::string::npos) << impatient.err;
    EXPECT_TRUE(waitUntil([this] { return swmd("/tickets").size() == 2; })) << "and left its place";
    EXPECT_TRUE(second.running());
    first.signal(SIGINT);
    EXPECT_EQ(first.wait(), 128 + SIGINT);
    EXPECT_EQ(second.wait(), 0) << second.err();
    EXPECT_TRUE(isStored("QXR1_R1A"));
    EXPECT_TRUE(isStoreFree());
}

TEST_F(SoftwareTest, aSessionHoldsTheStoreUntilItReleasesIt)
{
    const auto outcome =
        m_unit.bcictl({"session"}, "acquire\nacquire\nselect QXR7041162/15_R91KT\nrelease\nrunning\n");
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_NE(outcome.out.find("store acquired\n"), std::string::npos) << outcome.out;
    EXPECT_NE((outcome.out + outcome.err).find("the store is held already"), std::string::npos);
    EXPECT_NE(outcome.out.find("store released\n"), std::string::npos) << outcome.out;
    EXPECT_TRUE(isStoreFree());
}

class StuckLoadTest : public SoftwareTest, public WithRow<int> {};

ROW_TEST(StuckLoadTest, whoeverGoesInTheMiddleLeavesNothing)
{
    const auto client = stuckLoad("QXR1_R1A");
    Process next("bcictl", {"load", file(10), "--software", "QXR2_R1A", "--timeout", "600"},
                 m_unit.environment());
    ASSERT_TRUE(waitUntil([this] { return swmd("/tickets").size() == 2; }));
    client->signal(row());
    EXPECT_NE(client->wait(), 0);
    EXPECT_EQ(next.wait(), 0) << next.err();
    EXPECT_EQ(stored(), (std::vector<std::string>{"QXR7041162/15_R91KT", "QXR2_R1A"}));
    EXPECT_TRUE(isStoreFree());
    const auto again = load(file(10 * blockSize), "QXR1_R1A");
    EXPECT_EQ(again.status, 0) << again.err;
}

const int stuckLoadSignals[] = {SIGINT, SIGTERM, SIGKILL};
TEST_ROWS(by, StuckLoadTest, stuckLoadSignals,
          [](const auto& row) { return std::string("signal") + std::to_string(row); });

// An SWM server that dies

TEST_F(SoftwareTest, theStoresDeathInTheMiddleOfALoadLeavesTheRestOfTheUnit)
{
    ASSERT_EQ(load(file(10), "QXR1_R1A").status, 0);
    ASSERT_EQ(m_unit.boardctl({"drop", "swm::PushLoadData", "--count", "3"}).status, 0);
    Process client(
        "bcictl", {"load", file(10 * blockSize), "--software", "QXR2_R1A", "--window", "3", "--timeout", "1"},
        m_unit.environment());
    ASSERT_TRUE(waitUntil([this] { return swmd("/store/loadedBytes") == 3 * blockSize; }));
    m_unit.swmd().kill();
    EXPECT_EQ(client.wait(), 3);
    EXPECT_NE(client.err().find("block 0 of 11 was not acknowledged"), std::string::npos) << client.err();
    EXPECT_EQ(m_unit.bcictl({"audit"}).status, 0);
    EXPECT_EQ(m_unit.bcictl({"running", "--timeout", "0.2"}).status, 3);

    // The server keeps to the connection that it had; a new one comes with a new server.
    m_unit.startSwmd();
    ASSERT_TRUE(waitUntil([this] { return m_unit.status("swmd").is_object(); }));
    EXPECT_EQ(m_unit.bcictl({"running", "--timeout", "0.2"}).status, 3);
    EXPECT_EQ(stored(), (std::vector<std::string>{"QXR7041162/15_R91KT", "QXR1_R1A"}));
    m_unit.merlowd().signal(SIGTERM);
    ASSERT_EQ(m_unit.merlowd().wait(), 0);
    m_unit.startMerlowd();
    ASSERT_TRUE(m_unit.waitUntilItLetsClientsIn());
    EXPECT_EQ(m_unit.bcictl({"running"}).status, 0);
    EXPECT_EQ(load(file(10), "QXR2_R1A").status, 0);
}

// Clients that know nothing of acquisitions

TEST(AutomaticBootTest, aLoadAcquiresTheStoreForItsClient)
{
    Unit unit;
    unit.setVariable("SYS_MODE", "AUBOOT");
    unit.start();
    const Mailboxes mailboxes(unit.runDir());
    const mnet_mbox_id_t server = locate("Merlow");
    Client client(mnet_create_mailbox("du", 0));
    ASSERT_EQ(client.send(server, 0x1658000, "00000007 0000012c 0001 0000"), 0); // revision 1
    const auto confirmed = client.receive(0x1658001);
    ASSERT_TRUE(confirmed);
    const std::string refs = *confirmed;
    ASSERT_EQ(client.send(server, 0x1658803, refs + "515852315f523141 00"), 0); // "QXR1_R1A"
    EXPECT_EQ(client.receive(0x1658804), refs + "00000000") << "and nothing of the acquisition";
    ASSERT_EQ(client.send(server, 0x1658806, refs + "0007 0000 00000002 abcd"), 0);
    EXPECT_EQ(client.receive(0x1658807), refs + "00070000");
    ASSERT_EQ(client.send(server, 0x1658808, refs), 0);
    EXPECT_EQ(client.receive(0x1658809), refs + "00010000") << "it was no load module";
    // The acquisition is there for what comes next: "QXR7041162/15_R91KT".
    ASSERT_EQ(client.send(server, 0x165880B, refs + "515852373034313136322f31355f5239314b5400"), 0);
    EXPECT_EQ(client.receive(0x165880C), refs);
    ASSERT_EQ(client.send(server, 0x1659803, refs + "0001 0000"), 0);
    EXPECT_EQ(client.receive(0x1659804), refs + "00010000");
}

} // namespace
} // namespace merlow::test
