// The same exchange over a D-Bus broker. The roles speak the wire protocol themselves, without a library, so
// that the comparison is with the broker at its best: messages are prepared once and only get their serial,
// and of what arrives only the length and the body are looked at.

#include "role.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace merlow::bench {

namespace {

constexpr std::uint8_t methodCall = 1;
constexpr std::uint8_t methodReturn = 2;
constexpr std::uint8_t signalMessage = 4;
constexpr std::uint8_t noReply = 1;
constexpr std::size_t fixedHeader = 16;

enum class Field : std::uint8_t { path = 1, interface = 2, member = 3, destination = 6, signature = 8 };

/// Which way a message goes, in the first byte of its body.
enum class Direction : char { there = 1, back = 2 };

/// Builds one message in the little-endian wire format.
class Builder {
public:
    Builder(std::uint8_t type, std::uint8_t flags)
    {
        for (const std::uint8_t byte : {std::uint8_t{'l'}, type, flags, std::uint8_t{1}}) {
            m_data.push_back(static_cast<char>(byte));
        }
        word(0); // length of the body
        word(1); // serial
        word(0); // length of the fields
    }

    Builder& field(Field code, char type, const std::string& value)
    {
        align(8);
        for (const char byte : {static_cast<char>(code), '\1', type, '\0'}) {
            m_data.push_back(byte);
        }
        if (type == 'g') {
            m_data.push_back(static_cast<char>(value.size()));
        } else {
            word(static_cast<std::uint32_t>(value.size()));
        }
        m_data += value;
        m_data.push_back('\0');
        return *this;
    }

    Builder& startBody()
    {
        set(12, static_cast<std::uint32_t>(m_data.size() - fixedHeader));
        align(8);
        m_body = m_data.size();
        return *this;
    }

    Builder& text(const std::string& value)
    {
        align(4);
        word(static_cast<std::uint32_t>(value.size()));
        m_data += value;
        m_data.push_back('\0');
        return *this;
    }

    Builder& word(std::uint32_t value)
    {
        align(4);
        m_data.append(4, '\0');
        set(m_data.size() - 4, value);
        return *this;
    }

    Builder& bytes(std::size_t size, Direction way)
    {
        word(static_cast<std::uint32_t>(size));
        m_data.append(size, static_cast<char>(way));
        return *this;
    }

    std::string finish()
    {
        set(4, static_cast<std::uint32_t>(m_data.size() - m_body));
        return m_data;
    }

private:
    void align(std::size_t to) { m_data.resize((m_data.size() + to - 1) / to * to, '\0'); }
    void set(std::size_t at, std::uint32_t value) { std::memcpy(&m_data[at], &value, sizeof(value)); }

    std::string m_data;
    std::size_t m_body = 0;
};

/// A connection to the broker, behind a nested epoll descriptor as the floors are.
class BusLink {
public:
    explicit BusLink(const std::string& socketPath) : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (socketPath.size() >= sizeof(address.sun_path)) {
            throw std::runtime_error("the bus socket's name is too long");
        }
        std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
        if (connect(m_fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            throw std::system_error(errno, std::generic_category(), "connecting to the bus");
        }
        authenticate();
        m_epoll.add(m_fd.get());
        call("Hello");
    }

    /// Takes `name`. The call behind it has its answer after whatever the broker says about names.
    void own(const std::string& name)
    {
        call("RequestName", name);
        call("GetId");
    }

    /// Names the receiver of what goes `way`, and turns to it.
    void aim(Direction way, const std::string& name)
    {
        target(way) = {name, 0, ""};
        turn(way);
    }

    /// What `send` sends from now on goes `way`.
    void turn(Direction way) { m_way = way; }

    std::size_t receive()
    {
        for (;;) {
            if (const std::size_t size = takeBuffered(); size != 0) {
                return size;
            }
            m_epoll.wait();
            fill();
        }
    }

    Direction way() const { return m_receivedWay; }

    void send(std::size_t size)
    {
        Target& to = target(m_way);
        if (to.size != size) {
            Builder builder(signalMessage, noReply);
            builder.field(Field::path, 'o', "/b")
                .field(Field::interface, 's', "b.b")
                .field(Field::member, 's', "m")
                .field(Field::destination, 's', to.name)
                .field(Field::signature, 'g', "ay")
                .startBody()
                .bytes(size, m_way);
            to = {to.name, size, builder.finish()};
        }
        writeNumbered(to.message);
    }

private:
    /// A receiver and the message prepared for it.
    struct Target {
        std::string name;
        std::size_t size = 0;
        std::string message;
    };

