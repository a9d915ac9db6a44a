#include "boardDescription.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

namespace brh {

namespace {

constexpr std::size_t largestFile = std::size_t{1} << 20; // bytes

class File {
public:
    /// Non-blocking, so that a pipe in the file's place does not stop the caller before it is refused.
    explicit File(const std::string& path) : m_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
    ~File()
    {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    [[nodiscard]] std::string content() const;

private:
    int m_fd;
};

std::string File::content() const
{
    struct stat status {};
    if (m_fd < 0 || fstat(m_fd, &status) != 0) {
        throw BadDescription(std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        throw BadDescription("not a regular file");
    }
    std::string text;
    std::size_t length = 0;
    for (;;) {
        text.resize(length + 4096);
        const ssize_t got = read(m_fd, &text[length], text.size() - length);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            throw BadDescription(std::strerror(errno));
        }
        length += static_cast<std::size_t>(got);
        text.resize(length);
        if (got == 0) {
            return text;
        }
        if (length > largestFile) {
            throw BadDescription("larger than " + std::to_string(largestFile) + " bytes");
        }
    }
}

nlohmann::json parse(const std::string& text)
{
    try {
        return nlohmann::json::parse(text);
    } catch (const nlohmann::json::exception& exception) {
        throw BadDescription(exception.what()); // tells line and column
    }
}

std::uint16_t idOf(const nlohmann::json& value, std::size_t position)
{
    if (!value.is_number_unsigned() || value.get<std::uint64_t>() > UINT16_MAX) {
        throw BadDescription("\"capabilities\": entry " + std::to_string(position) +
                             " is not a number from 0 to 65535");
    }
    return value.get<std::uint16_t>();
}

} // namespace

BoardDescription readBoardDescription(const std::string& path)
{
    const auto file = parse(File(path).content());
    if (!file.is_object()) {
        throw BadDescription("not a JSON object");
    }
    const auto ids = file.find("capabilities");
    if (ids == file.end()) {
        throw BadDescription("\"capabilities\" is missing");
    }
    if (!ids->is_array()) {
        throw BadDescription("\"capabilities\" is not a list");
    }
    BoardDescription description;
    description.capabilities.clear();
    for (std::size_t position = 0; position < ids->size(); ++position) {
        description.capabilities.insert(idOf((*ids)[position], position));
    }
    if (const auto text = file.find("capabilityText"); text != file.end()) {
        if (!text->is_string()) {
            throw BadDescription("\"capabilityText\" is not a text");
        }
        description.capabilityText = text->get<std::string>();
    }
    return description;
}

} // namespace brh
