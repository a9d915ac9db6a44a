#include "faultManager.h"
#include "rowTest.h"

#include "tracepointLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using Merlow::FaultData;
using Merlow::FaultManager;
using Merlow::FaultSource;
using MerlowTracepoints::Event;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

std::string hex(unsigned int id)
{
    std::ostringstream text;
    text << "0x" << std::hex << id;
    return text.str();
}

class FaultManagerTest : public ::testing::Test {
protected:
    FaultManagerTest() { subscribe(); }

    void subscribe()
    {
        m_manager->subscribeForFaultNotifications(
            [this](FaultData data, unsigned int mbox) {
                m_calls.push_back("raise " + hex(data.faultId) +
                                  (mbox == 0xFFFFFFFF ? std::string() : " to " + std::to_string(mbox)));
                m_last = std::move(data);
            },
            [this](FaultData data) {
                m_calls.push_back("cease " + hex(data.faultId));
                m_last = std::move(data);
            });
    }

    bool add(std::uint16_t id, FaultSource source = FaultSource::BRI, std::uint16_t faultCase = 0,
             const std::string& description = {})
    {
        FaultData data(source, id, faultCase, description);
        return m_manager->addFault(data);
    }
    void remove(std::uint16_t id) { m_manager->removeFault(id); }

    /// What the consumer heard since the last call.
    std::vector<std::string> calls() { return std::exchange(m_calls, {}); }
    /// What is shown now, as a new subscriber hears it.
    std::vector<std::string> shown()
    {
        EXPECT_THAT(m_calls, IsEmpty());
        m_manager->sendActiveFaults(5);
        return calls();
    }
    std::vector<std::string> errors() { return m_log.texts(Event::Error); }

    std::optional<FaultManager> m_manager{std::in_place};
    std::vector<std::string> m_calls;
    FaultData m_last;
    support::TracepointLog m_log;
};

} // namespace

// The table

enum class Way { basic, visual, software, powerLow };

struct Row {
    std::uint16_t id;
    const char* name;
    int priority;
    Way way;
    int partner; ///< -1: none
};

const Row rows[] = {
    {0x0101, "TARN_CONST_FH_FAULT_ID_HW_FAULT", 3, Way::visual, 0x0300},
    {0x0103, "TARN_CONST_FH_FAULT_ID_EXCEPTIONAL_TEMPERATURE_TOO_HIGH", 4, Way::basic, 0x0104},
    {0x0104, "TARN_CONST_FH_FAULT_ID_EXCEPTIONAL_TEMPERATURE_TOO_LOW", 4, Way::basic, 0x0103},
    {0x0108, "TARN_CONST_FH_FAULT_ID_POWER_FAILURE", 0, Way::basic, -1},
    {0x0300, "TARN_CONST_FH_FAULT_ID_HWF_FOR_EVALUATION", 3, Way::visual, 0x0101},
    {0x0301, "UNKNOWN FAULT", 0, Way::software, -1},
    {0x0502, "UNKNOWN FAULT", 2, Way::basic, -1},
    {0x0521, "UNKNOWN FAULT", 2, Way::visual, -1},
    {0x0522, "UNKNOWN FAULT", 0, Way::software, -1},
    {0x0703, "UNKNOWN FAULT", 1, Way::basic, -1},
    {0x0704, "TARN_CONST_FH_FAULT_ID_FAN_DEGRADED", 0, Way::basic, -1},
    {0x0705, "TARN_CONST_FH_FAULT_ID_FAN_FAILED", 0, Way::basic, -1},
    {0x0706, "TARN_CONST_FH_FAULT_ID_FAN_DISCONNECTED", 0, Way::basic, -1},
    {0x0710, "UNKNOWN FAULT", 0, Way::powerLow, -1},
    {0x0711, "UNKNOWN FAULT", 0, Way::powerLow, -1},
    // without a row of its own
    {0x0000, "UNKNOWN FAULT", 0, Way::basic, -1},
    {0x0102, "UNKNOWN FAULT", 0, Way::basic, -1},
    {0xFFFF, "UNKNOWN FAULT", 0, Way::basic, -1},
};

class FaultRowTest : public FaultManagerTest, public WithRow<Row> {
protected:
    [[nodiscard]] bool isStored() const { return row().way == Way::basic || row().way == Way::visual; }
    const std::uint16_t m_id = row().id;
};

