#include "descriptor.h"

#include <array>
#include <bitset>
#include <cerrno>
#include <cstddef>
#include <unistd.h>

namespace mnet {

namespace {

/// The kernel's own default ceiling for descriptor numbers.
constexpr std::size_t maxDescriptors = std::size_t{1} << 20;

std::mutex g_gate;
std::bitset<maxDescriptors> g_open;

} // namespace

std::mutex& Descriptor::gate()
{
    return g_gate;
}

int Descriptor::track(int fd)
{
    if (fd < 0) {
        return -1;
    }
    if (static_cast<std::size_t>(fd) >= maxDescriptors) {
        close(fd);
        errno = EMFILE;
        return -1;
    }
    g_open.set(static_cast<std::size_t>(fd));
    return fd;
}

void Descriptor::reset()
{
    if (m_fd < 0) {
        return;
    }
    const int error = errno;
    const std::lock_guard lock(g_gate);
    g_open.reset(static_cast<std::size_t>(m_fd));
    close(std::exchange(m_fd, -1));
    errno = error;
}

void Descriptor::closeAll()
{
    for (std::size_t fd = g_open._Find_first(); fd < maxDescriptors; fd = g_open._Find_next(fd)) {
        close(static_cast<int>(fd));
    }
    g_open.reset();
}

} // namespace mnet
