#include "runDir.h"

#include "ownedFd.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <grp.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace merlow::base {

namespace {

constexpr mode_t privateFolder = 0700;
constexpr mode_t groupFolder = 02770;

std::string fromEnvironment(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

bool isShortage(int error)
{
    return error == ENOMEM || error == EMFILE || error == ENFILE || error == EAGAIN || error == EINTR;
}

/// A new folder gets its rights by descriptor, since the mode of mkdir is subject to the umask and the group
/// to the parent's.
int setFolderAccess(int parentFd, const char* name, std::optional<gid_t> group)
{
    const OwnedFd folder(openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder.valid()) {
        return -1;
    }
    if (!group) {
        return fchmod(folder.get(), privateFolder);
    }
    return fchown(folder.get(), static_cast<uid_t>(-1), *group) == 0 ? fchmod(folder.get(), groupFolder) : -1;
}

/// Makes the folder, or leaves it to who makes it at the same moment. The folder of `own` ones gets the
/// unit's rights; without them it must not stay, since nobody would give them to it later.
int make(int parentFd, const char* name, bool own)
{
    std::optional<gid_t> group;
    if (own && !accessGroup(group)) {
        return -1;
    }
    if (mkdirat(parentFd, name, own ? privateFolder : 0755) != 0) {
        return errno == EEXIST ? 0 : -1;
    }
    if (own && setFolderAccess(parentFd, name, group) != 0) {
        const int error = errno;
        unlinkat(parentFd, name, AT_REMOVEDIR);
        errno = error;
        return -1;
    }
    return 0;
}

bool anyoneMayWrite(int fd)
{
    struct stat status {};
    return fstat(fd, &status) != 0 || (status.st_mode & S_IWOTH) != 0;
}

/// Opens `name` below `parentFd`, made if it is missing.
int openOrMake(int parentFd, const std::string& name, bool own)
{
    constexpr int flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    OwnedFd folder(openat(parentFd, name.c_str(), flags));
    if (!folder.valid() && errno == ENOENT && make(parentFd, name.c_str(), own) == 0) {
        folder.reset(openat(parentFd, name.c_str(), flags));
    }
    if (own && folder.valid() && anyoneMayWrite(folder.get())) {
        errno = EPERM;
        return -1;
    }
    return folder.release();
}

std::vector<std::string> parts(const std::string& path)
{
    std::vector<std::string> result;
    std::string::size_type start = 0;
    while (start < path.size()) {
        const auto end = path.find('/', start);
        const auto length = end == std::string::npos ? path.size() - start : end - start;
        if (length > 0) {
            result.push_back(path.substr(start, length));
        }
        start += length + 1;
    }
    return result;
}

} // namespace

std::string runDirPath()
{
    if (auto path = fromEnvironment("MERLOW_RUN_DIR"); !path.empty()) {
        return path;
    }
    if (auto path = fromEnvironment("XDG_RUNTIME_DIR"); !path.empty()) {
        return path + "/merlow";
    }
    return "/run/merlow";
}

bool accessGroup(std::optional<gid_t>& group)
try {
    group.reset();
    const std::string name = fromEnvironment("MERLOW_GROUP");
    if (name.empty()) {
        return true;
    }
    std::vector<char> buffer(16384);
    ::group entry{};
    ::group* found = nullptr;
    int error = 0;
    // The entry of a group has the names of all its members.
    while ((error = getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found)) == ERANGE) {
        buffer.resize(2 * buffer.size());
    }
    if (error == 0 && found != nullptr) {
        group = found->gr_gid;
        return true;
    }
    if (isShortage(error)) { // it may well exist
        errno = error;
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long number = std::strtoul(name.c_str(), &end, 10);
    if (errno == 0 && end != name.c_str() && *end == '\0' && number < static_cast<gid_t>(-1)) {
        group = static_cast<gid_t>(number);
    }
    return true;
} catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return false;
}

int openRunSubdir(const std::string& path)
{
    const std::string root = runDirPath();
    const auto above = parts(root);
    const auto below = parts(path);

    // A folder at hand is the usual case, and the way to it may be closed to being listed or walked.
    OwnedFd folder(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (folder.valid()) {
        if (anyoneMayWrite(folder.get())) {
            errno = EPERM;
            return -1;
        }
    } else if (isShortage(errno)) {
        return -1;
    } else {
        folder.reset(open(root.front() == '/' ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
        for (std::size_t i = 0; folder.valid() && i < above.size(); ++i) {
            folder.reset(openOrMake(folder.get(), above[i], i + 1 == above.size()));
        }
    }
    for (std::size_t i = 0; folder.valid() && i < below.size(); ++i) {
        folder.reset(openOrMake(folder.get(), below[i], true));
    }
    return folder.release();
}

int setFileAccess(int fd)
{
    std::optional<gid_t> group;
    if (!accessGroup(group)) {
        return -1;
    }
    if (!group) {
        return fchmod(fd, 0600);
    }
    return fchown(fd, static_cast<uid_t>(-1), *group) == 0 ? fchmod(fd, 0660) : -1;
}

int setFileAccessAt(int dirFd, const std::string& name)
{
    std::optional<gid_t> group;
    if (!accessGroup(group)) {
        return -1;
    }
    if (!group) {
        return fchmodat(dirFd, name.c_str(), 0600, 0);
    }
    return fchownat(dirFd, name.c_str(), static_cast<uid_t>(-1), *group, AT_SYMLINK_NOFOLLOW) == 0
               ? fchmodat(dirFd, name.c_str(), 0660, 0)
               : -1;
}

} // namespace merlow::base
