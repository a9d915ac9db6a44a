#include "fakeSway.h"

#include "shortage.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>

namespace support {

FakeSway& FakeSway::instance()
{
    static FakeSway sway;
    return sway;
}

void FakeSway::reset()
{
    *this = FakeSway();
}

void FakeSway::fail(Call call, int error, unsigned int times, unsigned int skip)
{
    m_failures[call] = {.error = error, .times = times, .skip = skip};
}

bool FakeSway::failsNow(Call call)
{
    if (shortage::fails(1)) {
        errno = ENOMEM;
        return true;
    }
    const auto found = m_failures.find(call);
    if (found == m_failures.end() || found->second.times == 0) {
        return false;
    }
    if (found->second.skip > 0) {
        --found->second.skip;
        return false;
    }
    --found->second.times;
    errno = found->second.error;
    return true;
}

sway_socket* FakeSway::connection(const std::string& address) const
{
    for (auto it = m_open.rbegin(); it != m_open.rend(); ++it) {
        if ((*it)->address == address) {
            return it->get();
        }
    }
    return nullptr;
}

bool FakeSway::isReadable(int fd) const
{
    return std::any_of(m_open.begin(), m_open.end(), [fd](const auto& socket) {
        return socket->fd == fd && (!socket->fromPeer.empty() || socket->closedByPeer);
    });
}

bool FakeSway::isListening(const std::string& address) const
{
    const auto found = m_listening.find(address);
    return found != m_listening.end() && found->second;
}

sway_socket* FakeSway::open(const std::string& address)
{
    auto socket = std::make_unique<sway_socket>();
    socket->fd = ++m_lastFd;
    socket->address = address;
    m_open.push_back(std::move(socket));
    return m_open.back().get();
}

bool FakeSway::isOpen(const sway_socket* socket) const
{
    return std::any_of(m_open.begin(), m_open.end(),
                       [socket](const auto& one) { return one.get() == socket; });
}

void FakeSway::close(sway_socket* socket)
{
    if (std::erase_if(m_open, [socket](const auto& one) { return one.get() == socket; }) == 0) {
        ADD_FAILURE() << "A sway connection was closed that is not open";
    }
}

} // namespace support

using support::FakeSway;

namespace {

bool usable(const sway_socket* s)
{
    if (s == nullptr) {
        errno = EBADF;
        return false;
    }
    if (!FakeSway::instance().isOpen(s)) {
        ADD_FAILURE() << "A sway connection was used after its end";
        errno = EBADF;
        return false;
    }
    return true;
}

} // namespace

sway_socket* sway_connect(const char* address, int /*flags*/)
{
    const support::shortage::Pause pause;
    auto& sway = FakeSway::instance();
    if (sway.failsNow(FakeSway::Call::connect)) {
        return nullptr;
    }
    if (!sway.isListening(address)) {
        errno = ENOENT;
        return nullptr;
    }
    return sway.open(address);
}

int sway_set_blocking(sway_socket* s, bool blocking)
{
    const support::shortage::Pause pause;
    if (!usable(s)) {
        return -1;
    }
    s->blocking = blocking;
    return 0;
}

int sway_attr_get(sway_socket* s, const char* name, size_t* size, void* value, size_t capacity)
{
    const support::shortage::Pause pause;
    if (!usable(s) || FakeSway::instance().failsNow(FakeSway::Call::attr)) {
        return -1;
    }
    const std::uint64_t limit = FakeSway::instance().maxMsgSize();
    if (std::strcmp(name, "sway.max_msg_size") != 0 || capacity < sizeof(limit)) {
        errno = EINVAL;
        return -1;
    }
    std::memcpy(value, &limit, sizeof(limit));
    if (size != nullptr) {
        *size = sizeof(limit);
    }
    return 0;
}

int sway_await(sway_socket* s, int /*receive*/)
{
    const support::shortage::Pause pause;
    return usable(s) && !FakeSway::instance().failsNow(FakeSway::Call::await) ? 0 : -1;
}

int sway_fd(sway_socket* s)
{
    const support::shortage::Pause pause;
    return usable(s) ? s->fd : -1;
}

ssize_t sway_receive(sway_socket* s, void* buffer, size_t capacity)
{
    const support::shortage::Pause pause;
    if (!usable(s) || FakeSway::instance().failsNow(FakeSway::Call::receive)) {
        return -1;
    }
    if (s->fromPeer.empty()) {
        if (s->closedByPeer) {
            return 0;
        }
        errno = EAGAIN;
        return -1;
    }
    const auto message = s->fromPeer.front();
    s->fromPeer.pop_front();
    if (message.size() > capacity) {
        errno = EMSGSIZE;
        return -1;
    }
    std::memcpy(buffer, message.data(), message.size());
    return static_cast<ssize_t>(message.size());
}

int sway_send(sway_socket* s, const void* buffer, size_t length)
{
    const support::shortage::Pause pause;
    if (!usable(s) || FakeSway::instance().failsNow(FakeSway::Call::send)) {
        return -1;
    }
    if (length == 0 || length > FakeSway::instance().maxMsgSize()) {
        errno = length == 0 ? EINVAL : EMSGSIZE;
        return -1;
    }
    if (s->closedByPeer) {
        errno = EPIPE;
        return -1;
    }
    const auto* bytes = static_cast<const std::uint8_t*>(buffer);
    s->toPeer.emplace_back(bytes, bytes + length);
    return 0;
}

void sway_close(sway_socket* s)
{
    const support::shortage::Pause pause;
    if (s != nullptr) {
        FakeSway::instance().close(s);
    }
}
