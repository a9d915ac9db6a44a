/// One connection: whole messages over a packet socket, and what the kernel did not take yet.
///
/// A message is one packet as it is, if the kernel takes it. Otherwise, and when it happens to begin like an
/// announcement, it goes as an announcement (mark and length) and packets that add up to the length.
#pragma once

#include "handle.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace sway {

constexpr std::uint64_t maxMessageSize = 262144;

struct Announcement {
    char mark[16];
    std::uint32_t length;
};
static_assert(sizeof(Announcement) == 20);

/// Messages that wait for the kernel, in order, in one block of memory: each its length (32 bits) and bytes.
class KeptMessages {
public:
    void push(const void* data, std::size_t length);
    void pop();
    void clear();

    [[nodiscard]] bool empty() const { return m_start == m_bytes.size(); }
    [[nodiscard]] const char* frontData() const { return &m_bytes[m_start + sizeof(std::uint32_t)]; }
    [[nodiscard]] std::size_t frontLength() const;
    [[nodiscard]] std::size_t size() const { return m_size; } ///< bytes of all messages

private:
    std::vector<char> m_bytes;
    std::size_t m_start = 0;
    std::size_t m_size = 0;
};

class Connection final : public sway_socket {
public:
    Connection();
    ~Connection() override;

    Connection* asConnection() override { return this; }
    [[nodiscard]] bool alive() const override { return m_socket.valid(); }
    [[nodiscard]] int waitFd() const override { return m_epoll.get(); }
    void closeDescriptors() override;

    /// Both open the connection; false with `errno` on failure.
    [[nodiscard]] bool connectTo(int dirFd, const std::string& name);
    [[nodiscard]] bool acceptFrom(int listenerFd);

    int await(bool receive);
    ssize_t receive(void* buffer, std::size_t capacity);
    int send(const void* buffer, std::size_t length);

private:
    /// How far a message has got on its way out.
    struct Progress {
        std::size_t partSize = 0; ///< bytes; 0 for a message that is one packet
        bool announced = false;   ///< from here on the rest must follow, whatever the limit
        std::size_t sent = 0;     ///< bytes of a message in parts
    };
    enum class Outcome { done, full, failed };

    bool setUp();
    int arm();
    void end();

    Outcome transmit(const char* data, std::size_t length, Progress& progress);
    Outcome sendPacket(const void* data, std::size_t length);
    Outcome sendKept();
    int keep(const char* data, std::size_t length, const Progress& progress);

    ssize_t receiveMessage(void* buffer, std::size_t capacity);
    ssize_t receiveParts(void* buffer, std::size_t capacity);
    ssize_t receivePacket(void* buffer, std::size_t capacity);
    ssize_t violation();

    Descriptor m_socket;
    Descriptor m_epoll; ///< what the owner waits on: the socket, for room too while messages are kept
    bool m_awaitsRoom = false;
    bool m_armedForRoom = false;
    bool m_over = false; ///< ended from this side

    KeptMessages m_kept;
    Progress m_keptProgress; ///< of the first kept message
    std::size_t m_keptLimit; ///< bytes

    std::size_t m_announced = 0;   ///< bytes of the message that comes in parts; 0 when none does
    std::size_t m_received = 0;    ///< bytes of it that have come
    std::vector<char> m_assembled; ///< those, and room for the rest
};

} // namespace sway
