/// brhd, legacyd and boardctl as real processes, spoken to through the mailbox library.
#include "client.h"
#include "process.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <set>

namespace merlow::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

class BoardProcessTest : public testing::Test {
protected:
    void startBrhd(const std::vector<std::string>& arguments = {})
    {
        m_brhd = std::make_unique<Process>("brhd", arguments, m_environment);
        m_bri = locate("BriServer");
        m_bmmi = locate("BmmiServer");
        ASSERT_NE(m_bri, MNET_MBOX_NONE) << m_brhd->err();
        ASSERT_NE(m_bmmi, MNET_MBOX_NONE) << m_brhd->err();
    }

    void startLegacyd()
    {
        m_legacyd = std::make_unique<Process>("legacyd", std::vector<std::string>{}, m_environment);
        m_legacy = locate("LegacyMerlow");
        ASSERT_NE(m_legacy, MNET_MBOX_NONE) << m_legacyd->err();
    }

    Outcome boardctl(const std::vector<std::string>& arguments) const
    {
        return runProgram("boardctl", arguments, m_environment);
    }

    nlohmann::json status(const std::string& program) const
    {
        const auto outcome = boardctl({"status", program, "--json"});
        return outcome.status == 0 ? nlohmann::json::parse(outcome.out, nullptr, false) : nlohmann::json();
    }

    std::size_t held(const std::string& program, const char* pointer) const
    {
        return status(program).value(nlohmann::json::json_pointer(pointer), nlohmann::json::array()).size();
    }

    /// The answer of number `answer` to a message of number `number`.
    static std::string ask(Client& client, mnet_mbox_id_t to, std::uint32_t number, const std::string& rest,
                           std::uint32_t answer)
    {
        return client.send(to, number, rest) == 0 ? client.receive(answer).value_or("no answer")
                                                  : "cannot send";
    }

    /// Whether the notice of the end of `mailbox`, which is watched already, comes.
    static bool isLost(mnet_mbox_id_t mailbox)
    {
        const std::uint32_t filter[] = {1, MNET_MONITOR_DEFAULT_MSGNO};
        mnet_msg* notice = mnet_receive(filter, static_cast<int>(patience.count()), mailbox);
        const bool lost = notice != nullptr;
        mnet_free(&notice);
        return lost;
    }

    static void watch(mnet_mbox_id_t mailbox)
    {
        mnet_msg* none = nullptr;
        ASSERT_NE(mnet_monitor(mailbox, &none), MNET_MBOX_NONE);
    }

    TempDir m_dir;
    Process::Environment m_environment{{"MERLOW_RUN_DIR", m_dir.path()}};
    Mailboxes m_mailboxes{m_dir.path()};
    std::unique_ptr<Process> m_brhd;
    std::unique_ptr<Process> m_legacyd;
    mnet_mbox_id_t m_bri = MNET_MBOX_NONE;
    mnet_mbox_id_t m_bmmi = MNET_MBOX_NONE;
    mnet_mbox_id_t m_legacy = MNET_MBOX_NONE;
};

TEST_F(BoardProcessTest, sayWhatTheyServeAndEndOnSignals)
{
    startBrhd();
    startLegacyd();
    // They say so once their mailboxes can be found.
    EXPECT_TRUE(waitUntil([this] { return !m_brhd->err().empty() && !m_legacyd->err().empty(); }));
    EXPECT_EQ(m_brhd->err(), "brhd: serving BriServer and BmmiServer in " + m_dir.path() + "\n");
    EXPECT_EQ(m_legacyd->err(), "legacyd: serving LegacyMerlow in " + m_dir.path() + "\n");
    const Client watcher(mnet_create_mailbox("watcher", 0));
    watch(m_bri);
    m_brhd->signal(SIGTERM);
    m_legacyd->signal(SIGINT);
    EXPECT_EQ(m_brhd->wait(), 0) << m_brhd->err();
    EXPECT_EQ(m_legacyd->wait(), 0) << m_legacyd->err();
    EXPECT_TRUE(isLost(m_bri));
}

