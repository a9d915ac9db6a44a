#include "sway.h"

#include "connection.h"
#include "listener.h"
#include "noCancel.h"
#include "runDir.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>

using merlow::base::NoCancel;

namespace {

/// The name in "ux:NAME"; nothing, with `EINVAL`, when it is not an address.
std::optional<std::string> nameOf(const char* address, int flags)
{
    constexpr const char* scheme = "ux:";
    if (address != nullptr && flags == 0 && std::strncmp(address, scheme, std::strlen(scheme)) == 0) {
        std::string name = address + std::strlen(scheme);
        if (!name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos) {
            return name;
        }
    }
    errno = EINVAL;
    return std::nullopt;
}

bool usable(const sway_socket* s)
{
    if (s != nullptr && s->alive()) {
        return true;
    }
    errno = EBADF;
    return false;
}

/// Runs `operation` on a usable handle, with the failures that all operations share.
template <class F> auto guarded(const sway_socket* s, F operation) -> decltype(operation())
{
    const NoCancel noCancel;
    if (!usable(s)) {
        return -1;
    }
    try {
        return operation();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
}

sway::Connection* connectionOf(sway_socket* s)
{
    auto* connection = s->asConnection();
    if (connection == nullptr) {
        errno = EINVAL;
    }
    return connection;
}

} // namespace

sway_socket* sway_connect(const char* address, int flags)
{
    const NoCancel noCancel;
    try {
        const auto name = nameOf(address, flags);
        if (!name) {
            return nullptr;
        }
        const sway::Descriptor folder(merlow::base::openRunSubdir("sway"));
        auto connection = std::make_unique<sway::Connection>();
        if (!folder.valid() || !connection->connectTo(folder.get(), *name)) {
            return nullptr;
        }
        return connection.release();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return nullptr;
    }
}

sway_socket* sway_listen(const char* address, int flags)
{
    const NoCancel noCancel;
    try {
        const auto name = nameOf(address, flags);
        auto listener = name ? std::make_unique<sway::Listener>() : nullptr;
        return listener && listener->listenAt(*name) ? listener.release() : nullptr;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return nullptr;
    }
}

sway_socket* sway_accept(sway_socket* s)
{
    const NoCancel noCancel;
    if (!usable(s)) {
        return nullptr;
    }
    auto* listener = s->asListener();
    if (listener == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    try {
        return listener->accept();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return nullptr;
    }
}

int sway_set_blocking(sway_socket* s, bool blocking)
{
    return guarded(s, [&] {
        s->blocking = blocking;
        return 0;
    });
}

int sway_attr_get(sway_socket* s, const char* name, size_t* size, void* value, size_t capacity)
{
    return guarded(s, [&] {
        if (name == nullptr || (size == nullptr && value == nullptr)) {
            errno = EINVAL;
            return -1;
        }
        if (std::strcmp(name, "sway.max_msg_size") != 0) {
            errno = ENOENT;
            return -1;
        }
        const uint64_t attribute = sway::maxMessageSize;
        if (size != nullptr) {
            *size = sizeof(attribute);
        }
        if (value == nullptr) {
            return 0;
        }
        if (capacity < sizeof(attribute)) {
            errno = ERANGE;
            return -1;
        }
        std::memcpy(value, &attribute, sizeof(attribute));
        return 0;
    });
}

int sway_await(sway_socket* s, int receive)
{
    return guarded(s, [&] {
        if (receive != 0 && s->asListener() != nullptr) {
            return 0;
        }
        auto* connection = connectionOf(s);
        return connection != nullptr ? connection->await(receive != 0) : -1;
    });
}

int sway_fd(sway_socket* s)
{
    return guarded(s, [&] { return s->waitFd(); });
}

ssize_t sway_receive(sway_socket* s, void* buffer, size_t capacity)
{
    return guarded(s, [&]() -> ssize_t {
        auto* connection = connectionOf(s);
        return connection != nullptr ? connection->receive(buffer, capacity) : -1;
    });
}

int sway_send(sway_socket* s, const void* buffer, size_t length)
{
    return guarded(s, [&] {
        auto* connection = connectionOf(s);
        return connection != nullptr ? connection->send(buffer, length) : -1;
    });
}

void sway_close(sway_socket* s)
{
    const NoCancel noCancel;
    delete s;
}
