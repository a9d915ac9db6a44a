// bcictl's faults against a unit with fixed answers: signals as bytes, what is told as text.

#include "bcictlFixture.h"

#include "faultSignals.h"

#include <nlohmann/json.hpp>

namespace merlow::bcictl {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

const char* const time = "20[0-9][0-9]-[0-1][0-9]-[0-3][0-9]T[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{3}Z";

/// A raise for the references 1 and 301, as it stands behind the number; reserved words hold rubbish.
std::string raised(const std::string& faultId, const std::string& text, const std::string& faultCase)
{
    auto description = tools::toHex({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
    description.resize(220, '0');
    return references + faultId + "eeee" + description + "eeee" + "0000" + "eeee" + "eeeeeeeeeeeeeeee" +
           faultCase + "eeee";
}

/// The same of a cease.
std::string ceased(const std::string& faultId, const std::string& faultCase)
{
    return references + faultId + "0000" + "eeeeeeeeeeeeeeee" + faultCase + "eeee";
}

const FakeUnit::Reply tooHigh{0x165800D, raised("0103", "Temperature is too high.", "0005")};
const FakeUnit::Reply fanFailed{0x165800D,
                                raised("0705", "Fan product number is K, Fan Position slot 2", "ffff")};
const FakeUnit::Reply fanCeased{0x165800E, ceased("0705", "ffff")};
const FakeUnit::Reply subscribed{0x165800B, references};
const FakeUnit::Reply auditCfm{0x1658401, references + "0000 0000"};

class FaultsTest : public BcictlTest {};

TEST_F(FaultsTest, theListIsWhatCameBeforeTheAuditWasAnswered)
{
    startUnit({{0x165800A, {subscribed, tooHigh, fanFailed}}, {0x1658400, {auditCfm}}});
    EXPECT_EQ(run({"faults"}), 0) << m_err.str();
    EXPECT_EQ(
        m_out.str(),
        "active 0x0103 EXCEPTIONAL_TEMPERATURE_TOO_HIGH, case 5, \"Temperature is too high.\", clientRef "
        "1, serverRef 301\n"
        "active 0x0705 FAN_FAILED, case 65535, \"Fan product number is K, Fan Position slot 2\", clientRef "
        "1, serverRef 301\n"
        "2 active faults\n");
    EXPECT_EQ(m_unit->received(0x165800A), "000000010000012d");
    EXPECT_EQ(m_unit->received(0x1658400), "000000010000012d");
}

TEST_F(FaultsTest, whatCeasesBeforeTheEndOfTheListIsNotInIt)
{
    startUnit({{0x165800A, {subscribed, tooHigh, fanFailed, fanCeased}}, {0x1658400, {auditCfm}}});
    EXPECT_EQ(run({"faults"}), 0) << m_err.str();
    EXPECT_THAT(m_out.str(), HasSubstr("active 0x0103"));
    EXPECT_THAT(m_out.str(), testing::EndsWith("\n1 active fault\n"));
}

TEST_F(FaultsTest, aFaultThatIsToldTwiceIsListedOnceAsItWasToldLast)
{
    const FakeUnit::Reply again{0x165800D, raised("0103", "Hot", "0006")};
    startUnit({{0x165800A, {subscribed, tooHigh, again}}, {0x1658400, {fanCeased, auditCfm}}});
    EXPECT_EQ(run({"faults"}), 0) << m_err.str();
    EXPECT_EQ(m_out.str(),
              "active 0x0103 EXCEPTIONAL_TEMPERATURE_TOO_HIGH, case 6, \"Hot\", clientRef 1, serverRef "
              "301\n1 active fault\n");
}

TEST_F(FaultsTest, noFaultsIsToldAndDone)
{
    startUnit({{0x165800A, {subscribed}}, {0x1658400, {auditCfm}}});
    EXPECT_EQ(run({"faults"}), 0) << m_err.str();
    EXPECT_EQ(m_out.str(), "no active faults\n");
    EXPECT_EQ(run({"faults", "-v"}), 0);
    EXPECT_EQ(m_out.str(),
              "TARN_BC_SUBSCRIBE_FAULTS_REQ -> TARN_BC_SUBSCRIBE_FAULTS_CFM: no active faults\n");
}

TEST_F(FaultsTest, aListThatIsNotCompleteIsNone)
{
    startUnit({{0x165800A, {subscribed, tooHigh}}});
    EXPECT_EQ(run({"faults", "--timeout", "0.3"}), 3);
    EXPECT_EQ(m_out.str(), "");
    EXPECT_EQ(m_err.str(), "bcictl: faults: no answer to TARN_BC_AUDIT_REQ within 0.3 s\n");
    m_unit.reset();
    startUnit({});
    EXPECT_EQ(run({"faults", "--timeout", "0.3"}), 3);
    EXPECT_EQ(m_err.str(), "bcictl: faults: no answer to TARN_BC_SUBSCRIBE_FAULTS_REQ within 0.3 s\n");
    EXPECT_EQ(m_unit->received(0x1658400), "") << "nothing was subscribed";
}

TEST_F(FaultsTest, jsonIsOneObjectALine)
{
    startUnit({{0x165800A, {subscribed, tooHigh}}, {0x1658400, {auditCfm}}});
    EXPECT_EQ(run({"faults", "--json"}), 0) << m_err.str();
    EXPECT_EQ(m_out.str(),
              R"({"event":"faultActive","faultId":259,"faultName":"EXCEPTIONAL_TEMPERATURE_TOO_HIGH",)"
              R"("faultCase":5,"faultDescription":"Temperature is too high.","clientRef":1,"serverRef":301})"
              "\n"
              R"({"command":"faults","status":"done","sent":"TARN_BC_SUBSCRIBE_FAULTS_REQ",)"
              R"("answer":"TARN_BC_SUBSCRIBE_FAULTS_CFM","clientRef":1,"serverRef":301,"active":1})"
              "\n");
}

TEST_F(FaultsTest, theOtherKindsAreConfirmedAndSaidToBeSilent)
{
    startUnit({{0x165A107, {{0x165A104, references}}}, {0x165A004, {{0x165A002, references}}}});
    const std::pair<const char*, std::uint32_t> rows[] = {{"hw-label", 0x165A107},
                                                          {"recovery-time", 0x165A004}};
    for (const auto& [kind, number] : rows) {
        EXPECT_EQ(run({"faults", "--kind", kind}), 0) << m_err.str();
        EXPECT_EQ(m_out.str(), "subscribed; the unit sends no faults for this kind of subscription\n");
        EXPECT_EQ(m_unit->received(number), "000000010000012d");
        EXPECT_EQ(run({"faults", "--kind", kind, "--json"}), 0);
        EXPECT_THAT(
            m_out.str(),
            HasSubstr("\"text\":\"subscribed; the unit sends no faults for this kind of subscription\""));
    }
    EXPECT_EQ(m_unit->received(0x165800A), "");
    EXPECT_EQ(run({"faults", "--kind", "default", "--timeout", "0.3"}), 3);
    EXPECT_EQ(m_unit->received(0x165800A), "000000010000012d");
}

TEST_F(FaultsTest, followTellsEachRaiseAndCeaseUntilTheUnitGoes)
{
    startUnit({{0x165800A, {subscribed, tooHigh, fanFailed, fanCeased, {FakeUnit::leave, ""}}}});
    EXPECT_EQ(run({"faults", "--follow"}), 4);
    EXPECT_THAT(
        m_out.str(),
        MatchesRegex(std::string("subscribed to faults\n") + time +
                     " raised 0x0103 EXCEPTIONAL_TEMPERATURE_TOO_HIGH, case 5, \"Temperature is too "
                     "high.\", clientRef 1, serverRef 301\n" +
                     time +
                     " raised 0x0705 FAN_FAILED, case 65535, \"Fan product number is K, Fan Position slot "
                     "2\", clientRef 1, serverRef 301\n" +
                     time + " ceased 0x0705 FAN_FAILED, case 65535, clientRef 1, serverRef 301\n"));
    EXPECT_EQ(m_err.str(), "bcictl: faults: the unit went away\n");
    EXPECT_EQ(m_unit->received(0x1658400), "") << "following needs no audit";
}

TEST_F(FaultsTest, followTellsThatOtherKindsAreSilentAndStays)
{
    startUnit({{0x165A107, {{0x165A104, references}, {FakeUnit::leave, ""}}}});
    EXPECT_EQ(run({"faults", "--follow", "--kind", "hw-label"}), 4);
    EXPECT_EQ(m_out.str(), "subscribed; the unit sends no faults for this kind of subscription\n");
}

TEST_F(FaultsTest, followAsJsonHasTheTime)
{
    startUnit({{0x165800A, {subscribed, tooHigh, fanCeased, {FakeUnit::leave, ""}}}});
    EXPECT_EQ(run({"faults", "--follow", "--json"}), 4);
    std::istringstream lines(m_out.str());
    std::vector<nlohmann::json> objects;
    for (std::string line; std::getline(lines, line);) {
        objects.push_back(nlohmann::json::parse(line, nullptr, false));
    }
    ASSERT_EQ(objects.size(), 4u) << m_out.str();
    EXPECT_EQ(objects[0].value("status", ""), "done");
    EXPECT_THAT(objects[1].value("time", ""), MatchesRegex(time));
    EXPECT_EQ(objects[1].value("event", ""), "faultRaised");
    EXPECT_EQ(objects[1].value("faultDescription", ""), "Temperature is too high.");
    EXPECT_EQ(objects[2].value("event", ""), "faultCeased");
    EXPECT_EQ(objects[2].value("faultId", 0), 0x705);
    EXPECT_FALSE(objects[2].contains("faultDescription"));
    EXPECT_EQ(objects[3].value("status", ""), "noUnit");
}

TEST_F(FaultsTest, anIndicationThatIsTooShortIsShownAsItIs)
{
    auto shortRaise = tooHigh;
    shortRaise.hex.resize(shortRaise.hex.size() - 2);
    auto shortCease = fanCeased;
    shortCease.hex.resize(shortCease.hex.size() - 2);
    startUnit({{0x165800A, {subscribed, shortRaise, shortCease, {FakeUnit::leave, ""}}}});
    EXPECT_EQ(run({"faults", "--follow"}), 4);
    EXPECT_THAT(m_out.str(),
                HasSubstr("indication TARN_BC_FAULT_IND, 143 bytes, clientRef 1, serverRef 301\n"));
    EXPECT_THAT(m_out.str(), HasSubstr("indication TARN_BC_FAULTCEASE_IND, 27 bytes, clientRef 1"));
}

TEST_F(FaultsTest, aTextThatFillsItsFieldOrSteersTheTerminalIsTamed)
{
    const FakeUnit::Reply full{0x165800D, raised("0101", std::string(109, 'x') + "\x1b", "0000")};
    const FakeUnit::Reply empty{0x165800D, raised("0999", "", "0000")};
    startUnit({{0x165800A, {subscribed, full, empty}}, {0x1658400, {auditCfm}}});
    EXPECT_EQ(run({"faults"}), 0);
    EXPECT_EQ(m_out.str(), "active 0x0101 HW_FAULT, case 0, \"" + std::string(109, 'x') +
                               "?\", clientRef 1, serverRef 301\n"
                               "active 0x0999 UNKNOWN_FAULT, case 0, clientRef 1, serverRef 301\n"
                               "2 active faults\n");
}

TEST(FaultNameTest, eachFaultOfTheUnitHasItsName)
{
    const std::pair<std::uint16_t, const char*> rows[] = {{0x0101, "HW_FAULT"},
                                                          {0x0103, "EXCEPTIONAL_TEMPERATURE_TOO_HIGH"},
                                                          {0x0104, "EXCEPTIONAL_TEMPERATURE_TOO_LOW"},
                                                          {0x0108, "POWER_FAILURE"},
                                                          {0x0300, "HWF_FOR_EVALUATION"},
                                                          {0x0301, "SW_ERROR"},
                                                          {0x0302, "LINK_ERROR"},
                                                          {0x0704, "FAN_DEGRADED"},
                                                          {0x0705, "FAN_FAILED"},
                                                          {0x0706, "FAN_DISCONNECTED"},
                                                          {0x0502, "UNKNOWN_FAULT"},
                                                          {0x0000, "UNKNOWN_FAULT"}};
    for (const auto& [id, name] : rows) {
        EXPECT_EQ(faultName(id), name);
    }
}

class FaultsInSessionTest : public SessionTest {};

TEST_F(FaultsInSessionTest, faultsAreToldAsTheyCome)
{
    startUnit({{0x165800A, {subscribed, tooHigh}},
               {0x1658400, {fanFailed, auditCfm, fanCeased}},
               {0x1658403, {{0x1658404, references}}}});
    EXPECT_EQ(session("audit\naudit\nenable\nquit\n"), tools::ExitStatus::done);
    EXPECT_THAT(m_out.str(),
                MatchesRegex(std::string() + time + " raised 0x0705 [^\n]*\nstate [^\n]*\n" + time +
                             " ceased 0x0705 [^\n]*\n" + time + " raised 0x0705 [^\n]*\nstate [^\n]*\n" +
                             time + " ceased 0x0705 [^\n]*\noperation enabled\n"));
}

TEST_F(FaultsInSessionTest, theListIsCompleteAndWhatComesLaterIsToldAgain)
{
    startUnit({{0x165800A, {subscribed, tooHigh, {0x7000005, references}}},
               {0x1658400, {auditCfm}},
               {0x1658403, {fanFailed, {0x1658404, references}}}});
    EXPECT_EQ(session("faults\nenable\n"), tools::ExitStatus::done);
    EXPECT_THAT(m_out.str(), MatchesRegex(std::string("indication 0x7000005, [^\n]*\n"
                                                      "active 0x0103 [^\n]*\n"
                                                      "1 active fault\n") +
                                          time + " raised 0x0705 [^\n]*\noperation enabled\n"));
}

TEST_F(FaultsInSessionTest, followDoesNotHoldTheSession)
{
    startUnit({{0x165800A, {subscribed, tooHigh}},
               {0x1658400, {auditCfm}},
               {0x165A107, {{0x165A104, references}}}});
    EXPECT_EQ(session("faults --follow\naudit\nfaults --follow --kind hw-label\n"), tools::ExitStatus::done);
    EXPECT_THAT(m_out.str(),
                MatchesRegex(std::string("subscribed to faults\n") + time +
                             " raised 0x0103 [^\n]*\nstate STARTING [^\n]*\nsubscribed; [^\n]*\n"));
}

} // namespace
} // namespace merlow::bcictl