    Target& target(Direction way) { return m_targets.at(static_cast<std::size_t>(way) - 1); }

    void authenticate()
    {
        std::string user;
        for (const char digit : std::to_string(geteuid())) {
            user += '3';
            user += digit;
        }
        write(std::string(1, '\0') + "AUTH EXTERNAL " + user + "\r\n");
        while (m_input.find("\r\n") == std::string::npos) {
            fill();
        }
        if (m_input.rfind("OK", 0) != 0) {
            throw std::runtime_error("the bus refuses this user: " + m_input);
        }
        m_input.clear();
        write("BEGIN\r\n");
    }

    void call(const char* member, const std::string& name = "")
    {
        Builder builder(methodCall, 0);
        builder.field(Field::path, 'o', "/org/freedesktop/DBus")
            .field(Field::interface, 's', "org.freedesktop.DBus")
            .field(Field::member, 's', member)
            .field(Field::destination, 's', "org.freedesktop.DBus");
        if (name.empty()) {
            builder.startBody();
        } else {
            builder.field(Field::signature, 'g', "su").startBody().text(name).word(0);
        }
        std::string message = builder.finish();
        writeNumbered(message);
        do {
            receive();
        } while (m_receivedType != methodReturn);
    }

    void writeNumbered(std::string& message)
    {
        ++m_serial;
        std::memcpy(&message[8], &m_serial, sizeof(m_serial));
        write(message);
    }

    void write(const std::string& message)
    {
        std::size_t done = 0;
        while (done < message.size()) {
            const ssize_t length = ::send(m_fd.get(), &message[done], message.size() - done, MSG_NOSIGNAL);
            if (length < 0) {
                throw std::system_error(errno, std::generic_category(), "sending to the bus");
            }
            done += static_cast<std::size_t>(length);
        }
    }

    void fill()
    {
        char buffer[8192];
        const ssize_t length = recv(m_fd.get(), buffer, sizeof(buffer), 0);
        if (length <= 0) {
            throw std::runtime_error("the bus hung up");
        }
        m_input.append(buffer, static_cast<std::size_t>(length));
    }

    /// The size of the next message's body without its length word, 0 when no whole message is there yet.
    std::size_t takeBuffered()
    {
        if (m_input.size() < fixedHeader) {
            return 0;
        }
        std::uint32_t body = 0;
        std::uint32_t fields = 0;
        std::memcpy(&body, &m_input[4], sizeof(body));
        std::memcpy(&fields, &m_input[12], sizeof(fields));
        const std::size_t bodyAt = (fixedHeader + std::size_t{fields} + 7) / 8 * 8;
        if (m_input.size() < bodyAt + body) {
            return 0;
        }
        m_receivedType = static_cast<std::uint8_t>(m_input[1]);
        if (body > 4) {
            m_receivedWay = static_cast<Direction>(m_input[bodyAt + 4]);
        }
        m_input.erase(0, bodyAt + body);
        return body > 4 ? body - 4 : 1;
    }

    Fd m_fd;
    NestedEpoll m_epoll;
    std::string m_input;
    std::array<Target, 2> m_targets;
    std::uint32_t m_serial = 0;
    Direction m_way = Direction::there;
    Direction m_receivedWay = Direction::there;
    std::uint8_t m_receivedType = 0;
};

constexpr const char* clientName = "bench.client";
constexpr const char* relayName = "bench.relay";
constexpr const char* backendName = "bench.backend";

} // namespace

int playBusClient(const RoleArguments& arguments)
{
    BusLink link(arguments.at(1));
    link.own(clientName);
    link.aim(Direction::there, relayName);
    return serveClient(link);
}

int playBusEcho(const RoleArguments& arguments)
{
    BusLink link(arguments.at(1));
    link.own(backendName);
    link.aim(Direction::back, relayName);
    line::say("ready");
    for (;;) {
        link.send(link.receive());
    }
}

int playBusRelay(const RoleArguments& arguments)
{
    BusLink link(arguments.at(1));
    link.own(relayName);
    link.aim(Direction::there, backendName);
    link.aim(Direction::back, clientName);
    line::say("ready");
    for (;;) {
        const std::size_t size = link.receive();
        link.turn(link.way());
        link.send(size);
    }
}

} // namespace merlow::bench
