// Real recordings with a real session daemon, as an engineer makes them.

#include "sessionDaemon.h"
#include "subject.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <memory>
#include <sstream>
#include <unistd.h>

namespace merlow::test {
namespace {

using ::testing::HasSubstr;

class LttngRecordingTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_daemon = std::make_unique<SessionDaemon>(m_folder.path());
        if (!m_daemon->problem().empty()) {
            GTEST_SKIP() << m_daemon->problem();
        }
    }
    void TearDown() override
    {
        if (m_recording) {
            m_daemon->lttng({"destroy", m_session});
        }
    }

    Environment environment() const
    {
        Environment all = m_daemon->environment();
        all["MERLOW_RUN_DIR"] = m_folder / "run";
        all["RUSHLOG_OUT"] = m_folder / "log";
        all["SCRY_LTTNG"] = "";
        return all;
    }
    void record(const std::vector<std::string>& filter = {})
    {
        ASSERT_EQ(m_daemon->lttng({"create", m_session, "--output=" + (m_folder / "trace")}).status, 0);
        m_recording = true;
        for (const char* events : {"com_vorlund_radiosw_merlow:*", "scry:*"}) {
            std::vector<std::string> command{"enable-event", "--userspace", "--session=" + m_session, events};
            command.insert(command.end(), filter.begin(), filter.end());
            const Result result = m_daemon->lttng(command);
            ASSERT_EQ(result.status, 0) << result.err;
        }
        ASSERT_EQ(
            m_daemon->lttng({"add-context", "--userspace", "--session=" + m_session, "--type=vpid"}).status,
            0);
        ASSERT_EQ(m_daemon->lttng({"start", m_session}).status, 0);
    }
    /// Ends the recording and reads it, a line for each event of `program`: where the daemon is shared,
    /// others may have been recorded with it.
    std::vector<std::string> events(pid_t program)
    {
        const std::string ofProgram = "{ vpid = " + std::to_string(program) + " }";
        EXPECT_EQ(m_daemon->lttng({"stop", m_session}).status, 0);
        EXPECT_THAT(m_daemon->lttng({"list", m_session}).out, HasSubstr("Discarded events: 0"));
        EXPECT_EQ(m_daemon->lttng({"destroy", m_session}).status, 0);
        m_recording = false;
        const Result result = runProgram({"/usr/bin/babeltrace2", m_folder / "trace"}, {});
        EXPECT_EQ(result.status, 0) << result.err;
        std::vector<std::string> lines;
        std::istringstream text(result.out);
        for (std::string line; std::getline(text, line);) {
            if (line.find(ofProgram) != std::string::npos) {
                lines.push_back(line);
            }
        }
        return lines;
    }
    /// Name and fields of an event, without time, host, processor and process, and N for the source line.
    static std::string bodyOf(const std::string& line)
    {
        const auto cpu = line.find(": { cpu_id = ");
        const auto name = line.rfind(' ', cpu);
        const auto fields = line.find("}, ", line.find("{ vpid = ", cpu));
        std::string body = line.substr(name + 1, cpu - name - 1) + " " + line.substr(fields + 3);
        const auto number = body.find("line = ") + 7;
        body.replace(number, body.find(',', number) - number, "N");
        return body;
    }

    TempFolder m_folder;
    std::string m_session = "merlow-test-" + std::to_string(getpid());
    std::unique_ptr<SessionDaemon> m_daemon;
    bool m_recording = false;
};

