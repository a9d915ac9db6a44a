#include "report.h"

#include <nlohmann/json.hpp>

namespace merlow::bbagent {

namespace {

/// Texts come from the unit: none of them steers the terminal, or begins a line.
std::string printable(std::string text)
{
    for (char& character : text) {
        if (character < ' ' || character > '~') {
            character = '?';
        }
    }
    return text;
}

} // namespace

void Report::tell(const std::string& event, const std::string& text, const nlohmann::json& fields)
{
    if (!m_json) {
        m_out << printable(text) << "\n";
    } else {
        nlohmann::json line = fields;
        line["event"] = event;
        // Texts come from the unit and need not be UTF-8.
        m_out << line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
    }
    m_out.flush();
}

void Report::tell(const std::string& event, const std::string& text)
{
    tell(event, text, nlohmann::json::object());
}

} // namespace merlow::bbagent