TEST_F(BoardProcessTest, limitsThatAreNoneAreWrongUsage)
{
    for (const char* option : {"--max-connections=-1", "--max-connections=x", "--bri-revisions=0"}) {
        const auto outcome = runProgram("brhd", {option}, m_environment);
        EXPECT_EQ(outcome.status, 2) << option;
        EXPECT_NE(outcome.err.find(std::string(option).substr(0, 8)), std::string::npos) << outcome.err;
    }
}

TEST_F(BoardProcessTest, theBoardIsWhatItsFileSays)
{
    const std::string file = m_dir.path() + "/board.json";
    m_environment["MERLOW_BOARD_FILE"] = file;
    std::ofstream(file) << R"({"capabilities": [3], "bri": {"capabilities": ["HW_LOG"], "hotspots": [],
        "temperatureRanges": []}, "restart": {"ranks": [2]}, "product": {"name": "KPX 7"}})";
    startBrhd();
    Client client(mnet_create_mailbox("client", 0));
    ask(client, m_bri, 0x170772D, "00000064 00000064 0801", 0x170772E);
    EXPECT_EQ(ask(client, m_bri, 0x1707730, "00000005 00000001", 0x1707731), "000000050000006408012002");

    const auto described = boardctl({"describe"});
    EXPECT_EQ(described.status, 0);
    EXPECT_THAT(described.out, StartsWith("the board description in " + file + "\n"));
    EXPECT_THAT(described.out, HasSubstr("\n  product.name                 KPX 7\n"));
    const auto json = boardctl({"describe", "--json"});
    EXPECT_EQ(nlohmann::json::parse(json.out)["bri"]["capabilities"], nlohmann::json({"HW_LOG"}));
    // What it prints is a file that describes the same board.
    std::ofstream(file) << json.out;
    m_brhd->signal(SIGTERM);
    EXPECT_EQ(m_brhd->wait(), 0);
    startBrhd();
    EXPECT_EQ(boardctl({"describe", "--json"}).out, json.out);
}

TEST_F(BoardProcessTest, aDescriptionWithAMistakeStopsTheStart)
{
    const std::string file = m_dir.path() + "/board.json";
    m_environment["MERLOW_BOARD_FILE"] = file;
    const auto missing = runProgram("brhd", {}, m_environment);
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err, "brhd: " + file + ": No such file or directory\n");
    std::ofstream(file) << "{\"capabilities\": [3],\n \"restart\": {\"noticeMs\": -1}}";
    const auto wrong = runProgram("brhd", {}, m_environment);
    EXPECT_EQ(wrong.status, 1);
    EXPECT_EQ(wrong.err,
              "brhd: " + file + ":2: restart.noticeMs: must be a whole number from 0 to 600000, not -1\n");
}

TEST_F(BoardProcessTest, aSecondOneFailsAtOnce)
{
    startBrhd();
    startLegacyd();
    for (const std::string program : {"brhd", "legacyd"}) {
        const auto outcome = runProgram(program, {}, m_environment);
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(outcome.err, program + ": another " + program + " is running in " + m_dir.path() + "\n");
    }
    EXPECT_EQ(boardctl({"status"}).status, 0) << "the first ones go on";
}

TEST_F(BoardProcessTest, aNameThatIsTakenIsTold)
{
    const Client impostor(mnet_create_mailbox("BmmiServer", 0));
    const auto outcome = runProgram("brhd", {}, m_environment);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.err, HasSubstr("another program has the mailbox BmmiServer"));
}

TEST_F(BoardProcessTest, theFolderIsAnOptionToo)
{
    const TempDir other;
    const std::string runDir = other.path() + "/a/b";
    Process brhd("brhd", {"--run-dir", runDir}, m_environment);
    ASSERT_TRUE(waitUntil([&] { return brhd.err().ends_with("\n"); }));
    EXPECT_EQ(brhd.err(), "brhd: serving BriServer and BmmiServer in " + runDir + "\n");
    EXPECT_EQ(boardctl({"--run-dir", runDir, "status", "brhd"}).status, 0);
    EXPECT_EQ(boardctl({"status", "brhd", "--run-dir", runDir}).status, 0);
    EXPECT_EQ(boardctl({"status", "brhd", "--timeout", "0.1"}).status, 4);
}

