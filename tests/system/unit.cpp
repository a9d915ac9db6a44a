#include "unit.h"

#include <gtest/gtest.h>

namespace merlow::test {

Unit::Unit() : m_environment{{"MERLOW_RUN_DIR", m_dir.path()}} {}

void Unit::start()
{
    startLegacyd();
    startBrhd();
    startSwmd();
    startMerlowd();
    ASSERT_TRUE(waitUntilItLetsClientsIn()) << "merlowd said:\n"
                                            << m_merlowd->err() << "brhd said:\n"
                                            << m_brhd->err() << "swmd said:\n"
                                            << m_swmd->err() << "legacyd said:\n"
                                            << m_legacyd->err();
}

void Unit::startLegacyd()
{
    m_legacyd = std::make_unique<Process>("legacyd", std::vector<std::string>{}, m_environment);
}

void Unit::startBrhd(std::vector<std::string> arguments)
{
    arguments.insert(arguments.end(), {"--hwmon", runDir() + "/hwmon"});
    m_brhd = std::make_unique<Process>("brhd", arguments, m_environment);
}

void Unit::startSwmd(const std::vector<std::string>& arguments)
{
    m_swmd = std::make_unique<Process>("swmd", arguments, m_environment);
}

void Unit::startMerlowd(const std::vector<std::string>& arguments)
{
    m_merlowd = std::make_unique<Process>("merlowd", arguments, m_environment);
}

bool Unit::letsClientsIn() const
{
    return bcictl({"audit", "--timeout", "1"}).status == 0;
}

bool Unit::waitUntilItLetsClientsIn() const
{
    return waitUntil([this] { return letsClientsIn(); });
}

Outcome Unit::bcictl(const std::vector<std::string>& arguments, const std::string& input) const
{
    return runProgram("bcictl", arguments, m_environment, input);
}

Outcome Unit::ccfictl(const std::vector<std::string>& arguments) const
{
    return runProgram("ccfictl", arguments, m_environment);
}

Outcome Unit::boardctl(const std::vector<std::string>& arguments) const
{
    return runProgram("boardctl", arguments, m_environment);
}

nlohmann::json Unit::status(const std::string& program) const
{
    const auto outcome = boardctl({"status", program, "--json"});
    return outcome.status == 0 ? nlohmann::json::parse(outcome.out, nullptr, false) : nlohmann::json();
}

} // namespace merlow::test