ROW_TEST(FaultRowTest, hasItsName)
{
    EXPECT_EQ(m_manager->getIwdFaultIdString(m_id), row().name);
    EXPECT_EQ(m_manager->traceIwdFaultId(m_id), std::string(row().name) + " (" + hex(m_id) + ")");
}

ROW_TEST(FaultRowTest, isTreatedInItsWay)
{
    EXPECT_TRUE(add(m_id));
    const auto traced = [this](const char* text) {
        return m_log.count(Event::Trace6, text);
    };
    EXPECT_EQ(traced("Placeholder for setVisualIndication"), row().way == Way::visual ? 1U : 0U);
    EXPECT_EQ(traced("Placeholder for adding software fault"), row().way == Way::software ? 1U : 0U);
    EXPECT_EQ(traced("Placeholder for adding power low fault"), row().way == Way::powerLow ? 1U : 0U);
    if (!isStored()) {
        EXPECT_THAT(calls(), IsEmpty());
        EXPECT_THAT(shown(), IsEmpty());
        remove(m_id);
        EXPECT_THAT(calls(), IsEmpty());
        EXPECT_THAT(errors(), ElementsAre("The fault has not been activated ID = " + hex(m_id)));
        return;
    }
    EXPECT_THAT(calls(), ElementsAre("raise " + hex(m_id)));
    EXPECT_THAT(shown(), ElementsAre("raise " + hex(m_id) + " to 5"));
    remove(m_id);
    EXPECT_THAT(calls(), ElementsAre("cease " + hex(m_id)));
    EXPECT_THAT(shown(), IsEmpty());
    EXPECT_THAT(errors(), IsEmpty());
}

ROW_TEST(FaultRowTest, outsideTheHierarchyOnlyTheBoardIsHeard)
{
    const std::pair<FaultSource, const char*> sources[] = {{FaultSource::BB_BCI, "BB_BCI"},
                                                           {FaultSource::CCFI, "CCFI"}};
    for (const auto& [source, name] : sources) {
        m_log.clear();
        if (row().priority == 0 && isStored()) {
            EXPECT_FALSE(add(m_id, source));
            EXPECT_THAT(calls(), IsEmpty());
            EXPECT_THAT(errors(),
                        ElementsAre("Unsupported fault ID = " + hex(m_id) + ", fault source = " + name));
        } else {
            EXPECT_TRUE(add(m_id, source));
            EXPECT_EQ(calls().size(), isStored() ? 1U : 0U);
            EXPECT_THAT(errors(), IsEmpty());
            remove(m_id);
            calls();
        }
    }
}

/// The hierarchy, each row against each.
ROW_TEST(FaultRowTest, standsWhereItsPrioritySaysBesideEveryOther)
{
    if (!isStored()) {
        return;
    }
    for (const Row& other : rows) {
        if (other.id == m_id || other.way == Way::software || other.way == Way::powerLow) {
            continue;
        }
        SCOPED_TRACE(hex(other.id));
        m_manager.emplace();
        subscribe();
        add(other.id);
        calls();
        add(m_id);
        const int mine = row().priority;
        if (mine < 2) {
            EXPECT_THAT(calls(), ElementsAre("raise " + hex(m_id)));
        } else if (other.priority > mine || row().partner == other.id) {
            EXPECT_THAT(calls(), IsEmpty());
        } else if (other.priority < mine) {
            EXPECT_THAT(calls(), ElementsAre("cease " + hex(other.id), "raise " + hex(m_id)));
        } else {
            EXPECT_THAT(calls(), ElementsAre("raise " + hex(m_id)));
        }
        // The first one goes.
        remove(other.id);
        if (other.priority < 2) {
            EXPECT_THAT(calls(), ElementsAre("cease " + hex(other.id)));
        } else if (row().partner == other.id) {
            EXPECT_THAT(calls(), ElementsAre("cease " + hex(other.id), "raise " + hex(m_id)));
        } else if (mine < 2) { // it was shown all the time, and is sent a second time
            EXPECT_THAT(calls(), ElementsAre("cease " + hex(other.id), "raise " + hex(m_id)));
        } else { // one that was stored hidden does not come back
            EXPECT_THAT(calls(), ElementsAre("cease " + hex(other.id)));
        }
    }
}

TEST_ROWS(Ids, FaultRowTest, rows, [](const auto& row) { return "id_" + hex(row.id); });

// addFault

