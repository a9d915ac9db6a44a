#include "report.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>

namespace merlow::bbagent {
namespace {

TEST(ReportTest, aTextOfTheUnitNeitherSteersTheTerminalNorBeginsALine)
{
    std::ostringstream out;
    Report(out, false).tell("raised", "raised 0x0101: a\x1b[2Jb\xC2\x9B\nceased all");
    EXPECT_EQ(out.str(), "raised 0x0101: a?[2Jb???ceased all\n");
}

TEST(ReportTest, aProgramGetsOneObjectALineWhateverTheBytes)
{
    std::ostringstream out;
    Report(out, true).tell("raised", "", {{"description", "a\x1b\n\xFF"}});
    EXPECT_EQ(out.str(), "{\"description\":\"a\\u001b\\n\xEF\xBF\xBD\",\"event\":\"raised\"}\n");
}

} // namespace
} // namespace merlow::bbagent
