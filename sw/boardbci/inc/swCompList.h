#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// The list of software components of a KPX unit as its GSM clients get it: told to be of the software that
/// runs, and in pieces of its own size.
namespace SwCompList {

/// Bytes of a piece.
inline constexpr std::size_t PIECE_SIZE = 255;

/// What a list without a preinstalled load module gets in front.
extern const std::string_view BUILT_IN_LIST;

/// Names the running software (product number, with '%' for '/', then '_' and revision) in the first two
/// product numbers and the first revision of `list`, behind having given it the built-in list if it needs
/// that. Throws std::out_of_range, the list left as it was, when it needs that and has no "<LmcList>".
void rewrite(std::string& list, const std::string& runningSoftware);

/// Takes the next piece off the front of `list`.
[[nodiscard]] std::string cutPiece(std::string& list);

} // namespace SwCompList
