#include "briFaultHandler.h"
#include "rowTest.h"

#include "board.h"
#include "bri.pb.h"
#include "faultCalls.h"
#include "merlowUtil.h"
#include "tracepointLog.h"

#include <gmock/gmock.h>

namespace bri = boardresourcehandler::bri;
using MerlowTracepoints::Event;
using support::Board;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Fan {
    const char* productNumber = nullptr;
    const char* parentProductNumber = nullptr;
    int slot = -1;
};

bri::FaultInd faultInd(int id, std::uint32_t faultCase = 0)
{
    bri::FaultInd ind;
    ind.set_fault_id(static_cast<bri::BriFaultId>(id));
    ind.set_fault_case(faultCase);
    return ind;
}

bri::FaultInd fanInd(int id, const Fan& fan)
{
    bri::FaultInd ind = faultInd(id);
    auto& info = *ind.mutable_fan_product_info();
    if (fan.productNumber != nullptr) {
        info.set_fan_product_number(fan.productNumber);
    }
    if (fan.parentProductNumber != nullptr) {
        info.set_fan_parent_product_number(fan.parentProductNumber);
    }
    if (fan.slot >= 0) {
        info.set_fan_position_slot(fan.slot);
    }
    return ind;
}

class BriFaultHandlerTest : public ::testing::Test {
protected:
    void raise(int id, std::uint32_t faultCase = 0) { m_board.bri().send(faultInd(id, faultCase), 0); }
    void cease(int id)
    {
        bri::FaultCeaseInd ind;
        ind.set_fault_id(static_cast<bri::BriFaultId>(id));
        m_board.bri().send(ind, 0);
    }
    /// What the fault manager heard since the last call.
    std::vector<FaultCall> calls() { return std::exchange(m_faultManager.calls, {}); }
    std::vector<std::string> errors() { return m_log.texts(Event::Error); }
    /// What an indication reads like.
    std::string descriptionOf(const bri::FaultInd& ind)
    {
        m_board.bri().send(ind, 0);
        const auto told = calls();
        return told.empty() ? "nothing" : told.back().description;
    }

    FaultCalls m_faultManager;
    Board m_board{{.bmmi = false, .faultManager = &m_faultManager}};
    BriFaultHandler& m_handler = m_board.add<BriFaultHandler>();
    support::TracepointLog m_log;
};

} // namespace

// Translation

struct DefinitionRow {
    int briFaultId;
    const char* name;
    std::uint16_t iwdFaultId;
    const char* description;
};

class BriFaultDefinitionTest : public BriFaultHandlerTest, public WithRow<DefinitionRow> {};

ROW_TEST(BriFaultDefinitionTest, reachesTheFaultManagerInTheClientsNumbering)
{
    const DefinitionRow& row = this->row();
    raise(row.briFaultId, 0x12345);
    EXPECT_THAT(calls(), ElementsAre(raiseOf(row.iwdFaultId, 0x2345, row.description)));
    EXPECT_EQ(m_faultManager.lastRaise.source, Merlow::FaultSource::BRI);
    EXPECT_EQ(m_faultManager.lastRaise.recoveryTime, 0U);
    EXPECT_EQ(m_faultManager.lastRaise.hwFaultLabel, "");
    EXPECT_EQ(m_log.count(Event::Info, std::string("ABN:Local fault, faultId:") + row.name +
                                           ", interface:BCI, faultCase:74565"),
              1U);
    std::ostringstream trace;
    trace << "BriFaultId = " << row.name << ", faultId = 0x" << std::hex << row.iwdFaultId
          << ", faultCase = " << std::dec << 74565;
    EXPECT_EQ(m_log.count(Event::Trace6, "new active fault: " + trace.str()), 1U);
    EXPECT_EQ(m_log.count(Event::Trace6, "raised fault sent to FaultManager, " + trace.str()), 1U);
    EXPECT_EQ(m_log.texts(Event::RecSig).size(), 1U);

    cease(row.briFaultId);
    EXPECT_THAT(calls(), ElementsAre(removalOf(row.iwdFaultId)));
    EXPECT_EQ(m_log.count(Event::Trace6, "ceased fault sent to FaultManager, " + trace.str()), 1U);
    EXPECT_THAT(errors(), IsEmpty());
}

