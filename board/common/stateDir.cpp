#include "stateDir.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <runDir.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace merlow::board {

namespace {

constexpr mode_t folderMode = 0700;

std::string chosenStateDir()
{
    const char* const path = std::getenv("MERLOW_STATE_DIR");
    return path != nullptr ? path : "";
}

/// An O_PATH descriptor of a folder below a chosen one, or -1 with `errno`.
int openBelow(const std::string& stateDir, const std::string& path)
{
    std::error_code error;
    std::filesystem::create_directories(stateDir, error);
    if (error) {
        errno = error.value();
        return -1;
    }
    const std::string folder = path.empty() ? stateDir : stateDir + "/" + path;
    if (!path.empty() && mkdir(folder.c_str(), folderMode) != 0 && errno != EEXIST) {
        return -1;
    }
    return open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
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
    const int folder = chosen.empty() ? base::openRunSubdir(path.empty() ? "state" : "state/" + path)
                                      : openBelow(chosen, path);
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
