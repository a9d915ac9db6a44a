#include "briActiveFault.h"
#include "briCurrentFaults.h"
#include "tracepointLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

namespace {

using MerlowTracepoints::Event;
using testing::ElementsAre;
using testing::IsEmpty;

BriActiveFault fault(std::uint16_t iwdFaultId, unsigned int faultCase = 0, unsigned int briFaultId = 0)
{
    return BriActiveFault({"NAME", iwdFaultId, BriFaultDescTag::None}, briFaultId, faultCase);
}

std::string text(BriFaultReportState state)
{
    std::ostringstream out;
    out << std::hex << state;
    return out.str();
}

} // namespace

TEST(BriActiveFaultTest, startsPendingWithoutADescription)
{
    const BriActiveFault active({"EXTERNAL_FAN_FAILED", 0x0705, BriFaultDescTag::FanFailed}, 7, 70000);
    EXPECT_EQ(active.getBriFaultId(), 7U);
    EXPECT_EQ(active.getBriFaultIdString(), "EXTERNAL_FAN_FAILED");
    EXPECT_EQ(active.getFaultCase(), 70000U);
    EXPECT_EQ(active.getIwdFaultId(), 0x0705);
    EXPECT_EQ(active.getFaultState(), BriFaultReportState::Pending);
    EXPECT_EQ(active.getFaultDescription(), "");
    EXPECT_FALSE(active.isMarkedDelete());
    EXPECT_EQ(active.traceFault(), "BriFaultId = EXTERNAL_FAN_FAILED, faultId = 0x705, faultCase = 70000");
}

TEST(BriActiveFaultTest, hasThePriorityOfItsId)
{
    const std::pair<std::uint16_t, int> rows[] = {
        {0x0704, 0x0001}, {0x0705, 0x0001}, {0x0706, 0x0001}, {0x0108, 0x0001}, {0x0103, 0x1A00},
        {0x0104, 0x1A00}, {0x0101, 0x1A01}, {0x0300, 0x1A01}, {0x0502, 0},      {0xFFFF, 0},
    };
    for (const auto& [id, priority] : rows) {
        EXPECT_EQ(fault(id).getPriority(), priority) << id;
        EXPECT_EQ(fault(id).isHiding(), priority >= 0x1A00) << id;
    }
}

TEST(BriActiveFaultTest, describesItselfByTheGivenTextItsTagOrItsName)
{
    const char* const texts[] = {"NAME",
                                 "Temperature is too high.",
                                 "Temperature is too low.",
                                 "RU External Fan Degraded",
                                 "RU External Fan Disconnected",
                                 "RU External Fan Failed",
                                 "External power supply fault",
                                 "LTU Fault",
                                 "Initialization failure",
                                 "Internal DC fault"};
    for (std::uint32_t tag = 0; tag < std::size(texts); ++tag) {
        BriActiveFault active({"NAME", 0x0101, static_cast<BriFaultDescTag>(tag)}, 0, 0);
        active.setFaultDescription("");
        EXPECT_EQ(active.getFaultDescription(), texts[tag]);
        active.setFaultDescription("given");
        EXPECT_EQ(active.getFaultDescription(), "given");
    }
}

TEST(BriActiveFaultTest, aTagWithoutATextIsTraced)
{
    const support::TracepointLog log;
    BriActiveFault active({"NAME", 0x0101, static_cast<BriFaultDescTag>(10)}, 0, 0);
    active.setFaultDescription("");
    EXPECT_EQ(active.getFaultDescription(), "");
    EXPECT_THAT(log.texts(Event::Error),
                ElementsAre("fault description text not found for briFaultId:NAME, faultDescTag:10"));
}

