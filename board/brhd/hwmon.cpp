#include "hwmon.h"

#include <charconv>
#include <filesystem>
#include <fstream>
#include <map>
#include <system_error>

namespace merlow::board {

namespace {

namespace fs = std::filesystem;

/// The first line of a small file; empty when there is none.
std::string lineOf(const fs::path& file)
{
    constexpr std::size_t longest = 256;
    char line[longest] = {};
    std::ifstream in(file);
    in.getline(line, longest);
    return line;
}

/// The number between `start` and `end` of a name, as 3 in "temp3_input".
std::optional<unsigned> numberIn(const std::string& name, const std::string& start, const std::string& end)
{
    if (name.size() <= start.size() + end.size() || !name.starts_with(start) || !name.ends_with(end)) {
        return std::nullopt;
    }
    unsigned number = 0;
    const char* const last = name.data() + name.size() - end.size();
    const auto result = std::from_chars(name.data() + start.size(), last, number);
    return result.ec == std::errc() && result.ptr == last ? std::optional(number) : std::nullopt;
}

/// What `folder` holds under names of this form, by number: the order of the folder itself is anybody's
/// guess.
std::map<unsigned, fs::path> numbered(const fs::path& folder, const std::string& start,
                                      const std::string& end)
{
    std::map<unsigned, fs::path> found;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), none; !error && entry != none; entry.increment(error)) {
        if (const auto number = numberIn(entry->path().filename().string(), start, end)) {
            found.emplace(*number, entry->path());
        }
    }
    return found;
}

} // namespace

std::string findHwmonInput(const std::string& folder, const std::string& chip,
                           const std::optional<std::string>& label)
{
    for (const auto& [chipNumber, chipFolder] : numbered(folder, "hwmon", "")) {
        if (lineOf(chipFolder / "name") != chip) {
            continue;
        }
        for (const auto& [number, input] : numbered(chipFolder, "temp", "_input")) {
            if (!label || lineOf(chipFolder / ("temp" + std::to_string(number) + "_label")) == *label) {
                return input.string();
            }
        }
    }
    return "";
}

std::optional<std::int32_t> readHwmonInput(const std::string& file)
{
    constexpr std::int32_t thousandthsInTenth = 100;
    constexpr std::int32_t most = 3'276'700; // thousandths of a degree; what readings have room for
    const std::string line = lineOf(file);
    std::int32_t thousandths = 0;
    const auto result = std::from_chars(line.data(), line.data() + line.size(), thousandths);
    if (result.ec != std::errc() || result.ptr != line.data() + line.size() || thousandths < -most ||
        thousandths > most) {
        return std::nullopt;
    }
    const std::int32_t half = thousandths < 0 ? -thousandthsInTenth / 2 : thousandthsInTenth / 2;
    return (thousandths + half) / thousandthsInTenth;
}

} // namespace merlow::board
