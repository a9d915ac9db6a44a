#include "swaySwmPeers.h"

#include "swmServer.h"

#include <algorithm>
#include <cerrno>
#include <eventLoopIf.h>
#include <sys/epoll.h>
#include <system_error>

namespace merlow::board {

namespace {

std::string swayErrorText()
{
    return std::generic_category().message(errno);
}

Loomwork::EventLoop::V1::EventLoopIf& swayLoop()
{
    return Loomwork::EventLoop::V1::EventLoopIf::getInstance();
}

} // namespace

SwaySwmPeers::SwaySwmPeers(Log& log)
    : m_log(log), m_delayed([this](Delayed due) {
          send(due.to, due.frame);
          endBroken();
      })
{
}

SwaySwmPeers::~SwaySwmPeers()
{
    for (const auto& [connection, socket] : m_sockets) {
        swayLoop().removeFd(sway_fd(socket.get()));
    }
    if (m_listener) {
        swayLoop().removeFd(sway_fd(m_listener.get()));
    }
}

std::string SwaySwmPeers::serve(const std::string& address, SwmServer& server)
{
    m_server = &server;
    Socket listener(sway_listen(address.c_str(), 0));
    if (!listener) {
        return errno == EADDRINUSE ? "another program has the address " + address
                                   : "cannot listen at " + address + ": " + swayErrorText();
    }
    std::uint64_t largest = 0;
    if (sway_set_blocking(listener.get(), false) != 0 || !m_delayed.open() ||
        sway_attr_get(listener.get(), "sway.max_msg_size", nullptr, &largest, sizeof largest) != 0 ||
        swayLoop().addFd(sway_fd(listener.get()), EPOLLIN, [this](int, unsigned int) { handleListener(); }) !=
            0) {
        return "cannot serve " + address + ": " + swayErrorText();
    }
    m_frame.resize(largest);
    m_listener = std::move(listener);
    return "";
}

/// One connection for each wake-up.
void SwaySwmPeers::handleListener()
{
    Socket socket(sway_accept(m_listener.get()));
    if (!socket) {
        if (errno != EAGAIN) {
            BOARD_LOG(m_log, LogLevel::error, "a connection could not be taken: " << swayErrorText());
        }
        return;
    }
    if (m_sockets.size() >= maxSockets) {
        BOARD_LOG(m_log, LogLevel::abnormal, "ABN: closed a connection, there are " << maxSockets);
        return;
    }
    const ConnectionId connection = ++m_lastConnection;
    if (sway_set_blocking(socket.get(), false) != 0 ||
        swayLoop().addFd(sway_fd(socket.get()), EPOLLIN,
                         [this, connection](int, unsigned int) { handleConnection(connection); }) != 0) {
        BOARD_LOG(m_log, LogLevel::error, "a connection could not be served: " << swayErrorText());
        return;
    }
    m_sockets.emplace(connection, std::move(socket));
    m_server->connected(connection);
}

/// One frame for each wake-up, so that no connection keeps the others waiting.
void SwaySwmPeers::handleConnection(ConnectionId connection)
{
    sway_socket* const socket = m_sockets.at(connection).get();
    const ssize_t length = sway_receive(socket, m_frame.data(), m_frame.size());
    if (length > 0) {
        m_server->receive(connection, BytesView(m_frame).first(static_cast<std::size_t>(length)));
    } else if (length < 0 && errno == EMSGSIZE) {
        m_server->receivedTooLong(connection);
    } else if (length == 0) {
        m_broken.insert(connection);
    } else if (errno != EAGAIN) {
        BOARD_LOG(m_log, LogLevel::abnormal,
                  "ABN: connection " << connection << " is broken: " << swayErrorText());
        m_broken.insert(connection);
    }
    endBroken();
}

/// Ending one may send to others, and break these.
void SwaySwmPeers::endBroken()
{
    while (!m_broken.empty()) {
        const ConnectionId connection = *m_broken.begin();
        close(connection);
        m_server->ended(connection);
    }
}

void SwaySwmPeers::send(ConnectionId to, BytesView frame)
{
    const auto found = m_sockets.find(to);
    if (found == m_sockets.end()) {
        return;
    }
    if (sway_send(found->second.get(), frame.data(), frame.size()) != 0) {
        if (errno == EAGAIN || errno == EMSGSIZE) {
            BOARD_LOG(m_log, LogLevel::abnormal,
                      "ABN: connection " << to << " does not take " << frame.size()
                                         << " bytes: " << swayErrorText());
        }
        m_broken.insert(to);
    }
}

void SwaySwmPeers::sendAfter(std::chrono::milliseconds delay, ConnectionId to, Bytes frame)
{
    if (!m_delayed.add(delay, Delayed{to, std::move(frame)})) {
        BOARD_LOG(m_log, LogLevel::error, "too many delayed frames, lost one of connection " << to);
    }
}

void SwaySwmPeers::close(ConnectionId connection)
{
    m_broken.erase(connection);
    const auto found = m_sockets.find(connection);
    if (found != m_sockets.end()) {
        swayLoop().removeFd(sway_fd(found->second.get()));
        m_sockets.erase(found);
    }
}

} // namespace merlow::board
