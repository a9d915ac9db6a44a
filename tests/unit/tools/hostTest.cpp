// What merlowd makes of a server that does not start, ends by itself, or does not end. Each case is a process
// of its own with a server that does as it is told.

#include "host.h"
#include "notifySocket.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <mnet.h>
#include <poll.h>
#include <sway.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace merlow::merlowd {
namespace {

using namespace std::chrono_literals;

/// A server whose thread runs `life` and leaves `result`.
class ToldServer : public Server {
public:
    ToldServer(int result, std::function<void()> life) : m_result(result), m_life(std::move(life)) {}

    bool start() override
    {
        m_thread = std::thread(m_life);
        return true;
    }
    int stop() override
    {
        m_thread.join();
        return m_result;
    }

private:
    int m_result;
    std::function<void()> m_life;
    std::thread m_thread;
};

class UnstartableServer : public Server {
public:
    bool start() override { return false; }
    int stop() override { return 0; }
};

void hang()
{
    poll(nullptr, 0, -1);
}

void beAsked()
{
    kill(getpid(), SIGTERM);
}

/// Waits until the host has said something to its manager.
void awaitWord(const unit::NotifySocket& manager)
{
    pollfd ready{manager.fd(), POLLIN, 0};
    poll(&ready, 1, 10000);
}

/// Has mailboxes for a moment. Whether the host sees them or only their absence, the result is the same.
void liveAs(const std::vector<const char*>& names)
{
    std::vector<mnet_mbox_id_t> mailboxes;
    for (const char* name : names) {
        mailboxes.push_back(mnet_create_mailbox(name, 0));
    }
    for (const auto mailbox : mailboxes) {
        mnet_delete_mailbox(mailbox);
    }
}

class HostTest : public testing::Test {
protected:
    HostTest()
    {
        std::string path = testing::TempDir() + "merlowHostXXXXXX";
        m_folder = mkdtemp(path.data());
        setenv("MERLOW_RUN_DIR", m_folder.c_str(), 1);
        m_swmServer = sway_listen("ux:SWMServer", 0); // connections wait in its queue
    }
    ~HostTest() override
    {
        sway_close(m_swmServer);
        unsetenv("MERLOW_RUN_DIR");
        std::filesystem::remove_all(m_folder);
    }

    /// The process's end with a host of `server`. Nothing of a test is destroyed in the process, since a
    /// thread that hangs could not be joined.
    [[noreturn]] static void live(Server& server, Patience patience = {})
    {
        int status = -1;
        {
            Host host(server, patience);
            status = host.run();
        }
        std::_Exit(status);
    }

