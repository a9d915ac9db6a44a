#include "powerCut.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using merlow::board::test::PowerCutWatch;

namespace {

PowerCutWatch* watchOf(int fd)
{
    return PowerCutWatch::active != nullptr && PowerCutWatch::active->isBelow(fd) ? PowerCutWatch::active
                                                                                  : nullptr;
}

/// Whether the call may go on.
bool beginOn(int fd, const char* operation)
{
    PowerCutWatch* const watch = watchOf(fd);
    return watch == nullptr || watch->begin(operation);
}

bool beginOn(int folder, const char* path, const char* operation)
{
    PowerCutWatch* const watch = PowerCutWatch::active;
    return watch == nullptr || !watch->isBelow(folder, path) || watch->begin(operation);
}

/// The real disk is spared it: nothing of a test has to outlive it.
int syncOn(int fd)
{
    if (PowerCutWatch* const watch = watchOf(fd)) {
        if (!watch->begin("sync")) {
            return -1;
        }
        watch->sync(fd);
    }
    return 0;
}

int truncateOn(int fd, off_t size)
{
    return beginOn(fd, "truncate") ? static_cast<int>(syscall(SYS_ftruncate, fd, size)) : -1;
}

ssize_t writeOn(int fd, const void* bytes, size_t size, off_t offset)
{
    return beginOn(fd, "write") ? syscall(SYS_pwrite64, fd, bytes, size, offset) : -1;
}

int renameOn(int fromFolder, const char* from, int toFolder, const char* to)
{
    return beginOn(toFolder, to, "rename")
               ? static_cast<int>(syscall(SYS_renameat2, fromFolder, from, toFolder, to, 0))
               : -1;
}

int unlinkOn(int folder, const char* path, int flags)
{
    return beginOn(folder, path, "unlink") ? static_cast<int>(syscall(SYS_unlinkat, folder, path, flags))
                                           : -1;
}

} // namespace

// In place of the C library's, for SQLite and the C++ library too.
#define INSTEAD extern "C" __attribute__((visibility("default")))
INSTEAD ssize_t write(int fd, const void* bytes, size_t size)
{
    return beginOn(fd, "write") ? syscall(SYS_write, fd, bytes, size) : -1;
}
INSTEAD ssize_t pwrite(int fd, const void* bytes, size_t size, off_t offset)
{
    return writeOn(fd, bytes, size, offset);
}
INSTEAD ssize_t pwrite64(int fd, const void* bytes, size_t size, off64_t offset)
{
    return writeOn(fd, bytes, size, offset);
}
INSTEAD int ftruncate(int fd, off_t size) noexcept
{
    return truncateOn(fd, size);
}
INSTEAD int ftruncate64(int fd, off64_t size) noexcept
{
    return truncateOn(fd, size);
}
INSTEAD int fsync(int fd)
{
    return syncOn(fd);
}
INSTEAD int fdatasync(int fd)
{
    return syncOn(fd);
}
INSTEAD int rename(const char* from, const char* to) noexcept
{
    return renameOn(AT_FDCWD, from, AT_FDCWD, to);
}
INSTEAD int renameat(int fromFolder, const char* from, int toFolder, const char* to) noexcept
{
    return renameOn(fromFolder, from, toFolder, to);
}
INSTEAD int unlink(const char* path) noexcept
{
    return unlinkOn(AT_FDCWD, path, 0);
}
INSTEAD int unlinkat(int folder, const char* path, int flags) noexcept
{
    return unlinkOn(folder, path, flags);
}
#undef INSTEAD

namespace merlow::board::test {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t sectorSize = 512;

ino_t numberOf(int fd)
{
    struct stat status {};
    return fstat(fd, &status) == 0 ? status.st_ino : 0;
}

} // namespace

PowerCutWatch* PowerCutWatch::active = nullptr;

void restore(const DiskImage& image, const fs::path& folder)
{
    fs::remove_all(folder);
    fs::create_directory(folder);
    fs::permissions(folder, fs::perms::owner_all);
    for (const auto& [name, content] : image) {
        const fs::path path = folder / name;
        if (name.ends_with('/')) {
            fs::create_directory(path.parent_path());
            fs::permissions(path.parent_path(), fs::perms::owner_all);
            continue;
        }
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
        ASSERT_GE(fd, 0) << path;
        EXPECT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
        close(fd);
    }
}

PowerCutWatch::PowerCutWatch(const fs::path& folder) : m_folder(folder)
{
    m_root = look(folder);
    for (auto& [number, inode] : m_inodes) {
        inode.syncedNames = inode.names;
        inode.syncedContent = contentOf(inode);
    }
    EXPECT_EQ(active, nullptr);
    active = this;
}

PowerCutWatch::~PowerCutWatch()
{
    active = nullptr;
    for (const auto& [number, inode] : m_inodes) {
        close(inode.fd);
    }
}