TEST_F(BoardProcessTest, aConnectionEndsWithItsMailbox)
{
    startBrhd();
    startLegacyd();
    Client client(mnet_create_mailbox("client", 0));
    EXPECT_EQ(ask(client, m_bri, 0x170772D, "00000064 00000064 0801", 0x170772E), "00000064000000010801");
    EXPECT_EQ(ask(client, m_bri, 0x1707733, "00000001 00000001 0801", 0x1707734), "00000001000000640801");
    EXPECT_EQ(ask(client, m_bmmi, 0x1707570, "00000065 00000065 0801", 0x1707571), "00000065000000010801");
    EXPECT_EQ(ask(client, m_bmmi, 0x1707580, "00000001 00000001 0801", 0x1707581), "00000001000000650801");
    EXPECT_EQ(ask(client, m_legacy, 0x1658000, "00000007 0000012c 0003 0000", 0x1658001), "000000070000012c");
    EXPECT_EQ(held("brhd", "/bri/timeSources"), 1u);
    EXPECT_EQ(held("brhd", "/bmmi/users"), 1u);
    EXPECT_EQ(held("legacyd", "/connections"), 1u);
    client.close();
    EXPECT_TRUE(waitUntil([this] {
        return held("brhd", "/bri/connections") == 0 && held("brhd", "/bmmi/connections") == 0 &&
               held("legacyd", "/connections") == 0;
    })) << status("brhd").dump(2);
    EXPECT_EQ(held("brhd", "/bri/timeSources"), 0u);
    EXPECT_EQ(held("brhd", "/bmmi/users"), 0u);
}

TEST_F(BoardProcessTest, aKilledOneIsReplacedAtOnce)
{
    for (int round = 0; round < 5; ++round) {
        startBrhd();
        startLegacyd();
        Client client(mnet_create_mailbox("client", 0));
        EXPECT_EQ(ask(client, m_bri, 0x170772D, "00000064 00000064 0801", 0x170772E), "00000064000000010801");
        EXPECT_EQ(ask(client, m_legacy, 0x1658FFF, "0102", 0x1658FFF), "0102");
        watch(m_bri);
        watch(m_legacy);
        m_brhd->kill();
        m_legacyd->kill();
        EXPECT_TRUE(isLost(m_bri));
        EXPECT_TRUE(isLost(m_legacy));
    }
}

TEST_F(BoardProcessTest, longSignalsAreEchoedWhole)
{
    startLegacyd();
    Client client(mnet_create_mailbox("client", 0));
    std::string rest;
    for (std::size_t index = 0; index < 1'000'000; ++index) {
        rest += "0123456789abcdef"[index * 7 % 16];
    }
    EXPECT_EQ(ask(client, m_legacy, 0x165A000, rest, 0x165A000), rest);
    EXPECT_EQ(client.lastSender(), m_legacy);
    EXPECT_EQ(ask(client, m_legacy, 0x165A000, "", 0x165A000), "");
}

TEST_F(BoardProcessTest, revisionsAndTheLimitAreOptions)
{
    startBrhd({"--bri-revisions", "1,3", "--max-connections", "1"});
    Client client(mnet_create_mailbox("client", 0));
    EXPECT_EQ(ask(client, m_bri, 0x170772D, "00000064 00000064 080108020803", 0x170772E),
              "00000064000000010803");
    EXPECT_EQ(ask(client, m_bri, 0x170772D, "00000065 00000065 0801", 0x170772F), "00000065000000650802");
    EXPECT_EQ(ask(client, m_bmmi, 0x1707570, "00000065 00000065 0803", 0x1707572), "00000065000000650801");
}

