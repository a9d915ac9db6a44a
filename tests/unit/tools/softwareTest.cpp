// bcictl's commands on the software store against a unit with fixed answers.

#include "bcictlFixture.h"

namespace merlow::bcictl {
namespace {

using testing::HasSubstr;

const std::string granted = references + "0001 0000";
const FakeUnit::Answers storeIsFree{{0x1659800, {{0x1659801, granted}}}, {0x1659803, {{0x1659804, granted}}}};

FakeUnit::Answers withStore(FakeUnit::Answers answers)
{
    answers.insert(storeIsFree.begin(), storeIsFree.end());
    return answers;
}

/// A reject's code 1 and text, behind the references.
std::string rejection(const std::string& text, const std::string& inFront = "")
{
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    return references + inFront + "0001 0000" + padded(tools::toHex({bytes, text.size()}), 112);
}

/// A piece of the list with three bytes behind that nobody reads.
FakeUnit::Reply piece(const std::string& end, const std::string& text)
{
    char length[9];
    (void)std::snprintf(length, sizeof(length), "%08zx", text.size());
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    return {0x1658811, references + end + length + tools::toHex({bytes, text.size()}) + "eeeeee"};
}

class SoftwareTest : public BcictlTest {};

TEST_F(SoftwareTest, runningIsWhatTheUnitSays)
{
    startUnit({{0x1658813, {{0x1658814, references + padded("515852372531 355f523931 00 ff", 36)}}}});
    EXPECT_EQ(run({"running"}), 0) << m_err.str();
    EXPECT_EQ(m_out.str(), "running QXR7%15_R91\n");
    EXPECT_EQ(m_unit->received(0x1658813), "000000010000012d");
    EXPECT_EQ(run({"running", "--json"}), 0);
    EXPECT_THAT(m_out.str(), HasSubstr(R"("runningSoftware":"QXR7%15_R91")"));
}

TEST_F(SoftwareTest, runningIsRefused)
{
    startUnit({{0x1658813, {{0x1658815, rejection("Not found")}}}});
    EXPECT_EQ(run({"running"}), 1);
    EXPECT_EQ(m_err.str(), "bcictl: running: rejected, errorCode 1: Not found\n");
}

TEST_F(SoftwareTest, selectAcquiresSelectsAndReleases)
{
    startUnit(withStore({{0x165880B, {{0x165880C, references}}}}));
    EXPECT_EQ(run({"select", "QXR7/15_R91"}), 0) << m_err.str();
    EXPECT_EQ(m_out.str(), "QXR7/15_R91 runs from the next restart on\n");
    EXPECT_EQ(m_unit->received(0x1659800), "000000010000012d00010000");
    EXPECT_EQ(m_unit->received(0x165880B), "000000010000012d"
                                           "515852372f31355f52393100");
    EXPECT_EQ(m_unit->received(0x1659803), "000000010000012d00010000");
}

TEST_F(SoftwareTest, eachRefusalNamesItsStepAndWhatWasTakenIsGivenBack)
{
    const FakeUnit::Reply refusedSelection{0x165880D, rejection("ABN: Resource not acquired")};
    startUnit(withStore({{0x165880B, {refusedSelection}}}));
    EXPECT_EQ(run({"select", "A_B"}), 1);
    EXPECT_EQ(m_err.str(), "bcictl: select: selecting: rejected, errorCode 1: ABN: Resource not acquired\n");
    EXPECT_EQ(m_unit->received(0x1659803), "000000010000012d00010000");
    m_unit.reset();

    const FakeUnit::Reply taken{0x1659802,
                                rejection("acquire resource already requested by this client", "0001ffff")};
    startUnit({{0x1659800, {taken}}});
    EXPECT_EQ(run({"select", "A_B"}), 1);
    EXPECT_EQ(m_err.str(),
              "bcictl: select: acquiring the store: rejected, errorCode 1: acquire resource already "
              "requested by this client\n");
    EXPECT_EQ(m_unit->received(0x165880B), "");
    EXPECT_EQ(m_unit->received(0x1659803), "");
    m_unit.reset();

    const FakeUnit::Reply notReleased{0x1659805, rejection("unknown resource", "0001ffff")};
    startUnit({{0x1659800, {{0x1659801, granted}}},
               {0x165880B, {{0x165880C, references}}},
               {0x1659803, {notReleased}}});
    EXPECT_EQ(run({"select", "A_B"}), 1);
    EXPECT_EQ(m_err.str(), "bcictl: select: releasing the store: rejected, errorCode 1: unknown resource\n");
}

TEST_F(SoftwareTest, aStoreThatIsNotGrantedInTimeIsGivenBack)
{
    startUnit({{0x1659803, {{0x1659804, granted}}}});
    EXPECT_EQ(run({"acquire", "--timeout", "0.2"}), 3);
    EXPECT_EQ(m_err.str(),
              "bcictl: acquire: acquiring the store: no answer to TARN_BC_ACQUIRE_RESOURCE_REQ within "
              "0.2 s; another client may hold it, --timeout says how long to wait\n");
    EXPECT_EQ(m_unit->received(0x1659803), "000000010000012d00010000");
}

TEST_F(SoftwareTest, componentsAreCollectedAndEachPieceAcknowledged)
{
    startUnit(withStore({{0x165880E, {{0x165880F, references}, piece("00000000", "<LmcList>\n")}},
                         {0x1658812, {piece("00000001", "\x1b[2J\xC2\x9B\x32J\t</LmcList>\n")}}}));
    EXPECT_EQ(run({"components"}), 0) << m_err.str();
    EXPECT_EQ(m_out.str(), "<LmcList>\n?[2J??2J\t</LmcList>\n") << "a byte above 0x7f steers some terminals";
    EXPECT_EQ(m_unit->received(0x1658812), "000000010000012d00000000");
    m_unit.reset();
    startUnit(withStore({{0x165880E, {{0x165880F, references}, piece("00000001", "<a>\n")}}}));
    EXPECT_EQ(run({"components", "--json"}), 0) << m_err.str();
    EXPECT_THAT(m_out.str(), HasSubstr(R"("list":"<a>\n")"));
    EXPECT_EQ(m_unit->received(0x1658812), "000000010000012d00000000") << "the last one too";
}

TEST_F(SoftwareTest, aListThatEndsInTheMiddleIsShownAsFarAsItCame)
{
    startUnit(withStore({{0x165880E, {{0x165880F, references}, piece("00000000", "<LmcList>\n")}}}));
    EXPECT_EQ(run({"components", "--timeout", "0.2"}), 3);
    EXPECT_EQ(m_out.str(), "<LmcList>\n");
    EXPECT_EQ(m_err.str(),
              "bcictl: components: reading the list: no answer to TARN_BC_SW_COMP_LIST_ACK within 0.2 s\n");
    EXPECT_EQ(m_unit->received(0x1658812), "000000010000012d00000001") << "and is given up";
}

TEST_F(SoftwareTest, aPieceThatLiesAboutItsLengthIsNone)
{
    startUnit(withStore(
        {{0x165880E, {{0x165880F, references}, {0x1658811, references + "00000001 00000004 414243"}}}}));
    EXPECT_EQ(run({"components"}), 3);
    EXPECT_EQ(m_out.str(), "");
    EXPECT_EQ(m_err.str(), "bcictl: components: reading the list: a piece is longer than its signal\n");
    EXPECT_EQ(m_unit->received(0x1658812), "000000010000012d00000001");
}

TEST_F(SoftwareTest, aListThatIsNotConfirmedIsGivenUpAndOneThatIsRefusedIsNot)
{
    startUnit(withStore({{0x165880E, {{0x165880F, ""}}}}));
    EXPECT_EQ(run({"components", "--timeout", "0.2"}), 3);
    EXPECT_EQ(m_unit->received(0x1658812), "000000010000012d00000001");
    m_unit.reset();
    startUnit(withStore({{0x165880E, {{0x1658810, rejection("ABN: Read error")}}}}));
    EXPECT_EQ(run({"components", "--json"}), 1);
    EXPECT_EQ(m_out.str(),
              R"({"command":"components","status":"rejected","sent":"TARN_BC_SW_COMP_LIST_REQ",)"
              R"("answer":"TARN_BC_SW_COMP_LIST_REJ","error":"asking for the list: rejected","errorCode":1,)"
              R"("errorDescription":"ABN: Read error"})"
              "\n")
        << "the step is named for programs too";
    EXPECT_EQ(m_unit->received(0x1658812), "");
}

TEST_F(SoftwareTest, acquireHoldsUntilTheUnitGoes)
{
    startUnit({{0x1659800, {{0x1659801, granted}, {FakeUnit::leave, ""}}}});
    EXPECT_EQ(run({"acquire"}), 4);
    EXPECT_EQ(m_out.str(), "store acquired; it is held until this program ends\n");
    EXPECT_EQ(m_err.str(), "bcictl: acquire: the unit went away\n");
}

TEST_F(SoftwareTest, whoCannotTellWhatComesDoesNotStay)
{
    startUnit(storeIsFree);
    m_out.setstate(std::ios::badbit);
    EXPECT_EQ(run({"acquire"}), 0);
    EXPECT_EQ(m_err.str(), "");
}

TEST_F(SoftwareTest, releaseIsForSessions)
{
    startUnit(storeIsFree);
    EXPECT_EQ(run({"release"}), 2);
    EXPECT_EQ(m_unit->received(0x1659803), "");
}

using SoftwareSessionTest = SessionTest;

TEST_F(SoftwareSessionTest, whatASessionHoldsItsCommandsUseAndLeave)
{
    startUnit(withStore({{0x165880B, {{0x165880C, references}}}}));
    EXPECT_EQ(session("acquire\nselect A_B\n"), tools::ExitStatus::done);
    EXPECT_EQ(m_out.str(), "store acquired\nA_B runs from the next restart on\n");
    EXPECT_EQ(m_unit->received(0x1659803), "") << "select gave the store back";
    m_out.str("");
    EXPECT_EQ(session("acquire\nacquire\nrelease\nselect A_B\n"), tools::ExitStatus::done);
    EXPECT_EQ(m_out.str(), "store acquired\nstore released\nA_B runs from the next restart on\n");
    EXPECT_EQ(m_err.str(), "bcictl: the store is held already\n");
    EXPECT_EQ(m_unit->received(0x1659803), "000000010000012d00010000");
}

} // namespace
} // namespace merlow::bcictl
