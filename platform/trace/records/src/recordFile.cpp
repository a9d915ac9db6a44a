#include "recordFile.h"

#include "ownedFd.h"
#include "runDir.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace merlow::trace {

namespace {

using Fd = base::OwnedFd;

std::string fileNameOf(const std::string& name, pid_t pid)
{
    return name + "." + std::to_string(pid);
}

/// The folder, when it is there; looking must not make it.
int openExistingFolder()
{
    return open((base::runDirPath() + "/" + recordFolder).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

/// The names in the folder; nothing, with `errno`, when it can't be read.
std::optional<std::vector<std::string>> namesIn(int folder)
{
    Fd fd(openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(fd.valid() ? fdopendir(fd.get()) : nullptr, closedir);
    if (!dir) {
        return std::nullopt;
    }
    static_cast<void>(fd.release()); // the stream's now
    std::vector<std::string> names;
    // The stream is this call's own, so that readdir is safe in any thread.
    while (const dirent* entry = readdir(dir.get())) { // NOLINT(concurrency-mt-unsafe)
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            names.emplace_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

/// Files with a dot in front are in the making, and stay only when their maker dies in that moment.
bool isLeftOverTemporary(const std::string& name)
{
    const auto dot = name.rfind('.');
    const long pid = dot == std::string::npos ? 0 : std::strtol(name.c_str() + dot + 1, nullptr, 10);
    return pid > 0 && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

/// Whether nobody owns the file. Shared, so that two who look at once don't take each other for the owner.
bool isStale(int fd)
{
    return flock(fd, LOCK_SH | LOCK_NB) == 0;
}

/// Removes `name` if it is stale; true when it was.
bool removeIfStale(int folder, const std::string& name)
{
    if (name.front() == '.') {
        return isLeftOverTemporary(name) && unlinkat(folder, name.c_str(), 0) == 0;
    }
    const Fd file(openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    return file.get() >= 0 && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) &&
           isStale(file.get()) && unlinkat(folder, name.c_str(), 0) == 0;
}

bool writeAll(int fd, const void* data, std::size_t size)
{
    const char* next = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = write(fd, next, size);
        if (written < 0 && errno != EINTR) {
            return false;
        }
        if (written > 0) {
            next += written;
            size -= static_cast<std::size_t>(written);
        }
    }
    return true;
}

std::uint32_t load(const std::uint32_t& word)
{
    return __atomic_load_n(&word, __ATOMIC_SEQ_CST);
}
void store(std::uint32_t& word, std::uint32_t value)
{
    __atomic_store_n(&word, value, __ATOMIC_SEQ_CST);
}

} // namespace

BoundedName::BoundedName(std::string_view name)
{
    if (name.empty()) {
        name = "unnamed";
    }
    m_length = std::min(name.size(), sizeof(m_text));
    for (std::size_t i = 0; i < m_length; ++i) {
        const char c = name[i];
        const bool isPlain = c > ' ' && c <= '~' && c != '/' && (c != '.' || i > 0);
        m_text[i] = isPlain ? c : '_';
    }
}

int createRecordFile(const RecordFile& image, const std::string& name, pid_t pid)
{
    const Fd folder(base::openRunSubdir(recordFolder));
    if (folder.get() < 0) {
        return -1;
    }
    const std::string finalName = fileNameOf(name, pid);
    const std::string newName = "." + finalName;
    unlinkat(folder.get(), newName.c_str(), 0); // of a dead process that had this id
    Fd file(openat(folder.get(), newName.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (file.get() < 0) {
        return -1;
    }
    // Written, not just made long: a page that the file system can't back would kill at the first touch.
    bool made = fchmod(file.get(), 0600) == 0 && flock(file.get(), LOCK_EX | LOCK_NB) == 0 &&
                writeAll(file.get(), &image, sizeof image);
    for (int attempt = 0; made && attempt < 2; ++attempt) {
        if (renameat2(folder.get(), newName.c_str(), folder.get(), finalName.c_str(), RENAME_NOREPLACE) ==
            0) {
            return file.release();
        }
        made = errno == EEXIST && removeIfStale(folder.get(), finalName);
        errno = EEXIST;
    }
    const int error = errno;
    unlinkat(folder.get(), newName.c_str(), 0);
    errno = error;
    return -1;
}

int removeStaleRecordFiles()
{
    const Fd folder(openExistingFolder());
    const auto names = folder.get() >= 0 ? namesIn(folder.get()) : std::nullopt;
    if (!names) {
        return 0;
    }
    return static_cast<int>(std::count_if(names->begin(), names->end(), [&](const std::string& name) {
        return removeIfStale(folder.get(), name);
    }));
}

OpenRecordFile::~OpenRecordFile()
{
    if (m_file != nullptr) {
        munmap(m_file, sizeof *m_file);
    }
}

OpenRecordFile::OpenRecordFile(OpenRecordFile&& other) noexcept
    : m_file(std::exchange(other.m_file, nullptr)), m_name(std::move(other.m_name))
{
}

std::string OpenRecordFile::processName() const
{
    return std::string(BoundedName(nameIn(m_file->process.name)).text());
}
pid_t OpenRecordFile::pid() const
{
    return m_file->pid;
}
std::uint32_t OpenRecordFile::processMask() const
{
    return load(m_file->process.record.mask);
}

std::uint32_t OpenRecordFile::newObjectMask() const
{
    return load(m_file->newObjectMask);
}

std::size_t OpenRecordFile::count() const
{
    return std::min<std::size_t>(load(m_file->objectCount), maxObjects);
}

std::vector<OpenRecordFile::View> OpenRecordFile::objects() const
{
    std::vector<View> result;
    for (std::size_t i = 0; i < count(); ++i) {
        const RecordEntry& entry = m_file->objects[i];
        result.push_back({std::string(BoundedName(nameIn(entry.name)).text()), load(entry.record.mask)});
    }
    return result;
}

void OpenRecordFile::setProcessMask(std::uint32_t mask)
{
    store(m_file->process.record.mask, mask);
}

void OpenRecordFile::setAllObjectMasks(std::uint32_t mask)
{
    // New objects first: one that appears meanwhile has the new mask or is counted below.
    store(m_file->newObjectMask, mask);
    for (std::size_t i = 0; i < count(); ++i) {
        store(m_file->objects[i].record.mask, mask);
    }
}

bool OpenRecordFile::setObjectMask(std::string_view name, std::uint32_t mask)
{
    for (std::size_t i = 0; i < count(); ++i) {
        if (nameIn(m_file->objects[i].name) == name) {
            store(m_file->objects[i].record.mask, mask);
            return true;
        }
    }
    return false;
}

namespace {

/// The mapped file, or nothing and a reason.
RecordFile* mapRecordFile(int fd, std::string& reason)
{
    struct stat status {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size != sizeof(RecordFile)) {
        reason = "is not a trace record file";
        return nullptr;
    }
    void* const memory = mmap(nullptr, sizeof(RecordFile), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        reason = std::string("can't be mapped: ") + strerror(errno);
        return nullptr;
    }
    auto* const file = static_cast<RecordFile*>(memory);
    if (file->magic != recordFileMagic || file->version != recordFileVersion) {
        munmap(memory, sizeof(RecordFile));
        reason = "has another format than this tool knows";
        return nullptr;
    }
    return file;
}

} // namespace

std::optional<std::vector<OpenRecordFile>> openRecordFiles(std::vector<std::string>& problems)
{
    const Fd folder(openExistingFolder());
    std::vector<OpenRecordFile> files;
    if (folder.get() < 0 && errno == ENOENT) {
        return files;
    }
    auto names = folder.get() >= 0 ? namesIn(folder.get()) : std::nullopt;
    if (!names) {
        return std::nullopt;
    }
    files.reserve(names->size()); // so that no mapping is without its owner
    for (std::string& name : *names) {
        if (removeIfStale(folder.get(), name) || name.front() == '.') {
            continue;
        }
        const Fd fd(openat(folder.get(), name.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        std::string reason = fd.get() < 0 ? strerror(errno) : "";
        RecordFile* const file = fd.get() < 0 ? nullptr : mapRecordFile(fd.get(), reason);
        if (file != nullptr) {
            files.emplace_back(file, std::move(name));
        } else {
            problems.push_back(name.append(" ").append(reason));
        }
    }
    return files;
}

} // namespace merlow::trace
