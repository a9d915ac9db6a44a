#include "connection.h"

#include "unixSocket.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

namespace sway {

namespace {

constexpr std::size_t defaultKeptLimit = std::size_t{16} << 20;

/// With the kernel's default limits half of this is granted and counted double: enough for the largest
/// message in one packet.
constexpr int wantedSendBuffer = 1 << 20;

/// Small enough for the kernel to find memory for, in pieces.
constexpr std::size_t largestPart = std::size_t{64} << 10;

constexpr std::size_t smallestPart = 1024;

constexpr char announcementMark[sizeof(Announcement::mark) + 1] = "\xF5sway-in-parts\xF5\xA1";

bool beginsLikeAnnouncement(const char* data, std::size_t length)
{
    return length >= sizeof(Announcement::mark) &&
           std::memcmp(data, announcementMark, sizeof(Announcement::mark)) == 0;
}

/// What one packet of a message in parts may hold: half of what the socket takes at all.
std::size_t partSizeOf(int fd)
{
    int size = 0;
    socklen_t length = sizeof(size);
    getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, &length);
    return std::clamp(static_cast<std::size_t>(size) / 2, smallestPart, largestPart);
}

std::size_t keptLimit()
{
    const char* text = std::getenv("SWAY_QUEUE_LIMIT");
    if (text == nullptr || *text < '0' || *text > '9') {
        return defaultKeptLimit;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long long limit = std::strtoull(text, &end, 10);
    return errno == 0 && *end == '\0' ? limit : defaultKeptLimit;
}

} // namespace

void KeptMessages::push(const void* data, std::size_t length)
{
    const auto shortLength = static_cast<std::uint32_t>(length);
    if (m_start > m_bytes.size() / 2) {
        m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(m_start));
        m_start = 0;
    }
    const std::size_t end = m_bytes.size();
    m_bytes.resize(end + sizeof(shortLength) + length);
    std::memcpy(&m_bytes[end], &shortLength, sizeof(shortLength));
    std::memcpy(&m_bytes[end + sizeof(shortLength)], data, length);
    m_size += length;
}

void KeptMessages::pop()
{
    const std::size_t length = frontLength();
    m_start += sizeof(std::uint32_t) + length;
    m_size -= length;
    if (empty()) {
        clear();
    }
}

void KeptMessages::clear()
{
    std::vector<char>().swap(m_bytes); // what a burst needed is not held for ever
    m_start = 0;
    m_size = 0;
}

std::size_t KeptMessages::frontLength() const
{
    std::uint32_t length = 0;
    std::memcpy(&length, &m_bytes[m_start], sizeof(length));
    return length;
}

Connection::Connection() : m_keptLimit(keptLimit())
{
    enlist();
}

Connection::~Connection()
{
    if (alive() && !m_kept.empty()) {
        sendKept();
    }
    retire();
}

void Connection::closeDescriptors()
{
    m_socket.reset();
    m_epoll.reset();
}

bool Connection::connectTo(int dirFd, const std::string& name)
{
    opening([&] { m_socket.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)); });
    if (!m_socket.valid()) {
        return false;
    }
    int result = 0;
    do {
        result = merlow::base::connectAt(m_socket.get(), dirFd, name);
    } while (result != 0 && errno == EINTR);
    return result == 0 && setUp();
}

bool Connection::acceptFrom(int listenerFd)
{
    opening([&] { m_socket.reset(accept4(listenerFd, nullptr, nullptr, SOCK_CLOEXEC)); });
    return m_socket.valid() && setUp();
}

bool Connection::setUp()
{
    if (!merlow::base::peerAllowed(m_socket.get())) {
        return false;
    }
    // As far as the kernel grants it.
    setsockopt(m_socket.get(), SOL_SOCKET, SO_SNDBUF, &wantedSendBuffer, sizeof(wantedSendBuffer));
    opening([&] { m_epoll.reset(epoll_create1(EPOLL_CLOEXEC)); });
    epoll_event event{};
    event.events = EPOLLIN;
    return m_epoll.valid() && epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, m_socket.get(), &event) == 0;
}

