#include "merlowTemperature.h"
#include "rowTest.h"

#include "bci/bciTemperature.h"
#include "board.h"
#include "brhCapabilities.h"
#include "bri.pb.h"

#include <gmock/gmock.h>
#include <sstream>

namespace {

namespace bri = boardresourcehandler::bri;
using support::Board;
using support::rejectTail;

constexpr std::uint32_t temperatureKey = 0x1707742;
const std::string temperatureRefs = " 00000007 fffffffe";

class MerlowTemperatureTest : public testing::Test {
protected:
    MerlowTemperatureTest()
    {
        briClient().addCapability(
            std::make_shared<TemperatureLevelMeasurement>(TemperatureLevelMeasurement::Params{}));
    }

    [[nodiscard]] BrhClient& briClient() { return m_board.commonData().getBriClient(); }
    [[nodiscard]] std::size_t openTransactions() { return briClient().getNumTransactions(); }
    static void request(const support::VirtualClient& client, const std::string& period,
                        const std::string& references = temperatureRefs)
    {
        client.sendHex("01659100" + references + " " + period);
    }
    /// The board confirms the start that has been asked for under `procedureRef`.
    void confirmStart(std::uint32_t procedureRef, std::uint32_t measurement)
    {
        bri::TempMeasStartCfm cfm;
        cfm.set_temp_meas_ref(measurement);
        m_board.bri().send(cfm, procedureRef);
    }
    /// A client whose measurement runs under procedure reference 1 and measurement reference 0x4d.
    [[nodiscard]] support::VirtualClient measuringClient()
    {
        auto client = m_board.connectClient();
        request(client, "0a");
        EXPECT_EQ(m_board.bri().receivedHex(), "01707742 00000001 00c0ffee 080a");
        confirmStart(1, 0x4D);
        EXPECT_EQ(client.receivedHex(), "01659101" + temperatureRefs);
        EXPECT_TRUE(isRunning(client, 1, 0x4D));
        return client;
    }
    static testing::AssertionResult isRunning(const support::VirtualClient& client,
                                              std::uint32_t procedureRef, std::uint32_t measurement)
    {
        const BcSession& session = *client.session();
        if (session.getProcedureRef(temperatureKey) == procedureRef &&
            session.getTempMeasRef() == measurement) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << "procedure " << session.getProcedureRef(temperatureKey)
                                           << ", measurement " << session.getTempMeasRef();
    }
    static bool isIdle(const support::VirtualClient& client)
    {
        return !client.session()->isProcedureRefInfoExist(temperatureKey) &&
               client.session()->getTempMeasRef() == 0;
    }
    void indicate(std::uint32_t procedureRef, std::initializer_list<std::int32_t> temperatures)
    {
        bri::TempMeasInd ind;
        for (const auto temperature : temperatures) {
            ind.add_temperatures(temperature);
        }
        m_board.bri().send(ind, procedureRef);
    }
    static std::string hex(mnet_mbox_id_t mailbox)
    {
        std::ostringstream text;
        text << std::hex << mailbox;
        return text.str();
    }

