#include "recordFile.h"
#include "rowTest.h"

#include "subject.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace merlow::test {
namespace {

using nlohmann::json;

/// Real traced processes, and the real scryctl.
class RecordFileTest : public ::testing::Test {
protected:
    Environment environment(const Environment& more = {}) const
    {
        Environment all{{"MERLOW_RUN_DIR", m_runDir}, {"MERLOW_GROUP", ""},
                        {"RUSHLOG_OUT", m_log},       {"SCRY_OUT", ""},
                        {"SCRY_LEVELS", ""},          {"SCRY_OBJ", ""},
                        {"SCRY_LTTNG", "0"},          {"SCRY_OBJ_LEVELS", ""},
                        {"XDG_RUNTIME_DIR", ""}};
        for (const auto& [name, value] : more) {
            all[name] = value;
        }
        return all;
    }
    Result scryctl(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), SCRYCTL);
        return runProgram(arguments, environment());
    }
    /// What scryctl lists, by process id.
    std::map<pid_t, json> listed() const
    {
        const Result result = scryctl({"list", "--json"});
        EXPECT_EQ(result.status, 0) << result.err;
        std::map<pid_t, json> processes;
        std::istringstream lines(result.out);
        for (std::string line; std::getline(lines, line);) {
            const json process = json::parse(line);
            processes[process.at("pid").get<pid_t>()] = process;
        }
        return processes;
    }
    std::vector<std::string> filesIn(const std::string& folder) const
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            names.push_back(entry.path().filename());
        }
        return names;
    }
    static std::string fileOf(const Subject& subject)
    {
        return "trace_subject." + std::to_string(subject.pid());
    }

    TempFolder m_folder;
    std::string m_runDir = m_folder / "run";
    std::string m_log = m_folder / "log";
};

