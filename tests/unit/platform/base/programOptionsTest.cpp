// What a user reads who types a program's command line wrong.

#include "programOptions.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace merlow::base {
namespace {

struct Answer {
    std::optional<int> status;
    std::string out;
    std::string err;
};

/// A program "tool" with the commands "go SPEED" and "stop", or without any.
Answer parse(const std::vector<const char*>& words, bool hasCommands = true)
{
    Syntax app("tool", "A tool.");
    app.allowOptionsBehindCommands();
    std::string runDir;
    int speed = 0;
    app.addCommonOptions(runDir);
    if (hasCommands) {
        app.addCommand("go", "Goes").addOption("SPEED", speed, "How fast").required();
        app.addCommand("stop", "Stops");
    }
    std::vector<const char*> all{"tool"};
    all.insert(all.end(), words.begin(), words.end());
    std::ostringstream out;
    std::ostringstream err;
    const auto status = app.parse(static_cast<int>(all.size()), all.data(), out, err);
    return {status, out.str(), err.str()};
}

TEST(ProgramOptions, goesOnWithWhatIsRight)
{
    EXPECT_EQ(parse({"stop"}).status, std::nullopt);
    EXPECT_EQ(parse({"go", "5", "--run-dir", "x"}).status, std::nullopt);
    EXPECT_EQ(parse({}, false).status, std::nullopt);
}

TEST(ProgramOptions, helpAndVersionEndWithStatusZero)
{
    const auto help = parse({"go", "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("SPEED"), std::string::npos);
    EXPECT_EQ(help.err, "");
    const auto version = parse({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_TRUE(version.out.starts_with("tool ")) << version.out;
}

TEST(ProgramOptions, aMistakeNamesProgramAndCommand)
{
    const struct {
        std::vector<const char*> words;
        bool hasCommands;
        const char* err;
    } cases[] = {
        {{}, true, "tool: a command is missing\nTry 'tool --help'.\n"},
        {{"--run-dir", "x"}, true, "tool: a command is missing\nTry 'tool --help'.\n"},
        {{"dance"}, true, "tool: there is no command \"dance\"\nTry 'tool --help'.\n"},
        {{"--loud", "dance"}, true, "tool: there is no command \"dance\"\nTry 'tool --help'.\n"},
        {{"--loud"}, true, "tool: The following argument was not expected: --loud\nTry 'tool --help'.\n"},
        {{"go"}, true, "tool: go: SPEED is required\nTry 'tool go --help'.\n"},
        {{"go", "fast"}, true, "tool: go: Could not convert: SPEED = fast\nTry 'tool go --help'.\n"},
        {{"stop", "it"},
         true,
         "tool: stop: The following argument was not expected: it\nTry 'tool stop --help'.\n"},
        {{"dance"}, false, "tool: The following argument was not expected: dance\nTry 'tool --help'.\n"},
    };
    for (const auto& [words, hasCommands, err] : cases) {
        const auto answer = parse(words, hasCommands);
        EXPECT_EQ(answer.status, 2) << err;
        EXPECT_EQ(answer.err, err);
        EXPECT_EQ(answer.out, "");
    }
}

TEST(FinishOutputTest, whatDidNotGetOutIsAFailure)
{
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_EQ(finishOutput("tool", 0, out, err), 0);
    EXPECT_EQ(finishOutput("tool", 3, out, err), 3);
    EXPECT_EQ(err.str(), "");
    std::ofstream full("/dev/full");
    full << "text";
    EXPECT_EQ(finishOutput("tool", 0, full, err), 5);
    EXPECT_EQ(finishOutput("tool", 3, full, err), 3) << "the first failure counts";
    EXPECT_EQ(finishOutput("tool", 5, full, err), 5) << "and is told once";
    EXPECT_EQ(err.str(), "tool: standard output cannot be written\n"
                         "tool: standard output cannot be written\n");
}

} // namespace
} // namespace merlow::base