TEST(BriActiveFaultTest, aStatePrintsItsNameOrItsNumberInDecimal)
{
    EXPECT_EQ(text(BriFaultReportState::Pending), "PENDING");
    EXPECT_EQ(text(BriFaultReportState::Reported), "REPORTED");
    EXPECT_EQ(text(BriFaultReportState::CeaseCandidate), "CEASE_CANDIDATE");
    EXPECT_EQ(text(BriFaultReportState::Delete), "DELETE");
    EXPECT_EQ(text(static_cast<BriFaultReportState>(16)), "INVALID_VALUE(16)");
}

TEST(BriActiveFaultTest, aChangeOfStateIsTraced)
{
    const support::TracepointLog log;
    BriActiveFault active = fault(0x0101, 5);
    active.setFaultState(BriFaultReportState::Reported);
    EXPECT_THAT(log.texts(Event::Trace7),
                ElementsAre("BriFaultId = NAME, faultId = 0x101, faultCase = 5, state PENDING -> REPORTED"));
}

TEST(BriActiveFaultTest, aCoordinationMakesACandidateOfWhatWasReported)
{
    const std::pair<BriFaultReportState, BriFaultReportState> rows[] = {
        {BriFaultReportState::Pending, BriFaultReportState::Delete},
        {BriFaultReportState::Reported, BriFaultReportState::CeaseCandidate},
        {BriFaultReportState::CeaseCandidate, BriFaultReportState::CeaseCandidate},
        {BriFaultReportState::Delete, BriFaultReportState::Delete},
    };
    for (const auto& [before, after] : rows) {
        BriActiveFault active = fault(0x0101);
        active.setFaultState(before);
        active.setCeaseCandidate();
        EXPECT_EQ(active.getFaultState(), after) << text(before);
    }
}

TEST(BriCurrentFaultsTest, theStrongestSortFirstAndEqualOnesStayInOrder)
{
    BriCurrentFaults faults;
    unsigned int arrival = 0;
    for (const int id : {0x0300, 0x0101, 0x0104, 0x0706, 0x0101, 0x0103, 0x0108, 0x0704}) {
        faults.addActiveFault(fault(static_cast<std::uint16_t>(id), arrival++));
    }
    faults.sortActiveFaults();
    std::vector<std::pair<int, unsigned int>> order;
    for (const auto& active : faults.getActiveFaults()) {
        order.emplace_back(active.getIwdFaultId(), active.getFaultCase());
    }
    using P = std::pair<int, unsigned int>;
    EXPECT_THAT(order, ElementsAre(P{0x0108, 6}, P{0x0704, 7}, P{0x0706, 3}, P{0x0103, 5}, P{0x0104, 2},
                                   P{0x0101, 1}, P{0x0101, 4}, P{0x0300, 0}));
}

TEST(BriCurrentFaultsTest, aFoundEntryStaysReportedOrIsRaisedAgain)
{
    const support::TracepointLog log;
    const std::pair<BriFaultReportState, BriFaultReportState> rows[] = {
        {BriFaultReportState::Pending, BriFaultReportState::Pending},
        {BriFaultReportState::Reported, BriFaultReportState::Reported},
        {BriFaultReportState::CeaseCandidate, BriFaultReportState::Reported},
        {BriFaultReportState::Delete, BriFaultReportState::Pending},
    };
    for (const auto& [before, after] : rows) {
        BriCurrentFaults faults;
        faults.addReportedFault(fault(0x0101, 1)); // another case
        faults.addReportedFault(fault(0x0300, 2)); // another id
        faults.addReportedFault(fault(0x0101, 2));
        faults.addReportedFault(fault(0x0101, 2)); // only the first of equal ones counts
        faults.getReportedFaults()[2].setFaultState(before);
        faults.getReportedFaults()[3].setFaultState(BriFaultReportState::Delete);
        faults.updateReportedFaults(fault(0x0101, 2));
        ASSERT_EQ(faults.getReportedFaults().size(), 4U);
        EXPECT_EQ(faults.getReportedFaults()[2].getFaultState(), after) << text(before);
        EXPECT_EQ(faults.getReportedFaults()[3].getFaultState(), BriFaultReportState::Delete);
        EXPECT_EQ(faults.getReportedFaults()[0].getFaultState(), BriFaultReportState::Pending);
    }
    ASSERT_EQ(log.texts(Event::Trace1).size(), 4U);
    EXPECT_THAT(log.texts(Event::Trace1)[0],
                testing::AllOf(testing::StartsWith("Entering "), testing::HasSubstr("updateReportedFaults")));
}

