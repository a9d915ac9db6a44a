/// The roles that this program plays when it is started as part of a measurement, and what they share: the
/// line to the process that measures, a nested epoll descriptor, and the loops of a client and an echo, which
/// are the same text for every kind of link.
#pragma once

#include "process.h"

#include <algorithm>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace merlow::bench {

inline constexpr const char* roleOption = "--role";
inline constexpr int lineFd = 3;      ///< the line to the measuring process
inline constexpr int firstLinkFd = 4; ///< sockets that a raw role works on

using RoleArguments = std::vector<std::string>;

/// Plays a role until its line ends. What it throws is reported on the line.
int playRole(const RoleArguments& arguments);

namespace line {
void say(const std::string& text);
/// The next text, nothing when the measuring process is gone.
std::optional<std::string> next();
} // namespace line

/// An epoll descriptor inside another, as an event loop over a library with a descriptor of its own has it.
class NestedEpoll {
public:
    NestedEpoll();
    void add(int fd) const;
    /// Waits until one of the descriptors is readable and gives it.
    int wait() const;

private:
    Fd m_outer;
    Fd m_inner;
};

/// How many messages may be on their way before a one-way sender waits for an acknowledgement, which comes
/// with each half of them.
inline std::size_t streamBatch(std::size_t size)
{
    return size > 16384 ? 4 : 64;
}

/// `count` round trips of `size` bytes, one after the other.
template <class Link> void roundTrips(Link& link, std::size_t count, std::size_t size)
{
    for (std::size_t i = 0; i < count; ++i) {
        link.send(size);
        link.receive();
    }
}

/// `count` messages of `size` bytes one way, a multiple of the batch, all acknowledged at the end.
template <class Link> void stream(Link& link, std::size_t count, std::size_t size)
{
    const std::size_t batch = streamBatch(size);
    std::size_t sent = 0;
    for (std::size_t acknowledged = 0; acknowledged < count; acknowledged += batch) {
        for (const std::size_t end = std::min(acknowledged + 2 * batch, count); sent < end; ++sent) {
            link.send(size);
        }
        link.receive();
    }
}

/// `count` messages of `size` bytes, each acknowledged by itself, of which up to `window` are on their way.
template <class Link> void windowed(Link& link, std::size_t count, std::size_t size, std::size_t window)
{
    std::size_t sent = 0;
    for (std::size_t acknowledged = 0; acknowledged < count; ++acknowledged) {
        for (const std::size_t end = std::min(acknowledged + window, count); sent < end; ++sent) {
            link.send(size);
        }
        link.receive();
    }
}

/// Takes what comes and acknowledges each batch with `ackSize` bytes.
template <class Link> [[noreturn]] void sink(Link& link, std::size_t batch)
{
    constexpr std::size_t ackSize = 8;
    for (;;) {
        for (std::size_t taken = 0; taken < batch; ++taken) {
            link.receiveNext();
        }
        link.send(ackSize);
    }
}

inline constexpr std::string_view windowVerb = "window";

/// Serves the line of a client: "trips COUNT SIZE", "stream COUNT SIZE" and "windowN COUNT SIZE", each
/// answered with the nanoseconds that it took.
template <class Link> int serveClient(Link& link)
{
    line::say("ready");
    while (const auto text = line::next()) {
        std::istringstream words(*text);
        std::string verb;
        std::size_t count = 0;
        std::size_t size = 0;
        words >> verb >> count >> size;
        const double start = nowNanoseconds();
        if (verb == "trips") {
            roundTrips(link, count, size);
        } else if (verb.starts_with(windowVerb)) {
            windowed(link, count, size, std::stoul(verb.substr(windowVerb.size())));
        } else {
            stream(link, count, size);
        }
        line::say(std::to_string(nowNanoseconds() - start));
    }
    return 0;
}

int playRawEcho(const RoleArguments&);
int playRawClient(const RoleArguments&);
int playRawRelay(const RoleArguments&);
int playRawSink(const RoleArguments&);

int playBusEcho(const RoleArguments&);
int playBusClient(const RoleArguments&);
int playBusRelay(const RoleArguments&);

int playMailboxEcho(const RoleArguments&);
int playMailboxClient(const RoleArguments&);
int playMailboxSink(const RoleArguments&);

int playHost(const RoleArguments&);
int playEmpty(const RoleArguments&);
int playLegacy(const RoleArguments&);
int playBoard(const RoleArguments&);
int playSwm(const RoleArguments&);
int playLoadClient(const RoleArguments&);
int playUnitClient(const RoleArguments&);
int playWatch(const RoleArguments&);
int playFaultClient(const RoleArguments&);
int playStormClient(const RoleArguments&);
int playAuditClient(const RoleArguments&);
int playTraceSite(const RoleArguments&);
int playTrustClient(const RoleArguments&);
int playTrustPeer(const RoleArguments&);
int playBurner(const RoleArguments&);

} // namespace merlow::bench