bool PowerCutWatch::isBelow(int fd) const
{
    char path[PATH_MAX];
    const auto length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof(path));
    return length > 0 && std::string_view(path, static_cast<std::size_t>(length)).starts_with(m_folder);
}

bool PowerCutWatch::isBelow(int folder, const char* path) const
{
    return path[0] == '/' ? std::string_view(path).starts_with(m_folder) : isBelow(folder);
}

bool PowerCutWatch::begin(const char* operation)
{
    record(operation);
    if (m_untilFailure-- == 0) {
        errno = EIO;
        return false;
    }
    return true;
}

void PowerCutWatch::sync(int fd)
{
    const auto found = m_inodes.find(numberOf(fd)); // `begin` has just looked
    ASSERT_NE(found, m_inodes.end());
    found->second.syncedNames = found->second.names;
    found->second.syncedContent = contentOf(found->second);
}

/// Learns what is at `path` and below it now, and gives its number.
ino_t PowerCutWatch::look(const fs::path& path)
{
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return 0; // it went meanwhile
    }
    Inode& inode = m_inodes[status.st_ino];
    if (inode.fd < 0) {
        inode.fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        inode.isFolder = S_ISDIR(status.st_mode);
    }
    if (inode.isFolder) {
        inode.names.clear();
        for (const auto& entry : fs::directory_iterator(path)) {
            inode.names[entry.path().filename()] = look(entry.path());
        }
    }
    return status.st_ino;
}

std::string PowerCutWatch::contentOf(const Inode& inode)
{
    struct stat status {};
    if (inode.isFolder || fstat(inode.fd, &status) != 0) {
        return "";
    }
    std::string content(static_cast<std::size_t>(status.st_size), '\0');
    EXPECT_EQ(pread(inode.fd, content.data(), content.size(), 0), status.st_size);
    return content;
}

/// Any of the sectors may have reached the disk, or not, and so may the size.
std::string PowerCutWatch::mixedContentOf(const Inode& inode)
{
    const std::string now = contentOf(inode);
    std::string content = m_random() % 2 == 0 ? now : inode.syncedContent;
    for (std::size_t start = 0; start < content.size(); start += sectorSize) {
        const std::string& from = m_random() % 2 == 0 ? now : inode.syncedContent;
        if (start < from.size()) {
            content.replace(start, std::min(sectorSize, content.size() - start), from, start,
                            std::min(sectorSize, content.size() - start));
        }
    }
    return content;
}

template <class NamesOf, class ContentOf>
void PowerCutWatch::draw(DiskImage& image, const std::string& path, const Inode& inode, NamesOf namesOf,
                         ContentOf contentOf) const
{
    for (const auto& [name, number] : namesOf(inode)) {
        const auto found = m_inodes.find(number);
        if (found == m_inodes.end()) {
            continue;
        }
        const std::string below = path + name;
        if (found->second.isFolder) {
            image[below + "/"] = "";
            draw(image, below + "/", found->second, namesOf, contentOf);
        } else {
            image[below] = contentOf(found->second);
        }
    }
}

void PowerCutWatch::record(const std::string& operation)
{
    look(m_folder);
    const auto names = [](const Inode& inode) -> const Names& {
        return inode.names;
    };
    const auto syncedNames = [](const Inode& inode) -> const Names& {
        return inode.syncedNames;
    };
    const auto content = [](const Inode& inode) {
        return contentOf(inode);
    };
    const auto syncedContent = [](const Inode& inode) {
        return inode.syncedContent;
    };
    const auto mixedContent = [this](const Inode& inode) {
        return mixedContentOf(inode);
    };
    const auto mixedNames = [this](const Inode& inode) -> const Names& {
        return m_random() % 2 == 0 ? inode.names : inode.syncedNames;
    };
    const Inode& root = m_inodes.at(m_root);
    const auto add = [&](const char* loss, auto namesOf, auto contentOf) {
        DiskImage image;
        draw(image, "", root, namesOf, contentOf);
        keep(operation, loss, std::move(image));
    };
    add("all is lost", syncedNames, syncedContent);
    add("nothing is lost", names, content);
    add("contents are lost", names, syncedContent);
    add("names are lost", syncedNames, content);
    add("a part is lost", mixedNames, mixedContent);
}

/// A disk that has been kept since the last step is not kept again.
void PowerCutWatch::keep(const std::string& operation, const char* loss, DiskImage image)
{
    for (auto cut = m_cuts.rbegin(); cut != m_cuts.rend() && cut->acknowledged == m_acknowledged; ++cut) {
        if (cut->left == image) {
            return;
        }
    }
    m_cuts.push_back({m_acknowledged, operation, loss, std::move(image)});
}

const std::vector<PowerCut>& PowerCutWatch::cuts()
{
    record("the end");
    return m_cuts;
}

} // namespace merlow::board::test
