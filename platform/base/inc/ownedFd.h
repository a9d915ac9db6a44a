/// A descriptor and its end.
#pragma once

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace merlow::base {

/// Owns a descriptor, or none (-1). Closing leaves `errno` as it is.
class OwnedFd {
public:
    OwnedFd() = default;
    explicit OwnedFd(int fd) : m_fd(fd) {}
    ~OwnedFd() { reset(); }
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;

    [[nodiscard]] int get() const { return m_fd; }
    [[nodiscard]] bool valid() const { return m_fd >= 0; }
    void reset(int fd = -1)
    {
        if (m_fd >= 0) {
            const int error = errno;
            close(m_fd);
            errno = error;
        }
        m_fd = fd;
    }
    /// The caller owns what it gives.
    int release() { return std::exchange(m_fd, -1); }

private:
    int m_fd = -1;
};

} // namespace merlow::base