const DefinitionRow definitionRows[] = {
    {0, "HW_FAULT", 0x0101, "HW_FAULT"},
    {1, "HW_FAULT_FOR_EVALUATION_LTU_FAULT", 0x0300, "LTU Fault"},
    {2, "HW_FAULT_FOR_EVALUATION_INIT_FAULT", 0x0300, "Initialization failure"},
    {3, "HW_FAULT_FOR_EVALUATION", 0x0300, "Internal DC fault"},
    {4, "EXCEPTIONAL_TEMPERATURE_TOO_LOW", 0x0104, "Temperature is too low."},
    {5, "EXCEPTIONAL_TEMPERATURE_TOO_HIGH", 0x0103, "Temperature is too high."},
    {6, "EXTERNAL_FAN_DEGRADED", 0x0704, "RU External Fan Degraded"},
    {7, "EXTERNAL_FAN_FAILED", 0x0705, "RU External Fan Failed"},
    {8, "EXTERNAL_FAN_DISCONNECTED", 0x0706, "RU External Fan Disconnected"},
    {9, "POE_DEVICE_0_TEMP_EXC_HIGH", 0x0103, "Temperature is too high."},
    {10, "POE_DEVICE_1_TEMP_EXC_HIGH", 0x0103, "Temperature is too high."},
    {11, "EXTERNAL_POWER_SUPPLY_FAULT", 0x0108, "External power supply fault"}};
TEST_ROWS(Rows, BriFaultDefinitionTest, definitionRows);

TEST_F(BriFaultHandlerTest, anIndicationIsTheseBytes)
{
    m_board.bri().sendHex("01707759 00000000 00000064 08071005 1a0b0a05 46414e20 31120018 03");
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_THAT(calls(), ElementsAre(raiseOf(0x0705, 5, "Fan product number is FAN 1, Fan Position slot 3")));
    m_board.bri().sendHex("0170775a 00000000 00000064 0807");
    EXPECT_THAT(calls(), ElementsAre(removalOf(0x0705)));
}

TEST_F(BriFaultHandlerTest, anInternalDcFaultIsKnownByItsCase)
{
    EXPECT_EQ(descriptionOf(faultInd(0, 317)), "Internal DC fault");
    cease(0);
    calls();
    EXPECT_EQ(descriptionOf(faultInd(0, 318)), "HW_FAULT");
}

struct FanRow {
    int briFaultId;
    Fan fan;
    std::uint16_t iwdFaultId;
    const char* description;
    std::vector<std::string> errors;
};

TEST_F(BriFaultHandlerTest, aFanFaultSaysWhichFan)
{
    const std::string failed = "EXTERNAL_FAN_FAILED does not contain fan ";
    const std::string disconnected = "EXTERNAL_FAN_DISCONNECTED does not contain fan ";
    const std::string host = "EXTERNAL_FAN_HOST_DISCONNECTED does not contain fan ";
    const FanRow rows[] = {
        {7, {"F", "P", 3}, 0x0705, "Fan product number is F, Fan Position slot 3", {}},
        {7, {"F", nullptr, -1}, 0x0705, "Fan product number is F", {failed + "position slot"}},
        {7, {nullptr, "P", 0}, 0x0705, ", Fan Position slot 0", {failed + "product number"}},
        {7, {}, 0x0705, "RU External Fan Failed", {failed + "product number", failed + "position slot"}},
        {8, {"F", "P", 3}, 0x0706, "Fan product number is F", {}},
        {8, {nullptr, "P", 3}, 0x0706, "RU External Fan Disconnected", {disconnected + "product number"}},
        {12,
         {"F", "P", -1},
         0x0706,
         "Contact lost with unit (P) hosting the fan (F) and external alarm ports",
         {}},
        {12,
         {"F", nullptr, -1},
         0x0706,
         " hosting the fan (F) and external alarm ports",
         {host + "parent product number"}},
        {12, {nullptr, "P", -1}, 0x0706, "Contact lost with unit (P)", {host + "product number"}},
        {12,
         {},
         0x0706,
         "RU External Fan Disconnected",
         {host + "parent product number", host + "product number"}},
        {6, {"F", "P", 3}, 0x0704, "RU External Fan Degraded", {}},
        {11, {"F", "P", 3}, 0x0108, "External power supply fault", {}},
    };
    for (const FanRow& row : rows) {
        SCOPED_TRACE(row.description);
        m_log.clear();
        m_board.bri().send(fanInd(row.briFaultId, row.fan), 0);
        EXPECT_THAT(calls(), ElementsAre(raiseOf(row.iwdFaultId, 0, row.description)));
        EXPECT_EQ(errors(), row.errors);
        cease(row.briFaultId == 12 ? 8 : row.briFaultId);
        EXPECT_THAT(calls(), ElementsAre(removalOf(row.iwdFaultId)));
    }
}

