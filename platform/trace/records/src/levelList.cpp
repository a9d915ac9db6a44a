#include "levelList.h"

#include "scryTrace.h"

#include <algorithm>
#include <charconv>

namespace merlow::trace {

namespace {

std::string_view trimmed(std::string_view text)
{
    const auto first = text.find_first_not_of(" \t");
    return first == std::string_view::npos ? std::string_view{}
                                           : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

bool addPart(std::string_view part, std::uint32_t& mask)
{
    if (part == "all") {
        mask |= ~(1u << SCRY_OBJ_BIT);
        return true;
    }
    unsigned int level = 0;
    const auto [end, error] = std::from_chars(part.data(), part.data() + part.size(), level);
    if (error != std::errc{} || end != part.data() + part.size() || level > 31) {
        return false;
    }
    mask |= 1u << level;
    return true;
}

} // namespace

LevelList parseLevels(std::string_view text)
{
    LevelList result;
    text = trimmed(text);
    if (text.empty() || text == "none") {
        return result;
    }
    for (std::size_t start = 0; start <= text.size();) {
        const auto end = std::min(text.find(',', start), text.size());
        const auto part = trimmed(text.substr(start, end - start));
        if (!addPart(part, result.mask)) {
            result.malformed += (result.malformed.empty() ? "\"" : ", \"") + std::string(part) + "\"";
        }
        start = end + 1;
    }
    return result;
}

std::string formatLevels(std::uint32_t mask)
{
    std::string text;
    for (unsigned int level = 0; level < 32; ++level) {
        if ((mask >> level & 1u) != 0) {
            text += (text.empty() ? "" : ",") + std::to_string(level);
        }
    }
    return text.empty() ? "none" : text;
}

} // namespace merlow::trace