    std::string m_folder;
    sway_socket* m_swmServer = nullptr;
};

TEST_F(HostTest, withoutAnSwmServerThereIsNoServer)
{
    sway_close(std::exchange(m_swmServer, nullptr));
    const unit::NotifySocket manager;
    setenv("NOTIFY_SOCKET", manager.name().c_str(), 1);
    UnstartableServer server;
    EXPECT_EXIT(
        {
            sigset_t asking;
            sigemptyset(&asking);
            sigaddset(&asking, SIGTERM);
            sigprocmask(SIG_BLOCK, &asking, nullptr);
            std::thread([&manager] {
                awaitWord(manager);
                beAsked();
            }).detach();
            live(server);
        },
        testing::ExitedWithCode(0),
        "merlowd: waiting for SWMServer since [0-9:]+, LegacyMerlow .*merlowd: ended");
    unsetenv("NOTIFY_SOCKET");
}

TEST_F(HostTest, theServerStartsWhenTheSwmServerIsThere)
{
    sway_close(std::exchange(m_swmServer, nullptr));
    const unit::NotifySocket manager;
    setenv("NOTIFY_SOCKET", manager.name().c_str(), 1);
    UnstartableServer server;
    EXPECT_EXIT(
        {
            std::thread([&manager] {
                awaitWord(manager);
                sway_listen("ux:SWMServer", 0);
            }).detach();
            live(server);
        },
        testing::ExitedWithCode(1),
        "merlowd: waiting for SWMServer .*merlowd: the server could not be started");
    unsetenv("NOTIFY_SOCKET");
}

TEST_F(HostTest, aUnitThatComesWhileItWaitsIsNotDisturbed)
{
    sway_close(std::exchange(m_swmServer, nullptr));
    const unit::NotifySocket manager;
    setenv("NOTIFY_SOCKET", manager.name().c_str(), 1);
    UnstartableServer server;
    EXPECT_EXIT(
        {
            if (fork() == 0) {
                awaitWord(manager);
                mnet_init(1, 0, nullptr, 0);
                mnet_create_mailbox("private_Merlow", 0);
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                hang();
            }
            live(server);
        },
        testing::ExitedWithCode(1), "merlowd: another unit holds .private_Merlow. in run-time folder ");
    unsetenv("NOTIFY_SOCKET");
}

TEST_F(HostTest, aServerThatDoesNotStartIsToldWithItsResult)
{
    const std::pair<int, const char*> cases[] = {
        {1, "merlowd: the server did not start: result 1, the mailbox library could not be initialised"},
        {2, "merlowd: the server did not start: result 2, mailbox \"private_Merlow\" could not be created"},
    };
    for (const auto& [result, words] : cases) {
        ToldServer server(result, [] {});
        EXPECT_EXIT(live(server, {.start = 20ms}), testing::ExitedWithCode(1), words);
    }
}

TEST_F(HostTest, aServerThatFailsBehindItsMailboxIsToldWithItsResult)
{
    const std::pair<int, const char*> cases[] = {
        {3, "result 3, the mailboxes' descriptor could not be put on the event loop"},
        {6, "result 6, a component could not be initialised, as it happens without an SWM server"},
    };
    for (const auto& [result, words] : cases) {
        ToldServer server(result, [] { liveAs({"private_Merlow"}); });
        EXPECT_EXIT(live(server, {.start = 200ms}), testing::ExitedWithCode(1), words);
    }
}

TEST_F(HostTest, aServerThatEndsByItselfIsAFailure)
{
    const unit::NotifySocket manager;
    setenv("NOTIFY_SOCKET", manager.name().c_str(), 1);
    ToldServer server(0, [&manager] {
        const auto mailbox = mnet_create_mailbox("private_Merlow", 0);
        mnet_create_mailbox("Merlow", 0);
        awaitWord(manager); // that it is published, so it has seen both
        mnet_delete_mailbox(mailbox);
    });
    EXPECT_EXIT(live(server), testing::ExitedWithCode(1),
                "merlowd: the server ended: result 0, it was told to end");
    unsetenv("NOTIFY_SOCKET");
}

TEST_F(HostTest, aServerThatCannotBeStartedIsAFailure)
{
    UnstartableServer server;
    EXPECT_EXIT(live(server), testing::ExitedWithCode(1), "merlowd: the server could not be started");
}

TEST_F(HostTest, aSignalEndsTheServer)
{
    ToldServer server(0, beAsked);
    EXPECT_EXIT(live(server), testing::ExitedWithCode(0), "merlowd: ended");
    ToldServer failing(6, beAsked);
    EXPECT_EXIT(live(failing), testing::ExitedWithCode(1),
                "merlowd: the server ended with result 6, a component could not be initialised");
}

TEST_F(HostTest, aServerThatDoesNotEndIsLeftToItself)
{
    constexpr const char* words = "merlowd: the server does not end; ending without it";
    ToldServer asked(0, [] {
        beAsked();
        hang();
    });
    EXPECT_EXIT(live(asked, {.stop = 50ms}), testing::ExitedWithCode(1), words);
    ToldServer stuck(0, hang);
    EXPECT_EXIT(live(stuck, {.start = 20ms, .stop = 50ms}), testing::ExitedWithCode(1), words);
}

/// Whose name another process takes in the moment of the start.
class OvertakenServer : public Server {
public:
    bool start() override
    {
        if (fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            mnet_init(1, 0, nullptr, 0);
            mnet_create_mailbox("private_Merlow", 0);
            hang();
        }
        return true;
    }
    int stop() override { return 2; }
};

TEST_F(HostTest, aUnitThatIsQuickerIsNotTakenForTheOwnServer)
{
    OvertakenServer server;
    EXPECT_EXIT(live(server), testing::ExitedWithCode(1),
                "merlowd: another unit took \"private_Merlow\" in run-time folder .*: result 2, mailbox "
                "\"private_Merlow\" could not be created");
}

TEST_F(HostTest, aSecondUnitInTheFolderIsRefused)
{
    UnstartableServer server;
    EXPECT_EXIT(
        {
            mnet_init(1, 0, nullptr, 0);
            mnet_create_mailbox("private_Merlow", 0);
            if (fork() == 0) {
                live(server);
            }
            int status = 0;
            wait(&status);
            std::_Exit(WEXITSTATUS(status));
        },
        testing::ExitedWithCode(1), "merlowd: another unit holds \"private_Merlow\" in run-time folder ");
}

} // namespace
} // namespace merlow::merlowd