TEST_F(FaultManagerTest, aLinkErrorBecomesASoftwareErrorInTheCallersRecord)
{
    FaultData data(FaultSource::CCFI, 0x0302, 1, "link");
    EXPECT_TRUE(m_manager->addFault(data));
    EXPECT_EQ(data.faultId, 0x0301);
    EXPECT_EQ(m_log.count(Event::Trace6,
                          "remap TARN_CONST_FH_FAULT_ID_LINK_ERROR to TARN_CONST_FH_FAULT_ID_SW_ERROR!"),
              1U);
    EXPECT_EQ(m_log.count(Event::Trace6, "Placeholder for adding software fault"), 1U);
    EXPECT_THAT(calls(), IsEmpty());
    remove(0x0302);
    remove(0x0301);
    EXPECT_THAT(errors(), ElementsAre("The fault has not been activated ID = 0x302",
                                      "The fault has not been activated ID = 0x301"));
    EXPECT_EQ(m_manager->getIwdFaultIdString(0x0302), "UNKNOWN FAULT");
}

TEST_F(FaultManagerTest, aRepeatIsCountedAndItsDataDropped)
{
    EXPECT_TRUE(add(0x0705, FaultSource::BRI, 1, "first"));
    EXPECT_TRUE(add(0x0705, FaultSource::BRI, 2, "second"));
    EXPECT_THAT(calls(), ElementsAre("raise 0x705"));
    EXPECT_EQ(m_last.faultCase, 1);
    EXPECT_EQ(m_last.faultDescription, "first");
    EXPECT_EQ(m_log.count(Event::Trace6, "TARN_CONST_FH_FAULT_ID_FAN_FAILED is already active"), 1U);

    remove(0x0705);
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_EQ(m_log.count(Event::Trace6, "faultId: 0x705, cannot be ceased, numOfSources = 1"), 1U);
    remove(0x0705);
    EXPECT_THAT(calls(), ElementsAre("cease 0x705"));
    EXPECT_EQ(m_last.faultCase, 1);
    EXPECT_EQ(m_last.faultDescription, "first");
}

TEST_F(FaultManagerTest, aRepeatOfAHiddenFaultIsCountedToo)
{
    add(0x0101);
    add(0x0300);
    EXPECT_TRUE(add(0x0300));
    EXPECT_THAT(calls(), ElementsAre("raise 0x101"));
    EXPECT_EQ(m_log.count(Event::Trace6, "TARN_CONST_FH_FAULT_ID_HWF_FOR_EVALUATION is already active"), 1U);
    remove(0x0300);
    EXPECT_THAT(calls(), IsEmpty());
    remove(0x0300);
    EXPECT_THAT(calls(), ElementsAre("cease 0x300", "raise 0x101"));
}

TEST_F(FaultManagerTest, anotherSourceMayRepeatAFaultOfTheHierarchy)
{
    EXPECT_TRUE(add(0x0101, FaultSource::BRI));
    EXPECT_TRUE(add(0x0101, FaultSource::CCFI));
    EXPECT_THAT(calls(), ElementsAre("raise 0x101"));
    remove(0x0101);
    EXPECT_THAT(calls(), IsEmpty());
    remove(0x0101);
    EXPECT_THAT(calls(), ElementsAre("cease 0x101"));
    EXPECT_EQ(m_last.source, FaultSource::BRI);
}

TEST_F(FaultManagerTest, everyFieldReachesTheConsumer)
{
    FaultData data(FaultSource::CCFI, 0x0703, 65535, "text", 4000000000, "label");
    EXPECT_TRUE(m_manager->addFault(data));
    for (const char* const call : {"raise 0x703", "cease 0x703"}) {
        EXPECT_THAT(calls(), ElementsAre(call));
        EXPECT_EQ(m_last.source, FaultSource::CCFI);
        EXPECT_EQ(m_last.faultCase, 65535);
        EXPECT_EQ(m_last.faultDescription, "text");
        EXPECT_EQ(m_last.recoveryTime, 4000000000U);
        EXPECT_EQ(m_last.hwFaultLabel, "label");
        remove(0x0703);
    }
}

// The hierarchy

TEST_F(FaultManagerTest, aHigherFaultHidesAllLowerShownOnesFromTheLowestUp)
{
    add(0x0502);
    add(0x0521);
    add(0x0703);
    add(0x0705);
    add(0x0108);
    calls();
    add(0x0101);
    EXPECT_THAT(calls(), ElementsAre("cease 0x705", "cease 0x108", "cease 0x703", "cease 0x502",
                                     "cease 0x521", "raise 0x101"));
    add(0x0104);
    EXPECT_THAT(calls(), ElementsAre("cease 0x101", "raise 0x104"));
    EXPECT_THAT(shown(), ElementsAre("raise 0x104 to 5"));
}

