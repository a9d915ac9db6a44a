/// Message sockets in memory, for the one client side that the server has.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <sway.h>
#include <vector>

/// One connection; `fromPeer` and `toPeer` are seen from the server under test.
struct sway_socket {
    int fd = -1;
    std::string address;
    std::deque<std::vector<std::uint8_t>> fromPeer;
    std::deque<std::vector<std::uint8_t>> toPeer;
    bool blocking = true;
    bool closedByPeer = false;
};

namespace support {

/// Every connection of the server under test, and the virtual peer's end of it. One thread only.
class FakeSway {
public:
    enum class Call { connect, attr, await, send, receive };

    static FakeSway& instance();

    void reset();

    /// A virtual server begins or ends to accept connections at `address`.
    void listen(const std::string& address) { m_listening[address] = true; }
    void refuse(const std::string& address) { m_listening[address] = false; }
    /// The next `times` calls of `call`, after `skip` good ones, fail with `error`.
    void fail(Call call, int error, unsigned int times = 1, unsigned int skip = 0);
    void setMaxMsgSize(std::uint64_t size) { m_maxMsgSize = size; }

    /// The open connection to `address`, or null; the newest when there are several.
    [[nodiscard]] sway_socket* connection(const std::string& address) const;
    [[nodiscard]] std::size_t openConnections() const { return m_open.size(); }
    [[nodiscard]] bool isReadable(int fd) const;

    [[nodiscard]] bool isListening(const std::string& address) const;
    sway_socket* open(const std::string& address);
    void close(sway_socket* socket);
    /// True, with errno set, when a failure was ordered for this call.
    bool failsNow(Call call);
    [[nodiscard]] bool isOpen(const sway_socket* socket) const;
    [[nodiscard]] std::uint64_t maxMsgSize() const { return m_maxMsgSize; }

private:
    struct Failure {
        int error;
        unsigned int times;
        unsigned int skip;
    };
    std::map<std::string, bool> m_listening;
    std::map<Call, Failure> m_failures;
    std::vector<std::unique_ptr<sway_socket>> m_open;
    std::uint64_t m_maxMsgSize = 262144;
    int m_lastFd = 5000;
};

} // namespace support
