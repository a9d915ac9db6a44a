// bcictl against a unit with fixed answers: what goes out is compared as bytes, what is told as text.

#include "bcictlFixture.h"

#include <nlohmann/json.hpp>
#include <thread>

namespace merlow::bcictl {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

TEST_F(BcictlTest, wrongUsageIsStatusTwoAndSendsNothing)
{
    const std::vector<std::vector<const char*>> commandLines = {
        {},
        {"nonsense"},
        {"audit", "more"},
        {"audit", "enable"},
        {"capabilities", "more"},
        {"pid"},
        {"pid", "software"},
        {"pid", "hw", "market"},
        {"utc"},
        {"utc", "soon"},
        {"utc", "-1"},
        {"utc", "4294967296"},
        {"running", "more"},
        {"select"},
        {"components", "more"},
        {"acquire", "more"},
        {"load"},
        {"load", "/nowhere/file", "--software", "QXR1_R1A"},
        {"load", "/etc/passwd"},
        {"load", "/etc/passwd", "--software", "nothing"},
        {"load", "/etc/passwd", "--software", "QXR1_R1A", "--window", "0"},
        {"load", "/etc/passwd", "--software", "QXR1_R1A", "--window", "1025"},
        {"faults", "more"},
        {"faults", "--kind"},
        {"faults", "--kind", "odd"},
        {"mmi"},
        {"mmi", "one"},
        {"mmi", "-1"},
        {"mmi", "4294967296"},
        {"maint"},
        {"maint", "set"},
        {"maint", "set", "2", "follow"},
        {"maint", "follow", "2"},
        {"led"},
        {"led", "set"},
        {"led", "get", "0x0110"},
        {"indicators", "more"},
        {"hereiam"},
        {"hereiam", "1"},
        {"hereiam", "on", "off"},
        {"raw"},
        {"raw", "hello"},
        {"raw", "1", "abc"},
        {"raw", "0x100000000"},
        {"audit", "--timeout", "-1"},
        {"audit", "--timeout", "0"},
        {"audit", "--timeout", "x"},
        {"audit", "--rev", "65536"},
        {"audit", "--client-ref", "2147483648"},
        {"audit", "--unknown"},
    };
    startUnit({});
    for (const auto& words : commandLines) {
        EXPECT_EQ(run(words), 2) << testing::PrintToString(words);
        EXPECT_EQ(m_out.str(), "") << testing::PrintToString(words);
        EXPECT_NE(m_err.str(), "") << testing::PrintToString(words);
    }
    EXPECT_EQ(m_unit->received(0x1658000), "");
}

TEST_F(BcictlTest, helpAndVersionAreStatusZero)
{
    EXPECT_EQ(run({"--help"}), 0);
    for (const char* word :
         {"audit",      "enable",    "disable", "running",    "load",         "select",       "components",
          "acquire",    "release",   "faults",  "utc",        "mmi",          "maint",        "led",
          "indicators", "hereiam",   "raw",     "session",    "--server-ref", "--client-ref", "--rev",
          "--timeout",  "--run-dir", "--json",  "Exit status"}) {
        EXPECT_THAT(m_out.str(), HasSubstr(word));
    }
    EXPECT_EQ(run({"utc", "--help"}), 0);
    EXPECT_THAT(m_out.str(), HasSubstr("now"));
    EXPECT_EQ(run({"--version"}), 0);
    EXPECT_THAT(m_out.str(), StartsWith("bcictl "));
}

TEST_F(BcictlTest, withoutAUnitItIsStatusFourAndNamesTheFolder)
{
    EXPECT_EQ(run({"audit", "--timeout", "0.01", "--json"}), 4);
    const auto told = nlohmann::json::parse(m_out.str(), nullptr, false);
    EXPECT_EQ(told.value("status", ""), "noUnit");
    EXPECT_FALSE(told.contains("sent")) << "nothing was sent";
    EXPECT_EQ(run({"audit", "--timeout", "0.5"}), 4);
    EXPECT_THAT(m_err.str(), HasSubstr(m_runFolder.path()));
    EXPECT_THAT(m_err.str(), HasSubstr("0.5 s"));
}

TEST_F(BcictlTest, theConnectionCarriesReferencesAndRevision)
{
    startUnit({{0x1658400, {{0x1658401, references + "0001 0000"}}}});
    EXPECT_EQ(run({"audit"}), 0) << m_err.str();
    EXPECT_EQ(m_unit->received(0x1658000), "000000010000012c00030000");
    EXPECT_EQ(
        run({"audit", "--client-ref", "-2", "--server-ref", "450", "--rev", "65535", "--timeout", "0.5"}), 3)
        << "the confirm is for another client reference";
    EXPECT_EQ(m_unit->received(0x1658000), "fffffffe000001c2ffff0000");
}

TEST_F(BcictlTest, aRejectedConnectionIsStatusOne)
{
    m_unit = std::make_unique<FakeUnit>(FakeUnit::Answers{
        {0x1658000, {{0x1658002, padded("00000001 0000012c 0003 0000 0001 0000 52415420 6e6f", 128)}}}});
    EXPECT_EQ(run({"audit"}), 1);
    EXPECT_THAT(m_err.str(), HasSubstr("errorCode 1: RAT no"));
    EXPECT_EQ(m_unit->received(0x1658400), "") << "it goes no further";
}

TEST_F(BcictlTest, auditTellsEachState)
{
    const std::pair<const char*, const char*> states[] = {{"0000", "state STARTING (0)\n"},
                                                          {"0001", "state OPERATIONAL (1)\n"},
                                                          {"0002", "state DISABLED (2)\n"},
                                                          {"0003", "state unknown (3)\n"}};
    for (const auto& [hex, text] : states) {
        startUnit({{0x1658400, {{0x1658401, references + hex + "0000"}}}});
        EXPECT_EQ(run({"audit"}), 0) << m_err.str();
        EXPECT_EQ(m_out.str(), text);
        EXPECT_EQ(m_unit->received(0x1658400), "000000010000012d") << "the confirmed server reference";
        m_unit.reset();
    }
}

TEST_F(BcictlTest, enableAndDisableAreAnsweredByConfirmOrReject)
{
    const std::string no = padded(references + "0001 0000 6e6f", 124);
    startUnit({{0x1658403, {{0x1658404, references}}}, {0x1658406, {{0x1658408, no}}}});
    EXPECT_EQ(run({"enable"}), 0) << m_err.str();
    EXPECT_EQ(m_out.str(), "operation enabled\n");
    EXPECT_EQ(m_unit->received(0x1658403), "000000010000012d");
    EXPECT_EQ(run({"disable"}), 1);
    EXPECT_EQ(m_err.str(), "bcictl: disable: rejected, errorCode 1: no\n");
    EXPECT_EQ(m_unit->received(0x1658406), "000000010000012d");
    m_unit.reset();

    startUnit({{0x1658403, {{0x1658405, no}}}, {0x1658406, {{0x1658407, references}}}});
    EXPECT_EQ(run({"enable"}), 1);
    EXPECT_EQ(run({"disable"}), 0);
    EXPECT_EQ(m_out.str(), "operation disabled\n");
}

TEST_F(BcictlTest, utcSendsTheSeconds)
{
    startUnit({{0x1659500, {{0x1659501, references}}}});
    EXPECT_EQ(run({"utc", "1700000000"}), 0) << m_err.str();
    EXPECT_EQ(m_unit->received(0x1659500), "000000010000012d6553f100");
    EXPECT_EQ(m_out.str(), "time set to 1700000000 (2023-11-14 22:13:20 UTC)\n");
    EXPECT_EQ(run({"utc", "4294967295"}), 0);
    EXPECT_EQ(m_unit->received(0x1659500), "000000010000012dffffffff");
    EXPECT_EQ(run({"utc", "now"}), 0);
    EXPECT_GT(m_unit->received(0x1659500), "000000010000012d6553f100") << "later than 2023";
}

TEST_F(BcictlTest, mmiSendsTheMode)
{
    startUnit({{0x1658012, {{0x1658013, references}}}});
    EXPECT_EQ(run({"mmi", "258"}), 0) << m_err.str();
    EXPECT_EQ(m_unit->received(0x1658012), "000000010000012d00000102");
    EXPECT_EQ(m_out.str(), "MMI mode 258 selected\n");
}

TEST_F(BcictlTest, rawSendsAnySignalAndShowsTheAnswer)
{
    startUnit({{0x1658FFF, {{0x1658FFF, references + "c0ffee"}}}, {0x7000002, {{0x7000003, references}}}});
    EXPECT_EQ(run({"raw", "0x1658fff", "c0", "ff ee"}), 0) << m_err.str();
    EXPECT_EQ(m_unit->received(0x1658FFF), "000000010000012dc0ffee");
    EXPECT_EQ(m_out.str(), "0x1658fff, 15 bytes, clientRef 1, serverRef 301\n"
                           "  000000 c0 ff ee                                          |...|\n");
    EXPECT_EQ(run({"raw", "117440514"}), 0) << "any number answers, if the references are right";
    EXPECT_EQ(m_unit->received(0x7000002), "000000010000012d");
    EXPECT_EQ(m_out.str(), "0x7000003, 12 bytes, clientRef 1, serverRef 301\n");
}

TEST_F(BcictlTest, noAnswerIsStatusThree)
{
    startUnit({});
    EXPECT_EQ(run({"audit", "--timeout", "0.5"}), 3);
    EXPECT_EQ(m_err.str(), "bcictl: audit: no answer to TARN_BC_AUDIT_REQ within 0.5 s\n");
}

TEST_F(BcictlTest, anAnswerThatIsTooShortIsToldAsThat)
{
    startUnit({{0x1658400, {{0x1658401, references + "00"}}},
               {0x1658012, {{0x1658014, padded(references + "0001 0000 6e6f", 123)}}}});
    EXPECT_EQ(run({"audit"}), 3);
    EXPECT_THAT(m_err.str(), HasSubstr("TARN_BC_AUDIT_CFM came with 13 bytes, it should have 16"));
    EXPECT_EQ(run({"mmi", "2"}), 3);
    EXPECT_THAT(m_err.str(), HasSubstr("TARN_BC_SELECT_MMI_REJ came with 127 bytes, it should have 128"));
}

TEST_F(BcictlTest, whatIsNoAnswerIsPassedOver)
{
    startUnit({{0x1658400,
                {{0x1658404, references},                    // another service's
                 {0x1658401, "00000002 0000012d 0002 0000"}, // another client's
                 {0x1658401, "00000001 0000012e 0002 0000"}, // another session's
                 {0x1901001, ""},                            // looks like a notice, and is none
                 {0x1658401, references + "0001 0000"}}}});
    EXPECT_EQ(run({"audit"}), 0) << m_err.str();
    EXPECT_EQ(m_out.str(), "state OPERATIONAL (1)\n");
}

TEST_F(BcictlTest, aUnitThatGoesAwayIsStatusFour)
{
    startUnit({});
    EXPECT_EQ(run({"raw", "0x7000001"}), 4) << "not 3, and at once";
    EXPECT_THAT(m_err.str(), HasSubstr("the unit went away"));
}

TEST_F(BcictlTest, verboseNamesBothSignals)
{
    startUnit({{0x1658400, {{0x1658401, references + "0001 0000"}}}});
    EXPECT_EQ(run({"audit", "-v"}), 0);
    EXPECT_EQ(m_out.str(), "TARN_BC_AUDIT_REQ -> TARN_BC_AUDIT_CFM: state OPERATIONAL (1)\n");
}

TEST_F(BcictlTest, jsonIsOneObjectALine)
{
    startUnit({{0x1658400, {{0x1658401, references + "0001 0000"}}},
               {0x1658012, {{0x1658014, padded(references + "0007 0000 22ff22", 124)}}}});
    EXPECT_EQ(run({"--json", "audit"}), 0);
    EXPECT_EQ(m_out.str(), R"({"command":"audit","status":"done","sent":"TARN_BC_AUDIT_REQ",)"
                           R"("answer":"TARN_BC_AUDIT_CFM","clientRef":1,"serverRef":301,)"
                           R"("state":"OPERATIONAL","stateValue":1})"
                           "\n");
    EXPECT_EQ(run({"mmi", "2", "--json"}), 1);
    const auto reject = nlohmann::json::parse(m_out.str(), nullptr, false);
    EXPECT_EQ(reject.value("status", ""), "rejected");
    EXPECT_EQ(reject.value("errorCode", 0), 7);
    EXPECT_EQ(reject.value("errorDescription", ""), "\"?\"");
    EXPECT_EQ(m_err.str(), "");
    EXPECT_EQ(run({"enable", "--json", "--timeout", "0.5"}), 3);
    EXPECT_THAT(m_out.str(),
                HasSubstr(R"("status":"noAnswer","sent":"TARN_BC_ENABLE_OPERATION_REQ","error":")"));
}

TEST_F(SessionTest, eachLineIsACommand)
{
    startUnit({{0x1658400, {{0x1658401, references + "0001 0000"}}}, {0x1658012, {{0x1658013, references}}}});
    EXPECT_EQ(session("audit\n\n  # a comment\n\"mmi\" '3' # three\naudit"), tools::ExitStatus::done);
    EXPECT_EQ(m_out.str(), "state OPERATIONAL (1)\nMMI mode 3 selected\nstate OPERATIONAL (1)\n");
    EXPECT_EQ(m_err.str(), "");
}

TEST_F(SessionTest, wrongLinesAreToldAndTheSessionGoesOn)
{
    startUnit({{0x1658400, {{0x1658401, references + "0001 0000"}}}});
    EXPECT_EQ(session("nonsense\nmmi x\nmmi\n'open\nsession\naudit\n"), tools::ExitStatus::done);
    EXPECT_EQ(m_out.str(), "state OPERATIONAL (1)\n");
    EXPECT_THAT(m_err.str(), HasSubstr("nonsense"));
    EXPECT_THAT(m_err.str(), HasSubstr("a quote is not closed"));
}

TEST_F(SessionTest, helpListsCommandsAndQuitEnds)
{
    startUnit({});
    EXPECT_EQ(session("help\nutc --help\nquit\naudit\n"), tools::ExitStatus::done);
    for (const char* word : {"audit", "raw", "quit", "now"}) {
        EXPECT_THAT(m_out.str(), HasSubstr(word));
    }
    EXPECT_EQ(m_unit->received(0x1658400), "");
}

TEST_F(SessionTest, signalsThatNobodyAskedForAreIndications)
{
    startUnit({{0x1658400, {{0x7000005, references + "41"}, {0x1658401, references + "0001 0000"}}}});
    EXPECT_EQ(session("audit\n"), tools::ExitStatus::done);
    EXPECT_EQ(m_out.str(), "indication 0x7000005, 13 bytes, clientRef 1, serverRef 301\n"
                           "  000000 41                                                |A|\n"
                           "state OPERATIONAL (1)\n");
}

TEST_F(SessionTest, theLossOfTheUnitEndsIt)
{
    startUnit({});
    EXPECT_EQ(session("raw 0x7000001\naudit\n"), tools::ExitStatus::noUnit);
    EXPECT_THAT(m_err.str(), HasSubstr("the unit went away"));
    EXPECT_EQ(m_unit->received(0x1658400), "");
}

TEST_F(SessionTest, aLineWithoutEndEndsTheInput)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::thread writer([fd = ends[1]] {
        const std::string chunk(65536, 'x');
        for (int i = 0; i < 17; ++i) {
            EXPECT_EQ(write(fd, chunk.data(), chunk.size()), static_cast<ssize_t>(chunk.size()));
        }
        close(fd);
    });
    const auto source = tools::makePipeSource(ends[0], {-1, [] {
                                                            return true;
                                                        }});
    EXPECT_FALSE(source->next());
    std::string rest(65536, '\0');
    while (read(ends[0], rest.data(), rest.size()) > 0) {
    }
    writer.join();
    close(ends[0]);
}

TEST(TransientTest, isForTerminalsAloneAndGivesWay)
{
    std::ostringstream out;
    std::ostringstream err;
    Output plain(out, err, {.program = "p"});
    plain.transient("10%");
    Output json(out, err, {.program = "p", .json = true, .terminal = true});
    json.transient("10%");
    EXPECT_EQ(out.str(), "");
    Output terminal(out, err, {.program = "p", .terminal = true});
    terminal.transient("10%");
    terminal.transient("20%");
    EXPECT_EQ(out.str(), "\r10%\x1b[K\r20%\x1b[K");
    terminal.done(0, 0, "done", {});
    EXPECT_EQ(out.str(), "\r10%\x1b[K\r20%\x1b[K\r\x1b[Kdone\n");
    terminal.done(0, 0, "more", {});
    EXPECT_THAT(out.str(), testing::EndsWith("done\nmore\n"));
}

} // namespace
} // namespace merlow::bcictl