TEST_F(BoardProcessTest, answersAreRefusedDelayedAndDropped)
{
    startBrhd();
    Client client(mnet_create_mailbox("client", 0));
    ask(client, m_bri, 0x170772D, "00000064 00000064 0801", 0x170772E);
    const auto registerSource = [&](std::uint32_t answer) {
        return ask(client, m_bri, 0x1707733, "00000001 00000001 0801", answer);
    };

    EXPECT_EQ(boardctl({"refuse", "bri::RegisterUtcTimeSourceReq"}).status, 0);
    EXPECT_EQ(registerSource(0x1707735), "0000000100000064");

    EXPECT_EQ(boardctl({"drop", "bri::RegisterUtcTimeSourceReq"}).status, 0);
    ASSERT_EQ(client.send(m_bri, 0x1707733, "00000001 00000001 0801"), 0);

    EXPECT_EQ(boardctl({"delay", "bri::RegisterUtcTimeSourceReq", "--ms", "150"}).status, 0);
    const auto begin = Clock::now();
    EXPECT_EQ(registerSource(0x1707734), "00000001000000640802");
    EXPECT_GE(Clock::now() - begin, milliseconds(150));

    EXPECT_EQ(boardctl({"delay", "bri::RegisterUtcTimeSourceReq", "--ms", "0"}).status, 0);
    EXPECT_EQ(registerSource(0x1707734), "00000001000000640803");
    EXPECT_EQ(registerSource(0x1707734), "00000001000000640804");
    EXPECT_EQ(status("brhd")["bri"]["dropped"]["bri::RegisterUtcTimeSourceReq"], 1);
}

TEST_F(BoardProcessTest, aServerThatIsLostComesBack)
{
    startBrhd();
    startLegacyd();
    const struct {
        const char* name;
        const char* mailboxName;
    } servers[] = {{"bri", "BriServer"}, {"bmmi", "BmmiServer"}, {"legacy", "LegacyMerlow"}};
    for (const auto& [name, mailboxName] : servers) {
        const mnet_mbox_id_t mailbox = locate(mailboxName);
        Client client(mnet_create_mailbox("client", 0));
        ask(client, m_bri, 0x170772D, "00000064 00000064 0801", 0x170772E);
        watch(mailbox);
        const auto outcome = boardctl({"lose", name});
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_TRUE(isLost(mailbox)) << name;
        EXPECT_NE(locate(mailboxName), mailbox);
        m_bri = locate("BriServer");
    }
    // Notices still come to brhd and legacyd after their mailboxes have changed.
    m_legacy = locate("LegacyMerlow");
    Client client(mnet_create_mailbox("client", 0));
    EXPECT_EQ(ask(client, m_legacy, 0x1658000, "00000007 0000012c 0003 0000", 0x1658001), "000000070000012c");
    EXPECT_EQ(ask(client, m_bri, 0x170772D, "00000064 00000064 0801", 0x170772E).substr(0, 8), "00000064");
    client.close();
    EXPECT_TRUE(waitUntil(
        [this] { return held("brhd", "/bri/connections") == 0 && held("legacyd", "/connections") == 0; }));
}

TEST_F(BoardProcessTest, oneConnectionIsForgotten)
{
    startBrhd();
    Client client(mnet_create_mailbox("client", 0));
    ask(client, m_bri, 0x170772D, "00000064 00000064 0801", 0x170772E);
    EXPECT_EQ(boardctl({"lose", "bri", "--ref", "2"}).status, 4);
    EXPECT_EQ(boardctl({"lose", "bri", "--ref", "1"}).status, 0);
    EXPECT_EQ(held("brhd", "/bri/connections"), 0u);
}

TEST_F(BoardProcessTest, signalsAreAnsweredByRule)
{
    startLegacyd();
    Client client(mnet_create_mailbox("client", 0));
    EXPECT_EQ(boardctl({"answer", "0x165A000", "0x165A001", "0a 0b"}).status, 0);
    EXPECT_EQ(ask(client, m_legacy, 0x165A000, "00000001 0000012c 99", 0x165A001), "000000010000012c0a0b");
    EXPECT_EQ(boardctl({"clear"}).status, 0);
    EXPECT_EQ(ask(client, m_legacy, 0x165A000, "00000001", 0x165A000), "00000001");
}