int Connection::arm()
{
    const bool forRoom = m_awaitsRoom || !m_kept.empty();
    if (forRoom == m_armedForRoom) {
        return 0;
    }
    epoll_event event{};
    event.events = forRoom ? EPOLLIN | EPOLLOUT : EPOLLIN;
    if (epoll_ctl(m_epoll.get(), EPOLL_CTL_MOD, m_socket.get(), &event) != 0) {
        return -1;
    }
    m_armedForRoom = forRoom;
    return 0;
}

/// Ends the connection for both sides.
void Connection::end()
{
    const int error = errno;
    m_over = true;
    m_kept.clear();
    shutdown(m_socket.get(), SHUT_RDWR);
    errno = error;
}

int Connection::await(bool receive)
{
    m_awaitsRoom = !receive;
    return arm();
}

int Connection::send(const void* buffer, std::size_t length)
{
    if (buffer == nullptr || length == 0) {
        errno = EINVAL;
        return -1;
    }
    if (length > maxMessageSize) {
        errno = EMSGSIZE;
        return -1;
    }
    const char* data = static_cast<const char*>(buffer);
    Progress progress;
    for (;;) {
        if (m_over) {
            errno = EPIPE;
            return -1;
        }
        Outcome outcome = sendKept();
        if (outcome == Outcome::done) {
            outcome = transmit(data, length, progress);
        }
        if (outcome == Outcome::done) {
            return 0;
        }
        if (outcome == Outcome::failed) {
            return -1;
        }
        if (!blocking) {
            return keep(data, length, progress);
        }
        waitFor(m_socket.get(), POLLOUT, -1);
    }
}

Connection::Outcome Connection::transmit(const char* data, std::size_t length, Progress& progress)
{
    if (progress.partSize == 0 && !beginsLikeAnnouncement(data, length)) {
        const Outcome outcome = sendPacket(data, length);
        // More than the socket takes at all, or more than the kernel has in one piece: then in smaller ones.
        if (outcome != Outcome::failed || (errno != EMSGSIZE && errno != ENOBUFS)) {
            return outcome;
        }
    }
    if (progress.partSize == 0) {
        progress.partSize = partSizeOf(m_socket.get());
    }
    if (!progress.announced) {
        Announcement announcement{};
        std::memcpy(announcement.mark, announcementMark, sizeof(announcement.mark));
        announcement.length = static_cast<std::uint32_t>(length);
        const Outcome outcome = sendPacket(&announcement, sizeof(announcement));
        if (outcome != Outcome::done) {
            return outcome;
        }
        progress.announced = true;
    }
    while (progress.sent < length) {
        const std::size_t part = std::min(progress.partSize, length - progress.sent);
        const Outcome outcome = sendPacket(data + progress.sent, part);
        if (outcome != Outcome::done) {
            return outcome == Outcome::failed && errno == ENOBUFS ? Outcome::full : outcome;
        }
        progress.sent += part;
    }
    return Outcome::done;
}