TEST_F(BriFaultHandlerTest, aLostFanHostStandsAsADisconnectedFan)
{
    m_board.bri().send(fanInd(12, {"F", "P", 1}), 0);
    calls();
    cease(12);
    EXPECT_EQ(m_log.count(Event::Info, "no active fault found, faultId =12"), 1U);
    EXPECT_THAT(calls(), IsEmpty());
    cease(8);
    EXPECT_THAT(calls(), ElementsAre(removalOf(0x0706)));
}

TEST_F(BriFaultHandlerTest, aLostFanHostWithoutFanInformationIsNoFault)
{
    raise(6);
    calls();
    m_board.bri().send(faultInd(12), 0);
    EXPECT_THAT(errors(), ElementsAre("EXTERNAL_FAN_HOST_DISCONNECTED does not contain fan product info",
                                      "briFaultId: 12 is not supported"));
    EXPECT_THAT(calls(), IsEmpty()) << "A coordination would have told of the other fan";
}

TEST_F(BriFaultHandlerTest, anUnknownIdIsNoFault)
{
    raise(6);
    calls();
    m_board.bri().send(faultInd(13), 0);
    EXPECT_THAT(errors(), ElementsAre("briFaultId: 13 is not supported"));
    EXPECT_THAT(calls(), IsEmpty());
}

// Messages

TEST_F(BriFaultHandlerTest, aConfirmIsTracedAndNothingElse)
{
    m_board.bri().sendHex("01707754 00000001 00000064");
    ASSERT_EQ(m_log.lines().size(), 1U);
    EXPECT_EQ(m_log.lines()[0].event, Event::RecSig);
    EXPECT_EQ(m_log.lines()[0].sigNo, 0x1707754U);
    EXPECT_THAT(m_log.lines()[0].text, testing::StartsWith("Received signal bri::SubscribeFaultsCfm"));
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_TRUE(m_board.bri().nothingReceived());
}

TEST_F(BriFaultHandlerTest, receivedMessagesAreTraced)
{
    raise(6);
    cease(6);
    std::vector<std::pair<std::uint32_t, std::string>> received;
    for (const auto& line : m_log.lines()) {
        if (line.event == Event::RecSig) {
            received.emplace_back(line.sigNo, line.text.substr(0, line.text.find(" from")));
        }
    }
    using P = std::pair<std::uint32_t, std::string>;
    EXPECT_THAT(received, ElementsAre(P{0x1707759, "Received signal bri::FaultInd"},
                                      P{0x170775A, "Received signal bri::FaultCeaseInd"}));
}

TEST_F(BriFaultHandlerTest, badMessagesLeaveEverythingAsItIs)
{
    raise(6);
    calls();
    const std::size_t held = m_handler.getNumFaults();
    bri::FaultInd withoutCase;
    withoutCase.set_fault_id(bri::HW_FAULT);
    bri::FaultInd withoutId;
    withoutId.set_fault_case(1);
    m_board.bri().send(withoutCase, 0);
    m_board.bri().send(withoutId, 0);
    m_board.bri().send(bri::FaultInd(), 0); // a body of length 0 is an empty message
    m_board.bri().send(bri::FaultCeaseInd(), 0);
    m_board.bri().sendBody(bri::FaultInd::MESSAGE_NUMBER, 0, "\x08");
    m_board.bri().sendBody(bri::FaultCeaseInd::MESSAGE_NUMBER, 0, "\x08");
    EXPECT_THAT(errors(), ElementsAre("bri::FaultInddoes not contain fault_case",
                                      "bri::FaultInddoes not contain fault_id",
                                      "bri::FaultInddoes not contain fault_id",
                                      "bri::FaultCeaseInddoes not contain fault_id",
                                      "Failed to decode message: bri::FaultInd",
                                      "Failed to decode message: bri::FaultCeaseInd"));
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_EQ(m_handler.getNumFaults(), held);
}

