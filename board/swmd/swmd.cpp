#include "swmd.h"

#include <utility>

namespace merlow::board {

using Result = ControlAnswer::Result;

Swmd::Swmd(SwmServerConfig config, SwStore& store, SwmPeers& peers)
    : m_server(std::move(config), store, peers, m_plans)
{
}

std::vector<std::string> Swmd::servedNames() const
{
    return {swm::ServerMetadata().name()};
}

nlohmann::json Swmd::status() const
{
    nlohmann::json status = m_server.status();
    status["plans"] = m_plans.toJson();
    return status;
}

ControlAnswer Swmd::lose(const std::string& server, std::optional<std::uint32_t> ref)
{
    if (server != "swm") {
        return {Result::usage, "swmd has the server swm, not \"" + server + "\"", {}};
    }
    if (!ref) {
        return {Result::done, "swm closed " + countOf(m_server.loseAllConnections(), "connection"), {}};
    }
    if (!m_server.loseConnection(*ref)) {
        return {Result::notFound, "swm has no connection " + std::to_string(*ref), {}};
    }
    return {Result::done, "swm closed connection " + std::to_string(*ref), {}};
}

ControlAnswer Swmd::clear()
{
    return {Result::done, "swmd cleared " + countOf(m_plans.clear(), "plan"), {}};
}

ControlAnswer Swmd::control(const std::string& command, const nlohmann::json& /*request*/)
{
    return {Result::usage, "swmd has no command \"" + command + "\"", {}};
}

} // namespace merlow::board
