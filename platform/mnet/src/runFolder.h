/// The mailbox library's part of the run-time folder: endpoint numbers and their sockets, live maps, names.
///
///   mnet/endpoints      byte N locked: endpoint N is held; also where numbers and ids go on from
///   mnet/ep/N           the listening socket of endpoint N
///   mnet/ep/N.live      which mailboxes of endpoint N exist, and which process it is (or was)
///   mnet/names/         one locked file for each name, see names.h
///
/// The lock on a number is a POSIX record lock: the kernel drops it with the process, a forked child has no
/// part in it, and it tells the process id of its holder. Closing any descriptor of `endpoints` would drop
/// all of them, so that file is opened once in a process, here.
#pragma once

#include "descriptor.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

namespace mnet {

class RunFolder {
public:
    /// Opens the folder of `nameSpace` ("" for none), made if it is missing, and removes what dead processes
    /// left there. Nothing, with `errno`, when that is not possible.
    static std::unique_ptr<RunFolder> open(const std::string& nameSpace);

    /// Nothing else may be called afterwards.
    void close();

    int endpoints() const { return m_endpointsDir.get(); }
    int names() const { return m_namesDir.get(); }

    /// Claims a number that no process holds and for which `inUse` (this process's own, to which the kernel's
    /// locks do not object) is false. The caller serialises. Nothing, with `errno`, on failure.
    std::optional<std::uint16_t> claim(const std::function<bool(std::uint16_t)>& inUse);
    void release(std::uint16_t number);

    /// The process that holds `number`; 0 when no other process does.
    pid_t holder(std::uint16_t number) const;

    /// Where the ids of `number` go on, so that they come back late though processes come and go. Written by
    /// the holder alone.
    std::uint16_t nextIndex(std::uint16_t number) const;
    void setNextIndex(std::uint16_t number, std::uint16_t index);

private:
    RunFolder() = default;
    bool lock(std::uint16_t number);
    void sweepEndpoints();
    void sweepNames();

    Descriptor m_endpointsDir;
    Descriptor m_namesDir;
    Descriptor m_lockFile;
};

/// Which mailboxes of an endpoint exist: a file of one bit for each index behind a header. The holder writes
/// it; senders look there before each message, so that a mailbox that is not there (any more) is known
/// without asking.
class LiveFile {
public:
    static constexpr std::size_t mapOffset = 64;
    static constexpr std::size_t mapSize = 65536 / 8;
    static std::string nameOf(std::uint16_t number);

    bool create(const RunFolder& folder, std::uint16_t number);
    bool set(std::uint16_t index, bool live);
    /// Whether messages of a mailbox that is gone may wait in this process still.
    void setKeeping(bool keeping);
    void clear();

private:
    Descriptor m_file;
    std::array<std::uint8_t, mapSize> m_bits{};
};

/// The same file as senders see it. Mapped when it belongs to this user or root, who could harm this process
/// anyway; read byte by byte when it is another user's, whose shortening of a mapped file would be a fault.
class LiveView {
public:
    LiveView() = default;
    LiveView(LiveView&& other) noexcept;
    LiveView& operator=(LiveView&& other) noexcept;
    ~LiveView();

    /// False, with `errno`, when the file can't be opened or is not one of these.
    bool open(const RunFolder& folder, std::uint16_t number);
    bool isLive(std::uint16_t index) const;
    bool isKeeping() const;

private:
    std::uint8_t byteAt(std::size_t place, std::uint8_t otherwise) const;

    Descriptor m_file;
    const std::uint8_t* m_map = nullptr;
};

/// Whether the live file of `number`, whose holder is gone, says that `pid` of user `uid` held it last.
bool wasHeldBy(const RunFolder& folder, std::uint16_t number, pid_t pid, uid_t uid);

} // namespace mnet
