/// The machine's temperatures, from the kernel's hwmon class.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace merlow::board {

/// The file in which the kernel tells a temperature; empty when there is none. `folder` is the class's, with
/// a folder for each chip. Of several chips of one name, and several sensors with one label, the first
/// counts; without a label the chip's first sensor.
std::string findHwmonInput(const std::string& folder, const std::string& chip,
                           const std::optional<std::string>& label);

/// In tenths of a degree Celsius; nothing when the file cannot be read or holds no temperature.
std::optional<std::int32_t> readHwmonInput(const std::string& file);

} // namespace merlow::board