TEST_F(FaultManagerTest, aFaultThatWasHiddenIsNotBroughtBackByThePriority)
{
    add(0x0502);
    add(0x0103);
    EXPECT_THAT(calls(), ElementsAre("raise 0x502", "cease 0x502", "raise 0x103"));
    remove(0x0103);
    EXPECT_THAT(calls(), ElementsAre("cease 0x103"));
    EXPECT_THAT(shown(), IsEmpty());
    remove(0x0502);
    EXPECT_THAT(calls(), ElementsAre("cease 0x502"));
}

TEST_F(FaultManagerTest, onlyTheNextLowerGroupThatHoldsAFaultIsReportedAgain)
{
    add(0x0103);
    add(0x0502);
    add(0x0703);
    add(0x0705);
    EXPECT_THAT(calls(), ElementsAre("raise 0x103", "raise 0x703", "raise 0x705"));
    remove(0x0103); // the group of 0x502 is the next, and what it holds is hidden
    EXPECT_THAT(calls(), ElementsAre("cease 0x103"));

    add(0x0103);
    EXPECT_THAT(calls(), ElementsAre("cease 0x705", "cease 0x703", "raise 0x103"));
    remove(0x0502);
    EXPECT_THAT(calls(), ElementsAre("cease 0x502"));
    remove(0x0703);
    calls();
    add(0x0703);
    add(0x0704);
    calls();
    remove(0x0103); // emptied groups are passed over
    EXPECT_THAT(calls(), ElementsAre("cease 0x103", "raise 0x703"));
    remove(0x0703); // outside the hierarchy nothing follows
    EXPECT_THAT(calls(), ElementsAre("cease 0x703"));
}