    Board m_board;
    MerlowTemperature& m_temperature = m_board.add<MerlowTemperature>();
};

// Start, restart, stop

TEST_F(MerlowTemperatureTest, startGoesToTheBoardAndKeepsItsTransaction)
{
    const auto client = m_board.connectClient();
    request(client, "0a");
    EXPECT_EQ(m_board.bri().receivedHex(), "01707742 00000001 00c0ffee 080a");
    EXPECT_TRUE(client.nothingReceived());
    ASSERT_NE(briClient().searchTransactionProcedure(1), nullptr);
    EXPECT_EQ(*briClient().searchTransactionProcedure(1),
              (BrhClient::ProcedureTransaction{.procedureRef = 1,
                                               .clientMbox = client.mbox(),
                                               .serverRef = -2,
                                               .clientRef = 7,
                                               .data = 0x1707742}));
    EXPECT_TRUE(isIdle(client));

    m_board.bri().sendHex("01707743 00000001 00000064 084d");
    EXPECT_EQ(client.receivedHex(), "01659101 00000007 fffffffe");
    EXPECT_TRUE(isRunning(client, 1, 0x4D));
    EXPECT_EQ(openTransactions(), 1U);
}

TEST_F(MerlowTemperatureTest, oneTransactionServesTheWholeMeasurementWithTheReferencesOfItsStart)
{
    const auto client = measuringClient();
    request(client, "14", " 00000063 00000064");
    EXPECT_EQ(m_board.bri().receivedHex(), "0170776a 00000001 00c0ffee 084d1014");
    m_board.bri().sendHex("0170776b 00000001 00000064");
    EXPECT_EQ(client.receivedHex(), "01659101" + temperatureRefs);
    indicate(1, {5});
    EXPECT_EQ(client.receivedHex(),
              "01659103" + temperatureRefs + " 00010000 00050000 00000000 00000000 00000000 00000000");
    EXPECT_EQ(openTransactions(), 1U);

    request(client, "00", " 00000062 00000063");
    EXPECT_EQ(m_board.bri().receivedHex(), "01707745 00000001 00c0ffee 084d");
    EXPECT_TRUE(isRunning(client, 1, 0x4D));
    m_board.bri().sendHex("01707746 00000001 00000064");
    EXPECT_EQ(client.receivedHex(), "01659101" + temperatureRefs);
    EXPECT_TRUE(isIdle(client));
    EXPECT_EQ(openTransactions(), 0U);

    request(client, "05");
    EXPECT_EQ(m_board.bri().receivedHex(), "01707742 00000002 00c0ffee 0805");
}

TEST_F(MerlowTemperatureTest, periodsAreTheBoardsToJudge)
{
    const auto client = m_board.connectClient();
    request(client, "00"); // nothing to stop
    EXPECT_EQ(m_board.bri().receivedHex(), "01707742 00000001 00c0ffee 0800");
    m_board.bri().sendHex("01707744 00000001 00000064 0800");
    EXPECT_EQ(client.receivedHex(), "01659102" + temperatureRefs + " " +
                                        rejectTail("Invalid hotSpotMeasurementPeriod: exp: 1 - 30"));
    request(client, "ff");
    EXPECT_EQ(m_board.bri().receivedHex(), "01707742 00000002 00c0ffee 08ff01");
    confirmStart(2, 1);
    EXPECT_NE(client.receivedHex(), "");
    request(client, "1f");
    EXPECT_EQ(m_board.bri().receivedHex(), "0170776a 00000002 00c0ffee 0801101f");
}

TEST_F(MerlowTemperatureTest, secondStartBeforeTheFirstIsAnsweredIsAnotherStart)
{
    const auto client = m_board.connectClient();
    request(client, "0a", " 00000001 0000012c");
    request(client, "0b", " 00000002 0000012c");
    EXPECT_EQ(m_board.bri().receivedHex(), "01707742 00000001 00c0ffee 080a");
    EXPECT_EQ(m_board.bri().receivedHex(), "01707742 00000002 00c0ffee 080b");
    EXPECT_EQ(openTransactions(), 2U);
    confirmStart(1, 0x11);
    EXPECT_EQ(client.receivedHex(), "01659101 00000001 0000012c");
    m_board.traces().clear();
    confirmStart(2, 0x22);
    EXPECT_EQ(client.receivedHex(), "01659101 00000002 0000012c");
    EXPECT_TRUE(m_board.traces().contains(4, "already exist"));
    EXPECT_TRUE(isRunning(client, 1, 0x22));
    indicate(1, {});
    indicate(2, {});
    EXPECT_EQ(client.expect<TarnBcTempMeasIndS>().addressInfo.clientRef, 1);
    EXPECT_EQ(client.expect<TarnBcTempMeasIndS>().addressInfo.clientRef, 2);

    request(client, "00");
    EXPECT_EQ(m_board.bri().receivedHex(), "01707745 00000001 00c0ffee 0822");
    m_board.bri().sendHex("01707746 00000001 00000064");
    EXPECT_EQ(client.receivedHex(), "01659101 00000001 0000012c");
    EXPECT_EQ(openTransactions(), 1U);
    indicate(1, {});
    EXPECT_TRUE(client.nothingReceived());
    indicate(2, {});
    EXPECT_FALSE(client.nothingReceived());
}

TEST_F(MerlowTemperatureTest, startConfirmedTwiceKeepsItsTransactionWhateverElseIsBounded)
{
    const auto client = measuringClient();
    confirmStart(1, 0x4E);
    EXPECT_EQ(client.receivedHex(), "01659101" + temperatureRefs);
    EXPECT_TRUE(isRunning(client, 1, 0x4E));
}

TEST_F(MerlowTemperatureTest, startsThatNoStopEndsAreBounded)
{
    const auto client = m_board.connectClient();
    const auto rounds = BrhClient::maxAbandonedTransactions + 3;
    for (std::size_t i = 0; i < rounds; ++i) {
        request(client, "0a");
        request(client, "0a");
        const auto first = m_board.bri().expect<bri::TempMeasStartReq>().procedureRef;
        const auto second = m_board.bri().expect<bri::TempMeasStartReq>().procedureRef;
        confirmStart(first, 1);
        confirmStart(second, 2);
        request(client, "00");
        ASSERT_EQ(m_board.bri().expect<bri::TempMeasStopReq>().procedureRef, first);
        m_board.bri().send(bri::TempMeasStopCfm(), first);
        for (int answers = 0; answers < 3; ++answers) {
            EXPECT_NE(client.receivedHex(), "");
        }
        m_board.traces().clear();
    }
    EXPECT_EQ(openTransactions(), BrhClient::maxAbandonedTransactions);
    indicate(static_cast<std::uint32_t>(2 * rounds), {}); // the youngest
    EXPECT_FALSE(client.nothingReceived());
}

TEST_F(MerlowTemperatureTest, refusedStopLeavesTheMeasurementRunning)
{
    const auto client = measuringClient();
    request(client, "00", " 00000063 00000064");
    EXPECT_EQ(m_board.bri().receivedHex(), "01707745 00000001 00c0ffee 084d");
    m_board.bri().sendHex("01707747 00000001 00000064 0801");
    EXPECT_EQ(client.receivedHex(),
              "01659102" + temperatureRefs + " " + rejectTail("Internal error UNABLE_TO_STOP_TIMER"));
    EXPECT_TRUE(isRunning(client, 1, 0x4D));
    EXPECT_EQ(openTransactions(), 1U);
    request(client, "05");
    EXPECT_EQ(m_board.bri().receivedHex(), "0170776a 00000001 00c0ffee 084d1005");
    request(client, "00");
    EXPECT_EQ(m_board.bri().receivedHex(), "01707745 00000001 00c0ffee 084d");
}

TEST_F(MerlowTemperatureTest, refusedRestartLeavesTheMeasurementRunning)
{
    const auto client = measuringClient();
    request(client, "28");
    m_board.bri().expect<bri::TempMeasRestartReq>();
    m_board.bri().sendHex("0170776c 00000001 00000064 0800");
    EXPECT_EQ(client.receivedHex(), "01659102" + temperatureRefs + " " +
                                        rejectTail("Invalid hotSpotMeasurementPeriod: exp: 1 - 30"));
    EXPECT_TRUE(isRunning(client, 1, 0x4D));
    EXPECT_EQ(openTransactions(), 1U);
}

// Texts by cause, numbered differently in each reject

struct TemperatureRejectRow {
    const char* frame;
    const char* body;
    const char* text;
    std::size_t transactionsLeft;
};

void PrintTo(const TemperatureRejectRow& row, std::ostream* out)
{
    *out << row.frame << " " << row.body;
}

class MerlowTemperatureRejectTest : public MerlowTemperatureTest, public WithRow<TemperatureRejectRow> {};

ROW_TEST(MerlowTemperatureRejectTest, hasItsText)
{
    const auto client = measuringClient();
    m_board.bri().sendHex(std::string(row().frame) + " 00000001 00000064 " + row().body);
    EXPECT_EQ(client.receivedHex(), "01659102" + temperatureRefs + " " + rejectTail(row().text));
    EXPECT_EQ(openTransactions(), row().transactionsLeft);
}

const TemperatureRejectRow temperatureRejectRows[] = {
    {"01707744", "0800", "Invalid hotSpotMeasurementPeriod: exp: 1 - 30", 0},
    {"01707744", "0801", "Unable to start hotSpot timer", 0},
    {"01707744", "0802", "Unknown", 0},
    {"01707744", "", "Invalid hotSpotMeasurementPeriod: exp: 1 - 30", 0},
    {"0170776c", "0800", "Invalid hotSpotMeasurementPeriod: exp: 1 - 30", 1},
    {"0170776c", "0801", "Unable to restart hotSpot timer", 1},
    {"0170776c", "0802", "Internal error INVALID_TEMP_MEAS_REF", 1},
    {"0170776c", "0803", "", 1},
    {"0170776c", "", "Invalid hotSpotMeasurementPeriod: exp: 1 - 30", 1},
    {"01707747", "0800", "Internal error INVALID_TEMP_MEAS_REF", 1},
    {"01707747", "0801", "Internal error UNABLE_TO_STOP_TIMER", 1},
    {"01707747", "0802", "Unknown", 1},
    {"01707747", "", "Internal error INVALID_TEMP_MEAS_REF", 1}};
TEST_ROWS(all, MerlowTemperatureRejectTest, temperatureRejectRows);

TEST_F(MerlowTemperatureTest, causeWithoutATextIsTracedByItsName)
{
    const auto client = measuringClient();
    m_board.bri().sendHex("0170776c 00000001 00000064 0803");
    EXPECT_TRUE(m_board.traced(5, "MerlowTemperature:handleTempMeasRestartRej() UNKNOWN"));
    EXPECT_TRUE(isRunning(client, 1, 0x4D));
}

// The capability comes before the session

class MerlowTemperatureGateTest : public testing::Test, public WithRow<bool> {};

ROW_TEST(MerlowTemperatureGateTest, withoutTheCapabilityEveryRequestIsRefusedAtOnce)
{
    Board board;
    board.add<MerlowTemperature>();
    board.commonData().getBriClient().addCapability(
        std::make_shared<ClimateControl>(ClimateControl::Params{})); // which does not count
    const auto client = row() ? board.connectClient() : board.newClient();
    client.sendHex("01659100 00000007 fffffffe 0a");
    EXPECT_EQ(client.receivedHex(), "01659102 00000007 fffffffe " + rejectTail("Hotspots not supported"));
    client.sendHex("01659100 00000007 fffffffe"); // the period does not matter
    EXPECT_EQ(client.receivedHex(), "01659102 00000007 fffffffe " + rejectTail("Hotspots not supported"));
    client.sendHex("01659100 00000007 fffffe"); // without references there is nothing to answer to
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(board.traces().contains(4, "too short: 11 of 12 bytes"));
    EXPECT_TRUE(board.bri().nothingReceived());
    EXPECT_EQ(board.commonData().getBriClient().getNumTransactions(), 0U);
}

const bool connectedOrNot[] = {false, true};
TEST_ROWS(all, MerlowTemperatureGateTest, connectedOrNot);

TEST_F(MerlowTemperatureTest, strangerIsIgnoredWithTheCapability)
{
    const auto stranger = m_board.newClient();
    request(stranger, "0a");
    EXPECT_TRUE(
        m_board.traced(4, "ABN: No session for this client exists. Ignoring TarnBcTempMeasStartReq!"));
    EXPECT_TRUE(stranger.nothingReceived());
    EXPECT_TRUE(m_board.bri().nothingReceived());
    EXPECT_EQ(openTransactions(), 0U);
}

/// The first `size` bytes of a request.
support::Bytes temperatureRequest(std::size_t size)
{
    const auto whole = support::messageFromHex("01659100 00000007 fffffffe 0adeadbe");
    return {whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)};
}

