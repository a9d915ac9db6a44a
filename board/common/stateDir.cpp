#include "stateDir.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <runDir.h>
#include <sys/stat.h>
#include <unistd.h>

namespace merlow::board {

namespace {

constexpr mode_t folderMode = 0700;

std::string chosenStateDir()
{
    const char* const path = std::getenv("MERLOW_STATE_DIR");
    return path != nullptr ? path : "";
}

bool syncFolder(const std::filesystem::path& path)
{
    const int fd = open(path.empty() ? "." : path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool synced = fsync(fd) == 0;
    const int error = errno;
    close(fd);
    errno = error;
    return synced;
}

/// Makes a folder that is missing, with its parents, each so that it outlives a loss of power.
bool makeFolder(const std::filesystem::path& path)
{
    int result = mkdir(path.c_str(), folderMode);
    if (result != 0 && errno == ENOENT && path.has_relative_path() && makeFolder(path.parent_path())) {
        result = mkdir(path.c_str(), folderMode);
    }
    return result == 0 ? syncFolder(path.parent_path()) : errno == EEXIST;
}

/// An O_PATH descriptor of a folder below a chosen one, or -1 with `errno`.
int openBelow(const std::string& stateDir, const std::string& path)
{
    const std::string folder = path.empty() ? stateDir : stateDir + "/" + path;
    return makeFolder(folder) ? open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC) : -1;
}

/// The same below the run-time folder, in which the folder `path` is made so that it outlives a loss of
/// power.
int openInRunDir(const std::string& path)
{
    const std::filesystem::path runDir = base::runDirPath();
    std::filesystem::path folder = runDir / path;
    const bool isNew = access(folder.c_str(), F_OK) != 0;
    const int fd = base::openRunSubdir(path);
    for (; isNew && fd >= 0 && folder != runDir; folder = folder.parent_path()) {
        if (!syncFolder(folder.parent_path())) {
            const int error = errno;
            close(fd);
            errno = error;
            return -1;
        }
    }
    return fd;
}

} // namespace

std::string stateDirPath()
{
    const std::string chosen = chosenStateDir();
    return chosen.empty() ? base::runDirPath() + "/state" : chosen;
}

int openStateDir(const std::string& path)
{
    const std::string chosen = chosenStateDir();
    const int folder =
        chosen.empty() ? openInRunDir(path.empty() ? "state" : "state/" + path) : openBelow(chosen, path);
    if (folder < 0) {
        return -1;
    }
    const int fd = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int error = errno;
    close(folder);
    errno = error;
    return fd;
}

} // namespace merlow::board
