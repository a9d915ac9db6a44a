#include "diskFiles.h"

#include "stateDir.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <runDir.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace merlow::board {

namespace {

constexpr const char* subFolder = "software";
constexpr mode_t fileMode = S_IRUSR | S_IWUSR;

std::string errnoText()
{
    return std::generic_category().message(errno);
}

class DiskFile : public StoreFile {
public:
    explicit DiskFile(int fd) : m_fd(fd) {}
    ~DiskFile() override { close(m_fd); }
    DiskFile(const DiskFile&) = delete;
    DiskFile& operator=(const DiskFile&) = delete;

    [[nodiscard]] std::string write(BytesView bytes) override
    {
        while (!bytes.empty()) {
            const ssize_t written = ::write(m_fd, bytes.data(), bytes.size());
            if (written < 0 && errno != EINTR) {
                return errnoText();
            }
            bytes = bytes.subspan(written > 0 ? static_cast<std::size_t>(written) : 0);
            m_size += written > 0 ? written : 0;
        }
        return "";
    }

    [[nodiscard]] std::string writeBack() override
    {
        const off_t begun = std::exchange(m_begun, m_size);
        const off_t settled = std::exchange(m_settled, begun);
        return syncRange(begun, m_size, SYNC_FILE_RANGE_WRITE) &&
                       syncRange(settled, begun,
                                 SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE |
                                     SYNC_FILE_RANGE_WAIT_AFTER)
                   ? ""
                   : errnoText();
    }

    [[nodiscard]] std::string sync() override { return fsync(m_fd) == 0 ? "" : errnoText(); }

private:
    [[nodiscard]] bool syncRange(off_t from, off_t to, unsigned int flags) const
    {
        return from == to || sync_file_range(m_fd, from, to - from, flags) == 0;
    }

    int m_fd;
    off_t m_size = 0;
    off_t m_begun = 0;   ///< up to here the disk has been given it
    off_t m_settled = 0; ///< up to here it has it
};

} // namespace

DiskFiles::~DiskFiles()
{
    if (m_folder >= 0) {
        close(m_folder);
    }
}

std::string DiskFiles::open()
{
    m_place = stateDirPath() + "/" + subFolder;
    m_folder = openStateDir(subFolder);
    if (m_folder < 0) {
        return "the folder " + m_place + " cannot be used: " + errnoText();
    }
    if (flock(m_folder, LOCK_EX | LOCK_NB) != 0) {
        return errno == EWOULDBLOCK ? "another swmd has its store in " + m_place
                                    : "the folder " + m_place + " cannot be locked: " + errnoText();
    }
    return "";
}

std::string DiskFiles::list(std::vector<Listed>& files)
{
    files.clear();
    const int fd = openat(m_folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* const folder = fd < 0 ? nullptr : fdopendir(fd);
    if (folder == nullptr) {
        std::string text = errnoText();
        if (fd >= 0) {
            close(fd);
        }
        return text;
    }
    std::string text;
    errno = 0;
    while (const dirent* entry = readdir(folder)) {
        struct stat status {};
        if (fstatat(m_folder, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
            text = errnoText();
            break;
        }
        if (S_ISREG(status.st_mode)) {
            files.push_back({entry->d_name, static_cast<std::uint64_t>(status.st_size)});
        }
        errno = 0;
    }
    if (text.empty() && errno != 0) {
        text = errnoText();
    }
    closedir(folder);
    return text;
}

std::string DiskFiles::readStart(const std::string& name, std::size_t size, Bytes& start)
{
    start.resize(size);
    const int fd = openat(m_folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return errnoText();
    }
    std::size_t filled = 0;
    std::string text;
    while (filled < size) {
        const ssize_t length = read(fd, start.data() + filled, size - filled);
        if (length < 0 && errno != EINTR) {
            text = errnoText();
            break;
        }
        if (length == 0) {
            break;
        }
        filled += length > 0 ? static_cast<std::size_t>(length) : 0;
    }
    close(fd);
    start.resize(filled);
    return text;
}

std::string DiskFiles::create(const std::string& name, std::unique_ptr<StoreFile>& file)
{
    const int fd =
        openat(m_folder, name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, fileMode);
    if (fd < 0) {
        return errnoText();
    }
    if (base::setFileAccess(fd) != 0) {
        std::string text = errnoText();
        close(fd);
        return text;
    }
    file = std::make_unique<DiskFile>(fd);
    return "";
}

std::string DiskFiles::rename(const std::string& from, const std::string& to)
{
    return renameat(m_folder, from.c_str(), m_folder, to.c_str()) == 0 ? "" : errnoText();
}

std::string DiskFiles::remove(const std::string& name)
{
    return unlinkat(m_folder, name.c_str(), 0) == 0 || errno == ENOENT ? "" : errnoText();
}

std::string DiskFiles::syncFolder()
{
    return fsync(m_folder) == 0 ? "" : errnoText();
}

} // namespace merlow::board