TEST(BriCurrentFaultsTest, aNewFaultBecomesAPendingEntry)
{
    const support::TracepointLog log;
    BriCurrentFaults faults;
    faults.updateReportedFaults(fault(0x0101, 1));
    ASSERT_EQ(faults.getReportedFaults().size(), 1U);
    EXPECT_EQ(faults.getReportedFaults()[0].getFaultState(), BriFaultReportState::Pending);
    EXPECT_EQ(log.count(Event::Trace6,
                        "adding new pending fault, BriFaultId = NAME, faultId = 0x101, faultCase = 1"),
              1U);
}

TEST(BriCurrentFaultsTest, markedFaultsAreRemovedFromBothLists)
{
    BriCurrentFaults faults;
    faults.addActiveFault(fault(0x0101));
    faults.addActiveFault(fault(0x0300));
    faults.addReportedFault(fault(0x0103));
    faults.getActiveFaults()[0].markAsDelete();
    faults.getReportedFaults()[0].markAsDelete();
    EXPECT_TRUE(isBriFaultReadyToBeDeleted(faults.getActiveFaults()[0]));
    faults.removeFaultsReadyToBeDeleted();
    ASSERT_EQ(faults.getActiveFaults().size(), 1U);
    EXPECT_EQ(faults.getActiveFaults()[0].getIwdFaultId(), 0x0300);
    EXPECT_THAT(faults.getReportedFaults(), IsEmpty());
}

TEST(BriCurrentFaultsTest, ceasedEntriesThatNothingLooksForGo)
{
    BriCurrentFaults faults;
    for (const int id : {0x0704, 0x0101, 0x0705, 0x0103}) {
        faults.addReportedFault(fault(static_cast<std::uint16_t>(id)));
        faults.getReportedFaults().back().setFaultState(BriFaultReportState::Delete);
    }
    faults.addReportedFault(fault(0x0706)); // not ceased
    faults.forgetCeasedFaults();
    std::vector<int> ids;
    for (const auto& entry : faults.getReportedFaults()) {
        ids.push_back(entry.getIwdFaultId());
    }
    EXPECT_THAT(ids, ElementsAre(0x0101, 0x0103, 0x0706));
}

TEST(BriCurrentFaultsTest, ofMoreThanItKeepsTheOldestCeasedEntryGoes)
{
    const support::TracepointLog log;
    constexpr auto limit = static_cast<unsigned int>(BriCurrentFaults::maxKeptPlaces);
    ASSERT_EQ(limit, 4096U);
    BriCurrentFaults faults;
    for (unsigned int i = 0; i < limit + 2; ++i) {
        faults.addReportedFault(fault(0x0101, i));
        if (i > 0) { // the first one is still reported
            faults.getReportedFaults().back().setFaultState(BriFaultReportState::Delete);
        }
        if (i + 1 >= limit) {
            faults.forgetCeasedFaults();
            EXPECT_EQ(faults.getReportedFaults().size(), limit);
        }
    }
    EXPECT_EQ(faults.getReportedFaults()[0].getFaultCase(), 0U);
    EXPECT_EQ(faults.getReportedFaults()[1].getFaultCase(), 3U);
    EXPECT_EQ(faults.getReportedFaults().back().getFaultCase(), limit + 1);
    EXPECT_THAT(log.texts(Event::Info),
                ElementsAre("ABN: More than 4096 ceased board faults of different cases. "
                            "Forgetting the oldest ones."));
}