TEST_F(MerlowTemperatureTest, requestIsReadAtEveryLength)
{
    const auto client = m_board.connectClient();
    for (std::size_t size = 4; size <= 16; ++size) {
        SCOPED_TRACE(size);
        m_board.traces().clear();
        client.sendToServer(temperatureRequest(size));
        if (size < 13) {
            EXPECT_TRUE(m_board.bri().nothingReceived());
            EXPECT_TRUE(m_board.traces().contains(4, "too short: " + std::to_string(size) + " of 1" +
                                                         (size < 12 ? "2" : "3") + " bytes"));
            EXPECT_EQ(openTransactions(), 0U);
        } else {
            EXPECT_EQ(m_board.bri().expect<bri::TempMeasStartReq>().message.timer_period(), 10U);
        }
    }
}

TEST_F(MerlowTemperatureTest, strangerWithACutRequestIsAStrangerFirst)
{
    m_board.newClient().sendToServer(temperatureRequest(12));
    EXPECT_TRUE(
        m_board.traced(4, "ABN: No session for this client exists. Ignoring TarnBcTempMeasStartReq!"));
    EXPECT_FALSE(m_board.traces().contains(4, "too short"));
}

// Readings

struct TemperatureReadings {
    std::initializer_list<std::int32_t> temperatures;
    const char* fields;
};

