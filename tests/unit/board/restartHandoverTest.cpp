#include "restartHandover.h"
#include "fakeStateStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace merlow::board::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class RestartHandoverTest : public testing::Test {
protected:
    /// What a new process is told to run, as text; empty for nothing.
    std::string start()
    {
        m_said.clear();
        RestartHandover handover(m_given, m_served);
        const auto software = handover.begin(m_said);
        handover.settled(m_said);
        return software ? toText(*software) : "";
    }

    void give(const std::string& module, std::int64_t time = 1)
    {
        EXPECT_EQ(saveRestartOrder(m_given, {1, 2, "label", module, "client 7", time}), "");
    }

    FakeStateStore m_given;
    FakeStateStore m_served;
    std::vector<std::string> m_said;
};

TEST_F(RestartHandoverTest, withoutAnOrderWhatRanLastRuns)
{
    EXPECT_EQ(start(), "");
    EXPECT_THAT(m_said, IsEmpty());
    EXPECT_EQ(m_served.saves, 0);
}

TEST_F(RestartHandoverTest, anOrderCountsAtOneStart)
{
    give("QXR2/7_R2B");
    EXPECT_EQ(start(), "QXR2/7_R2B");
    EXPECT_THAT(m_said, ElementsAre("a restart was ordered by client 7, to run QXR2/7_R2B"));
    EXPECT_EQ(start(), "");
    EXPECT_THAT(m_said, IsEmpty());
    give("QXR2/7_R2B", 2);
    EXPECT_EQ(start(), "QXR2/7_R2B") << "a new one for the same module";
}

TEST_F(RestartHandoverTest, anOrderWhoseStartDiesCountsAgain)
{
    give("QXR2/7_R2B");
    EXPECT_TRUE(RestartHandover(m_given, m_served).begin(m_said));
    EXPECT_EQ(start(), "QXR2/7_R2B");
}

TEST_F(RestartHandoverTest, percentSignsStandForSlashes)
{
    give("QXR2%7_R2B");
    EXPECT_EQ(start(), "QXR2/7_R2B");
}

TEST_F(RestartHandoverTest, anOrderWithoutAModuleChangesNothing)
{
    give("");
    EXPECT_EQ(start(), "");
    EXPECT_THAT(m_said, ElementsAre("a restart was ordered by client 7, with no load module"));
    give("\x1b[2J no module");
    EXPECT_EQ(start(), "");
    EXPECT_THAT(m_said,
                ElementsAre("a restart was ordered by client 7, with a text that names no load module"));
}

TEST_F(RestartHandoverTest, filesThatCannotBeUsedAreTold)
{
    m_given.loadError = "Input/output error";
    EXPECT_EQ(start(), "");
    EXPECT_THAT(m_said, ElementsAre("the restart order in the store cannot be read: Input/output error"));
    m_given.loadError.clear();
    give("QXR1_R1A");
    m_served.loadError = "Input/output error";
    m_served.saveError = "No space left on device";
    EXPECT_EQ(start(), "QXR1_R1A");
    EXPECT_THAT(m_said, ElementsAre("a restart was ordered by client 7, to run QXR1_R1A",
                                    "the order counts again at the next start: the store: No space left on "
                                    "device"));
}

} // namespace
} // namespace merlow::board::test