TEST_F(FaultManagerTest, aHiddenHigherFaultHidesToo)
{
    add(0x0103);
    add(0x0101); // hidden
    calls();
    remove(0x0103);
    EXPECT_THAT(calls(), ElementsAre("cease 0x103"));
    add(0x0502);
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(FaultManagerTest, ofAPairTheFirstStaysShownUntilItGoes)
{
    const std::pair<std::uint16_t, std::uint16_t> pairs[] = {
        {0x0101, 0x0300}, {0x0300, 0x0101}, {0x0103, 0x0104}, {0x0104, 0x0103}};
    for (const auto& [first, second] : pairs) {
        SCOPED_TRACE(hex(first));
        add(first);
        add(second);
        EXPECT_THAT(calls(), ElementsAre("raise " + hex(first)));
        remove(first);
        EXPECT_THAT(calls(), ElementsAre("cease " + hex(first), "raise " + hex(second)));
        EXPECT_THAT(shown(), ElementsAre("raise " + hex(second) + " to 5"));
        remove(second);
        EXPECT_THAT(calls(), ElementsAre("cease " + hex(second)));
    }
}

TEST_F(FaultManagerTest, aPartnerThatIsHiddenItselfDoesNotExclude)
{
    add(0x0101);
    add(0x0103); // hides it
    remove(0x0103);
    calls();
    add(0x0300);
    EXPECT_THAT(calls(), ElementsAre("raise 0x300"));
    remove(0x0300);
    EXPECT_THAT(calls(), ElementsAre("cease 0x300", "raise 0x101"));
}

TEST_F(FaultManagerTest, theRemovedFaultsPartnerIsRaisedBeneathAHigherFaultToo)
{
    add(0x0103);
    add(0x0101);
    add(0x0300);
    EXPECT_THAT(calls(), ElementsAre("raise 0x103"));
    remove(0x0101);
    EXPECT_THAT(calls(), ElementsAre("cease 0x101", "raise 0x300"));
    EXPECT_THAT(shown(), ElementsAre("raise 0x103 to 5", "raise 0x300 to 5"));
}

TEST_F(FaultManagerTest, aHiddenFaultIsCeasedWithoutHavingBeenRaised)
{
    add(0x0103);
    add(0x0502);
    EXPECT_THAT(calls(), ElementsAre("raise 0x103"));
    remove(0x0502);
    EXPECT_THAT(calls(), ElementsAre("cease 0x502"));
}

// The consumer

TEST_F(FaultManagerTest, aNewSubscriberGetsWhatIsShownFromTheHighestDownInOrderOfArrival)
{
    EXPECT_THAT(shown(), IsEmpty());
    add(0x0705);
    add(0x0103);
    add(0x0502); // hidden
    add(0x0703);
    add(0x0704);
    calls();
    EXPECT_THAT(shown(), ElementsAre("raise 0x103 to 5", "raise 0x703 to 5", "raise 0x704 to 5"));
}

TEST_F(FaultManagerTest, withoutAConsumerTheIndicationIsLostAndTheFaultCountsAsShown)
{
    m_manager->subscribeForFaultNotifications({}, {});
    add(0x0705, FaultSource::BRI, 7);
    add(0x0705);
    EXPECT_THAT(errors(), ElementsAre("No subscriber for raised fault, faultId: "
                                      "TARN_CONST_FH_FAULT_ID_FAN_FAILED (0x705), faultCase: 7"));
    subscribe();
    EXPECT_THAT(shown(), ElementsAre("raise 0x705 to 5"));

    m_manager->subscribeForFaultNotifications({}, {});
    m_log.clear();
    m_manager->sendActiveFaults(5);
    remove(0x0705);
    remove(0x0705);
    EXPECT_THAT(errors(), ElementsAre("No subscriber for raised fault, faultId: "
                                      "TARN_CONST_FH_FAULT_ID_FAN_FAILED (0x705), faultCase: 7",
                                      "No subscriber for ceased fault, faultId: "
                                      "TARN_CONST_FH_FAULT_ID_FAN_FAILED (0x705), faultCase: 7"));
}

TEST_F(FaultManagerTest, aLaterConsumerReplacesTheFirst)
{
    std::vector<unsigned int> raised;
    m_manager->subscribeForFaultNotifications(
        [&raised](const FaultData& data, unsigned int /*mbox*/) { raised.push_back(data.faultId); }, {});
    add(0x0705);
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(raised, ElementsAre(0x0705U));
}

// Traces and texts

TEST_F(FaultManagerTest, theOperationsTraceWhatTheyGot)
{
    FaultData data(FaultSource::CCFI, 0x0703, 10, "text", 20, "label");
    m_manager->addFault(data);
    remove(0x0703);
    EXPECT_THAT(m_log.texts(Event::Trace6),
                ElementsAre("addFault faultId: 0x703, faultDescription: text, faultCase: 10, "
                            "recoveryTime: 20, hwFaultLabel: label",
                            testing::AllOf(testing::StartsWith("Entering "),
                                           testing::HasSubstr("FaultManager::addBasicFault")),
                            "removeFault 0x703"));
}

TEST_F(FaultManagerTest, aFaultOfNoSourceIsNoneWhenItIsRemoved)
{
    add(0x0101, FaultSource::NONE);
    calls();
    remove(0x0101);
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("Could not remove fault, faultId = 0x101"));
    remove(0x0101);
    EXPECT_THAT(errors(), Contains("The fault has not been activated ID = 0x101"));
}

TEST(FaultDataTest, printsAsText)
{
    EXPECT_EQ(toString(FaultData(FaultSource::BRI, 0x0ABC, 12, "Fan")),
              "faultId: 0xabc, faultDescription: Fan, faultCase: 12, recoveryTime: 0, hwFaultLabel: empty");
    EXPECT_EQ(toString(FaultData()),
              "faultId: 0x0, faultDescription: , faultCase: 0, recoveryTime: 0, hwFaultLabel: empty");
}

TEST(FaultDataTest, aSourcePrintsItsNameOrItsNumberInDecimal)
{
    std::ostringstream out;
    out << std::hex;
    for (unsigned int source = 0; source <= 4; ++source) {
        out << static_cast<FaultSource>(source) << " ";
    }
    out << static_cast<FaultSource>(4294967295U);
    EXPECT_EQ(out.str(), "BRI BB_BCI CCFI NONE INVALID_VALUE(4) INVALID_VALUE(4294967295)");
}

TEST(FaultDataTest, theInvalidFaultIsEmpty)
{
    const auto& invalid = Merlow::g_invalidActiveFault;
    EXPECT_EQ(invalid.source, FaultSource::NONE);
    EXPECT_EQ(invalid.faultId, 0);
    EXPECT_EQ(invalid.faultCase, 0);
    EXPECT_EQ(invalid.faultDescription, "");
    EXPECT_EQ(invalid.recoveryTime, 0U);
    EXPECT_EQ(invalid.hwFaultLabel, "");
    EXPECT_EQ(invalid.numOfSources, 0U);
    EXPECT_FALSE(invalid.reported);
}
