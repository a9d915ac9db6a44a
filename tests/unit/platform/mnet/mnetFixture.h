/// A run-time folder of its own for each test, other processes, and the waiting for what they do.
#pragma once

#include "mnet.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace mnet::test {

constexpr int deadlineMs = 20000;

/// Something that one process waits for and another one (or the same) lets happen, by a pipe. Counts.
class Gate {
public:
    Gate() { EXPECT_EQ(pipe(m_ends), 0); }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;
    ~Gate()
    {
        close(m_ends[0]);
        close(m_ends[1]);
    }
    void open() { EXPECT_EQ(write(m_ends[1], "x", 1), 1); }
    bool pass(int timeoutMs = deadlineMs)
    {
        pollfd ready{m_ends[0], POLLIN, 0};
        char byte = 0;
        return poll(&ready, 1, timeoutMs) == 1 && read(m_ends[0], &byte, 1) == 1;
    }

private:
    int m_ends[2] = {-1, -1};
};

/// A process that runs `body`; what fails there fails the test, unless the process was killed.
class Child {
public:
    explicit Child(const std::function<void()>& body)
    {
        fflush(nullptr);
        m_pid = fork();
        if (m_pid == 0) {
            body();
            _exit(::testing::Test::HasFailure() ? 1 : 0);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child()
    {
        if (m_pid > 0) {
            kill();
        }
    }
    pid_t pid() const { return m_pid; }
    /// Without waiting for it, and without taking its status.
    bool hasEnded() const
    {
        siginfo_t info{};
        return waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOWAIT | WNOHANG) == 0 &&
               info.si_pid == m_pid;
    }
    void kill()
    {
        ::kill(m_pid, SIGKILL);
        waitpid(std::exchange(m_pid, -1), nullptr, 0);
    }
    /// Waits for its end, which has to be a good one.
    void finish()
    {
        int status = -1;
        const pid_t pid = std::exchange(m_pid, -1);
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    }

private:
    pid_t m_pid = -1;
};

/// Owns a message.
class Message {
public:
    explicit Message(mnet_msg* msg = nullptr) : m_msg(msg) {}
    Message(std::size_t size, std::uint32_t number) : m_msg(mnet_alloc(size, number)) {}
    Message(Message&& other) noexcept : m_msg(std::exchange(other.m_msg, nullptr)) {}
    Message& operator=(Message&& other) noexcept
    {
        std::swap(m_msg, other.m_msg);
        return *this;
    }
    ~Message() { mnet_free(&m_msg); }

    explicit operator bool() const { return m_msg != nullptr; }
    std::uint32_t number() const { return m_msg != nullptr ? m_msg->msgNo : 0; }
    std::size_t size() const { return mnet_size(m_msg); }
    mnet_mbox_id_t sender() const { return mnet_sender(m_msg); }
    mnet_mbox_id_t receiver() const { return mnet_receiver(m_msg); }
    bool isNotice() const { return mnet_is_notice(m_msg) == 1; }
    unsigned char* bytes() { return reinterpret_cast<unsigned char*>(m_msg); }
    mnet_msg** give() { return &m_msg; }

private:
    mnet_msg* m_msg;
};

/// Initialises the library and makes a mailbox.
inline mnet_mbox_id_t start(const char* name = nullptr, std::uint32_t room = 50)
{
    EXPECT_EQ(mnet_init(room, 0, nullptr, 0), 0);
    const mnet_mbox_id_t mbox = mnet_create_mailbox(name, 0);
    EXPECT_NE(mbox, MNET_MBOX_NONE);
    return mbox;
}

inline Message receive(int timeoutMs = deadlineMs, const std::uint32_t* filter = nullptr,
                       mnet_mbox_id_t from = MNET_FROM_ANY)
{
    return Message(mnet_receive(filter, timeoutMs, from));
}

/// The next message of this number; others stay queued.
inline Message receiveNumber(std::uint32_t number, int timeoutMs = deadlineMs)
{
    const std::uint32_t filter[] = {1, number};
    return receive(timeoutMs, filter);
}

inline int send(mnet_mbox_id_t to, std::uint32_t number, std::size_t size = 4,
                mnet_mbox_id_t from = MNET_MY_MBOX)
{
    Message msg(size, number);
    const int result = mnet_send(msg.give(), to, from);
    EXPECT_FALSE(msg) << "the message is taken whatever the result";
    return result;
}

/// Waits for a mailbox of that name.
inline mnet_mbox_id_t find(const std::string& name)
{
    constexpr std::uint32_t number = 0x7E570001;
    Message reply(4, number);
    EXPECT_EQ(mnet_locate_async(name.c_str(), reply.give(), mnet_current_mbox()), 0);
    const Message found = receiveNumber(number);
    return found ? found.sender() : MNET_MBOX_NONE;
}

inline constexpr std::uint32_t stop = 0x7E570099;

/// Sends everything back until it is told to stop.
inline void echo(const char* name)
{
    start(name);
    for (;;) {
        Message msg = receive(120000);
        if (!msg || msg.number() == stop) {
            return;
        }
        const mnet_mbox_id_t to = msg.sender();
        EXPECT_EQ(mnet_send(msg.give(), to, msg.receiver()), 0);
    }
}

inline bool isReadable(int fd, int timeoutMs = 0)
{
    pollfd ready{fd, POLLIN, 0};
    return poll(&ready, 1, timeoutMs) == 1;
}

/// Serves the thread's descriptor until `done`, or the deadline.
template <class Done> bool serveUntil(Done done)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(deadlineMs);
    constexpr std::uint32_t nothing[] = {1, 0x7E57FFFF};
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        EXPECT_FALSE(receive(1, nothing));
    }
    return true;
}

inline std::size_t openDescriptors()
{
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        ++count;
    }
    return count;
}

class MnetTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string name = ::testing::TempDir() + "merlowMnetXXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        m_folder = name;
        setenv("MERLOW_RUN_DIR", m_folder.c_str(), 1);
        setenv("RUSHLOG_OUT", (m_folder + ".log").c_str(), 1);
        unsetenv("MERLOW_GROUP");
        unsetenv("MNET_QUEUE_LIMIT");
    }
    void TearDown() override
    {
        mnet_exit();
        std::filesystem::remove_all(m_folder);
        std::filesystem::remove(m_folder + ".log");
    }
    std::string m_folder;
};

} // namespace mnet::test
