#include "stateFile.h"

#include "stateDir.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <runDir.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace merlow::board {

namespace {

class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor()
    {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return m_fd; }
    bool isOpen() const { return m_fd >= 0; }

private:
    int m_fd;
};

std::string reason()
{
    return std::generic_category().message(errno);
}

bool writeAll(int fd, const std::string& text)
{
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = write(fd, text.data() + done, text.size() - done);
        if (written < 0 && errno != EINTR) {
            return false;
        }
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
    return true;
}

} // namespace

StateFile::StateFile(std::string name, Folder folder) : m_name(std::move(name)), m_folder(folder) {}

std::string StateFile::place() const
{
    return (m_folder == Folder::state ? stateDirPath() : base::runDirPath()) + "/" + m_name;
}

int StateFile::openFolder() const
{
    return m_folder == Folder::state ? openStateDir("") : base::openRunSubdir("");
}

StateStore::Loaded StateFile::load()
{
    const Descriptor folder(openFolder());
    const Descriptor file(
        folder.isOpen() ? openat(folder.get(), m_name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW) : -1);
    if (!file.isOpen()) {
        return {"", errno == ENOENT ? "" : reason()};
    }
    Loaded loaded;
    std::array<char, 4096> chunk;
    for (;;) {
        const ssize_t length = read(file.get(), chunk.data(), chunk.size());
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length < 0) {
            return {"", reason()};
        }
        if (length == 0) {
            return loaded;
        }
        loaded.text.append(chunk.data(), static_cast<std::size_t>(length));
    }
}

std::string StateFile::save(const std::string& text)
{
    const Descriptor folder(openFolder());
    if (!folder.isOpen()) {
        return reason();
    }
    const std::string old = m_folder == Folder::state ? load().text : "";
    if (!replace(folder.get(), text)) {
        return reason();
    }
    if (m_folder == Folder::runTime || fsync(folder.get()) == 0) {
        return "";
    }
    std::string error = reason();
    // Who hears that it was not saved must not find it at the next start.
    if (old.empty() ? unlinkat(folder.get(), m_name.c_str(), 0) != 0 : !replace(folder.get(), old)) {
        error += ", and it cannot be taken back: " + reason();
    }
    return error;
}

/// Writes it beside what stands there, and moves it over that.
bool StateFile::replace(int folder, const std::string& text) const
{
    const std::string fresh = m_name + ".new";
    const Descriptor file(openat(folder, fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW,
                                 S_IRUSR | S_IWUSR));
    return file.isOpen() && base::setFileAccess(file.get()) == 0 && writeAll(file.get(), text) &&
           fsync(file.get()) == 0 && renameat(folder, fresh.c_str(), folder, m_name.c_str()) == 0;
}

} // namespace merlow::board
