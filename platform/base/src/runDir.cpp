#include "runDir.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <grp.h>
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

/// A new folder gets its rights by descriptor, since the mode of mkdir is subject to the umask and the group
/// to the parent's.
int setFolderAccess(int parentFd, const char* name)
{
    const int fd = openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    int result = 0;
    if (const auto group = accessGroup()) {
        result = fchown(fd, static_cast<uid_t>(-1), *group) == 0 ? fchmod(fd, groupFolder) : -1;
    } else {
        result = fchmod(fd, privateFolder);
    }
    const int error = errno;
    close(fd);
    errno = error;
    return result;
}

/// Opens `name` below `parentFd`, made if it is missing; the folder of `own` ones gets the unit's rights.
int openOrMake(int parentFd, const std::string& name, bool own)
{
    const bool made = mkdirat(parentFd, name.c_str(), own ? privateFolder : 0755) == 0;
    const int notMade = made ? 0 : errno;
    if (!made && notMade != EEXIST && notMade != EROFS && notMade != EACCES) {
        return -1;
    }
    if (made && own && setFolderAccess(parentFd, name.c_str()) != 0) {
        return -1;
    }
    const int fd = openat(parentFd, name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        errno = errno == ENOENT && notMade != 0 ? notMade : errno; // why there is none
        return -1;
    }
    struct stat status {};
    if (own && (fstat(fd, &status) != 0 || (status.st_mode & S_IWOTH) != 0)) {
        close(fd);
        errno = EPERM;
        return -1;
    }
    return fd;
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

std::optional<gid_t> accessGroup()
{
    const std::string name = fromEnvironment("MERLOW_GROUP");
    if (name.empty()) {
        return std::nullopt;
    }
    std::vector<char> buffer(16384);
    group entry{};
    group* found = nullptr;
    if (getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
        return found->gr_gid;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long number = std::strtoul(name.c_str(), &end, 10);
    if (errno != 0 || end == name.c_str() || *end != '\0' || number >= static_cast<gid_t>(-1)) {
        return std::nullopt;
    }
    return static_cast<gid_t>(number);
}

int openRunSubdir(const std::string& path)
{
    const std::string root = runDirPath();
    const auto above = parts(root);
    const auto below = parts(path);

    // A folder at hand is the usual case, and the way to it may be closed to being listed or walked.
    int fd = open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        struct stat status {};
        if (fstat(fd, &status) != 0 || (status.st_mode & S_IWOTH) != 0) {
            close(fd);
            errno = EPERM;
            return -1;
        }
    } else {
        fd = open(root.front() == '/' ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC);
        for (std::size_t i = 0; fd >= 0 && i < above.size(); ++i) {
            const int next = openOrMake(fd, above[i], i + 1 == above.size());
            const int error = errno;
            close(fd);
            errno = error;
            fd = next;
        }
    }
    for (std::size_t i = 0; fd >= 0 && i < below.size(); ++i) {
        const int next = openOrMake(fd, below[i], true);
        const int error = errno;
        close(fd);
        errno = error;
        fd = next;
    }
    return fd;
}

int setFileAccess(int fd)
{
    if (const auto group = accessGroup()) {
        return fchown(fd, static_cast<uid_t>(-1), *group) == 0 ? fchmod(fd, 0660) : -1;
    }
    return fchmod(fd, 0600);
}

int setFileAccessAt(int dirFd, const std::string& name)
{
    if (const auto group = accessGroup()) {
        return fchownat(dirFd, name.c_str(), static_cast<uid_t>(-1), *group, AT_SYMLINK_NOFOLLOW) == 0
                   ? fchmodat(dirFd, name.c_str(), 0660, 0)
                   : -1;
    }
    return fchmodat(dirFd, name.c_str(), 0600, 0);
}

} // namespace merlow::base
