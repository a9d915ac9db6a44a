/// A typed line as words.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace merlow::tools {

/// Splits at blanks. Quotes, single or double, keep blanks in a word; within double quotes and outside of
/// quotes a backslash takes the next character as it is; '#' at the start of a word begins a comment. Nothing
/// when a quote is not closed or a backslash has nothing to take.
std::optional<std::vector<std::string>> splitWords(std::string_view line);

} // namespace merlow::tools
