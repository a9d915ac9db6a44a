// bcictl's maintenance state, lamps and Here I Am against a unit with fixed answers: signals as bytes, what
// is told as text.

#include "bcictlFixture.h"
#include "rowTest.h"

#include "mmiStates.h"

#include <nlohmann/json.hpp>

namespace merlow::bcictl {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

const char* const mmiTime = "20[0-9][0-9]-[0-1][0-9]-[0-3][0-9]T[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{3}Z";

/// A reject's code and text, behind the references.
std::string mmiRejection(const std::string& code, const std::string& text)
{
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    return references + code + "0000" + padded(tools::toHex({bytes, text.size()}), 112);
}

/// A signal that goes out once and the confirm that comes back, behind their numbers.
struct MmiRow {
    const char* name;
    std::vector<const char*> words;
    std::uint32_t request;
    std::string sent;
    FakeUnit::Reply confirm;
    std::uint32_t reject;
    std::string text;
    std::string json; ///< what follows the references
};

const std::string faultRecord =
    padded("537570706f727420556e6974204661756c7420496e64696361746f72 00 eeeeee", 128) + "0004 eeee";

const MmiRow mmiRows[] = {
    {"maintSetByName",
     {"maint", "set", "requested"},
     0x1658019,
     "000000010000012d00000002",
     {0x165801A, references},
     0x165801B,
     "maintenance state set to requested (2)\n",
     R"("maintState":2,"maintStateName":"requested"})"},
    {"maintSetByNumber",
     {"maint", "set", "4294967295"},
     0x1658019,
     "000000010000012dffffffff",
     {0x165801A, references},
     0x165801B,
     "maintenance state set to unknown (4294967295)\n",
     R"("maintState":4294967295,"maintStateName":"unknown"})"},
    {"maintSetToWhatIsOnlyTold",
     {"maint", "set", "serviceman"},
     0x1658019,
     "000000010000012d00000001",
     {0x165801A, references},
     0x165801B,
     "maintenance state set to serviceman (1)\n",
     R"("maintState":1,"maintStateName":"serviceman"})"},
    {"ledSetByName",
     {"led", "set", "group3-red-flashing"},
     0x1658004,
     "000000010000012d0332",
     {0x1658005, references},
     0x1658006,
     "set to group3-red-flashing (0x0332)\n",
     R"("visualizedState":818,"visualizedStateName":"group3-red-flashing"})"},
    {"ledSetByNumber",
     {"led", "set", "0x0110"},
     0x1658004,
     "000000010000012d0110",
     {0x1658005, references},
     0x1658006,
     "set to group1-green (0x0110)\n",
     R"("visualizedState":272,"visualizedStateName":"group1-green"})"},
    {"ledGet",
     {"led", "get"},
     0x165800F,
     "000000010000012d",
     {0x1658010, references + "0411 0120 0004 0313"},
     0x1658011,
     "group 1 group1-yellow (0x0120), group 3 group3-green-flickering (0x0313), group 4 group4-green "
     "(0x0411), support unit fault (0x0004)\n",
     R"("group1State":288,"group1StateName":"group1-yellow","group3State":787,)"
     R"("group3StateName":"group3-green-flickering","group4State":1041,"group4StateName":"group4-green",)"
     R"("supportUnitFaultState":4,"supportUnitFaultStateName":"fault"})"},
    {"ledGetOfStatesThatNobodyKnows",
     {"led", "get"},
     0x165800F,
     "000000010000012d",
     {0x1658010, references + "00ff 00ff 00ff 0001"},
     0x1658011,
     "group 1 unknown (0x00ff), group 3 unknown (0x0001), group 4 unknown (0x00ff), support unit "
     "unknown (0x00ff)\n",
     R"("supportUnitFaultState":255,"supportUnitFaultStateName":"unknown"})"},
    {"noIndicators",
     {"indicators"},
     0x1659A00,
     "000000010000012d",
     {0x1659A01, references + "00000000"},
     0x1659A02,
     "no special indicators\n",
     R"("indicators":[]})"},
    {"oneIndicator",
     {"indicators"},
     0x1659A00,
     "000000010000012d",
     {0x1659A01, references + "00000001" + faultRecord},
     0x1659A02,
     "1 special indicator\n  Support Unit Fault Indicator: fault (4)\n",
     R"("indicators":[{"name":"Support Unit Fault Indicator","state":4,"stateName":"fault"}]})"},
    {"twoIndicators",
     {"indicators"},
     0x1659A00,
     "000000010000012d",
     {0x1659A01, references + "00000002" + faultRecord + padded("1b41", 128) + "0001 0000"},
     0x1659A02,
     "2 special indicators\n  Support Unit Fault Indicator: fault (4)\n  ?A: no-fault (1)\n",
     R"({"name":"?A","state":1,"stateName":"no-fault"}]})"},
};

class MmiCommandTest : public BcictlTest, public WithRow<MmiRow> {};

ROW_TEST(MmiCommandTest, sendsAndTells)
{
    startUnit({{row().request, {row().confirm}}});
    EXPECT_EQ(run(row().words), 0) << m_err.str();
    EXPECT_EQ(m_out.str(), row().text);
    EXPECT_EQ(m_unit->received(row().request), row().sent);
    auto words = row().words;
    words.push_back("--json");
    EXPECT_EQ(run(words), 0) << m_err.str();
    EXPECT_THAT(m_out.str(), HasSubstr(R"("status":"done","sent":"TARN_BC_)"));
    EXPECT_THAT(m_out.str(), HasSubstr(R"("clientRef":1,"serverRef":301,)"));
    EXPECT_THAT(m_out.str(), testing::EndsWith(row().json + "\n"));
}

ROW_TEST(MmiCommandTest, aRejectIsToldWithItsText)
{
    startUnit({{row().request, {{row().reject, mmiRejection("0002", "no")}}}});
    EXPECT_EQ(run(row().words), 1);
    EXPECT_EQ(m_err.str(), std::string("bcictl: ") + row().words.front() + ": rejected, errorCode 2: no\n");
    EXPECT_EQ(m_out.str(), "");
}

ROW_TEST(MmiCommandTest, aShortConfirmIsNone)
{
    auto confirm = row().confirm;
    confirm.hex.resize(confirm.hex.size() - 2);
    startUnit({{row().request, {confirm}}});
    auto words = row().words;
    words.insert(words.end(), {"--timeout", "0.2"});
    EXPECT_EQ(run(words), 3);
    EXPECT_NE(m_err.str(), "");
    EXPECT_EQ(m_out.str(), "");
}

TEST_ROWS(all, MmiCommandTest, mmiRows);

class MmiStatesTest : public BcictlTest {};

TEST_F(MmiStatesTest, aListThatAnnouncesMoreThanItHoldsIsNone)
{
    startUnit({{0x1659A00, {{0x1659A01, references + "ffffffff" + faultRecord}}}});
    EXPECT_EQ(run({"indicators"}), 3);
    EXPECT_EQ(m_err.str(), "bcictl: indicators: the unit's list of indicators is longer than its signal\n");
}

const FakeUnit::Reply maintSubscribed{0x1658016, references};
const FakeUnit::Reply hereSubscribed{0x165A405, references};

/// States that the unit tells; reserved bytes hold rubbish.
FakeUnit::Reply maintIs(const std::string& state)
{
    return {0x1658018, references + state};
}

FakeUnit::Reply hereIAmIs(const std::string& state)
{
    return {0x165A407, references + state + "eeee"};
}

TEST_F(MmiStatesTest, followTellsEachMaintenanceStateUntilTheUnitGoes)
{
    startUnit({{0x1658015,
                {maintSubscribed,
                 maintIs("00000000"),
                 maintIs("00000001"),
                 maintIs("00000002"),
                 maintIs("00000003"),
                 maintIs("00000004"),
                 maintIs("00000005"),
                 {FakeUnit::leave, ""}}}});
    EXPECT_EQ(run({"maint", "follow"}), 4);
    std::string expected = "subscribed to the maintenance state\n";
    for (const char* state : {"normal \\(0\\)", "serviceman \\(1\\)", "requested \\(2\\)", "ongoing \\(3\\)",
                              "done \\(4\\)", "unknown \\(5\\)"}) {
        expected += std::string(mmiTime) + " maintenance state " + state + ", clientRef 1, serverRef 301\n";
    }
    EXPECT_THAT(m_out.str(), MatchesRegex(expected));
    EXPECT_EQ(m_err.str(), "bcictl: maint: the unit went away\n");
    EXPECT_EQ(m_unit->received(0x1658015), "000000010000012d");
}

TEST_F(MmiStatesTest, followTellsEachStateOfHereIAmUntilTheUnitGoes)
{
    startUnit(
        {{0x165A404,
          {hereSubscribed, hereIAmIs("0001"), hereIAmIs("0002"), hereIAmIs("0003"), {FakeUnit::leave, ""}}}});
    EXPECT_EQ(run({"hereiam", "follow"}), 4);
    EXPECT_THAT(m_out.str(), MatchesRegex(std::string("subscribed to Here I Am\n") + mmiTime +
                                          " Here I Am on \\(1\\), clientRef 1, serverRef 301\n" + mmiTime +
                                          " Here I Am off \\(2\\), clientRef 1, serverRef 301\n" + mmiTime +
                                          " Here I Am unknown \\(3\\), clientRef 1, serverRef 301\n"));
    EXPECT_EQ(m_unit->received(0x165A404), "000000010000012d");
    EXPECT_EQ(m_unit->received(0x165A401), "") << "following orders nothing";
}

TEST_F(MmiStatesTest, followAsJsonHasTheTime)
{
    startUnit(
        {{0x1658015, {maintSubscribed, maintIs("00000002"), hereIAmIs("0001"), {FakeUnit::leave, ""}}}});
    EXPECT_EQ(run({"maint", "follow", "--json"}), 4);
    std::istringstream lines(m_out.str());
    std::vector<nlohmann::json> objects;
    for (std::string line; std::getline(lines, line);) {
        objects.push_back(nlohmann::json::parse(line, nullptr, false));
    }
    ASSERT_EQ(objects.size(), 4u) << m_out.str();
    EXPECT_EQ(objects[0].value("status", ""), "done");
    EXPECT_THAT(objects[1].value("time", ""), MatchesRegex(mmiTime));
    objects[1].erase("time");
    EXPECT_EQ(objects[1], nlohmann::json::parse(R"({"event": "maintState", "maintState": 2,
        "maintStateName": "requested", "clientRef": 1, "serverRef": 301})"));
    objects[2].erase("time");
    EXPECT_EQ(objects[2], nlohmann::json::parse(R"({"event": "hereIAmState", "state": 1, "stateName": "on",
        "clientRef": 1, "serverRef": 301})"));
    EXPECT_EQ(objects[3].value("status", ""), "noUnit");
}

TEST_F(MmiStatesTest, anIndicationThatIsTooShortIsShownAsItIs)
{
    auto shortMaint = maintIs("00000002");
    shortMaint.hex.resize(shortMaint.hex.size() - 2);
    auto shortHere = hereIAmIs("0001");
    shortHere.hex.resize(shortHere.hex.size() - 2);
    startUnit({{0x1658015, {maintSubscribed, shortMaint, shortHere, {FakeUnit::leave, ""}}}});
    EXPECT_EQ(run({"maint", "follow"}), 4);
    EXPECT_THAT(m_out.str(), HasSubstr("indication TARN_BC_SET_MAINT_STATE_IND, 15 bytes, clientRef 1"));
    EXPECT_THAT(m_out.str(), HasSubstr("indication TARN_BC_HERE_I_AM_STATE_IND, 15 bytes, clientRef 1"));
}

TEST_F(MmiStatesTest, aRefusedSubscriptionIsTheEnd)
{
    startUnit({{0x1658015, {{0x1658017, mmiRejection("0001", "not now")}}},
               {0x165A404, {{0x165A406, mmiRejection("0001", "nor here")}}}});
    EXPECT_EQ(run({"maint", "follow"}), 1);
    EXPECT_EQ(m_err.str(), "bcictl: maint: rejected, errorCode 1: not now\n");
    for (const char* order : {"on", "off", "follow"}) {
        EXPECT_EQ(run({"hereiam", order}), 1);
        EXPECT_EQ(m_err.str(), "bcictl: hereiam: rejected, errorCode 1: nor here\n");
    }
    EXPECT_EQ(m_unit->received(0x165A401), "");
}

TEST_F(MmiStatesTest, anOrderComesBehindASubscription)
{
    const FakeUnit::Reply confirm{0x165A402, references + "0001 eeee" + padded("6f6e1b 00", 128)};
    startUnit({{0x165A404, {hereSubscribed, hereIAmIs("0002")}}, {0x165A401, {confirm, hereIAmIs("0001")}}});
    EXPECT_EQ(run({"hereiam", "on"}), 0) << m_err.str();
    EXPECT_EQ(m_out.str(), "Here I Am on (1), \"on?\"\n");
    EXPECT_EQ(m_unit->received(0x165A404), "000000010000012d");
    EXPECT_EQ(m_unit->received(0x165A401), "000000010000012d0001");
    EXPECT_EQ(run({"hereiam", "off", "--json"}), 0);
    EXPECT_EQ(m_out.str(), R"({"command":"hereiam","status":"done","sent":"TARN_BC_ORDE_HERE_I_AM_REQ",)"
                           R"("answer":"TARN_BC_ORDE_HERE_I_AM_CFM","clientRef":1,"serverRef":301,"state":1,)"
                           R"("stateName":"on","text":"on?"})"
                           "\n");
    EXPECT_EQ(m_unit->received(0x165A401), "000000010000012d0002");
}

TEST_F(MmiStatesTest, anOrderThatSaysNothingMoreIsToldWithoutAText)
{
    startUnit({{0x165A404, {hereSubscribed}}, {0x165A401, {{0x165A402, padded(references + "0002", 140)}}}});
    EXPECT_EQ(run({"hereiam", "off"}), 0) << m_err.str();
    EXPECT_EQ(m_out.str(), "Here I Am off (2)\n");
}

TEST_F(MmiStatesTest, aRefusedOrderIsTold)
{
    startUnit({{0x165A404, {hereSubscribed}}, {0x165A401, {{0x165A403, mmiRejection("0001", "see logs")}}}});
    EXPECT_EQ(run({"hereiam", "on"}), 1);
    EXPECT_EQ(m_err.str(), "bcictl: hereiam: rejected, errorCode 1: see logs\n");
}

TEST_F(MmiStatesTest, namesAndNumbersThatDoNotExistAreWrongUsage)
{
    startUnit({});
    EXPECT_EQ(run({"maint", "set", "broken"}), 2);
    EXPECT_THAT(m_err.str(), HasSubstr("bcictl: maint: STATE: neither a number from 0 to 4294967295 nor one "
                                       "of normal, serviceman, requested, ongoing, done: broken\n"));
    EXPECT_EQ(run({"led", "set", "65536"}), 2);
    EXPECT_THAT(m_err.str(), HasSubstr("bcictl: led: STATE: neither a number from 0 to 65535 nor one of "
                                       "group0-off, "));
    EXPECT_EQ(m_unit->received(0x1658000), "");
}

TEST(StateNameTest, eachStateIsFoundByItsName)
{
    for (const auto states : {maintStates, ledStates, faultIndicatorStates, hereIAmStates}) {
        for (const StateName& state : states) {
            EXPECT_EQ(stateValue(states, state.name, 0xFFFF), state.value);
            EXPECT_EQ(stateName(states, state.value), state.name);
        }
    }
    EXPECT_EQ(ledStates.size(), 22u);
    EXPECT_EQ(stateValue(ledStates, "0x10", 0xFFFF), 0x10u);
    EXPECT_EQ(stateValue(ledStates, "0x10000", 0xFFFF), std::nullopt);
    EXPECT_EQ(stateValue(ledStates, "", 0xFFFF), std::nullopt);
}

class MmiSessionTest : public SessionTest {};

TEST_F(MmiSessionTest, asksToBeToldOfHereIAmOnceAndTellsWhatComes)
{
    const FakeUnit::Reply confirm{0x165A402, padded(references + "0001", 140)};
    startUnit({{0x165A404, {hereSubscribed, hereIAmIs("0002")}},
               {0x165A401, {confirm, hereIAmIs("0001")}},
               {0x1658015, {maintSubscribed, maintIs("00000000")}},
               {0x1658400, {{0x1658401, references + "0000 0000"}}}});
    EXPECT_EQ(session("hereiam on\nhereiam on\nmaint follow\naudit\n"), tools::ExitStatus::done)
        << m_err.str();
    EXPECT_THAT(m_out.str(),
                MatchesRegex(std::string() + mmiTime + " Here I Am off [^\n]*\n" + "Here I Am on \\(1\\)\n" +
                             mmiTime + " Here I Am on [^\n]*\n" + "Here I Am on \\(1\\)\n" + mmiTime +
                             " Here I Am on [^\n]*\n" + "subscribed to the maintenance state\n" + mmiTime +
                             " maintenance state normal [^\n]*\nstate STARTING [^\n]*\n"));
}

} // namespace
} // namespace merlow::bcictl
