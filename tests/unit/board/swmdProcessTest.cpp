// swmd as a process: killed while it is loaded, told by files what it is and what to run.

#include "client.h"
#include "loadModule.h"
#include "process.h"
#include "rowTest.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <string>
#include <sway.h>
#include <vector>

namespace merlow::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

constexpr const char* software = "QXR2/7_R2B";
constexpr const char* softwareHex = "120a 515852322f375f523242"; // as the field 2 of a message
constexpr std::size_t blockSize = 65536;
constexpr std::size_t blockCount = 16;

/// One connection to the SWM server that speaks in bytes.
class SwmConnection {
public:
    ~SwmConnection() { sway_close(m_socket); }
    SwmConnection() = default;
    SwmConnection(const SwmConnection&) = delete;
    SwmConnection& operator=(const SwmConnection&) = delete;

    [[nodiscard]] bool open()
    {
        return waitUntil([this] {
            m_socket = sway_connect("ux:SWMServer", 0);
            return m_socket != nullptr && sway_set_blocking(m_socket, false) == 0;
        });
    }

    void send(std::string_view hex) const { send(bytes(hex)); }
    void send(const std::vector<std::uint8_t>& frame) const
    {
        EXPECT_EQ(sway_send(m_socket, frame.data(), frame.size()), 0);
    }

    /// The next frame in hexadecimal; nothing when the server is gone or none comes in time.
    [[nodiscard]] std::string receive() const
    {
        std::vector<std::uint8_t> frame(4096);
        const auto deadline = Clock::now() + patience;
        for (;;) {
            const ssize_t length = sway_receive(m_socket, frame.data(), frame.size());
            if (length > 0) {
                frame.resize(static_cast<std::size_t>(length));
                return hexOf(frame);
            }
            const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
            if (length == 0 || errno != EAGAIN || left.count() <= 0) {
                return "";
            }
            pollfd fd{sway_fd(m_socket), POLLIN, 0};
            poll(&fd, 1, static_cast<int>(left.count()));
        }
    }

private:
    static std::string hexOf(const std::vector<std::uint8_t>& frame)
    {
        static constexpr char digits[] = "0123456789abcdef";
        std::string text;
        for (const unsigned byte : frame) {
            text += digits[byte >> 4U];
            text += digits[byte & 15U];
        }
        return text;
    }

    sway_socket* m_socket = nullptr;
};

class SwmdTest : public testing::Test {
protected:
    SwmdTest()
    {
        std::vector<std::byte> content(blockCount * blockSize - loadmodule::headerSize);
        for (std::size_t index = 0; index < content.size(); ++index) {
            content[index] = static_cast<std::byte>(index * 7 / 3);
        }
        loadmodule::Sha256 sha;
        sha.add(content);
        const auto header =
            loadmodule::encode({*loadmodule::softwareIdFrom(software), content.size(), sha.finish()});
        for (const auto part : {std::span<const std::byte>(header), std::span<const std::byte>(content)}) {
            for (const std::byte byte : part) {
                m_module.push_back(static_cast<std::uint8_t>(byte));
            }
        }
    }

    void start(const std::vector<std::string>& arguments = {})
    {
        m_swmd = std::make_unique<Process>("swmd", arguments, m_environment);
        ASSERT_TRUE(waitUntil([this] { return m_swmd->err().find("serving") != std::string::npos; }))
            << m_swmd->err();
    }

    /// A connection that holds the store.
    void acquire(const SwmConnection& connection) const
    {
        connection.send("00000001 00000000 0801");
        EXPECT_EQ(connection.receive(), "00000002000000000801");
        connection.send("00000007 00000005 0864 1000");
        EXPECT_EQ(connection.receive(), "0000000800000005086410011800");
        EXPECT_EQ(connection.receive(), "0000000a000000050801");
    }

    static void beginLoad(const SwmConnection& connection)
    {
        connection.send(std::string("0000000e 00000006 0801") + softwareHex);
        EXPECT_EQ(connection.receive(), "0000000f000000060801");
    }

    void sendBlock(const SwmConnection& connection, std::size_t number) const
    {
        auto frame = bytes("00000011 00000007 0801 12808004");
        const auto from = m_module.begin() + static_cast<std::ptrdiff_t>(number * blockSize);
        frame.insert(frame.end(), from, from + static_cast<std::ptrdiff_t>(blockSize));
        frame.push_back(0x18);
        frame.push_back(static_cast<std::uint8_t>(number));
        connection.send(frame);
    }

    static void awaitBlock(const SwmConnection& connection, std::size_t number)
    {
        EXPECT_EQ(connection.receive(), std::string("00000012000000070801100018") +
                                            (number < 16 ? "0" : "1") + "0123456789abcdef"[number % 16]);
    }

    static void sendEnd(const SwmConnection& connection) { connection.send("00000013 00000008 0801"); }

