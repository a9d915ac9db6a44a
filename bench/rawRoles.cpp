// The floors: the least that two or three processes do to exchange messages over Unix SOCK_SEQPACKET sockets
// behind a nested epoll descriptor. One read per wake-up, no copy, no allocation, no check.

#include "role.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>

namespace merlow::bench {

namespace {

constexpr std::size_t capacity = std::size_t{1} << 20;

/// The kernel's copy of a large message takes up to four times as long from and to some places of a page as
/// from and to others; the floor stands on a good one.
constexpr std::size_t page = 4096;
constexpr std::size_t placeInPage = 64;

constexpr int sendBuffer = 4 << 20;

/// Non-blocking sockets behind a nested epoll descriptor, with one buffer for all messages.
class RawLink {
public:
    explicit RawLink(int count) : m_memory(static_cast<char*>(std::aligned_alloc(page, capacity + page)))
    {
        if (!m_memory) {
            throw std::bad_alloc();
        }
        std::memset(m_memory.get(), 0, capacity + page);
        for (int fd = firstLinkFd; fd < firstLinkFd + count; ++fd) {
            setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof(sendBuffer));
            m_epoll.add(fd);
        }
    }

    /// Waits for a message and takes it; where it came from is kept.
    std::size_t receive()
    {
        for (;;) {
            m_from = m_epoll.wait();
            if (const ssize_t length = take(); length > 0) {
                return static_cast<std::size_t>(length);
            }
        }
    }

    /// The same for a stream of messages: looks for the next one before it waits.
    std::size_t receiveNext()
    {
        const ssize_t length = take();
        return length > 0 ? static_cast<std::size_t>(length) : receive();
    }

    void send(std::size_t size) { send(m_from, size); }

    void send(int fd, std::size_t size)
    {
        while (::send(fd, buffer(), size, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
            if (errno != EAGAIN) {
                throw std::system_error(errno, std::generic_category(), "send");
            }
            pollfd item{fd, POLLOUT, 0};
            poll(&item, 1, -1);
        }
    }

    int from() const { return m_from; }

private:
    ssize_t take()
    {
        const ssize_t length = recv(m_from, buffer(), capacity, MSG_DONTWAIT);
        if (length == 0 || (length < 0 && errno != EAGAIN)) {
            throw std::system_error(length == 0 ? EPIPE : errno, std::generic_category(), "recv");
        }
        return length;
    }

    struct Free {
        void operator()(char* memory) const { std::free(memory); }
    };

    char* buffer() { return m_memory.get() + placeInPage; }

    NestedEpoll m_epoll;
    std::unique_ptr<char, Free> m_memory;
    int m_from = firstLinkFd;
};

} // namespace

int playRawClient(const RoleArguments&)
{
    RawLink link(1);
    return serveClient(link);
}

int playRawEcho(const RoleArguments&)
{
    RawLink link(1);
    line::say("ready");
    for (;;) {
        link.send(link.receive());
    }
}

int playRawRelay(const RoleArguments&)
{
    RawLink link(2);
    line::say("ready");
    for (;;) {
        const std::size_t size = link.receive();
        link.send(link.from() == firstLinkFd ? firstLinkFd + 1 : firstLinkFd, size);
    }
}

int playRawSink(const RoleArguments& arguments)
{
    RawLink link(1);
    line::say("ready");
    sink(link, std::stoul(arguments.at(1)));
}

} // namespace merlow::bench
