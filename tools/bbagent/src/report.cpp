#include "report.h"

#include <nlohmann/json.hpp>

namespace merlow::bbagent {

void Report::tell(const std::string& event, const std::string& text, const nlohmann::json& fields)
{
    if (!m_json) {
        m_out << text << "\n";
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
