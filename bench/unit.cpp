#include "unit.h"

namespace merlow::bench {

namespace {

Process start(const std::string& role, const std::string& runDir)
{
    Process process(Start{.arguments = {role}, .runDir = runDir});
    process.untilReady();
    return process;
}

} // namespace

Unit::Unit(const std::string& runDir)
    : m_runDir(runDir), m_legacy(startLegacy(runDir)), m_board(startBoard(runDir)), m_host(startHost(runDir))
{
    m_host.untilReady();
}

void Unit::restartLegacy()
{
    m_legacy.end();
    m_legacy = startLegacy(m_runDir);
}

Process Unit::connect(const std::string& service) const
{
    Process client(Start{.arguments = {"unit-client", service}, .runDir = m_runDir});
    client.untilReady();
    return client;
}

Process startLegacy(const std::string& runDir)
{
    return start("legacy", runDir);
}

Process startBoard(const std::string& runDir)
{
    return start("board", runDir);
}

Process startHost(const std::string& runDir)
{
    return Process(Start{.arguments = {"host"}, .runDir = runDir});
}

Process startWatch(const std::string& runDir)
{
    return start("watch", runDir);
}

} // namespace merlow::bench