/// Each message cut at each length, and behind its header each byte changed: no crash, and the handler goes
/// on.
TEST_F(BriFaultHandlerTest, cutAndGarbledMessagesDoNoHarm)
{
    const auto frames = {
        support::makeFrame(0x1707759, 0, 100, fanInd(12, {"FAN", "PARENT", 3}).SerializeAsString()),
        support::makeFrame(0x1707759, 0, 100, fanInd(7, {"FAN", "PARENT", 3}).SerializeAsString()),
        support::messageFromHex("0170775a 00000000 00000064 0807"),
        support::messageFromHex("01707754 00000000 00000064"),
    };
    for (const auto& frame : frames) {
        for (std::size_t size = 4; size <= frame.size(); ++size) {
            m_board.bri().sendBytes({frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(size)});
        }
        for (std::size_t at = 12; at < frame.size(); ++at) {
            for (const int flip : {0x01, 0x08, 0x80, 0xFF}) {
                auto garbled = frame;
                garbled[at] = static_cast<std::uint8_t>(garbled[at] ^ flip);
                m_board.bri().sendBytes(garbled);
            }
        }
    }
    while (m_handler.getNumFaults() > 0) { // what got through can be ceased
        const std::size_t held = m_handler.getNumFaults();
        for (int id = 0; id <= 13; ++id) {
            cease(id);
        }
        if (m_handler.getNumFaults() >= held) {
            break;
        }
    }
    calls();
    raise(6);
    EXPECT_THAT(calls(), ElementsAre(raiseOf(0x0704, 0, "RU External Fan Degraded")));
}

