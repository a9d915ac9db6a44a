/// The service manager's end of the notification protocol.
#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

namespace merlow::unit {

/// A datagram socket with an abstract name that the kernel chose.
class NotifySocket {
public:
    NotifySocket();
    ~NotifySocket();
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    /// -1 when the socket could not be made.
    [[nodiscard]] int fd() const { return m_fd; }

    /// As it belongs into `NOTIFY_SOCKET`.
    [[nodiscard]] const std::string& name() const { return m_name; }

    /// The next report that process `from` sent; what others send is dropped. Does not wait.
    [[nodiscard]] std::optional<std::string> receive(pid_t from) const;

private:
    int m_fd;
    std::string m_name;
};

} // namespace merlow::unit
