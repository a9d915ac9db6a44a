#include "names.h"

#include "runDir.h"
#include "wire.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace mnet {

namespace {

constexpr off_t ownerByte = 0;
constexpr off_t removerByte = 1;

/// Another process that takes the same name or removes its stale file at the same moment makes a try fail;
/// each such failure is somebody's progress, so that this is never reached by honest ones.
constexpr int maxTries = 1000;

constexpr char digits85[] =
    "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz!#$%&()*+-;<=>?@^_`{|}~";
static_assert(sizeof(digits85) == 85 + 1);

struct flock lockOf(off_t byte)
{
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    return lock;
}

bool tryLock(int fd, off_t byte)
{
    struct flock lock = lockOf(byte);
    return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

bool isLocked(int fd, off_t byte)
{
    struct flock lock = lockOf(byte);
    return fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

bool isSameFile(int fd, int dirFd, const std::string& fileName)
{
    struct stat mine {};
    struct stat linked {};
    return fstat(fd, &mine) == 0 && fstatat(dirFd, fileName.c_str(), &linked, AT_SYMLINK_NOFOLLOW) == 0 &&
           mine.st_dev == linked.st_dev && mine.st_ino == linked.st_ino;
}

Descriptor openName(int dirFd, const std::string& fileName, int flags)
{
    return Descriptor::open(
        [&] { return openat(dirFd, fileName.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600); });
}

} // namespace

std::string fileNameOf(std::string_view name)
{
    if (name.find('/') == std::string_view::npos) {
        return "@" + std::string(name);
    }
    std::string result = "%";
    for (std::size_t i = 0; i < name.size(); i += 4) {
        std::uint64_t word = 0;
        for (std::size_t k = i; k < i + 4; ++k) {
            word = word << 8 | (k < name.size() ? static_cast<unsigned char>(name[k]) : 0u);
        }
        char group[5];
        for (int k = 4; k >= 0; --k) {
            group[k] = digits85[word % 85];
            word /= 85;
        }
        result.append(group, 5);
    }
    return result; // no name holds a NUL, so the padding of the last group makes no two names one
}

NameClaim& NameClaim::operator=(NameClaim&& other) noexcept
{
    if (this != &other) {
        release();
        m_dirFd = other.m_dirFd;
        m_fileName = std::move(other.m_fileName);
        m_file = std::move(other.m_file);
    }
    return *this;
}

bool NameClaim::take(int dirFd, std::string_view name, mnet_mbox_id_t id)
{
    release();
    std::string fileName = fileNameOf(name);
    const std::string temporary = "~" + std::to_string(endpointOf(id)) + "." + std::to_string(indexOf(id));

    unlinkat(dirFd, temporary.c_str(), 0); // a dead process's, since this process holds the endpoint now
    Descriptor file = openName(dirFd, temporary, O_RDWR | O_CREAT | O_EXCL);
    if (!file) {
        return false;
    }
    bool linked = false;
    int error = EEXIST;
    if (merlow::base::setFileAccess(file.get()) != 0 || !tryLock(file.get(), ownerByte) ||
        pwrite(file.get(), &id, sizeof(id), 0) != static_cast<ssize_t>(sizeof(id))) {
        error = errno;
    } else {
        for (int tries = 0; tries < maxTries; ++tries) {
            linked = linkat(dirFd, temporary.c_str(), dirFd, fileName.c_str(), 0) == 0;
            if (linked || errno != EEXIST) {
                error = errno;
                break;
            }
            error = EEXIST;
            const Descriptor other = openName(dirFd, fileName, O_RDONLY);
            if (!other && errno != ENOENT) {
                error = errno;
                break;
            }
            if (other && isLocked(other.get(), ownerByte)) {
                break;
            }
            removeStaleName(dirFd, fileName);
        }
    }
    unlinkat(dirFd, temporary.c_str(), 0);
    if (!linked) {
        errno = error;
        return false;
    }
    m_dirFd = dirFd;
    m_fileName = std::move(fileName);
    m_file = std::move(file);
    return true;
}

void NameClaim::release()
{
    if (m_file) {
        unlinkat(m_dirFd, m_fileName.c_str(), 0);
        m_file.reset();
    }
}

bool lookUpName(int dirFd, const std::string& fileName, mnet_mbox_id_t& found)
{
    found = MNET_MBOX_NONE;
    const Descriptor file = openName(dirFd, fileName, O_RDONLY);
    if (!file) {
        return errno != EMFILE && errno != ENFILE && errno != ENOMEM;
    }
    mnet_mbox_id_t id = MNET_MBOX_NONE;
    if (isLocked(file.get(), ownerByte) &&
        pread(file.get(), &id, sizeof(id), 0) == static_cast<ssize_t>(sizeof(id)) && isMailboxId(id)) {
        found = id;
    }
    return true;
}

void removeStaleName(int dirFd, const std::string& fileName)
{
    const Descriptor file = openName(dirFd, fileName, O_RDWR);
    if (file && !isLocked(file.get(), ownerByte) && tryLock(file.get(), removerByte) &&
        isSameFile(file.get(), dirFd, fileName)) {
        unlinkat(dirFd, fileName.c_str(), 0);
    }
}

} // namespace mnet
