// ccfictl against a unit with fixed answers: what goes out is compared as bytes, what is told as text.

#include "ccfictl.h"
#include "commands.h"
#include "fakeUnit.h"
#include "hex.h"
#include "session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <unistd.h>

namespace merlow::ccfictl {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using tools::FakeUnit;

// Answers to the first and the second signal of a client.
const FakeUnit::Reply connects = {0x17C0202, "00000001 00001005 00000001"};

std::string rejectHex(const std::string& procedureRef, const std::string& text)
{
    std::string hex = procedureRef + "00000000 0001 0000";
    hex += tools::toHex({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
    hex = tools::toHex(tools::bytesOf(hex));
    hex.resize(124 * 2, '0');
    return hex;
}

/// CCFI_BC_FAULT_FWD behind its number.
std::string faultHex(const std::string& references, const std::string& id, const std::string& description,
                     const std::string& tail)
{
    std::string hex = references + id + "0000" + description;
    hex.resize(124 * 2, '0');
    return hex + tail;
}

class CcfictlTest : public testing::Test {
protected:
    void startUnit(FakeUnit::Answers answers)
    {
        answers.insert({0x17C0201, {connects}});
        m_unit = std::make_unique<FakeUnit>(std::move(answers), "private_Merlow");
    }

    int run(std::vector<const char*> words)
    {
        words.insert(words.begin(), "ccfictl");
        m_out.str("");
        m_err.str("");
        return runProgram(static_cast<int>(words.size()), words.data(), m_out, m_err);
    }

    tools::RunFolder m_runFolder;
    std::unique_ptr<FakeUnit> m_unit;
    std::ostringstream m_out;
    std::ostringstream m_err;
};

TEST_F(CcfictlTest, wrongUsageIsStatusTwoAndSendsNothing)
{
    const std::string tooLong(112, 'x');
    const std::vector<std::vector<const char*>> commandLines = {
        {},
        {"nonsense"},
        {"connect", "more"},
        {"connect", "--rev"},
        {"connect", "--rev", "one"},
        {"connect", "--client-ref", "-1"},
        {"connect", "--client-ref", "4294967296"},
        {"raise"},
        {"raise", "hot"},
        {"raise", "0x10000"},
        {"raise", "65536"},
        {"raise", "0x502", "--ref", "0x100000000"},
        {"raise", "0x502", "--recovery-time", "soon"},
        {"raise", "0x502", "--description", tooLong.c_str()},
        {"cease"},
        {"cease", "0x502", "--description", "x"},
        {"close", "x"},
        {"close"}, // nothing is open
        {"connect", "--timeout", "0"},
        {"connect", "--unknown"},
    };
    startUnit({});
    for (const auto& words : commandLines) {
        EXPECT_EQ(run(words), 2) << testing::PrintToString(words);
        EXPECT_EQ(m_out.str(), "") << testing::PrintToString(words);
        EXPECT_NE(m_err.str(), "") << testing::PrintToString(words);
    }
    for (const std::uint32_t number : {0x17C0201U, 0x17C0204U, 0x17C0205U, 0x17C0206U}) {
        EXPECT_EQ(m_unit->received(number), "");
    }
}

TEST_F(CcfictlTest, helpAndVersionAreStatusZero)
{
    EXPECT_EQ(run({"--help"}), 0);
    for (const char* word : {"connect", "raise", "cease", "close", "session", "--timeout", "--run-dir",
                             "--json", "--verbose", "Exit status"}) {
        EXPECT_THAT(m_out.str(), HasSubstr(word));
    }
    EXPECT_EQ(run({"raise", "--help"}), 0);
    for (const char* word : {"0x711", "--description", "--recovery-time", "--label", "--ref"}) {
        EXPECT_THAT(m_out.str(), HasSubstr(word));
    }
    EXPECT_EQ(run({"--version"}), 0);
    EXPECT_THAT(m_out.str(), StartsWith("ccfictl "));
}

TEST_F(CcfictlTest, withoutAUnitItIsStatusFourAndNamesTheFolder)
{
    EXPECT_EQ(run({"connect", "--timeout", "0.3"}), 4);
    EXPECT_THAT(m_err.str(), HasSubstr(m_runFolder.path()));
    EXPECT_THAT(m_err.str(), HasSubstr("private_Merlow"));
}

TEST_F(CcfictlTest, connectPrintsTheServersReferenceAndClosesAtTheEnd)
{
    startUnit({{0x17C0206, {{0x17C0207, "00000002 00000001"}}}});
    EXPECT_EQ(run({"connect"}), 0) << m_err.str();
    EXPECT_EQ(m_unit->received(0x17C0201), "00000001000000010000000100000001");
    EXPECT_EQ(m_out.str(), "connected, server reference 0x1005, revision 1\n");
    EXPECT_EQ(m_unit->received(0x17C0206), "0000000200001005");

    EXPECT_EQ(run({"connect", "--rev", "3", "--rev", "258", "--rev=1", "--client-ref", "0xfffffff0"}), 0);
    EXPECT_EQ(m_unit->received(0x17C0201), "00000001fffffff000000003000000030000010200000001");
}

TEST_F(CcfictlTest, aRefusalIsStatusOneAndPrintsItsText)
{
    m_unit = std::make_unique<FakeUnit>(
        FakeUnit::Answers{{0x17C0201, {{0x17C0203, rejectHex("00000001", "protocol(s) not supported: 2")}}}},
        "private_Merlow");
    EXPECT_EQ(run({"connect", "--rev", "2"}), 1);
    EXPECT_EQ(m_err.str(), "ccfictl: connect: rejected, errorCode 1: protocol(s) not supported: 2\n");
    EXPECT_EQ(run({"raise", "0x502", "--rev", "2"}), 1);
    EXPECT_EQ(m_unit->received(0x17C0204), "") << "it goes no further";
    EXPECT_EQ(m_unit->received(0x17C0206), "");
    EXPECT_EQ(run({"connect", "--json"}), 1);
    EXPECT_EQ(m_out.str(), R"({"command":"connect","status":"rejected","sent":"CCFI_BC_CONN_ESTABLISH_REQ",)"
                           R"("answer":"CCFI_BC_CONN_ESTABLISH_REJ","error":"rejected","errorCode":1,)"
                           R"("errorDescription":"protocol(s) not supported: 2"})"
                           "\n");
}

TEST_F(CcfictlTest, raiseConnectsForwardsAndCloses)
{
    startUnit({{0x17C0206, {{0x17C0207, "00000003 00000001"}}}});
    EXPECT_EQ(run({"raise", "0x502", "--description", "AB", "--recovery-time", "258", "--label", "F7"}), 0)
        << m_err.str();
    EXPECT_EQ(m_out.str(), "fault 0x502 sent over server reference 0x1005\n");
    EXPECT_EQ(m_unit->received(0x17C0204),
              faultHex("0000000200001005", "0502", "4142", "00000102" + std::string("463700")));
    EXPECT_EQ(m_unit->received(0x17C0206), "0000000300001005");

    const std::string longest(111, 'x');
    EXPECT_EQ(run({"raise", "769", "--description", longest.c_str()}), 0);
    EXPECT_EQ(m_unit->received(0x17C0204),
              faultHex("0000000200001005", "0301",
                       tools::toHex({reinterpret_cast<const std::uint8_t*>(longest.data()), longest.size()}),
                       "0000000000"));
}

TEST_F(CcfictlTest, ceaseConnectsForwardsAndCloses)
{
    startUnit({{0x17C0206, {{0x17C0207, "00000003 00000001"}}}});
    EXPECT_EQ(run({"cease", "0x502", "--json"}), 0) << m_err.str();
    EXPECT_EQ(m_unit->received(0x17C0205), "00000002000010050502");
    EXPECT_EQ(m_out.str(), R"({"command":"cease","status":"done","sent":"CCFI_BC_FAULTCEASE_FWD",)"
                           R"("serverRef":4101,"faultId":1282})"
                           "\n");
}

TEST_F(CcfictlTest, aNamedConnectionIsUsedAsItIs)
{
    startUnit({});
    EXPECT_EQ(run({"raise", "0x300", "--ref", "0x1001"}), 0) << m_err.str();
    EXPECT_EQ(run({"cease", "0x300", "--ref", "4097", "-v"}), 0) << m_err.str();
    EXPECT_EQ(m_out.str(),
              "CCFI_BC_FAULTCEASE_FWD -> nothing: end of fault 0x300 sent over server reference 0x1001\n");
    EXPECT_EQ(m_unit->received(0x17C0201), "");
    EXPECT_EQ(m_unit->received(0x17C0206), "");
}

TEST_F(CcfictlTest, closeOfANamedConnection)
{
    startUnit({{0x17C0206, {{0x17C0207, "00000001 00000055"}}}});
    EXPECT_EQ(run({"close", "0x1001"}), 0) << m_err.str();
    EXPECT_EQ(m_unit->received(0x17C0206), "0000000100001001");
    EXPECT_EQ(m_out.str(), "server reference 0x1001 closed, client reference 85\n");
}

TEST_F(CcfictlTest, noAnswerIsStatusThree)
{
    startUnit({{0x17C0206, {{0x17C0207, "00000009 00000055"}, {0x17C0202, "00000001 00000055 00000001"}}}});
    EXPECT_EQ(run({"close", "0x1001", "--timeout", "0.3"}), 3) << "another's answers are none";
    EXPECT_EQ(m_err.str(), "ccfictl: close: no answer to CCFI_BC_CONN_CLOSE_REQ within 0.3 s\n");
    EXPECT_EQ(run({"raise", "0x502", "--timeout", "0.3"}), 3) << "the unit may not have got it";
    EXPECT_THAT(m_err.str(), HasSubstr("no answer to CCFI_BC_CONN_CLOSE_REQ"));
}

TEST_F(CcfictlTest, anAnswerThatIsTooShortIsToldAsThat)
{
    m_unit = std::make_unique<FakeUnit>(
        FakeUnit::Answers{{0x17C0201, {{0x17C0202, "00000001 00001005 000000"}}}}, "private_Merlow");
    EXPECT_EQ(run({"connect"}), 3);
    EXPECT_THAT(m_err.str(), HasSubstr("CCFI_BC_CONN_ESTABLISH_CFM came with 15 bytes, it should have 16"));
}

TEST_F(CcfictlTest, aSessionHoldsItsConnectionsUntilItsEnd)
{
    startUnit({{0x17C0206, {{0x17C0207, "00000004 00000007"}}}});
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string input = "close\nconnect --client-ref 7\nraise 0x502 --description 'a b'\n"
                              "cease 0x502\nclose\nclose\n";
    ASSERT_EQ(write(ends[1], input.data(), input.size()), static_cast<ssize_t>(input.size()));
    close(ends[1]);
    tools::Output output(m_out, m_err, {.program = "ccfictl"});
    Forwarder client(std::chrono::milliseconds(3000));
    ASSERT_FALSE(client.open());
    tools::Session session(client, output, commandTable());
    const auto source = tools::makePipeSource(ends[0], {client.fd(), [&session] {
                                                            return session.serve();
                                                        }});
    EXPECT_EQ(session.run(*source), tools::ExitStatus::done);
    close(ends[0]);
    EXPECT_EQ(m_out.str(), "connected, server reference 0x1005, revision 1\n"
                           "fault 0x502 sent over server reference 0x1005\n"
                           "end of fault 0x502 sent over server reference 0x1005\n"
                           "server reference 0x1005 closed, client reference 7\n");
    EXPECT_EQ(m_err.str(), "ccfictl: no connection is open; name one by its server reference\n"
                           "ccfictl: no connection is open; name one by its server reference\n");
    EXPECT_EQ(m_unit->received(0x17C0204), faultHex("0000000200001005", "0502", "612062", "0000000000"));
    EXPECT_EQ(m_unit->received(0x17C0205), "00000003000010050502");
    EXPECT_EQ(m_unit->received(0x17C0206), "0000000400001005");
    EXPECT_FALSE(client.closeAll());
}

TEST_F(CcfictlTest, whatIsOpenIsClosedNewestFirst)
{
    m_unit = std::make_unique<FakeUnit>(
        FakeUnit::Answers{{0x17C0201, {connects, {0x17C0202, "00000002 00001006 00000001"}}},
                          {0x17C0206, {{0x17C0207, "= 00000001"}}}},
        "private_Merlow");
    Forwarder client(std::chrono::milliseconds(3000));
    ASSERT_FALSE(client.open());
    EXPECT_TRUE(std::holds_alternative<tools::Signal>(client.connect({})));
    EXPECT_TRUE(std::holds_alternative<tools::Signal>(client.connect({})));
    EXPECT_THAT(client.connections(), testing::ElementsAre(0x1005, 0x1006));
    EXPECT_FALSE(client.closeAll());
    EXPECT_EQ(m_unit->received(0x17C0206), "0000000400001005");
}

} // namespace
} // namespace merlow::ccfictl
