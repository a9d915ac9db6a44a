#include "lineOutput.h"

#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace merlow::trace {

TextLine& TextLine::operator<<(std::string_view text)
{
    for (const char c : text) {
        if (m_length == maxText) {
            std::memcpy(m_buffer.data() + maxText - 3, "...", 3);
            break;
        }
        const auto byte = static_cast<unsigned char>(c);
        m_buffer[m_length++] = byte < ' ' || byte == 0x7f ? ' ' : c;
    }
    return *this;
}

TextLine& TextLine::operator<<(unsigned long number)
{
    std::array<char, 24> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    return *this << std::string_view(digits.data(), static_cast<std::size_t>(end - digits.data()));
}

TextLine& TextLine::hex(unsigned int number)
{
    std::array<char, 24> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number, 16).ptr;
    return *this << "0x" << std::string_view(digits.data(), static_cast<std::size_t>(end - digits.data()));
}

TextLine& TextLine::now()
{
    using namespace std::chrono;
    // Not by gmtime_r: the C library's time zone lock may be held for ever in a child of fork.
    const auto time = floor<microseconds>(system_clock::now());
    const auto day = floor<days>(time);
    const year_month_day date(day);
    const hh_mm_ss clock(time - day);
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%06dZ",
                  static_cast<int>(date.year()), static_cast<unsigned int>(date.month()),
                  static_cast<unsigned int>(date.day()), static_cast<int>(clock.hours().count()),
                  static_cast<int>(clock.minutes().count()), static_cast<int>(clock.seconds().count()),
                  static_cast<int>(clock.subseconds().count()));
    return *this << text.data();
}

const char* TextLine::c_str()
{
    m_buffer[m_length] = '\0';
    return m_buffer.data();
}

std::string_view TextLine::ended()
{
    m_buffer[m_length] = '\n';
    return {m_buffer.data(), m_length + 1};
}

namespace {

/// Keeps the SIGPIPE of a write from a process that may not expect one.
class NoSigPipe {
public:
    NoSigPipe()
    {
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        sigset_t pending;
        sigemptyset(&pending);
        sigpending(&pending);
        m_pendingBefore = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_before);
    }
    ~NoSigPipe()
    {
        // A second one that was there before stays for whom it is meant.
        if (!m_pendingBefore) {
            const timespec noTime{};
            while (sigtimedwait(&m_pipe, nullptr, &noTime) < 0 && errno == EINTR) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }
    NoSigPipe(const NoSigPipe&) = delete;
    NoSigPipe& operator=(const NoSigPipe&) = delete;

private:
    sigset_t m_pipe{};
    sigset_t m_before{};
    bool m_pendingBefore = false;
};

/// Whether a write would not have to wait: a pipe that polls writable takes a whole line.
bool isWritable(int fd)
{
    pollfd entry{fd, POLLOUT, 0};
    return poll(&entry, 1, 0) == 1 && (entry.revents & (POLLNVAL | POLLERR)) == 0;
}

bool writeLine(int fd, std::string_view line)
{
    ssize_t written = -1;
    do {
        written = write(fd, line.data(), line.size());
    } while (written < 0 && errno == EINTR);
    return written == static_cast<ssize_t>(line.size());
}

bool isPipe(int fd)
{
    struct stat status {};
    return fstat(fd, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
}

} // namespace

bool appendLine(const char* target, std::string_view line)
{
    const bool toStderr = std::strcmp(target, "stderr") == 0;
    const int fd =
        toStderr ? STDERR_FILENO
                 : open(target, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600);
    if (fd < 0) {
        return false;
    }
    bool done = false;
    if (isWritable(fd)) {
        if (isPipe(fd)) {
            const NoSigPipe noSigPipe;
            done = writeLine(fd, line);
        } else {
            done = writeLine(fd, line);
        }
    }
    if (!toStderr) {
        close(fd);
    }
    return done;
}

bool sendDatagram(const char* path, std::string_view data)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::size_t length = std::strlen(path);
    if (length >= sizeof address.sun_path) {
        return false;
    }
    std::memcpy(address.sun_path, path, length);
    // A socket for each datagram: nothing to share with a forked child, to be closed by a host, or to lead to
    // a log daemon that was restarted.
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    ssize_t sent = -1;
    do {
        sent = sendto(fd, data.data(), data.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                      reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (sent < 0 && errno == EINTR);
    close(fd);
    return sent == static_cast<ssize_t>(data.size());
}

} // namespace merlow::trace