Connection::Outcome Connection::sendPacket(const void* data, std::size_t length)
{
    for (;;) {
        if (::send(m_socket.get(), data, length, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0) {
            return Outcome::done;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return Outcome::full;
        }
        if (errno != EINTR) {
            return Outcome::failed;
        }
    }
}

/// Moves on what is kept: done when nothing is left of it.
Connection::Outcome Connection::sendKept()
{
    if (m_kept.empty()) {
        return Outcome::done;
    }
    Outcome outcome = Outcome::done;
    while (outcome == Outcome::done && !m_kept.empty()) {
        outcome = transmit(m_kept.frontData(), m_kept.frontLength(), m_keptProgress);
        if (outcome == Outcome::done) {
            m_kept.pop();
            m_keptProgress = {};
        }
    }
    if (outcome == Outcome::failed && (errno == EPIPE || errno == ECONNRESET)) {
        m_kept.clear(); // nobody is left to read it
        m_keptProgress = {};
    }
    const int error = errno;
    arm();
    errno = error;
    return outcome;
}

int Connection::keep(const char* data, std::size_t length, const Progress& progress)
{
    const bool fits = m_kept.size() <= m_keptLimit && length <= m_keptLimit - m_kept.size();
    if (!fits && !progress.announced) {
        errno = EAGAIN;
        return -1;
    }
    const bool first = m_kept.empty();
    try {
        m_kept.push(data, length);
    } catch (const std::bad_alloc&) {
        if (progress.announced) {
            end(); // the peer waits for a rest that can't follow
        }
        errno = ENOMEM;
        return -1;
    }
    if (first) {
        m_keptProgress = progress;
    }
    return arm();
}

ssize_t Connection::receive(void* buffer, std::size_t capacity)
{
    if (buffer == nullptr && capacity > 0) {
        errno = EINVAL;
        return -1;
    }
    for (;;) {
        if (m_over) {
            return 0;
        }
        sendKept(); // that it fails, the end of the connection tells
        const ssize_t length =
            m_announced == 0 ? receiveMessage(buffer, capacity) : receiveParts(buffer, capacity);
        if (length >= 0 || !blocking || (errno != EAGAIN && errno != EWOULDBLOCK)) {
            return length;
        }
        waitFor(m_socket.get(), m_kept.empty() ? POLLIN : POLLIN | POLLOUT, -1);
    }
}

ssize_t Connection::receiveMessage(void* buffer, std::size_t capacity)
{
    char announcement[sizeof(Announcement)]; // for what is as short as that, and a caller's buffer is not
    char* data = capacity < sizeof(announcement) ? announcement : static_cast<char*>(buffer);
    const ssize_t received = receivePacket(data, std::max(capacity, sizeof(announcement)));
    if (received <= 0) {
        return received;
    }
    const auto length = static_cast<std::size_t>(received);
    if (beginsLikeAnnouncement(data, length)) {
        Announcement announced{};
        if (length != sizeof(announced)) {
            return violation();
        }
        std::memcpy(&announced, data, sizeof(announced));
        if (announced.length == 0 || announced.length > maxMessageSize) {
            return violation();
        }
        m_announced = announced.length;
        m_received = 0;
        return receiveParts(buffer, capacity);
    }
    if (length > capacity) {
        errno = EMSGSIZE;
        return -1;
    }
    if (data == announcement) {
        std::memcpy(buffer, data, length);
    }
    return received;
}

ssize_t Connection::receiveParts(void* buffer, std::size_t capacity)
{
    m_assembled.resize(m_announced); // without memory it is tried again, and the parts wait
    while (m_received < m_announced) {
        const std::size_t missing = m_announced - m_received;
        const ssize_t received = receivePacket(&m_assembled[m_received], missing);
        if (received <= 0) {
            return received;
        }
        if (static_cast<std::size_t>(received) > missing) {
            return violation();
        }
        m_received += static_cast<std::size_t>(received);
    }
    m_announced = 0;
    std::vector<char> message;
    message.swap(m_assembled);
    if (message.size() > capacity || buffer == nullptr) {
        errno = EMSGSIZE;
        return -1;
    }
    std::memcpy(buffer, message.data(), message.size());
    return static_cast<ssize_t>(message.size());
}

/// One packet: its whole length, also if that is more than `capacity`.
ssize_t Connection::receivePacket(void* buffer, std::size_t capacity)
{
    for (;;) {
        const ssize_t length = recv(m_socket.get(), buffer, capacity, MSG_DONTWAIT | MSG_TRUNC);
        if (length > 0) {
            return length;
        }
        if (length == 0) {
            // An empty packet looks like the end, and no peer sends one by this library.
            return waitFor(m_socket.get(), POLLRDHUP, 0) ? 0 : violation();
        }
        // A peer that went with unread messages is told before what it had sent; then come those, and the
        // end.
        if (errno != EINTR && errno != ECONNRESET) {
            return -1;
        }
    }
}

/// The peer broke the rules. What follows can't be told apart, so the connection is over.
ssize_t Connection::violation()
{
    end();
    errno = EPROTO;
    return -1;
}

} // namespace sway
