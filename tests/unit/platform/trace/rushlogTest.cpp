#include "rushlog.h"

#include "subject.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace merlow::test {
namespace {

using ::testing::MatchesRegex;

/// The syslog socket of a machine.
class FakeSyslog {
public:
    explicit FakeSyslog(const std::string& path) : m_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    ~FakeSyslog() { close(m_fd); }
    FakeSyslog(const FakeSyslog&) = delete;
    FakeSyslog& operator=(const FakeSyslog&) = delete;

    /// The next datagram, "" when none waits.
    std::string next() const
    {
        char buffer[65536];
        const ssize_t length = recv(m_fd, buffer, sizeof buffer, MSG_DONTWAIT);
        return length > 0 ? std::string(buffer, static_cast<std::size_t>(length)) : "";
    }

private:
    int m_fd;
};

class RushlogTest : public ::testing::Test {
protected:
    RushlogTest()
    {
        // Nothing of other tests is left to tell.
        setenv("RUSHLOG_OUT", (m_folder / "before").c_str(), 1);
        rushlog_log("c", "t");
        unsetenv("RUSHLOG_OUT");
        setenv("RUSHLOG_SOCKET", m_socket.c_str(), 1);
    }
    ~RushlogTest() override
    {
        unsetenv("RUSHLOG_SOCKET");
        unsetenv("RUSHLOG_OUT");
    }

    TempFolder m_folder;
    std::string m_socket = m_folder / "log";
};

TEST_F(RushlogTest, aLineIsOneDatagramWithPriorityAndCategory)
{
    const FakeSyslog syslog(m_socket);
    rushlog_log("RadioApplication,RadioBoardCtrl", "Radio Merlow Published (BCI)");
    const std::string line = syslog.next();
    EXPECT_THAT(
        line, MatchesRegex("<134>[^ ]+\\[[0-9]+\\]: RadioApplication,RadioBoardCtrl: Radio Merlow Published "
                           "\\(BCI\\)"));
    EXPECT_EQ(syslog.next(), "");
}

TEST_F(RushlogTest, whatIsLostIsToldWithTheNextLine)
{
    rushlog_log("c", "nobody listens");
    rushlog_log("c", "nobody listens");
    const FakeSyslog syslog(m_socket);
    rushlog_log("c", "third");
    rushlog_log("c", "fourth");
    EXPECT_TRUE(syslog.next().ends_with("]: (2 lines were lost) c: third"));
    EXPECT_TRUE(syslog.next().ends_with("]: c: fourth"));
}

TEST_F(RushlogTest, aFullSocketCostsLinesAndNoTime)
{
    const FakeSyslog syslog(m_socket);
    constexpr unsigned long sent = 5000;
    for (unsigned long i = 0; i < sent; ++i) {
        rushlog_log("c", std::string(1000, 'x').c_str());
    }
    unsigned long received = 0;
    while (!syslog.next().empty()) {
        ++received;
    }
    ASSERT_GT(received, 0u);
    ASSERT_LT(received, sent);
    rushlog_log("c", "again");
    const std::string expected = "(" + std::to_string(sent - received) + " lines were lost) c: again";
    const std::string line = syslog.next();
    EXPECT_TRUE(line.ends_with(expected)) << line;
}

TEST_F(RushlogTest, aTextIsOneBoundedLine)
{
    const FakeSyslog syslog(m_socket);
    rushlog_log("c", "a\nb\r\x01z");
    rushlog_log("c", std::string(100000, 'l').c_str());
    rushlog_log(nullptr, nullptr);
    EXPECT_TRUE(syslog.next().ends_with("]: c: a b  z"));
    const std::string longLine = syslog.next();
    EXPECT_LE(longLine.size(), 4096u);
    EXPECT_TRUE(longLine.ends_with("lll..."));
    EXPECT_TRUE(syslog.next().ends_with("]: : "));
}

TEST_F(RushlogTest, aFileTakesTheSocketsPlace)
{
    const FakeSyslog syslog(m_socket);
    const std::string file = m_folder / "file";
    setenv("RUSHLOG_OUT", file.c_str(), 1);
    rushlog_log("Category", "first");
    rushlog_log("Category", "second");
    const auto lines = linesOf(file);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_THAT(lines[0], MatchesRegex("[-0-9T:.]{26}Z [^ ]+ Category: first"));
    EXPECT_EQ(syslog.next(), "");

    setenv("RUSHLOG_OUT", (m_folder / "missing/file").c_str(), 1);
    rushlog_log("Category", "lost");
    setenv("RUSHLOG_OUT", file.c_str(), 1);
    rushlog_log("Category", "third");
    EXPECT_TRUE(linesOf(file).at(2).ends_with(" (1 line was lost) Category: third"));
}

TEST_F(RushlogTest, manyThreadsLoseNothing)
{
    setenv("RUSHLOG_OUT", (m_folder / "file").c_str(), 1);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 50; ++i) {
                rushlog_log("c", "t");
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(linesOf(m_folder / "file").size(), 200u);
}

class RushlogPipeTest : public RushlogTest {
protected:
    RushlogPipeTest() { EXPECT_EQ(pipe2(m_pipe, O_CLOEXEC), 0); }
    ~RushlogPipeTest() override
    {
        close(m_pipe[0]);
        close(m_pipe[1]);
    }
    int m_pipe[2]{};
};

TEST_F(RushlogPipeTest, aReaderThatReadsNothingBlocksNobody)
{
    Subject subject({TRACE_SUBJECT},
                    {{"MERLOW_RUN_DIR", m_folder / "run"}, {"RUSHLOG_OUT", "stderr"}, {"SCRY_LTTNG", "0"}},
                    m_pipe[1]);
    const std::string text(3000, 'x');
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(subject.ask("log " + text), "logged");
    }
    EXPECT_EQ(subject.finish(), 0);
}

TEST_F(RushlogPipeTest, aReaderThatIsGoneKillsNobody)
{
    (void)signal(SIGPIPE, SIG_DFL);
    Subject subject({TRACE_SUBJECT},
                    {{"MERLOW_RUN_DIR", m_folder / "run"},
                     {"RUSHLOG_OUT", "stderr"},
                     {"SCRY_OUT", "stderr"},
                     {"SCRY_LTTNG", "0"}},
                    m_pipe[1]);
    ASSERT_EQ(subject.ask("log t"), "logged");
    close(m_pipe[0]);
    close(m_pipe[1]);
    EXPECT_EQ(subject.ask("log t"), "logged");
    EXPECT_EQ(subject.ask("trace 4 t"), "traced");
    EXPECT_EQ(subject.finish(), 0);
    m_pipe[0] = m_pipe[1] = -1;
}

} // namespace
} // namespace merlow::test