TEST_F(BoardProcessTest, boardctlTellsHowItEndedByItsStatus)
{
    EXPECT_EQ(boardctl({"status", "--timeout", "0.1"}).status, 4);
    EXPECT_EQ(boardctl({"clear", "brhd", "--timeout", "0.1"}).status, 4);
    startBrhd();
    const auto both = boardctl({"status", "--timeout", "0.2"});
    EXPECT_EQ(both.status, 0);
    EXPECT_THAT(both.out, HasSubstr("BriServer"));
    EXPECT_THAT(both.err, HasSubstr("no legacyd found in " + m_dir.path()));
    const auto json = boardctl({"status", "--json", "--timeout", "0.2"});
    EXPECT_EQ(nlohmann::json::parse(json.out)["brhd"]["pid"], m_brhd->pid());
    EXPECT_TRUE(nlohmann::json::parse(json.out)["legacyd"].is_null());
    startLegacyd();

    const struct {
        std::vector<std::string> arguments;
        int status;
        const char* told;
    } cases[] = {
        {{"kinds"}, 0, ""},
        {{"--help"}, 0, ""},
        {{"lose", "--help"}, 0, ""},
        {{"--version"}, 0, ""},
        {{"refuse", "legacy::0x165A000"}, 1, "legacy::0x165a000 has no reject"},
        {{"answer", "0x1658000", "1"}, 1, "connection signals have no rules"},
        {{}, 2, "boardctl: a command is missing"},
        {{"dance"}, 2, "boardctl: there is no command \"dance\""},
        {{"status", "merlowd"}, 2, "merlowd"},
        {{"refuse"}, 2, "boardctl: refuse: KIND is required"},
        {{"refuse", "bri::Nothing"}, 2, "no kind that brhd answers"},
        {{"refuse", "?"}, 2, "kinds begin with bri::, bmmi::, swm:: or legacy::"},
        {{"refuse", "bri::ConnEstablishReq", "--cause", "X"}, 2, "MAX_NUMBER_OF_CONNECTIONS_EXCEEDED"},
        {{"delay", "bri::SetUtcTimeReq"}, 2, "--ms"},
        {{"drop", "bri::SetUtcTimeReq", "--count", "0"}, 2, "--count"},
        {{"drop", "bri::SetUtcTimeReq", "--count", "-1"}, 2, "--count"},
        {{"lose", "everything"}, 2, "everything"},
        {{"answer", "1", "2", "0"}, 2, "hexadecimal"},
        {{"status", "--timeout", "0"}, 2, "--timeout"},
        {{"lose", "legacy", "--ref", "300"}, 4, "no connection 300"},
    };
    for (const auto& [arguments, expected, told] : cases) {
        const auto outcome = boardctl(arguments);
        EXPECT_EQ(outcome.status, expected) << outcome.out << outcome.err;
        EXPECT_THAT(outcome.err, HasSubstr(told));
    }
}

TEST_F(BoardProcessTest, faultsAreRaisedCeasedAndListed)
{
    startBrhd();
    Client client(mnet_create_mailbox("client", 0));
    ask(client, m_bri, 0x170772D, "00000064 00000064 0801", 0x170772E);
    EXPECT_EQ(ask(client, m_bri, 0x1707753, "00000005 00000001", 0x1707754), "0000000500000064");
    const struct {
        std::vector<std::string> arguments;
        int status;
        const char* out;
        const char* err;
    } steps[] = {
        {{"list"}, 0, "no active faults\n", ""},
        {{"raise", "HW_FAULT"}, 0, "HW_FAULT (0) raised, case 0\n", ""},
        {{"raise", "0x7", "--case", "3", "--fan", "K 1", "--parent", "P 2", "--slot", "4"},
         0,
         "EXTERNAL_FAN_FAILED (7) raised, case 3\n",
         ""},
        {{"list"},
         0,
         "HW_FAULT (0), case 0\nEXTERNAL_FAN_FAILED (7), case 3, fan K 1, parent P 2, slot 4\n",
         ""},
        {{"cease", "0"}, 0, "HW_FAULT (0) ceased, case 0\n", ""},
        {{"cease", "HW_FAULT"}, 4, "", "boardctl: HW_FAULT (0) is not active\n"},
        {{"list", "--json"},
         0,
         R"([{"case":3,"fan":"K 1","id":7,"name":"EXTERNAL_FAN_FAILED","parent":"P 2","slot":4}])"
         "\n",
         ""},
        {{"raise", "NOTHING"}, 2, "", "\"NOTHING\" is no fault; there are HW_FAULT, "},
        {{"raise"}, 2, "", "FAULT is required"},
        {{"raise", "0", "--case", "-1"}, 2, "", "--case"},
        {{"raise", "0", "--case", "4294967296"}, 2, "", "--case"},
        {{"raise", "0", "--slot", "2147483648"}, 2, "", "--slot"},
        {{"cease"}, 2, "", "FAULT is required"},
        {{"list", "0"}, 2, "", "0"},
        {{}, 2, "", "subcommand"},
        {{"--help"}, 0, "", ""},
    };
    for (auto [arguments, expected, out, err] : steps) {
        arguments.insert(arguments.begin(), "fault");
        const auto outcome = boardctl(arguments);
        EXPECT_EQ(outcome.status, expected) << outcome.out << outcome.err;
        EXPECT_THAT(outcome.out, testing::StartsWith(out));
        EXPECT_THAT(outcome.err, HasSubstr(err));
    }
    EXPECT_EQ(client.receive(0x1707759), "000000050000006408001000");
    EXPECT_EQ(client.receive(0x1707759), "0000000500000064080710031a0c0a034b203112035020321804");
    EXPECT_EQ(client.receive(0x170775A), "00000005000000640800");
    EXPECT_THAT(boardctl({"status", "brhd"}).out,
                HasSubstr("    active fault EXTERNAL_FAN_FAILED (7), case 3, fan K 1, parent P 2, slot 4\n"
                          "    fault subscriber: connection 1\n"));
}

