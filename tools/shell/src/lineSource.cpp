#include "lineSource.h"

#include <array>
#include <cerrno>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace merlow::tools {

namespace {

constexpr std::size_t longestLine = 1U << 20;

class PipeSource : public LineSource {
public:
    PipeSource(int fd, Watch watch) : m_fd(fd), m_watch(std::move(watch)) {}

    std::optional<std::string> next() override
    {
        for (;;) {
            const auto end = m_pending.find('\n');
            if (end != std::string::npos) {
                auto line = m_pending.substr(0, end);
                m_pending.erase(0, end + 1);
                return line;
            }
            if (m_isAtEnd || m_pending.size() > longestLine) {
                return lastLine();
            }
            bool isReadable = false;
            if (!waitServing(m_fd, m_watch, isReadable)) {
                return std::nullopt;
            }
            if (isReadable) {
                readMore();
            }
        }
    }

private:
    void readMore()
    {
        std::array<char, 4096> chunk;
        const auto length = read(m_fd, chunk.data(), chunk.size());
        if (length > 0) {
            m_pending.append(chunk.data(), static_cast<std::size_t>(length));
        } else if (length == 0 || (errno != EINTR && errno != EAGAIN)) {
            m_isAtEnd = true;
        }
    }

    /// What stands behind the last newline is a line too.
    std::optional<std::string> lastLine()
    {
        if (m_pending.empty() || m_pending.size() > longestLine) {
            return std::nullopt;
        }
        return std::exchange(m_pending, {});
    }

    int m_fd;
    Watch m_watch;
    std::string m_pending;
    bool m_isAtEnd = false;
};

} // namespace

bool waitServing(int fd, const Watch& watch, bool& isReadable)
{
    std::array<pollfd, 2> fds{{{fd, POLLIN, 0}, {watch.fd, POLLIN, 0}}};
    isReadable = false;
    if (poll(fds.data(), fds.size(), -1) < 0) {
        return errno == EINTR;
    }
    if (fds[1].revents != 0 && !watch.onReadable()) {
        return false;
    }
    isReadable = fds[0].revents != 0;
    return true;
}

std::unique_ptr<LineSource> makePipeSource(int fd, Watch watch)
{
    return std::make_unique<PipeSource>(fd, std::move(watch));
}

} // namespace merlow::tools