TEST_F(MerlowTemperatureTest, readingsAreCutToTenAndToSixteenBits)
{
    const TemperatureReadings rows[] = {
        {{}, "00000000 00000000 00000000 00000000 00000000 00000000"},
        {{453}, "00010000 01c50000 00000000 00000000 00000000 00000000"},
        {{0x12345, -1, 0x8000}, "00030000 2345ffff 80000000 00000000 00000000 00000000"},
        {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, "000a0000 00010002 00030004 00050006 00070008 0009000a"},
        {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}, "000a0000 00010002 00030004 00050006 00070008 0009000a"},
    };
    const auto client = measuringClient();
    for (const auto& row : rows) {
        indicate(1, row.temperatures);
        EXPECT_EQ(client.receivedHex(), "01659103" + temperatureRefs + " " + row.fields);
    }
    EXPECT_EQ(openTransactions(), 1U);
}

TEST_F(MerlowTemperatureTest, readingBeforeTheConfirmIsHandedOn)
{
    const auto client = m_board.connectClient();
    request(client, "0a");
    indicate(1, {1});
    EXPECT_EQ(client.expect<TarnBcTempMeasIndS>().numberOfReadings, 1);
}

TEST_F(MerlowTemperatureTest, readingOfNoMeasurementIsDropped)
{
    const auto client = measuringClient();
    m_board.traces().clear();
    indicate(9, {1});
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(m_board.traces().contains(5, " does not exist. Ignoring bri::TempMeasInd"));
    EXPECT_FALSE(m_board.traces().contains(4, "ABN"));
}

