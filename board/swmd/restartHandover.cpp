#include "restartHandover.h"

#include <algorithm>
#include <utility>

namespace merlow::board {

namespace {

/// Clients name what runs with '%' for the '/' of its number.
std::optional<loadmodule::SoftwareId> softwareIn(std::string text)
{
    std::replace(text.begin(), text.end(), '%', '/');
    return loadmodule::softwareIdFrom(text);
}

} // namespace

std::optional<loadmodule::SoftwareId> RestartHandover::begin(std::vector<std::string>& said)
{
    LoadedRestartOrder pending = pendingRestartOrder(m_given, m_served);
    m_order = std::move(pending.order);
    if (!pending.error.empty()) {
        said.push_back("the restart order in " + m_given.place() + " cannot be read: " + pending.error);
    }
    if (!m_order) {
        return std::nullopt;
    }
    auto software = softwareIn(m_order->loadModule);
    said.push_back("a restart was ordered by " + m_order->initiator +
                   (software                      ? ", to run " + toText(*software)
                    : m_order->loadModule.empty() ? ", with no load module"
                                                  : ", with a text that names no load module"));
    return software;
}

void RestartHandover::settled(std::vector<std::string>& said)
{
    if (!m_order) {
        return;
    }
    if (const std::string error = saveRestartOrder(m_served, *m_order); !error.empty()) {
        said.push_back("the order counts again at the next start: " + m_served.place() + ": " + error);
    }
    m_order.reset();
}

} // namespace merlow::board
