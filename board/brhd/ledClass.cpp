#include "ledClass.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <system_error>
#include <unistd.h>

namespace merlow::board {

namespace {

/// A descriptor of an attribute, which exists already and of which nothing is waited for.
class Attribute {
public:
    Attribute(const std::string& file, int flags)
        : m_fd(open(file.c_str(), flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY))
    {
    }
    ~Attribute()
    {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    Attribute(const Attribute&) = delete;
    Attribute& operator=(const Attribute&) = delete;

    int fd() const { return m_fd; }

private:
    int m_fd;
};

std::string failureOf(const char* attribute)
{
    return std::string(attribute) + ": " + std::generic_category().message(errno);
}

std::string writeAttribute(const std::string& led, const char* attribute, std::string_view value)
{
    const Attribute file(led + "/" + attribute, O_WRONLY | O_TRUNC);
    const bool isWritten =
        file.fd() >= 0 && write(file.fd(), value.data(), value.size()) == static_cast<ssize_t>(value.size());
    return isWritten ? std::string() : failureOf(attribute);
}

/// The brightest that the LED can be; 1, which lights any, when it does not tell.
std::string mostOf(const std::string& led)
{
    const Attribute file(led + "/max_brightness", O_RDONLY);
    std::array<char, 16> text{};
    const ssize_t length = file.fd() >= 0 ? read(file.fd(), text.data(), text.size()) : 0;
    const std::string_view told(text.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    const auto digits = told.substr(0, told.find_first_not_of("0123456789"));
    return digits.empty() || digits.size() > 9 ? "1" : std::string(digits);
}

} // namespace

std::string LedClass::show(const std::string& led, Light light) const
{
    const std::string place = m_folder + "/" + led;
    // A trigger that still stands would go on switching the LED; one that has none needs none taken away.
    const std::string untriggered = writeAttribute(place, "trigger", "none");
    std::string bright = writeAttribute(place, "brightness", light == Light::dark ? "0" : mostOf(place));
    if (!bright.empty() || light != Light::flashing) {
        return bright;
    }
    return untriggered.empty() ? writeAttribute(place, "trigger", "timer") : untriggered;
}

} // namespace merlow::board