TEST_F(MerlowTemperatureTest, manyClientsEachGetTheirOwn)
{
    std::vector<support::VirtualClient> clients;
    for (std::int32_t i = 0; i < 40; ++i) {
        clients.push_back(m_board.connectClient({.clientRef = i}));
        clients.back().send(TarnBcTempMeasStartReq{.addressInfo = {i, 300}, .hotSpotMeasurementPeriod = 1});
        confirmStart(m_board.bri().expect<bri::TempMeasStartReq>().procedureRef, 1000 + i);
        EXPECT_NE(clients.back().receivedHex(), "");
    }
    for (std::int32_t round = 0; round < 60; ++round) {
        for (std::int32_t i = 39; i >= 0; --i) {
            indicate(1 + i, {100 * i + round});
        }
        for (std::int32_t i = 0; i < 40; ++i) {
            const auto ind = clients[i].expect<TarnBcTempMeasIndS>();
            EXPECT_EQ(ind.addressInfo.clientRef, i);
            EXPECT_EQ(ind.readings[0], 100 * i + round);
        }
    }
    for (std::int32_t i = 0; i < 40; ++i) {
        clients[i].send(TarnBcTempMeasStartReq{.addressInfo = {i, 300}, .hotSpotMeasurementPeriod = 0});
        const auto briReq = m_board.bri().expect<bri::TempMeasStopReq>();
        EXPECT_EQ(briReq.message.temp_meas_ref(), 1000U + i);
        m_board.bri().answer(briReq, bri::TempMeasStopCfm());
        EXPECT_EQ(clients[i].expect<TarnBcTempMeasStartCfmS>().addressInfo.clientRef, i);
        EXPECT_TRUE(clients[i].nothingReceived());
    }
    EXPECT_EQ(openTransactions(), 0U);
}

// Lost sessions

TEST_F(MerlowTemperatureTest, sessionLostWhileRunningStopsTheMeasurement)
{
    for (const bool isConfirmed : {true, false}) {
        SCOPED_TRACE(isConfirmed);
        const auto client = m_board.connectClient();
        request(client, "0a");
        const auto procedureRef = m_board.bri().expect<bri::TempMeasStartReq>().procedureRef;
        confirmStart(procedureRef, 0x4D);
        EXPECT_NE(client.receivedHex(), "");
        m_board.endSession(client);
        const auto briReq = m_board.bri().expect<bri::TempMeasStopReq>();
        EXPECT_EQ(briReq.procedureRef, procedureRef);
        EXPECT_EQ(briReq.message.temp_meas_ref(), 0x4DU);
        EXPECT_EQ(openTransactions(), 1U);
        m_board.traces().clear();
        if (isConfirmed) {
            m_board.bri().answer(briReq, bri::TempMeasStopCfm());
        } else {
            m_board.bri().answer(briReq, bri::TempMeasStopRej());
        }
        EXPECT_EQ(openTransactions(), isConfirmed ? 0U : 1U);
        EXPECT_TRUE(m_board.traced(5, std::string("MerlowTemperature:") +
                                          (isConfirmed ? "handleTempMeasStopCfm" : "handleTempMeasStopRej") +
                                          "() received BRI_TEMP_MEAS_STOP_CFM, session was deleted for "
                                          "procedureRef(" +
                                          std::to_string(procedureRef) + ")"));
        EXPECT_FALSE(m_board.traces().contains(4, "ABN"));
        EXPECT_TRUE(client.nothingReceived());
    }
}

