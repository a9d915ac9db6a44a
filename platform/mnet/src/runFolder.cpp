#include "runFolder.h"

#include "names.h"
#include "runDir.h"
#include "wire.h"

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace mnet {

namespace {

constexpr off_t cursorOffset = 0;
constexpr off_t recordsOffset = 16;

/// A live file stays a while after its process, so that what the process sent just before its end can still
/// be told from what somebody else sends under its number.
constexpr time_t keepLiveFileSeconds = 60;

constexpr std::uint32_t liveMagic = 0x6d6e6c31;

struct LiveHeader {
    std::uint32_t magic = liveMagic;
    std::int32_t pid = 0;
    std::uint8_t keeping = 0;
};
static_assert(sizeof(LiveHeader) <= LiveFile::mapOffset);

struct flock numberLock(std::uint16_t number, short type)
{
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = number;
    lock.l_len = 1;
    return lock;
}

off_t recordOf(std::uint16_t number)
{
    return recordsOffset + off_t{number} * off_t{sizeof(std::uint16_t)};
}

/// Components that would lead out of the run-time folder are refused.
bool isPlainPath(std::string_view path)
{
    if (!path.empty() && path.front() == '/') {
        return false;
    }
    while (!path.empty()) {
        const auto part = path.substr(0, path.find('/'));
        if (part == "." || part == "..") {
            return false;
        }
        path.remove_prefix(std::min(path.size(), part.size() + 1));
    }
    return true;
}

std::vector<std::string> entriesOf(int dirFd)
{
    std::vector<std::string> result;
    const int fd = openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(fd >= 0 ? fdopendir(fd) : nullptr, closedir);
    if (!dir) {
        if (fd >= 0) {
            close(fd);
        }
        return result;
    }
    while (const dirent* entry = readdir(dir.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            result.emplace_back(name);
        }
    }
    return result;
}

/// The number that `text` starts with, and what follows it.
std::optional<std::pair<std::uint16_t, std::string_view>> leadingNumber(std::string_view text)
{
    std::uint16_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || number < firstEndpoint || number > lastEndpoint) {
        return std::nullopt;
    }
    return std::pair{number, text.substr(static_cast<std::size_t>(end - text.data()))};
}

} // namespace

std::unique_ptr<RunFolder> RunFolder::open(const std::string& nameSpace)
{
    if (!isPlainPath(nameSpace)) {
        errno = EINVAL;
        return nullptr;
    }
    const std::string base = nameSpace.empty() ? "mnet" : nameSpace + "/mnet";
    std::unique_ptr<RunFolder> folder(new RunFolder);
    folder->m_endpointsDir = Descriptor::open([&] { return merlow::base::openRunSubdir(base + "/ep"); });
    if (!folder->m_endpointsDir) {
        return nullptr;
    }
    folder->m_namesDir = Descriptor::open([&] { return merlow::base::openRunSubdir(base + "/names"); });
    if (!folder->m_namesDir) {
        return nullptr;
    }
    folder->m_lockFile = Descriptor::open([&] {
        return openat(folder->m_endpointsDir.get(), "../endpoints", O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW,
                      0600);
    });
    if (!folder->m_lockFile) {
        return nullptr;
    }
    struct stat status {};
    if (fstat(folder->m_lockFile.get(), &status) == 0 && status.st_uid == geteuid()) {
        if (merlow::base::setFileAccess(folder->m_lockFile.get()) != 0) {
            return nullptr;
        }
    }
    folder->sweepEndpoints();
    folder->sweepNames();
    return folder;
}

void RunFolder::close()
{
    m_endpointsDir.reset();
    m_namesDir.reset();
    m_lockFile.reset();
}

bool RunFolder::lock(std::uint16_t number)
{
    struct flock lock = numberLock(number, F_WRLCK);
    return fcntl(m_lockFile.get(), F_SETLK, &lock) == 0;
}

void RunFolder::release(std::uint16_t number)
{
    struct flock lock = numberLock(number, F_UNLCK);
    fcntl(m_lockFile.get(), F_SETLK, &lock);
}

