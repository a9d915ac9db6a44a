/// A run-time folder, and both ends of a connection.
#pragma once

#include "sway.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace swayTest {

constexpr std::size_t largest = 262144; // bytes of a message

struct Close {
    void operator()(sway_socket* s) const { sway_close(s); }
};
using Handle = std::unique_ptr<sway_socket, Close>;

/// A run-time folder of the test's own, gone with it.
class RunDir {
public:
    RunDir()
    {
        std::array<char, 32> path{"/tmp/swayTestXXXXXX"};
        EXPECT_NE(mkdtemp(path.data()), nullptr);
        m_path = path.data();
        setenv("MERLOW_RUN_DIR", (m_path + "/run").c_str(), 1);
        unsetenv("MERLOW_GROUP");
        unsetenv("SWAY_QUEUE_LIMIT");
    }
    ~RunDir() { std::filesystem::remove_all(m_path); }
    RunDir(const RunDir&) = delete;
    RunDir& operator=(const RunDir&) = delete;

    [[nodiscard]] const std::string& parent() const { return m_path; }
    [[nodiscard]] std::string socketPath(const std::string& name) const
    {
        return m_path + "/run/sway/" + name;
    }

private:
    std::string m_path;
};

inline bool readable(int fd, int timeoutMs = 0)
{
    pollfd polled{fd, POLLIN, 0};
    return poll(&polled, 1, timeoutMs) == 1;
}

/// How many descriptors this process has open.
inline std::size_t openDescriptors()
{
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

/// Waits for it to become so, at most ten seconds.
inline bool becomesReadable(int fd)
{
    return readable(fd, 10'000);
}

inline int send(const Handle& s, const std::string& message)
{
    return sway_send(s.get(), message.data(), message.size());
}

/// One message of at most `largest` bytes, "" for the end, or "errno N".
inline std::string receive(const Handle& s, std::size_t capacity = largest)
{
    static thread_local std::string buffer(largest, '\0');
    const ssize_t length = sway_receive(s.get(), buffer.data(), capacity);
    if (length < 0) {
        return "errno " + std::to_string(errno);
    }
    return buffer.substr(0, static_cast<std::size_t>(length));
}

/// Waits for the message, at most ten seconds from one event to the next.
inline std::string receiveNext(const Handle& s)
{
    for (;;) {
        auto message = receive(s);
        if (message != "errno " + std::to_string(EAGAIN) || !becomesReadable(sway_fd(s.get()))) {
            return message;
        }
    }
}

inline std::string error(int number)
{
    return "errno " + std::to_string(number);
}

/// A large message whose bytes tell where they belong.
inline std::string patterned(std::size_t length, char seed)
{
    std::string message(length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        message[i] = static_cast<char>(static_cast<std::size_t>(seed) + i * 7 + i / 251);
    }
    return message;
}

/// A listening handle and a connection to it, both ends in non-blocking mode.
class SwayTest : public ::testing::Test {
protected:
    SwayTest() { connect(); }

    void connect()
    {
        m_server.reset();
        m_client.reset();
        m_listener.reset();
        m_listener.reset(sway_listen("ux:Server", 0));
        ASSERT_TRUE(m_listener) << errno;
        m_client.reset(sway_connect("ux:Server", 0));
        ASSERT_TRUE(m_client) << errno;
        m_server.reset(sway_accept(m_listener.get()));
        ASSERT_TRUE(m_server) << errno;
        ASSERT_EQ(sway_set_blocking(m_client.get(), false), 0);
        ASSERT_EQ(sway_set_blocking(m_server.get(), false), 0);
    }

    /// The connection's other end as a socket of its own, to misbehave with.
    int rawClient() const
    {
        const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const auto path = m_runDir.socketPath("Server");
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0) << errno;
        return fd;
    }

    RunDir m_runDir;
    Handle m_listener;
    Handle m_client;
    Handle m_server;
};

/// Runs `body` in a forked child, and gives its exit status; what `body` returns, 0 for a success.
inline int inChild(const std::function<int()>& body)
{
    const pid_t child = fork();
    if (child == 0) {
        alarm(30);
        _exit(body());
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace swayTest
