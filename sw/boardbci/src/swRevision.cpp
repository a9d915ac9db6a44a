#include "swRevision.h"

#include <optional>

namespace {

constexpr int SW_REV_MAX_CHARACTERS = 4; ///< of each of the three groups
constexpr unsigned int SW_REV_R_BIT = 16;
constexpr unsigned int SW_REV_HIGH_SHIFT = 36;
constexpr unsigned int SW_REV_LETTERS_SHIFT = 16;
constexpr std::int64_t SW_REV_ALL_Z = 531440; ///< "ZZZZ"

/// Up to four characters of `first` to `last` as digits of `base`, the first counting 1, so that none is
/// lost in front; nothing when there is none. `text` moves on behind them.
std::optional<std::int64_t> swRevGroup(const char*& text, char first, char last, std::int64_t base)
{
    std::optional<std::int64_t> value;
    for (int i = 0; i < SW_REV_MAX_CHARACTERS && *text >= first && *text <= last; ++i, ++text) {
        value = value.value_or(0) * base + (*text - first) + 1;
    }
    return value;
}

std::optional<std::int64_t> swRevWithoutLetters(int missingLetters)
{
    switch (missingLetters) {
    case 'H':
        return SW_REV_ALL_Z;
    case 'L':
        return 1;
    case 'F':
        return std::nullopt;
    default:
        return 0;
    }
}

} // namespace

std::int64_t swrev_str_to_int(const char* revision, int missingLetters)
{
    if (*revision != 'P' && *revision != 'R') {
        return -1;
    }
    const std::int64_t flag = *revision == 'R' ? std::int64_t{1} << SW_REV_R_BIT : 0;
    const char* rest = revision + 1;
    const auto number = swRevGroup(rest, '0', '9', 11);
    if (!number) {
        return -1;
    }
    auto letters = swRevGroup(rest, 'A', 'Z', 27);
    if (!letters) {
        letters = swRevWithoutLetters(missingLetters);
    }
    if (!letters) {
        return -1;
    }
    const auto trailing = swRevGroup(rest, '0', '9', 11);
    return (flag | *number) << SW_REV_HIGH_SHIFT | *letters << SW_REV_LETTERS_SHIFT | trailing.value_or(0);
}