pid_t RunFolder::holder(std::uint16_t number) const
{
    struct flock lock = numberLock(number, F_WRLCK);
    if (fcntl(m_lockFile.get(), F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) {
        return 0;
    }
    return lock.l_pid;
}

std::optional<std::uint16_t> RunFolder::claim(const std::function<bool(std::uint16_t)>& inUse)
{
    // The place to go on from is a hint: two processes that read the same one part ways at the lock.
    constexpr std::uint32_t count = lastEndpoint - firstEndpoint + 1;
    std::uint32_t cursor = 0;
    if (pread(m_lockFile.get(), &cursor, sizeof(cursor), cursorOffset) !=
        static_cast<ssize_t>(sizeof(cursor))) {
        cursor = 0;
    }
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint32_t place = (cursor % count + i) % count;
        const auto number = static_cast<std::uint16_t>(firstEndpoint + place);
        if (!inUse(number) && lock(number)) {
            const std::uint32_t next = place + 1;
            if (pwrite(m_lockFile.get(), &next, sizeof(next), cursorOffset) !=
                static_cast<ssize_t>(sizeof(next))) {
                release(number);
                return std::nullopt;
            }
            return number;
        }
    }
    errno = ENOSPC;
    return std::nullopt;
}

std::uint16_t RunFolder::nextIndex(std::uint16_t number) const
{
    std::uint16_t index = 0;
    const auto got = pread(m_lockFile.get(), &index, sizeof(index), recordOf(number));
    return got == static_cast<ssize_t>(sizeof(index)) ? index : std::uint16_t{0};
}

void RunFolder::setNextIndex(std::uint16_t number, std::uint16_t index)
{
    // A folder without space costs the lateness of ids across processes, nothing else.
    [[maybe_unused]] const auto written = pwrite(m_lockFile.get(), &index, sizeof(index), recordOf(number));
}