/// All that the subject fires, as `bodyOf` shows it.
std::vector<std::string> allEvents()
{
    const std::string provider = "com_vorlund_radiosw_merlow:";
    const std::string site = " { file = \"tracepointsSubject.cpp\", line = N, ";
    const auto object = [&](const std::string& name, const std::string& rest) {
        return provider + name + site + "obj = \"bcProc\", " + rest + " }";
    };
    std::vector<std::string> events{provider + "ERROR" + site + "msg = \"error text\" }",
                                    provider + "INFO" + site + "msg = \"info text\" }",
                                    object("STATE_CHANGE", "msg = \"state text\"")};
    for (const char number : std::string("1234567")) {
        events.push_back(
            object(std::string("TRACE") + number, std::string("msg = \"trace") + number + " text\""));
    }
    events.push_back(object("REC_SIG", "sig_no = 0x17C0201, msg = \"rec text\""));
    events.push_back(object("SEND_SIG", "sig_no = 0x17C0202, pid = 0xABC, msg = \"send text\""));
    events.push_back(object("DATA",
                            "msg = \"data text\", _data_length = 2, data = [ [0] = 0x1, [1] = 0xFF ], "
                            "datalen = 2"));
    for (const char number : std::string("1234567")) {
        events.push_back(provider + "TRACE_UTS" + number + site +
                         "sec = 11, usec = 22, process = \"process\", msg = \"uts" + number +
                         " text\", _data_length = 1, data = [ [0] = 0x2 ], datalen = 1 }");
    }
    for (const char* fields :
         {"level = 4, file = \"a.cpp\", line = N, obj = \"\", text = \"scry text\"",
          "level = 5, file = \"b.cpp\", line = N, obj = \"Merlow\", text = \"flow text\"",
          "level = 17, file = \"c.cpp\", line = N, obj = \"Merlow\", text = \"REC 0x1658000 in\"",
          "level = 18, file = \"d.cpp\", line = N, obj = \"Merlow\", text = \"SEND 0x1658001 to 0xabc "
          "out\""}) {
        events.push_back(std::string("scry:trace { ") + fields + " }");
    }
    return events;
}

TEST_F(LttngRecordingTest, showsEveryEventOfBothProvidersWithItsFields)
{
    record();
    Subject subject({TRACEPOINTS_SUBJECT}, environment());
    const pid_t program = subject.pid();
    ASSERT_EQ(subject.ask("fire"), "on");
    EXPECT_EQ(subject.finish(), 0);
    std::vector<std::string> bodies;
    for (const std::string& line : events(program)) {
        bodies.push_back(bodyOf(line));
    }
    EXPECT_EQ(bodies, allEvents());
    EXPECT_EQ(contentOf(m_folder / "log"), "");
}

TEST_F(LttngRecordingTest, aRecordingCanBeginLongAfterTheProgram)
{
    Subject subject({TRACEPOINTS_SUBJECT}, environment());
    const pid_t program = subject.pid();
    ASSERT_EQ(subject.ask("state"), "off");
    record();
    ASSERT_TRUE(waitUntil([&subject] { return subject.ask("state") == "on"; }));
    ASSERT_EQ(subject.ask("fire"), "on");
    EXPECT_EQ(subject.finish(), 0);
    EXPECT_EQ(events(program).size(), allEvents().size());
}

TEST_F(LttngRecordingTest, theLogLevelChoosesErrors)
{
    record({"--loglevel=ERR"});
    Subject subject({TRACEPOINTS_SUBJECT}, environment());
    const pid_t program = subject.pid();
    ASSERT_EQ(subject.ask("fire"), "off"); // what isn't recorded costs nothing
    EXPECT_EQ(subject.finish(), 0);
    const auto lines = events(program);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], HasSubstr("com_vorlund_radiosw_merlow:ERROR"));
}

TEST_F(LttngRecordingTest, switchedOffTheProgramHasNoThreadsOfTheTracer)
{
    // By name, since a sanitizer has threads of its own.
    const auto tracerThreads = [](const Subject& subject) {
        int count = 0;
        for (const auto& task :
             std::filesystem::directory_iterator("/proc/" + std::to_string(subject.pid()) + "/task")) {
            count += contentOf(task.path() / "comm").ends_with("-ust\n") ? 1 : 0;
        }
        return count;
    };
    Environment off = environment();
    off["SCRY_LTTNG"] = "0";
    Subject silent({TRACEPOINTS_SUBJECT}, off);
    Subject traced({TRACEPOINTS_SUBJECT}, environment());
    ASSERT_EQ(silent.ask("state"), "off");
    ASSERT_EQ(traced.ask("state"), "off");
    EXPECT_EQ(tracerThreads(silent), 0);
    EXPECT_EQ(tracerThreads(traced), 2);
}

} // namespace
} // namespace merlow::test