TEST_F(BoardProcessTest, temperaturesAreReadSetAndListed)
{
    std::filesystem::create_directories(m_dir.path() + "/hwmon/hwmon0");
    const auto write = [this](const char* file, const char* text) {
        std::ofstream(m_dir.path() + "/hwmon/hwmon0/" + file) << text << "\n";
    };
    write("name", "coretemp");
    write("temp1_label", "Package id 0");
    write("temp1_input", "61500");
    startBrhd({"--hwmon", m_dir.path() + "/hwmon"});
    const std::string processor = "1 processor: 61.5 (" + m_dir.path() +
                                  "/hwmon/hwmon0/temp1_input), limits 0.0 to 85.0, hysteresis 3.0\n";
    const struct {
        std::vector<std::string> arguments;
        int status;
        std::string out;
        const char* err;
    } steps[] = {
        {{"set", "board", "55.1"}, 0, "board is at 55.1\n", ""},
        {{"list"}, 0, "0 board: 55.1 (set), limits -33.0 to 55.0, hysteresis 2.0\n" + processor, ""},
        {{"list", "--json"}, 0, "[{\"hysteresis\":20,\"lower\":-330,\"name\":\"board\",", ""},
        {{"set", "0", "-40"}, 0, "board is at -40.0\n", ""},
        {{"unset", "0"}, 0, "board measures again, ", ""},
        {{"set", "cellar", "1"}, 4, "", "boardctl: \"cellar\" is no sensor; there are board, processor\n"},
        {{"set", "board", "3276.8"}, 2, "", "DEGREES"},
        {{"set", "board", "hot"}, 2, "", "DEGREES"},
        {{"set", "board"}, 2, "", "DEGREES is required"},
        {{}, 2, "", "subcommand"},
    };
    for (auto [arguments, expected, out, err] : steps) {
        arguments.insert(arguments.begin(), "temp");
        const auto outcome = boardctl(arguments);
        EXPECT_EQ(outcome.status, expected) << outcome.out << outcome.err;
        EXPECT_THAT(outcome.out, testing::StartsWith(out));
        EXPECT_THAT(outcome.err, HasSubstr(err));
    }
    EXPECT_THAT(boardctl({"status", "brhd"}).out, HasSubstr("    temperature " + processor));
}