void RunFolder::sweepEndpoints()
{
    const time_t now = time(nullptr);
    for (const auto& entry : entriesOf(m_endpointsDir.get())) {
        const auto number = leadingNumber(entry);
        if (!number || holder(number->first) != 0 || !lock(number->first)) {
            continue;
        }
        struct stat status {};
        const bool isLiveFile = !number->second.empty();
        if (!isLiveFile || (fstatat(m_endpointsDir.get(), entry.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                            now - status.st_mtime > keepLiveFileSeconds)) {
            unlinkat(m_endpointsDir.get(), entry.c_str(), 0);
        }
        release(number->first);
    }
}

void RunFolder::sweepNames()
{
    for (const auto& entry : entriesOf(m_namesDir.get())) {
        if (entry.front() == '@' || entry.front() == '%') {
            removeStaleName(m_namesDir.get(), entry);
        } else if (entry.front() == '~') {
            const auto number = leadingNumber(std::string_view(entry).substr(1));
            if (number && holder(number->first) == 0 && lock(number->first)) {
                unlinkat(m_namesDir.get(), entry.c_str(), 0);
                release(number->first);
            }
        }
    }
}

std::string LiveFile::nameOf(std::uint16_t number)
{
    return std::to_string(number) + ".live";
}

bool LiveFile::create(const RunFolder& folder, std::uint16_t number)
{
    const std::string name = nameOf(number);
    unlinkat(folder.endpoints(), name.c_str(), 0);
    m_file = Descriptor::open([&] {
        return openat(folder.endpoints(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW,
                      0600);
    });
    if (!m_file) {
        return false;
    }
    std::optional<gid_t> group;
    if (!merlow::base::accessGroup(group)) {
        return false;
    }
    if (group &&
        (fchown(m_file.get(), static_cast<uid_t>(-1), *group) != 0 || fchmod(m_file.get(), 0640) != 0)) {
        return false;
    }
    // Written in full: a mapped hole in a full file system would be a fault.
    std::array<std::uint8_t, mapOffset + mapSize> content{};
    const LiveHeader header{.pid = getpid()};
    std::copy_n(reinterpret_cast<const std::uint8_t*>(&header), sizeof(header), content.begin());
    const ssize_t written = pwrite(m_file.get(), content.data(), content.size(), 0);
    if (written != static_cast<ssize_t>(content.size())) {
        errno = written < 0 ? errno : ENOSPC;
        return false;
    }
    return true;
}

bool LiveFile::set(std::uint16_t index, bool live)
{
    const std::size_t byte = index / 8u;
    const auto bit = static_cast<std::uint8_t>(1u << index % 8u);
    m_bits[byte] = static_cast<std::uint8_t>(live ? m_bits[byte] | bit : m_bits[byte] & ~bit);
    return pwrite(m_file.get(), &m_bits[byte], 1, static_cast<off_t>(mapOffset + byte)) == 1;
}

void LiveFile::setKeeping(bool keeping)
{
    const std::uint8_t value = keeping ? 1 : 0;
    [[maybe_unused]] const auto written = pwrite(m_file.get(), &value, 1, offsetof(LiveHeader, keeping));
}

void LiveFile::clear()
{
    m_bits.fill(0);
    if (m_file) {
        [[maybe_unused]] const auto written = pwrite(m_file.get(), m_bits.data(), m_bits.size(), mapOffset);
        m_file.reset();
    }
}

LiveView::LiveView(LiveView&& other) noexcept
    : m_file(std::move(other.m_file)), m_map(std::exchange(other.m_map, nullptr))
{
}

LiveView& LiveView::operator=(LiveView&& other) noexcept
{
    std::swap(m_file, other.m_file);
    std::swap(m_map, other.m_map);
    return *this;
}

LiveView::~LiveView()
{
    if (m_map != nullptr) {
        munmap(const_cast<std::uint8_t*>(m_map), LiveFile::mapOffset + LiveFile::mapSize);
    }
}

bool LiveView::open(const RunFolder& folder, std::uint16_t number)
{
    constexpr std::size_t size = LiveFile::mapOffset + LiveFile::mapSize;
    LiveView view;
    view.m_file = Descriptor::open([&] {
        return openat(folder.endpoints(), LiveFile::nameOf(number).c_str(),
                      O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    });
    struct stat status {};
    if (!view.m_file || fstat(view.m_file.get(), &status) != 0) {
        return false;
    }
    if (!S_ISREG(status.st_mode) || status.st_size < static_cast<off_t>(size)) {
        errno = EINVAL;
        return false;
    }
    const bool trusted = status.st_uid == geteuid() || status.st_uid == 0;
    if (trusted && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0) {
        void* map = mmap(nullptr, size, PROT_READ, MAP_SHARED, view.m_file.get(), 0);
        if (map != MAP_FAILED) {
            view.m_map = static_cast<const std::uint8_t*>(map);
            view.m_file.reset();
        }
    }
    *this = std::move(view);
    return true;
}

std::uint8_t LiveView::byteAt(std::size_t place, std::uint8_t otherwise) const
{
    if (m_map != nullptr) {
        return __atomic_load_n(m_map + place, __ATOMIC_ACQUIRE);
    }
    std::uint8_t byte = 0;
    return pread(m_file.get(), &byte, 1, static_cast<off_t>(place)) == 1 ? byte : otherwise;
}

bool LiveView::isLive(std::uint16_t index) const
{
    return (byteAt(LiveFile::mapOffset + index / 8u, 0) >> index % 8u & 1u) != 0;
}

bool LiveView::isKeeping() const
{
    return byteAt(offsetof(LiveHeader, keeping), 1) != 0;
}

bool wasHeldBy(const RunFolder& folder, std::uint16_t number, pid_t pid, uid_t uid)
{
    const Descriptor file = Descriptor::open([&] {
        return openat(folder.endpoints(), LiveFile::nameOf(number).c_str(),
                      O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    });
    struct stat status {};
    LiveHeader header;
    return file && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == uid &&
           pread(file.get(), &header, sizeof(header), 0) == static_cast<ssize_t>(sizeof(header)) &&
           header.magic == liveMagic && header.pid == pid;
}

} // namespace mnet
