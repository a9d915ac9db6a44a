#include "unit.h"

namespace merlow::bench {

namespace {

Process start(const std::string& role, const std::string& runDir, bool anyCpu)
{
    Process process(Start{.arguments = {role}, .runDir = runDir, .anyCpu = anyCpu});
    process.untilReady();
    return process;
}

} // namespace

Unit::Unit(const std::string& runDir, bool anyCpu)
    : m_runDir(runDir), m_anyCpu(anyCpu), m_legacy(startLegacy(runDir, anyCpu)),
      m_board(startBoard(runDir, anyCpu)), m_swm(startSwm(runDir, anyCpu)), m_host(startHost(runDir, anyCpu))
{
    m_host.untilReady();
}

void Unit::restartLegacy()
{
    m_legacy.end();
    m_legacy = startLegacy(m_runDir, m_anyCpu);
}

Process Unit::connect(const std::string& service) const
{
    return start("unit-client", service);
}

Process Unit::start(const std::string& role, const std::string& argument) const
{
    Process client(Start{.arguments = {role, argument}, .runDir = m_runDir, .anyCpu = m_anyCpu});
    client.untilReady();
    return client;
}

Process startLegacy(const std::string& runDir, bool anyCpu)
{
    return start("legacy", runDir, anyCpu);
}

Process startBoard(const std::string& runDir, bool anyCpu)
{
    return start("board", runDir, anyCpu);
}

Process startSwm(const std::string& runDir, bool anyCpu)
{
    return start("swm", runDir, anyCpu);
}

Process startHost(const std::string& runDir, bool anyCpu)
{
    return Process(Start{.arguments = {"host"}, .runDir = runDir, .anyCpu = anyCpu});
}

Process startWatch(const std::string& runDir)
{
    return start("watch", runDir, false);
}

} // namespace merlow::bench
