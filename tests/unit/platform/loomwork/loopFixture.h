/// Descriptors that a test makes ready, and what the loop's tests share.
#pragma once

#include "eventLoopIf.h"

#include <array>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace loopTest {

/// A pipe whose reading end is watched. A null descriptor is one that was closed.
class Pipe {
public:
    Pipe() { EXPECT_EQ(pipe2(m_fds.data(), O_CLOEXEC | O_NONBLOCK), 0); }
    ~Pipe()
    {
        closeReader();
        closeWriter();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    [[nodiscard]] int fd() const { return m_fds[0]; }
    void makeReady() const { EXPECT_EQ(write(m_fds[1], "x", 1), 1); }
    void drain() const
    {
        char byte = 0;
        EXPECT_EQ(read(m_fds[0], &byte, 1), 1);
    }
    void closeReader() { closeEnd(0); }
    void closeWriter() { closeEnd(1); }

private:
    void closeEnd(std::size_t end)
    {
        if (m_fds[end] >= 0) {
            close(m_fds[end]);
            m_fds[end] = -1;
        }
    }
    std::array<int, 2> m_fds{-1, -1};
};

inline Loomwork::EventLoop::V1::EventLoopIf& loop()
{
    return Loomwork::EventLoop::V1::EventLoopIf::getInstance();
}

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

/// How many descriptors of the process are epoll sets.
inline int openEpollSets()
{
    int count = 0;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc/self/fd"), &closedir);
    while (const dirent* entry = readdir(folder.get())) {
        std::array<char, 64> target{};
        const std::string link = std::string("/proc/self/fd/") + entry->d_name;
        if (readlink(link.c_str(), target.data(), target.size() - 1) > 0 &&
            std::string(target.data()) == "anon_inode:[eventpoll]") {
            ++count;
        }
    }
    return count;
}

} // namespace loopTest
