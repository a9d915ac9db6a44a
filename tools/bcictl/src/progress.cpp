#include "progress.h"

#include <array>
#include <cmath>
#include <cstdio>

namespace merlow::bcictl {

std::string sizeText(std::uint64_t bytes)
{
    constexpr std::array units{"KiB", "MiB", "GiB"};
    constexpr double step = 1024;
    if (bytes < 1024) {
        return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    }
    auto value = static_cast<double>(bytes) / step;
    std::size_t unit = 0;
    while (value >= step && unit + 1 < units.size()) {
        value /= step;
        ++unit;
    }
    char text[32];
    (void)std::snprintf(text, sizeof(text), "%.1f %s", value, units.at(unit));
    return text;
}

std::string rateText(std::uint64_t bytes, std::chrono::milliseconds elapsed)
{
    if (elapsed.count() <= 0) {
        return "-";
    }
    return sizeText(bytes * 1000 / static_cast<std::uint64_t>(elapsed.count())) + "/s";
}

std::string progressText(std::uint64_t done, std::uint64_t total, std::chrono::milliseconds elapsed)
{
    constexpr std::size_t width = 24;
    const auto part = static_cast<double>(done) / static_cast<double>(total);
    const auto filled = static_cast<std::size_t>(part * width);
    std::string text = "[" + std::string(filled, '#') + std::string(width - filled, '-') + "] ";
    char number[48];
    (void)std::snprintf(number, sizeof(number), "%3.0f%% ", part * 100);
    text += number + sizeText(done) + " of " + sizeText(total);
    if (done > 0 && elapsed.count() > 0) {
        const auto left = static_cast<double>(elapsed.count()) / 1000 * (1 - part) / part;
        const auto seconds = std::llround(left);
        (void)std::snprintf(number, sizeof(number), ", %lld:%02lld left", seconds / 60, seconds % 60);
        text += ", " + rateText(done, elapsed) + number;
    }
    return text;
}

} // namespace merlow::bcictl