    /// A whole load; how it ended.
    std::string load(const SwmConnection& connection) const
    {
        beginLoad(connection);
        for (std::size_t number = 0; number < blockCount; ++number) {
            sendBlock(connection, number);
            awaitBlock(connection, number);
        }
        sendEnd(connection);
        return connection.receive();
    }

    fs::path folder() const { return fs::path(m_dir.path()) / "state/software"; }
    fs::path moduleFile() const { return folder() / "QXR2%7_R2B.lm"; }
    fs::path partFile() const { return folder() / "QXR2%7_R2B.lm.part"; }

    void expectWholeFile() const
    {
        std::ifstream in(moduleFile(), std::ios::binary);
        const std::vector<char> content((std::istreambuf_iterator<char>(in)), {});
        EXPECT_EQ(std::vector<std::uint8_t>(content.begin(), content.end()), m_module);
    }

    nlohmann::json status() const
    {
        const auto outcome = runProgram("boardctl", {"status", "swmd", "--json"}, m_environment);
        return outcome.status == 0 ? nlohmann::json::parse(outcome.out, nullptr, false) : nlohmann::json();
    }

    /// What is in the store, as "NUMBER_REVISION STATUS running", separated by commas.
    std::string modules() const
    {
        std::string text;
        const nlohmann::json held = status();
        for (const auto& module :
             held.value(nlohmann::json::json_pointer("/store/modules"), nlohmann::json())) {
            text += (text.empty() ? "" : ", ") + module.value("software", "") + " " +
                    module.value("status", "") + (module.value("running", false) ? " running" : "");
        }
        return text;
    }

    TempDir m_dir;
    Process::Environment m_environment{{"MERLOW_RUN_DIR", m_dir.path()}};
    Mailboxes m_mailboxes{m_dir.path()}; // and with it this process's run-time folder
    std::vector<std::uint8_t> m_module;
    std::unique_ptr<Process> m_swmd;
};

constexpr const char* onlyPreinstalled = "QXR7041162/15_R91KT VALID running";
constexpr const char* withModule = "QXR7041162/15_R91KT VALID running, QXR2/7_R2B VALID";

/// When swmd dies: after so many acknowledged blocks and, if it is to, the start of the end.
struct SwmdDeathRow {
    enum class End { none, sent, named, confirmed };

    const char* name;
    bool begun;
    std::size_t blocks;
    End end = End::none;
};

class SwmdDeathTest : public SwmdTest, public WithRow<SwmdDeathRow> {};

ROW_TEST(SwmdDeathTest, leavesAWholeModuleOrNone)
{
    using End = SwmdDeathRow::End;
    const SwmdDeathRow& row = this->row();
    start();
    {
        SwmConnection connection;
        ASSERT_TRUE(connection.open());
        acquire(connection);
        if (row.begun) {
            beginLoad(connection);
            for (std::size_t number = 0; number < row.blocks; ++number) {
                sendBlock(connection, number);
                awaitBlock(connection, number);
            }
            if (row.blocks < blockCount) {
                sendBlock(connection, row.blocks); // the one that it dies with in hand
            }
        }
        if (row.end != End::none) {
            sendEnd(connection);
        }
        if (row.end == End::named) {
            ASSERT_TRUE(waitUntil([this] { return fs::exists(moduleFile()); }));
        }
        if (row.end == End::confirmed) {
            EXPECT_EQ(connection.receive(), "000000140000000808011000");
        }
        m_swmd->kill();
    }

    start();
    const std::string kept = modules();
    if (row.end == End::none) {
        EXPECT_EQ(kept, onlyPreinstalled);
    } else if (row.end == End::confirmed) {
        EXPECT_EQ(kept, withModule);
    }
    const std::string said = m_swmd->err();
    if (kept == withModule) {
        EXPECT_THAT(said, Not(HasSubstr("dropped")));
        expectWholeFile();
    } else if (row.begun) {
        EXPECT_THAT(said, HasSubstr("swmd: dropped QXR2/7_R2B: its load had not ended\n"));
        EXPECT_THAT(said, HasSubstr("swmd: removed the file QXR2%7_R2B.lm"));
        EXPECT_FALSE(fs::exists(moduleFile()));
    } else {
        EXPECT_EQ(said.find("swmd: serving"), 0U) << said;
    }
    EXPECT_FALSE(fs::exists(partFile()));

    SwmConnection connection;
    ASSERT_TRUE(connection.open());
    acquire(connection);
    if (kept == withModule) {
        connection.send(std::string("0000000e 00000006 0801") + softwareHex);
        EXPECT_EQ(connection.receive(), "000000100000000608011002") << "it is loaded already";
    } else {
        EXPECT_EQ(load(connection), "000000140000000808011000");
    }
    EXPECT_EQ(modules(), withModule);
    expectWholeFile();
}

