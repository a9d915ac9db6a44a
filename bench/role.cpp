#include "role.h"

#include <array>
#include <cerrno>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <system_error>

namespace merlow::bench {

namespace {

struct Role {
    std::string_view name;
    int (*play)(const RoleArguments&);
};

constexpr std::array roles{Role{"raw-client", playRawClient},
                           Role{"raw-echo", playRawEcho},
                           Role{"raw-relay", playRawRelay},
                           Role{"raw-sink", playRawSink},
                           Role{"bus-client", playBusClient},
                           Role{"bus-echo", playBusEcho},
                           Role{"bus-relay", playBusRelay},
                           Role{"mailbox-client", playMailboxClient},
                           Role{"mailbox-echo", playMailboxEcho},
                           Role{"mailbox-sink", playMailboxSink},
                           Role{"host", playHost},
                           Role{"empty", playEmpty},
                           Role{"legacy", playLegacy},
                           Role{"board", playBoard},
                           Role{"swm", playSwm},
                           Role{"load-client", playLoadClient},
                           Role{"unit-client", playUnitClient},
                           Role{"watch", playWatch},
                           Role{"fault-client", playFaultClient},
                           Role{"storm-client", playStormClient},
                           Role{"audit-client", playAuditClient},
                           Role{"trace-site", playTraceSite},
                           Role{"trust-client", playTrustClient},
                           Role{"trust-peer", playTrustPeer},
                           Role{"trust-burner", playBurner}};

int epollIn(int epoll, int fd)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    return epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
}

} // namespace

int playRole(const RoleArguments& arguments)
{
    try {
        for (const Role& role : roles) {
            if (role.name == arguments.at(0)) {
                return role.play(arguments);
            }
        }
        throw std::runtime_error("no such role");
    } catch (const std::exception& error) {
        line::say(std::string("failed: ") + error.what());
        return 1;
    }
}

void line::say(const std::string& text)
{
    send(lineFd, text.data(), text.size(), MSG_NOSIGNAL);
}

std::optional<std::string> line::next()
{
    char buffer[512];
    const ssize_t length = recv(lineFd, buffer, sizeof(buffer), 0);
    if (length <= 0) {
        return std::nullopt;
    }
    return std::string(buffer, static_cast<std::size_t>(length));
}

NestedEpoll::NestedEpoll() : m_outer(epoll_create1(EPOLL_CLOEXEC)), m_inner(epoll_create1(EPOLL_CLOEXEC))
{
    if (m_outer.get() < 0 || m_inner.get() < 0 || epollIn(m_outer.get(), m_inner.get()) != 0) {
        throw std::system_error(errno, std::generic_category(), "epoll");
    }
}

void NestedEpoll::add(int fd) const
{
    if (epollIn(m_inner.get(), fd) != 0) {
        throw std::system_error(errno, std::generic_category(), "epoll_ctl");
    }
}

int NestedEpoll::wait() const
{
    epoll_event event{};
    for (;;) {
        if (epoll_wait(m_outer.get(), &event, 1, -1) == 1 && epoll_wait(m_inner.get(), &event, 1, 0) == 1) {
            return event.data.fd;
        }
    }
}

} // namespace merlow::bench
