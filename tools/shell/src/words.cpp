#include "words.h"

namespace merlow::tools {

std::optional<std::vector<std::string>> splitWords(std::string_view line)
{
    std::vector<std::string> words;
    bool isInWord = false;
    char quote = '\0';
    for (std::size_t i = 0; i < line.size(); ++i) {
        char c = line[i];
        const bool isBlank = c == ' ' || c == '\t' || c == '\r' || c == '\n';
        if (quote == '\0' && (isBlank || (c == '#' && !isInWord))) {
            if (c == '#') {
                break;
            }
            isInWord = false;
            continue;
        }
        if (!isInWord) {
            words.emplace_back();
            isInWord = true;
        }
        if (c == quote) {
            quote = '\0';
            continue;
        }
        if (quote == '\0' && (c == '\'' || c == '"')) {
            quote = c;
            continue;
        }
        if (c == '\\' && quote != '\'') {
            if (++i == line.size()) {
                return std::nullopt;
            }
            c = line[i];
        }
        words.back() += c;
    }
    if (quote != '\0') {
        return std::nullopt;
    }
    return words;
}

} // namespace merlow::tools
