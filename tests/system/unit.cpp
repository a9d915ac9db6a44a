#include "unit.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace merlow::test {

Unit::Unit(std::optional<uid_t> user) : m_user(user), m_environment{{"MERLOW_RUN_DIR", m_dir.path()}}
{
    if (m_user) {
        EXPECT_EQ(chown(m_dir.path().c_str(), *m_user, *m_user), 0);
    }
}

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
    m_legacyd = launch("legacyd", {});
}

void Unit::startBrhd(std::vector<std::string> arguments)
{
    arguments.insert(arguments.end(), {"--hwmon", runDir() + "/hwmon"});
    m_brhd = launch("brhd", arguments);
}

void Unit::startSwmd(const std::vector<std::string>& arguments)
{
    m_swmd = launch("swmd", arguments);
}

void Unit::startMerlowd(const std::vector<std::string>& arguments)
{
    m_merlowd = launch("merlowd", arguments);
}

std::unique_ptr<Process> Unit::launch(const char* program, const std::vector<std::string>& arguments) const
{
    return std::make_unique<Process>(program, arguments, m_environment, m_user);
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
    return runProgram("bcictl", arguments, m_environment, input, m_user);
}

Outcome Unit::ccfictl(const std::vector<std::string>& arguments) const
{
    return runProgram("ccfictl", arguments, m_environment, {}, m_user);
}

Outcome Unit::boardctl(const std::vector<std::string>& arguments) const
{
    return runProgram("boardctl", arguments, m_environment, {}, m_user);
}

nlohmann::json Unit::status(const std::string& program) const
{
    const auto outcome = boardctl({"status", program, "--json"});
    return outcome.status == 0 ? nlohmann::json::parse(outcome.out, nullptr, false) : nlohmann::json();
}

} // namespace merlow::test