TEST_F(BoardProcessTest, aKilledOneLeavesItsFaultsToItsSuccessor)
{
    startBrhd();
    Client client(mnet_create_mailbox("client", 0));
    Client dying(mnet_create_mailbox("dying", 0));
    for (Client* subscriber : {&client, &dying}) {
        const auto confirm = ask(*subscriber, m_bri, 0x170772D, "00000064 00000064 0801", 0x170772E);
        const std::string connection = confirm.substr(8, 8);
        EXPECT_EQ(ask(*subscriber, m_bri, 0x1707753, "00000005" + connection, 0x1707754), "0000000500000064");
    }
    for (const char* fault : {"HW_FAULT", "EXCEPTIONAL_TEMPERATURE_TOO_HIGH"}) {
        EXPECT_EQ(boardctl({"fault", "raise", fault}).status, 0);
    }
    EXPECT_EQ(client.receive(0x1707759), "000000050000006408001000");
    EXPECT_EQ(client.receive(0x1707759), "000000050000006408051000");
    EXPECT_EQ(status("brhd")["bri"]["faultMemory"]["clients"], 2);

    watch(m_bri);
    m_brhd->kill();
    EXPECT_TRUE(isLost(m_bri));
    dying.close(); // while nobody is there to hear of it
    startBrhd();
    EXPECT_TRUE(waitUntil([this] { return status("brhd")["bri"]["faultMemory"]["clients"] == 1; }))
        << status("brhd").dump(2);
    EXPECT_EQ(boardctl({"fault", "cease", "HW_FAULT"}).status, 0);
    ask(client, m_bri, 0x170772D, "00000064 00000064 0801", 0x170772E);
    EXPECT_EQ(ask(client, m_bri, 0x1707753, "00000006 00000001", 0x1707754), "0000000600000064");
    EXPECT_EQ(client.receive(0x170775A), "00000006000000640800");
    EXPECT_EQ(client.receive(0x170775A), "00000006000000640805");
    EXPECT_EQ(client.receive(0x1707759), "000000060000006408051000");
}

TEST_F(BoardProcessTest, anAnswerThatDoesNotComeIsStatusThree)
{
    startBrhd();
    m_brhd->signal(SIGSTOP);
    const auto outcome = boardctl({"status", "brhd", "--timeout", "0.2"});
    m_brhd->signal(SIGCONT);
    EXPECT_EQ(outcome.status, 3) << outcome.err;
    EXPECT_EQ(boardctl({"status", "brhd"}).status, 0);
}

TEST_F(BoardProcessTest, aNeighbourThatEndsInTheMiddleIsNoAnswer)
{
    Client dying(mnet_create_mailbox("BrhdControl", 0));
    Process asking("boardctl", {"status", "brhd", "--timeout", "600"}, m_environment);
    const auto request = dying.receive(0x42440001);
    ASSERT_TRUE(request) << asking.err();
    EXPECT_EQ(request->substr(0, 8), "00000000");
    // Answers that are none do not end the waiting, its end does.
    for (const char* answer :
         {"", "00000000", "00000000 7b7d", "00000007 7b22726573756c74223a22646f6e65227d"}) {
        ASSERT_EQ(dying.send(dying.lastSender(), 0x42440002, answer), 0);
    }
    EXPECT_TRUE(asking.running());
    dying.close();
    EXPECT_EQ(asking.wait(), 3) << asking.err();
}

TEST_F(BoardProcessTest, garbageChangesNothing)
{
    startBrhd();
    startLegacyd();
    Client client(mnet_create_mailbox("client", 0));
    ask(client, m_bri, 0x170772D, "00000064 00000064 0801", 0x170772E);
    const mnet_mbox_id_t control = locate("BrhdControl");
    const std::string garbage = "ffffffff ffffffff ffffffff ffffffff 00";
    for (const mnet_mbox_id_t to : {m_bri, m_bmmi, m_legacy, control}) {
        for (std::uint32_t number :
             {0x1658000u, 0x170772Du, 0x1707733u, 0x1707580u, 0x42440001u, 0x42440002u,
              MNET_LOCATE_DEFAULT_MSGNO, MNET_MONITOR_DEFAULT_MSGNO, 0u, 0xFFFFFFFFu}) {
            for (std::size_t length = 0; length <= garbage.size(); length += 9) {
                ASSERT_EQ(client.send(to, number, garbage.substr(0, length)), 0);
            }
        }
    }
    EXPECT_EQ(ask(client, m_bri, 0x1707733, "00000001 00000001 0801", 0x1707734), "00000001000000640801");
    EXPECT_EQ(held("brhd", "/bri/connections"), 1u);
    EXPECT_EQ(held("legacyd", "/connections"), 0u);
}

} // namespace
} // namespace merlow::test
