/// The lamps of the machine, as the kernel's LED class offers them.
#pragma once

#include <cstdint>
#include <string>

namespace merlow::board {

enum class Light : std::uint8_t { dark, lit, flashing };

class LedClass {
public:
    /// `folder` holds a folder for each LED; "/sys/class/leds" on a real machine.
    explicit LedClass(std::string folder) : m_folder(std::move(folder)) {}

    /// Switches the LED with this name of a folder. Gives what went wrong, "brightness: No such file or
    /// directory"; empty for nothing. One that cannot flash is lit.
    [[nodiscard]] std::string show(const std::string& led, Light light) const;

private:
    std::string m_folder;
};

} // namespace merlow::board