TEST_F(RecordFileTest, aProcessHasAPrivateFileFromItsStartOn)
{
    Subject subject({TRACE_SUBJECT}, environment());
    EXPECT_EQ(subject.ask("masks"), "200012 0");
    struct stat status {};
    ASSERT_EQ(stat((m_runDir + "/trace/" + fileOf(subject)).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    EXPECT_EQ(status.st_size, static_cast<off_t>(sizeof(trace::RecordFile)));
    EXPECT_EQ(filesIn(m_runDir + "/trace"), std::vector{fileOf(subject)});
    EXPECT_EQ(contentOf(m_log), "");
}

struct EnvironmentRow {
    Environment environment;
    std::string masks;
    std::string report;
};

void PrintTo(const EnvironmentRow& row, std::ostream* out)
{
    for (const auto& [name, value] : row.environment) {
        *out << name << "=" << value << " ";
    }
}

class TraceEnvironmentTest : public RecordFileTest, public WithRow<EnvironmentRow> {};

ROW_TEST(TraceEnvironmentTest, setsTheMasksAtStart)
{
    Subject traced({TRACE_SUBJECT}, environment(row().environment));
    EXPECT_EQ(traced.ask("masks"), row().masks);
    const auto lines = linesOf(m_log);
    ASSERT_EQ(lines.size(), row().report.empty() ? 0u : 1u);
    if (!lines.empty()) {
        EXPECT_TRUE(lines[0].ends_with("RadioPlatform,Trace: " + row().report)) << lines[0];
    }
}

const EnvironmentRow environmentRows[] = {
    {{{"SCRY_LEVELS", "1,4,6"}, {"SCRY_OBJ_LEVELS", "5,17"}}, "200052 20020", ""},
    {{{"SCRY_OBJ", "0"}}, "12 0", ""},
    {{{"SCRY_OBJ", "1"}}, "200012 0", ""},
    {{{"SCRY_OBJ", "0"}, {"SCRY_LEVELS", "1,21"}}, "2 0", ""},
    {{{"SCRY_LEVELS", "none"}}, "200000 0", ""},
    {{{"SCRY_LEVELS", "1,x,99"}}, "200002 0", "SCRY_LEVELS: ignoring \"x\", \"99\", levels are 0 to 31"},
    {{{"SCRY_OBJ_LEVELS", "5;6"}}, "200012 0", "SCRY_OBJ_LEVELS: ignoring \"5;6\", levels are 0 to 31"},
    {{{"SCRY_OBJ", "no"}}, "200012 0", "SCRY_OBJ: ignoring \"no\", it is 0 or 1"}};
TEST_ROWS(Variables, TraceEnvironmentTest, environmentRows);

TEST_F(RecordFileTest, levelsChangeWhileTheProcessRuns)
{
    Subject subject({TRACE_SUBJECT}, environment());
    EXPECT_EQ(subject.ask("object 5 flow"), "silent");
    EXPECT_EQ(subject.ask("trace 6 life"), "silent");
    const Result result = scryctl({"set", "trace_subject", "--proc", "1,6", "--obj", "5,17"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(subject.ask("masks"), "200042 20020");
    EXPECT_EQ(subject.ask("object 5 flow"), "traced");
    EXPECT_EQ(subject.ask("trace 6 life"), "traced");
    EXPECT_EQ(subject.ask("trace 4 gone"), "silent");
    EXPECT_EQ(subject.ask("new Later"), "20020");

    ASSERT_EQ(scryctl({"set", std::to_string(subject.pid()), "--object", "Later", "--obj", "6"}).status, 0);
    EXPECT_EQ(subject.ask("new Later"), "40");
    EXPECT_EQ(subject.ask("masks"), "200042 20020");
    ASSERT_EQ(scryctl({"set", fileOf(subject), "--objects", "off"}).status, 0);
    EXPECT_EQ(subject.ask("masks"), "42 20020");
    EXPECT_EQ(subject.ask("object 5 flow"), "silent");
}

TEST_F(RecordFileTest, theListShowsProcessesAndObjects)
{
    Subject first({TRACE_SUBJECT}, environment());
    Subject second({TRACE_SUBJECT}, environment({{"SCRY_OBJ_LEVELS", "5"}}));
    ASSERT_EQ(first.ask("masks"), "200012 0");
    ASSERT_EQ(second.ask("masks"), "200012 20");
    auto processes = listed();
    ASSERT_EQ(processes.size(), 2u);
    EXPECT_EQ(processes[second.pid()],
              json::parse(R"({"process": "trace_subject", "levels": [1, 4], "objectsOn": true,
                  "newObjectLevels": [5], "objects": [{"name": "Subject", "levels": [5]}],
                  "pid": )" +
                          std::to_string(second.pid()) + "}"));
    const std::string text = scryctl({"list"}).out;
    EXPECT_NE(text.find(fileOf(first) + "\n"), std::string::npos) << text;
    EXPECT_NE(text.find("  object Subject       5\n"), std::string::npos) << text;
}

TEST_F(RecordFileTest, whatScryctlCannotDoItSays)
{
    EXPECT_EQ(scryctl({"list"}).status, 0);
    EXPECT_FALSE(std::filesystem::exists(m_runDir)); // looking makes nothing
    Result result = scryctl({"set", "nobody", "--proc", "1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "scryctl: no process nobody in " + m_runDir + "/trace\n");

    Subject first({TRACE_SUBJECT}, environment());
    Subject second({TRACE_SUBJECT}, environment());
    ASSERT_EQ(first.ask("masks"), second.ask("masks"));
    result = scryctl({"set", "trace_subject", "--proc", "1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("is the name of 2 processes, name one: "), std::string::npos) << result.err;
    EXPECT_EQ(first.ask("masks"), "200012 0");
    result = scryctl({"set", fileOf(first), "--proc", "none", "--obj", "5", "--object", "Nothing"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "scryctl: " + fileOf(first) + " has no object Nothing\n");
    EXPECT_EQ(first.ask("masks"), "200012 0");

    using Words = std::vector<std::string>;
    for (const auto& wrong :
         {Words{}, Words{"set"}, Words{"set", "a"}, Words{"set", "a", "--proc", "1,x"},
          Words{"set", "a", "--proc", "32"}, Words{"set", "a", "--object", "b"}, Words{"list", "--what"},
          Words{"set", "a", "--objects", "maybe"}, Words{"show"}}) {
        EXPECT_EQ(scryctl(wrong).status, 2) << ::testing::PrintToString(wrong);
    }
}

TEST_F(RecordFileTest, runDirOptionNamesTheUnit)
{
    Subject subject({TRACE_SUBJECT}, environment());
    ASSERT_EQ(subject.ask("masks"), "200012 0");
    const Result result = runProgram({SCRYCTL, "list", "--run-dir", m_runDir},
                                     environment({{"MERLOW_RUN_DIR", m_folder / "other"}}));
    EXPECT_NE(result.out.find(fileOf(subject)), std::string::npos) << result.out << result.err;
}

TEST_F(RecordFileTest, whatAKilledProcessLeavesGoesWithTheNextLook)
{
    Subject subject({TRACE_SUBJECT}, environment());
    ASSERT_EQ(subject.ask("masks"), "200012 0");
    subject.killHard();
    ASSERT_EQ(filesIn(m_runDir + "/trace").size(), 1u);
    EXPECT_TRUE(listed().empty());
    EXPECT_TRUE(filesIn(m_runDir + "/trace").empty());
}

TEST_F(RecordFileTest, whatAKilledProcessLeavesGoesWithTheNextStart)
{
    Subject dead({TRACE_SUBJECT}, environment());
    ASSERT_EQ(dead.ask("masks"), "200012 0");
    dead.killHard();
    Subject subject({TRACE_SUBJECT}, environment());
    ASSERT_EQ(subject.ask("masks"), "200012 0");
    EXPECT_EQ(filesIn(m_runDir + "/trace"), std::vector{fileOf(subject)});
}

TEST_F(RecordFileTest, aFileThatIsNoneIsReportedAndPassedOver)
{
    Subject subject({TRACE_SUBJECT}, environment());
    ASSERT_EQ(subject.ask("masks"), "200012 0");
    const std::string path = m_runDir + "/trace/garbage.1";
    for (const std::size_t size : {std::size_t{0}, std::size_t{5}, sizeof(trace::RecordFile)}) {
        const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        const std::string garbage(size, '\xff');
        ASSERT_EQ(write(fd, garbage.data(), size), static_cast<ssize_t>(size));
        ASSERT_EQ(flock(fd, LOCK_EX), 0);
        const Result result = scryctl({"list"});
        EXPECT_EQ(result.status, 0);
        EXPECT_NE(result.err.find("garbage.1 "), std::string::npos) << result.err;
        EXPECT_NE(result.out.find(fileOf(subject)), std::string::npos);
        close(fd);
    }
}

TEST_F(RecordFileTest, withoutAFileTracesWorkAndTheReasonIsLogged)
{
    std::ofstream(m_folder / "file") << "x";
    Subject subject({TRACE_SUBJECT}, environment({{"MERLOW_RUN_DIR", m_folder / "file"}}));
    EXPECT_EQ(subject.ask("masks"), "200012 0");
    EXPECT_EQ(subject.ask("trace 4 text"), "traced");
    EXPECT_EQ(subject.ask("start"), "-1 Not a directory");
    EXPECT_EQ(subject.ask("masks"), "200012 0");
    const auto lines = linesOf(m_log);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("no record file in " + (m_folder / "file") + "/trace: Not a directory"),
              std::string::npos)
        << lines[0];
}

TEST_F(RecordFileTest, aProgramThatChoosesItsFolderLateIsFoundThere)
{
    Subject subject({TRACE_SUBJECT}, environment({{"MERLOW_RUN_DIR", m_folder / "early"}}));
    ASSERT_EQ(subject.ask("masks"), "200012 0");
    EXPECT_EQ(subject.ask("rundir " + m_runDir), "set");
    EXPECT_EQ(subject.ask("start"), "0");
    EXPECT_EQ(listed().count(subject.pid()), 1u);
    ASSERT_EQ(scryctl({"set", "trace_subject", "--proc", "7"}).status, 0);
    EXPECT_EQ(subject.ask("masks"), "200080 0");
}

TEST_F(RecordFileTest, aForkedChildSharesNothingWithItsParent)
{
    Subject subject({TRACE_SUBJECT}, environment({{"SCRY_OBJ_LEVELS", "5"}}));
    ASSERT_EQ(subject.ask("masks"), "200012 20");
    const pid_t child = static_cast<pid_t>(std::stol(subject.ask("fork")));
    ASSERT_NE(child, subject.pid());
    EXPECT_TRUE(waitUntil([this] { return listed().empty(); })); // the child doesn't keep its parent's alive
    EXPECT_EQ(subject.ask("masks"), "200012 20");
    EXPECT_EQ(subject.ask("start"), "0");
    EXPECT_EQ(listed().count(child), 1u);
    ASSERT_EQ(scryctl({"set", "trace_subject", "--proc", "7"}).status, 0);
    EXPECT_EQ(subject.ask("masks"), "200080 20");
}

TEST_F(RecordFileTest, objectsAreBounded)
{
    Subject subject({TRACE_SUBJECT}, environment());
    EXPECT_EQ(subject.ask("many 124"), "own"); // 126 with the subject's own and one more
    EXPECT_EQ(subject.ask("many 200"), "shared");
    const json objects = listed()[subject.pid()].at("objects");
    ASSERT_EQ(objects.size(), trace::maxObjects);
    EXPECT_EQ(objects.back().at("name"), "(others)");
    EXPECT_EQ(linesOf(m_log).size(), 1u);
    EXPECT_EQ(subject.ask("object 5 t"), "silent");
}

TEST_F(RecordFileTest, linesToAFileNameTheProcess)
{
    Subject subject({TRACE_SUBJECT}, environment({{"SCRY_OUT", m_folder / "out"}}));
    ASSERT_EQ(subject.ask("trace 4 hello there"), "traced");
    ASSERT_EQ(subject.ask("signals"), "traced");
    const auto lines = linesOf(m_folder / "out");
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(lines[0].ends_with(" " + fileOf(subject) + " 4 process.cpp:8 hello there")) << lines[0];
    EXPECT_TRUE(lines[2].ends_with(" 18 send.cpp:2 [Subject] SEND 0x1658001 to 0xabc out")) << lines[2];
}

} // namespace
} // namespace merlow::test
