#pragma once

#include <nlohmann/json_fwd.hpp>
#include <ostream>
#include <string>

namespace merlow::bbagent {

/// What the agent tells its user: a line for each event, or a JSON object for each.
class Report {
public:
    Report(std::ostream& out, bool json) : m_out(out), m_json(json) {}

    /// `event` names what happened in JSON, `text` is the whole line for people.
    void tell(const std::string& event, const std::string& text, const nlohmann::json& fields);
    void tell(const std::string& event, const std::string& text);

private:
    std::ostream& m_out;
    bool m_json;
};

} // namespace merlow::bbagent
