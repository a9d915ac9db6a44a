// Listeners and their addresses, who is let in, and what becomes of handles with threads and processes.

#include "swayFixture.h"

#include <csignal>
#include <future>
#include <grp.h>
#include <pthread.h>
#include <sys/resource.h>
#include <thread>
#include <vector>

using namespace swayTest;

TEST_F(SwayTest, hasItsSocketInTheRunTimeFolder)
{
    struct stat status {};
    ASSERT_EQ(stat(m_runDir.socketPath("Server").c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    m_listener.reset();
    EXPECT_NE(stat(m_runDir.socketPath("Server").c_str(), &status), 0) << "closed and gone";
}

TEST_F(SwayTest, refusesASecondListenerWhileTheFirstLives)
{
    EXPECT_EQ(sway_listen("ux:Server", 0), nullptr);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(inChild([] { return sway_listen("ux:Server", 0) == nullptr && errno == EADDRINUSE ? 0 : 1; }),
              0);
    const Handle client(sway_connect("ux:Server", 0));
    EXPECT_TRUE(client) << "the first is not disturbed";
    m_listener.reset();
    const Handle next(sway_listen("ux:Server", 0));
    EXPECT_TRUE(next);
}

TEST_F(SwayTest, takesOverWhatADeadListenerLeft)
{
    std::array<int, 2> ready{};
    ASSERT_EQ(pipe(ready.data()), 0);
    const pid_t child = fork();
    if (child == 0) {
        const sway_socket* listener = sway_listen("ux:Dead", 0);
        const char result = listener != nullptr ? 'y' : 'n';
        if (write(ready[1], &result, 1) != 1) {
            _exit(1);
        }
        for (;;) {
            pause();
        }
    }
    char result = 'n';
    ASSERT_EQ(read(ready[0], &result, 1), 1);
    EXPECT_EQ(result, 'y');
    EXPECT_EQ(sway_listen("ux:Dead", 0), nullptr);
    EXPECT_EQ(errno, EADDRINUSE);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(sway_connect("ux:Dead", 0), nullptr);
    EXPECT_EQ(errno, ECONNREFUSED);
    const Handle next(sway_listen("ux:Dead", 0));
    ASSERT_TRUE(next) << errno;
    const Handle client(sway_connect("ux:Dead", 0));
    EXPECT_TRUE(client);
    close(ready[0]);
    close(ready[1]);
}

TEST_F(SwayTest, leavesAloneWhatIsNoStaleSocket)
{
    const auto path = m_runDir.socketPath("Taken");
    const int foreign = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(foreign, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(foreign, 1), 0);
    EXPECT_EQ(sway_listen("ux:Taken", 0), nullptr);
    EXPECT_EQ(errno, EADDRINUSE);
    close(foreign);
    Handle listener(sway_listen("ux:Taken", 0));
    EXPECT_TRUE(listener) << "now it is stale";
    listener.reset();
    const int file = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    close(file);
    EXPECT_EQ(sway_listen("ux:Taken", 0), nullptr);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
}

TEST_F(SwayTest, refusesWhatIsNoAddress)
{
    for (const char* address :
         {"", "ux", "ux:", "Server", "tcp:Server", "ux:a/b", "ux:.", "ux:..", "ux:/tmp/x"}) {
        EXPECT_EQ(sway_connect(address, 0), nullptr) << address;
        EXPECT_EQ(errno, EINVAL) << address;
        EXPECT_EQ(sway_listen(address, 0), nullptr) << address;
        EXPECT_EQ(errno, EINVAL) << address;
    }
    EXPECT_EQ(sway_connect(nullptr, 0), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(sway_connect("ux:Server", 1), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(sway_connect("ux:Nobody", 0), nullptr);
    EXPECT_EQ(errno, ENOENT);
    const std::string longName = "ux:" + std::string(300, 'n');
    EXPECT_EQ(sway_listen(longName.c_str(), 0), nullptr);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(SwayTest, worksInAFolderWithALongName)
{
    const std::string folder = m_runDir.parent() + "/" + std::string(200, 'f');
    setenv("MERLOW_RUN_DIR", folder.c_str(), 1);
    connect();
    EXPECT_EQ(send(m_client, "far"), 0);
    EXPECT_EQ(receive(m_server), "far");
}

TEST_F(SwayTest, doesNotSeeAnotherUnit)
{
    setenv("MERLOW_RUN_DIR", (m_runDir.parent() + "/other").c_str(), 1);
    EXPECT_EQ(sway_connect("ux:Server", 0), nullptr);
    const Handle same(sway_listen("ux:Server", 0));
    EXPECT_TRUE(same);
}

TEST_F(SwayTest, acceptsWithoutWaitingInNonBlockingMode)
{
    ASSERT_EQ(sway_set_blocking(m_listener.get(), false), 0);
    EXPECT_EQ(sway_accept(m_listener.get()), nullptr);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(readable(sway_fd(m_listener.get())));
    const Handle client(sway_connect("ux:Server", 0));
    EXPECT_TRUE(becomesReadable(sway_fd(m_listener.get())));
    const Handle server(sway_accept(m_listener.get()));
    EXPECT_TRUE(server);
}

TEST_F(SwayTest, letsNoStrangerIn)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs another user";
    }
    ASSERT_EQ(sway_set_blocking(m_listener.get(), false), 0);
    // Even if the files were open to everybody.
    const auto path = m_runDir.socketPath("Server");
    ASSERT_EQ(chmod(path.c_str(), 0666), 0);
    for (auto folder = std::filesystem::path(path).parent_path(); folder != "/tmp";
         folder = folder.parent_path()) {
        ASSERT_EQ(chmod(folder.c_str(), 0711), 0);
    }
    const auto asStranger = [this](gid_t group) {
        return inChild([this, group] {
            if (setgroups(group != 0 ? 1 : 0, &group) != 0 || setgid(65534) != 0 || setuid(65534) != 0) {
                return 100;
            }
            const int fd = rawClient();
            char byte = 0;
            return ::send(fd, "hello", 5, MSG_NOSIGNAL) == 5 && recv(fd, &byte, 1, MSG_DONTWAIT) < 0 ? 0 : 1;
        });
    };
    EXPECT_EQ(asStranger(0), 0);
    EXPECT_EQ(sway_accept(m_listener.get()), nullptr);
    EXPECT_EQ(errno, EAGAIN) << "refused, and nobody else is there";
    setenv("MERLOW_GROUP", "12345", 1);
    EXPECT_EQ(asStranger(0), 0);
    EXPECT_EQ(sway_accept(m_listener.get()), nullptr);
    EXPECT_EQ(asStranger(12345), 0);
    const Handle member(sway_accept(m_listener.get()));
    ASSERT_TRUE(member) << "supplementary groups count";
    EXPECT_EQ(receive(member), "hello");
    unsetenv("MERLOW_GROUP");
}

TEST_F(SwayTest, refusesConnectionsWhenDescriptorsRunOut)
{
    ASSERT_EQ(sway_set_blocking(m_listener.get(), false), 0);
    const int first = rawClient();
    const int second = rawClient();
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit few{openDescriptors() + 8, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    std::vector<int> fillers;
    for (int fd = dup(first); fd >= 0; fd = dup(first)) {
        fillers.push_back(fd);
    }

    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(readable(sway_fd(m_listener.get())));
        EXPECT_EQ(sway_accept(m_listener.get()), nullptr);
        EXPECT_EQ(errno, EMFILE);
    }
    EXPECT_FALSE(readable(sway_fd(m_listener.get()))) << "it would spin";
    char byte = 0;
    EXPECT_EQ(recv(second, &byte, 1, 0), 0) << "refused, not left in the dark";

    for (const int fd : fillers) {
        close(fd);
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    const int third = rawClient();
    const Handle accepted(sway_accept(m_listener.get()));
    EXPECT_TRUE(accepted) << "service goes on";
    for (const int fd : {first, second, third}) {
        close(fd);
    }
}

TEST_F(SwayTest, givesEveryDescriptorBack)
{
    const auto before = openDescriptors();
    for (int i = 0; i < 10; ++i) {
        const Handle listener(sway_listen("ux:Brief", 0));
        const Handle client(sway_connect("ux:Brief", 0));
        const Handle server(sway_accept(listener.get()));
        EXPECT_EQ(sway_connect("ux:Nobody", 0), nullptr);
        EXPECT_EQ(sway_listen("ux:Brief", 0), nullptr);
        EXPECT_EQ(send(client, "x"), 0);
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(SwayTest, leavesAForkedChildNothing)
{
    std::array<int, 2> wait{};
    ASSERT_EQ(pipe2(wait.data(), O_CLOEXEC), 0);
    const pid_t child = fork();
    if (child == 0) {
        alarm(30);
        int result = send(m_client, "x") == -1 && errno == EBADF ? 0 : 1;
        result |= receive(m_server) == error(EBADF) ? 0 : 2;
        result |= sway_fd(m_client.get()) == -1 && errno == EBADF ? 0 : 4;
        result |= sway_accept(m_listener.get()) == nullptr && errno == EBADF ? 0 : 8;
        result |= sway_set_blocking(m_client.get(), true) == -1 ? 0 : 16;
        m_listener.reset(); // must not take the parent's address away
        m_client.reset();
        const Handle own(sway_connect("ux:Server", 0));
        result |= own ? 0 : 32;
        char byte = 0;
        close(wait[1]);
        result |= read(wait[0], &byte, 1) == 0 ? 0 : 64; // lives until the parent has seen the end
        _exit(result);
    }
    const Handle fromChild(sway_accept(m_listener.get()));
    EXPECT_TRUE(fromChild);
    EXPECT_EQ(send(m_client, "still here"), 0);
    EXPECT_EQ(receive(m_server), "still here");
    m_client.reset();
    EXPECT_EQ(receiveNext(m_server), "") << "the child does not hold it open";
    close(wait[0]);
    close(wait[1]);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(Handle(sway_connect("ux:Server", 0)));
}

TEST_F(SwayTest, hasNoCancellationPoint)
{
    std::promise<void> cancelled;
    bool allDone = false;
    pthread_t thread{};
    const std::function<void()> body = [&] {
        int before = 0;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
        cancelled.get_future().wait();
        pthread_setcancelstate(before, nullptr); // from here on it is pending
        {
            const Handle listener(sway_listen("ux:Cancelled", 0));
            const Handle client(sway_connect("ux:Cancelled", 0));
            const Handle server(sway_accept(listener.get()));
            EXPECT_EQ(send(client, "x"), 0);
            EXPECT_EQ(receive(server), "x");
            EXPECT_EQ(sway_await(client.get(), 0), 0);
        }
        allDone = true;
        pthread_testcancel();
    };
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void* run) -> void* {
                      (*static_cast<const std::function<void()>*>(run))();
                      return nullptr;
                  },
                  const_cast<std::function<void()>*>(&body)),
              0);
    EXPECT_EQ(pthread_cancel(thread), 0);
    cancelled.set_value();
    void* result = nullptr;
    EXPECT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_TRUE(allDone);
}

TEST_F(SwayTest, closesWhileAThreadEnds)
{
    struct Guard {
        Handle handle;
    };
    std::thread([this] {
        static thread_local Guard guard;
        guard.handle = std::move(m_client);
    }).join();
    EXPECT_EQ(receive(m_server), "");
}

TEST_F(SwayTest, closesInStaticDestructors)
{
    const int status = inChild([]() -> int {
        static Handle listener(sway_listen("ux:Static", 0));
        std::exit(listener ? 0 : 1); // runs them, the test program's own included
    });
    EXPECT_EQ(status, 0);
    EXPECT_NE(access(m_runDir.socketPath("Static").c_str(), F_OK), 0);
}

TEST_F(SwayTest, servesManyConnectionsFromManyThreads)
{
    constexpr int threads = 4;
    constexpr int connections = 25;
    std::vector<std::thread> clients;
    for (int t = 0; t < threads; ++t) {
        clients.emplace_back([t] {
            for (int i = 0; i < connections; ++i) {
                const Handle client(sway_connect("ux:Server", 0));
                const auto message = std::to_string(t) + "/" + std::to_string(i);
                EXPECT_EQ(send(client, message), 0);
                EXPECT_EQ(receive(client), message);
            }
        });
    }
    for (int i = 0; i < threads * connections; ++i) {
        const Handle server(sway_accept(m_listener.get()));
        EXPECT_EQ(send(server, receive(server)), 0);
    }
    for (auto& client : clients) {
        client.join();
    }
}