constexpr SwmdDeathRow swmdDeaths[] = {
    {"beforeTheLoad", false, blockCount},
    {"beforeTheFirstBlock", true, 0},
    {"inTheMiddle", true, blockCount / 2},
    {"beforeTheLastBlock", true, blockCount - 1},
    {"beforeTheEnd", true, blockCount},
    {"withTheEndInHand", true, blockCount, SwmdDeathRow::End::sent},
    {"onceTheFileHasItsName", true, blockCount, SwmdDeathRow::End::named},
    {"afterTheEnd", true, blockCount, SwmdDeathRow::End::confirmed},
};
TEST_ROWS(All, SwmdDeathTest, swmdDeaths);

TEST_F(SwmdTest, aClientThatDiesFreesTheStoreForTheNextOne)
{
    start();
    SwmConnection second;
    {
        SwmConnection first;
        ASSERT_TRUE(first.open());
        acquire(first);
        beginLoad(first);
        sendBlock(first, 0);
        awaitBlock(first, 0);
        ASSERT_TRUE(second.open());
        second.send("00000001 00000000 0801");
        EXPECT_EQ(second.receive(), "00000002000000000801");
        second.send("00000007 00000009 0865 1000");
        EXPECT_EQ(second.receive(), "0000000800000009086510021800") << "a ticket that waits";
    }
    EXPECT_EQ(second.receive(), "0000000a000000090802") << "and now is active";
    EXPECT_EQ(modules(), onlyPreinstalled);
    EXPECT_FALSE(fs::exists(partFile()));
}

TEST_F(SwmdTest, theBoardsDescriptionSaysWhatTheStoreIs)
{
    const std::string file = m_dir.path() + "/board.json";
    m_environment["MERLOW_BOARD_FILE"] = file;
    std::ofstream(file)
        << R"({"capabilities": [3], "store": {"slots": 2, "blockBytes": 1000, "moduleBytes": 100000,
        "preinstalled": {"number": "QXR9/1", "revision": "R1A"}}})";
    start();
    EXPECT_EQ(status()["store"]["slots"], 2);
    EXPECT_EQ(modules(), "QXR9/1_R1A VALID running");
    {
        SwmConnection connection;
        ASSERT_TRUE(connection.open());
        acquire(connection);
        connection.send("00000004 00000001");
        EXPECT_THAT(connection.receive(), HasSubstr("320308e807")) << "blocks of 1000 bytes";
        EXPECT_EQ(load(connection), "000000140000000808011001") << "it is too large";
        EXPECT_EQ(status()["store"]["lastLoad"], "failed: it is larger than 100000 bytes");
    }
    m_swmd->signal(SIGTERM);
    EXPECT_EQ(m_swmd->wait(), 0) << m_swmd->err();

    start({"--slots", "3", "--module-bytes", "2000000", "--preinstalled", "none", "--block-size", "5"});
    EXPECT_EQ(status()["store"]["slots"], 3);
    EXPECT_EQ(modules(), "");
    {
        SwmConnection connection;
        ASSERT_TRUE(connection.open());
        acquire(connection);
        connection.send("00000004 00000001");
        EXPECT_THAT(connection.receive(), HasSubstr("32020805"));
        EXPECT_EQ(load(connection), "000000140000000808011000");
    }
    m_swmd->signal(SIGTERM);
    EXPECT_EQ(m_swmd->wait(), 0) << m_swmd->err();

    std::ofstream(file) << R"({"capabilities": [3], "store": {"slots": 0}})";
    const auto wrong = runProgram("swmd", {}, m_environment);
    EXPECT_EQ(wrong.status, 1);
    EXPECT_EQ(wrong.err, "swmd: " + file + ":1: store.slots: must be a whole number from 1 to 64, not 0\n");
}

TEST_F(SwmdTest, aRestartOrderSaysWhatRunsFromTheNextStartOn)
{
    start();
    {
        SwmConnection connection;
        ASSERT_TRUE(connection.open());
        acquire(connection);
        EXPECT_EQ(load(connection), "000000140000000808011000");
    }
    std::ofstream(m_dir.path() + "/state/restartOrder.json")
        << R"({"code": 3, "rank": 2, "loadModule": "QXR2/7_R2B", "initiator": "client 1", "time": 5})";
    m_swmd->kill();

    start();
    EXPECT_THAT(m_swmd->err(), HasSubstr("swmd: a restart was ordered by client 1, to run QXR2/7_R2B\n"));
    EXPECT_EQ(modules(), "QXR7041162/15_R91KT VALID, QXR2/7_R2B VALID running");
    m_swmd->kill();

    start({"--running", "QXR7041162/15_R91KT"});
    EXPECT_EQ(modules(), withModule);
    m_swmd->kill();

    start();
    EXPECT_THAT(m_swmd->err(), Not(HasSubstr("restart"))) << "an order counts once";
    EXPECT_EQ(modules(), withModule);
}

} // namespace
} // namespace merlow::test