TEST_F(BriFaultHandlerTest, aCeaseOfNothingIsTraced)
{
    raise(6);
    calls();
    cease(5);
    EXPECT_EQ(m_log.count(Event::Info, "no active fault found, faultId =5"), 1U);
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(BriFaultHandlerTest, aRefusalOfTheFaultManagerGoesUnnoticed)
{
    m_faultManager.result = false;
    raise(6);
    calls();
    cease(6);
    EXPECT_THAT(calls(), ElementsAre(removalOf(0x0704)));
}

// Coordination

TEST_F(BriFaultHandlerTest, aTemperatureFaultHidesAHardwareFaultAndGivesItBack)
{
    raise(0);
    EXPECT_THAT(calls(), ElementsAre(raiseOf(0x0101, 0, "HW_FAULT")));
    raise(5);
    EXPECT_THAT(calls(), ElementsAre(removalOf(0x0101), raiseOf(0x0103, 0, "Temperature is too high.")));
    EXPECT_EQ(m_log.count(Event::Trace6,
                          "suppressing lower priority fault by BriFaultId = EXCEPTIONAL_TEMPERATURE_TOO_HIGH,"
                          " faultId = 0x103, faultCase = 0"),
              1U);
    cease(5);
    EXPECT_THAT(calls(), ElementsAre(removalOf(0x0103), raiseOf(0x0101, 0, "HW_FAULT")));
}

TEST_F(BriFaultHandlerTest, aHardwareFaultUnderATemperatureFaultIsNeverRaised)
{
    raise(5);
    calls();
    raise(0);
    EXPECT_THAT(calls(), IsEmpty());
    cease(0);
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(BriFaultHandlerTest, ofTwoTemperatureFaultsTheSmallerIdStands)
{
    raise(4);
    EXPECT_THAT(calls(), ElementsAre(raiseOf(0x0104, 0, "Temperature is too low.")));
    raise(5);
    EXPECT_THAT(calls(), ElementsAre(removalOf(0x0104), raiseOf(0x0103, 0, "Temperature is too high.")));
}

TEST_F(BriFaultHandlerTest, ofTwoHardwareFaultsTheFirstStands)
{
    raise(0, 1);
    calls();
    raise(0, 2);
    EXPECT_THAT(calls(), IsEmpty());
    cease(0);
    EXPECT_THAT(calls(), ElementsAre(removalOf(0x0101), raiseOf(0x0101, 2, "HW_FAULT")));
    cease(0);
    EXPECT_THAT(calls(), ElementsAre(removalOf(0x0101)));
}

TEST_F(BriFaultHandlerTest, casesThatDifferAboveSixteenBitsAreDifferentFaults)
{
    raise(0, 1);
    cease(0);
    calls();
    raise(0, 0x10001);
    EXPECT_THAT(calls(), ElementsAre(raiseOf(0x0101, 1, "HW_FAULT")));
    EXPECT_EQ(m_handler.getNumFaults(), 3U) << "Both have their place, and one is active";
}

TEST_F(BriFaultHandlerTest, aFanFaultStandsBesideAHardwareFaultAndIsToldOfAtEachEvent)
{
    raise(6, 1);
    calls();
    raise(0, 2);
    EXPECT_THAT(calls(), ElementsAre(removalOf(0x0704), raiseOf(0x0704, 1, "RU External Fan Degraded"),
                                     raiseOf(0x0101, 2, "HW_FAULT")));
    cease(0);
    EXPECT_THAT(calls(), ElementsAre(removalOf(0x0704), removalOf(0x0101),
                                     raiseOf(0x0704, 1, "RU External Fan Degraded")));
    raise(0, 2); // the hardware fault has kept its place, the fan's entry is a new one
    EXPECT_THAT(calls(), ElementsAre(removalOf(0x0704), raiseOf(0x0101, 2, "HW_FAULT"),
                                     raiseOf(0x0704, 1, "RU External Fan Degraded")));
}

TEST_F(BriFaultHandlerTest, aRepeatedIndicationNeedsTwoCeases)
{
    raise(7, 1);
    raise(7, 2);
    EXPECT_THAT(calls(), ElementsAre(raiseOf(0x0705, 1, "RU External Fan Failed"), removalOf(0x0705),
                                     raiseOf(0x0705, 1, "RU External Fan Failed"),
                                     raiseOf(0x0705, 2, "RU External Fan Failed")));
    cease(7);
    EXPECT_THAT(calls(), ElementsAre(removalOf(0x0705), removalOf(0x0705),
                                     raiseOf(0x0705, 2, "RU External Fan Failed")));
    cease(7);
    EXPECT_THAT(calls(), ElementsAre(removalOf(0x0705)));
}

TEST_F(BriFaultHandlerTest, aHardwareFaultThatComesBackHasTheDescriptionOfTheFirstTime)
{
    raise(1);
    cease(1);
    calls();
    raise(2); // another fault of the board, the same id and case for clients
    EXPECT_THAT(calls(), ElementsAre(raiseOf(0x0300, 0, "LTU Fault")));
}

// Power drop supervision

TEST_F(BriFaultHandlerTest, withPowerDropSupervisionThePowerSupplyFaultIsSuppressed)
{
    raise(6);
    calls();
    m_board.commonData().setPdsFaultsEnabled(true);
    raise(11);
    EXPECT_THAT(calls(), ElementsAre(removalOf(0x0704), raiseOf(0x0704, 0, "RU External Fan Degraded")))
        << "A coordination runs all the same";
    EXPECT_EQ(m_log.count(Event::Info, "Fault suppressed, faultId: EXTERNAL_POWER_SUPPLY_FAULT"), 1U);
    cease(11);
    EXPECT_EQ(m_log.count(Event::Info, "no active fault found, faultId =11"), 1U);
    EXPECT_THAT(calls(), IsEmpty());

    m_board.commonData().setPdsFaultsEnabled(false);
    raise(11);
    EXPECT_THAT(calls(), Contains(raiseOf(0x0108, 0, "External power supply fault")));
    m_board.commonData().setPdsFaultsEnabled(true);
    cease(11); // one that stood before goes
    EXPECT_THAT(calls(), ElementsAre(removalOf(0x0108), removalOf(0x0704),
                                     raiseOf(0x0704, 0, "RU External Fan Degraded")));
}

// The life of the lists

TEST_F(BriFaultHandlerTest, theBoardsServerMayGoAndComeBack)
{
    raise(7);
    calls();
    m_board.bri().stop();
    EXPECT_THAT(calls(), IsEmpty());
    m_board.bri().start();
    m_board.bri().confirm();
    raise(7);
    EXPECT_EQ(calls().size(), 3U);
    cease(7);
    cease(7);
    EXPECT_EQ(m_handler.getNumFaults(), 0U);
}

TEST_F(BriFaultHandlerTest, itHoldsNoMoreAfterManyEventsThanAfterFew)
{
    const auto round = [this] {
        for (int id = 0; id <= 11; ++id) {
            raise(id, 1);
        }
        for (int id = 0; id <= 11; ++id) {
            cease(id);
        }
        calls();
        m_log.clear();
        m_board.traces().clear();
    };
    round();
    const std::size_t held = m_handler.getNumFaults();
    for (int i = 0; i < 50; ++i) {
        round();
    }
    EXPECT_EQ(m_handler.getNumFaults(), held);
    EXPECT_EQ(held, 3U) << "One place for each of the hiding faults that have stood";
}

TEST_F(BriFaultHandlerTest, casesThatNeverRepeatAreForgotten)
{
    for (std::uint32_t faultCase = 0; faultCase < 4200; ++faultCase) {
        raise(0, faultCase);
        cease(0);
        m_log.clear();
    }
    EXPECT_EQ(m_handler.getNumFaults(), 4096U);
    EXPECT_EQ(calls().size(), 8400U);
}