TEST_F(MerlowTemperatureTest, sessionLostWhileStartingStopsNothing)
{
    const auto client = m_board.connectClient();
    request(client, "0a");
    m_board.bri().expect<bri::TempMeasStartReq>();
    m_board.endSession(client);
    EXPECT_TRUE(m_board.bri().nothingReceived());
    confirmStart(1, 0x4D);
    EXPECT_TRUE(m_board.traced(4, "ABN: BC session for mailboxID 0x" + hex(client.mbox()) +
                                      "not found, ignore signal"));
    EXPECT_EQ(openTransactions(), 1U);
    indicate(1, {1});
    EXPECT_TRUE(m_board.traced(4, "ABN: The client session for mailbox 0x" + hex(client.mbox()) +
                                      " does not exist. Ignoring bri::TempMeasInd"));
    EXPECT_EQ(openTransactions(), 1U);
    EXPECT_TRUE(client.nothingReceived());
}

TEST_F(MerlowTemperatureTest, refusedStartOfALostSessionLeavesNothing)
{
    const auto client = m_board.connectClient();
    request(client, "0a");
    m_board.endSession(client);
    m_board.traces().clear();
    m_board.bri().sendHex("01707744 00000001 00000064 0800");
    EXPECT_TRUE(m_board.traced(5, "MerlowTemperature:handleTempMeasStartRej() received "
                                  "BRI_TEMP_MEAS_START_REJ, session was deleted for procedureRef(1)"));
    EXPECT_FALSE(m_board.traces().contains(4, "ABN"));
    EXPECT_EQ(openTransactions(), 0U);
    EXPECT_TRUE(client.nothingReceived());
}

TEST_F(MerlowTemperatureTest, answersToARestartOfALostSessionAreTraced)
{
    const auto client = measuringClient();
    request(client, "05");
    m_board.endSession(client);
    for (const char* answer : {"0170776b 00000001 00000064", "0170776c 00000001 00000064 0800"}) {
        m_board.traces().clear();
        m_board.bri().sendHex(answer);
        EXPECT_TRUE(m_board.traced(4, "ABN: BC session for mailboxID 0x" + hex(client.mbox()) +
                                          "not found, ignore signal"));
        EXPECT_TRUE(client.nothingReceived());
        EXPECT_EQ(openTransactions(), 1U);
    }
}

TEST_F(MerlowTemperatureTest, sessionWithoutAMeasurementEndsWithoutAWord)
{
    const auto client = m_board.connectClient();
    client.die();
    EXPECT_TRUE(m_board.bri().nothingReceived());
}

// Answers of nobody, bad bodies, no backend

struct TemperatureAnswerRow {
    std::uint32_t number;
    const char* name;
    const char* trace; ///< for an answer to nothing
};

const TemperatureAnswerRow temperatureAnswers[] = {
    {0x1707743, "TempMeasStartCfm",
     "ABN: BRI_TEMP_MEAS_START_CFM, no matching BRI_TEMP_MEAS_START_REQ procedureRef was found"},
    {0x1707744, "TempMeasStartRej",
     "ABN: BRI_TEMP_MEAS_START_REJ, no matching BRI_TEMP_MEAS_START_REQ procedureRef was found"},
    {0x170776B, "TempMeasRestartCfm",
     "ABN: BRI_TEMP_MEAS_RESTART_CFM, no matching BRI_TEMP_MEAS_RESTART_REQ procedureRef was found"},
    {0x170776C, "TempMeasRestartRej",
     "ABN: BRI_TEMP_MEAS_STOP_REJ, no matching BRI_TEMP_MEAS_RESTART_REQ procedureRef was found"},
    {0x1707746, "TempMeasStopCfm",
     "ABN: BRI_TEMP_MEAS_STOP_CFM, no matching BRI_TEMP_MEAS_STOP_REQ procedureRef was found"},
    {0x1707747, "TempMeasStopRej",
     "ABN: BRI_TEMP_MEAS_STOP_REJ, no matching BRI_TEMP_MEAS_STOP_REQ procedureRef was found"},
    {0x1707748, "TempMeasInd", nullptr},
};

class MerlowTemperatureAnswerTest : public MerlowTemperatureTest, public WithRow<TemperatureAnswerRow> {};

ROW_TEST(MerlowTemperatureAnswerTest, ofNobodyIsTracedAndChangesNothing)
{
    const auto client = measuringClient();
    m_board.traces().clear();
    m_board.bri().sendBody(row().number, 2, "");
    if (row().trace != nullptr) {
        EXPECT_TRUE(m_board.traced(4, row().trace));
    }
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(isRunning(client, 1, 0x4D));
    EXPECT_EQ(openTransactions(), 1U);
}

ROW_TEST(MerlowTemperatureAnswerTest, thatDoesNotParseIsTracedAndDropped)
{
    const auto client = measuringClient();
    m_board.bri().sendBody(row().number, 1, "\x08");
    EXPECT_TRUE(m_board.traced(1, std::string("Unable to parse GPB message boardresourcehandler.bri.") +
                                      row().name + " of size 13 bytes"));
    const auto frame = support::makeFrame(row().number, 1, 100, "");
    ASSERT_EQ(frame.size(), 12U);
    for (std::size_t size = 4; size < frame.size(); ++size) {
        m_board.bri().sendBytes({frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(size)});
        EXPECT_TRUE(m_board.traces().contains(4, " is too short: " + std::to_string(size) + " of 12 bytes"));
    }
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(isRunning(client, 1, 0x4D));
    EXPECT_EQ(openTransactions(), 1U);
}

TEST_ROWS(all, MerlowTemperatureAnswerTest, temperatureAnswers);

TEST_F(MerlowTemperatureTest, startWithoutABackendStoresItsTransactionAllTheSame)
{
    m_board.bri().stop();
    const auto client = m_board.connectClient();
    request(client, "0a");
    EXPECT_TRUE(m_board.traced(4, "ABN: Failed to send message -- not connected to BRH server"));
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(openTransactions(), 1U);
    ASSERT_NE(briClient().searchTransactionProcedure(0), nullptr);
    EXPECT_EQ(briClient().searchTransactionProcedure(0)->clientMbox, client.mbox());
    request(client, "0b");
    EXPECT_EQ(openTransactions(), 1U) << "One reference, one transaction";
}

TEST_F(MerlowTemperatureTest, measurementWithoutAReferenceTakesAFreshOneForEachRequest)
{
    m_board.bri().stop();
    const auto client = m_board.connectClient();
    request(client, "0a");
    m_board.bri().start();
    m_board.bri().confirm();
    while (!m_board.bri().receivedHex().empty()) { // what a new server is asked first
    }
    confirmStart(0, 0x4D);
    EXPECT_EQ(client.receivedHex(), "01659101" + temperatureRefs);
    request(client, "05");
    request(client, "00");
    const auto restart = m_board.bri().expect<bri::TempMeasRestartReq>();
    const auto stop = m_board.bri().expect<bri::TempMeasStopReq>();
    EXPECT_NE(restart.procedureRef, 0U);
    EXPECT_NE(stop.procedureRef, 0U);
    EXPECT_NE(stop.procedureRef, restart.procedureRef);
    EXPECT_EQ(openTransactions(), 1U);
}

TEST_F(MerlowTemperatureTest, lostBackendLeavesTheMeasurementCountingAsRunning)
{
    const auto client = measuringClient();
    m_board.bri().stop();
    request(client, "05");
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(isRunning(client, 1, 0x4D));
    EXPECT_EQ(openTransactions(), 1U);
    m_board.bri().start();
    m_board.bri().confirm();
    request(client, "06");
    while (!m_board.bri().nothingReceived()) {
        const auto frame = m_board.bri().receivedHex();
        if (frame.starts_with("0170776a")) {
            EXPECT_EQ(frame, "0170776a 00000001 00c0ffee 084d1006");
            return;
        }
    }
    ADD_FAILURE() << "No restart reached the new server";
}

} // namespace
