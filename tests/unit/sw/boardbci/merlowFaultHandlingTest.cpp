#include "merlowFaultHandling.h"
#include "rowTest.h"

#include "board.h"
#include "merlowUtil.h"

#include <gmock/gmock.h>
#include <sstream>

using Merlow::FaultData;
using Merlow::FaultSource;
using support::Board;

namespace {

std::string hex(unsigned int number)
{
    std::ostringstream text;
    text << std::hex << number;
    return text.str();
}

/// The three kinds of subscription as their signals.
struct Kind {
    const char* req;
    const char* cfm;
    const char* name;
};
const Kind byDefault{"0165800a", "0165800b", "TARN_BC_SUBSCRIBE_FAULTS_REQ"};
const Kind withLabel{"0165a107", "0165a104", "TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REQ"};
const Kind withRecoveryTime{"0165a004", "0165a002", "TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_REQ"};

constexpr const char* refs = " 00000007 0000012c";

/// The whole of a TARN_BC_FAULT_IND, each field at its offset.
std::string faultInd(std::uint16_t id, std::uint16_t faultCase, const std::string& description,
                     const std::string& references = refs)
{
    support::Bytes bytes = support::messageFromHex("0165800d" + references);
    bytes.resize(144);
    bytes[12] = static_cast<std::uint8_t>(id >> 8U);
    bytes[13] = static_cast<std::uint8_t>(id);
    std::copy(description.begin(), description.end(), bytes.begin() + 16);
    bytes[140] = static_cast<std::uint8_t>(faultCase >> 8U);
    bytes[141] = static_cast<std::uint8_t>(faultCase);
    return support::messageToHex(bytes);
}

class MerlowFaultHandlingTest : public ::testing::Test {
protected:
    /// Subscribes with these references and takes the confirm.
    static void subscribe(const support::VirtualClient& client, const Kind& kind = byDefault,
                          const std::string& references = refs)
    {
        client.sendHex(kind.req + references);
        EXPECT_EQ(client.receivedHex(), kind.cfm + references);
    }
    support::VirtualClient subscriber()
    {
        const auto client = m_board.connectClient();
        subscribe(client);
        return client;
    }
    void raise(std::uint16_t id, std::uint16_t faultCase = 0, const std::string& description = {})
    {
        FaultData data(FaultSource::BRI, id, faultCase, description);
        EXPECT_TRUE(m_board.commonData().getFaultManager().addFault(data));
    }
    void cease(std::uint16_t id) { m_board.commonData().getFaultManager().removeFault(id); }
    static std::size_t drain(const support::VirtualClient& client)
    {
        std::size_t count = 0;
        while (client.receive()) {
            ++count;
        }
        return count;
    }

    Board m_board{{.bri = false, .bmmi = false}};
    MerlowFaultHandling& m_handling = m_board.add<MerlowFaultHandling>();
};

class FaultKindTest : public MerlowFaultHandlingTest, public WithRow<Kind> {};

} // namespace

// Subscribing

ROW_TEST(FaultKindTest, isConfirmedWithTheReferencesOfTheRequest)
{
    const auto client = m_board.connectClient();
    client.sendHex(std::string(row().req) + " 80000001 fffffffe");
    EXPECT_EQ(client.receivedHex(), std::string(row().cfm) + " 80000001 fffffffe");
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(m_handling.getNumSubscribers(), 1U);
}

ROW_TEST(FaultKindTest, aRepetitionIsConfirmedAgainAndStandsOnce)
{
    const auto client = m_board.connectClient();
    subscribe(client, row());
    subscribe(client, row());
    EXPECT_EQ(m_handling.getNumSubscribers(), 1U);
}

ROW_TEST(FaultKindTest, otherReferencesAreAnotherSubscription)
{
    const auto client = m_board.connectClient();
    subscribe(client, row());
    subscribe(client, row(), " 00000008 0000012c");
    subscribe(client, row(), " 00000007 0000012d");
    const auto other = m_board.connectClient();
    subscribe(other, row());
    EXPECT_EQ(m_handling.getNumSubscribers(), 4U);
}

ROW_TEST(FaultKindTest, aStrangerGetsNoAnswer)
{
    const auto stranger = m_board.newClient();
    stranger.sendHex(std::string(row().req) + " 00000007 fffffffe");
    EXPECT_TRUE(m_board.traced(4, std::string("ABN: ") + row().name +
                                      " ignored, serverRef 4294967294 is not connected"));
    EXPECT_TRUE(stranger.nothingReceived());
    EXPECT_EQ(m_handling.getNumSubscribers(), 0U);
}

ROW_TEST(FaultKindTest, theRequestIsReadAtEveryLength)
{
    const auto client = m_board.connectClient();
    const auto whole = support::messageFromHex(row().req + std::string(refs) + " deadbeef");
    for (std::size_t size = 4; size <= whole.size(); ++size) {
        SCOPED_TRACE(size);
        m_board.traces().clear();
        client.sendToServer({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)});
        if (size < 12) {
            EXPECT_TRUE(client.nothingReceived());
            EXPECT_EQ(m_handling.getNumSubscribers(), 0U);
            EXPECT_TRUE(m_board.traces().contains(4, "too short: " + std::to_string(size) + " of 12 bytes"));
            EXPECT_TRUE(m_board.traces().contains(4, "ABN: "));
        } else {
            EXPECT_EQ(client.receivedHex(), row().cfm + std::string(refs));
        }
    }
}

ROW_TEST(FaultKindTest, onlyTheDefaultKindCarriesTraffic)
{
    const auto client = m_board.connectClient();
    raise(0x0704);
    subscribe(client, row());
    raise(0x0705);
    cease(0x0705);
    EXPECT_EQ(drain(client), row().req == byDefault.req ? 3U : 0U);
}

const Kind kinds[] = {byDefault, withLabel, withRecoveryTime};
TEST_ROWS(Kinds, FaultKindTest, kinds);

TEST_F(MerlowFaultHandlingTest, theConfirmComesFirstAndWhatIsShownAfterIt)
{
    raise(0x0705, 3, "fan");
    raise(0x0101, 4, "hardware"); // hides the fan
    raise(0x0706, 5, "other fan");
    const auto client = m_board.connectClient();
    const auto other = subscriber();
    EXPECT_EQ(drain(other), 2U);
    client.sendHex(byDefault.req + std::string(refs));
    EXPECT_EQ(client.receivedHex(), byDefault.cfm + std::string(refs));
    EXPECT_EQ(client.receivedHex(), faultInd(0x0101, 4, "hardware"));
    EXPECT_EQ(client.receivedHex(), faultInd(0x0706, 5, "other fan"));
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(other.nothingReceived());
}

TEST_F(MerlowFaultHandlingTest, aRepetitionBringsTheActiveFaultsAgain)
{
    raise(0x0705, 3, "fan");
    const auto client = m_board.connectClient();
    for (int i = 0; i < 2; ++i) {
        client.sendHex(byDefault.req + std::string(refs));
        EXPECT_EQ(client.receivedHex(), byDefault.cfm + std::string(refs));
        EXPECT_EQ(client.receivedHex(), faultInd(0x0705, 3, "fan"));
        EXPECT_TRUE(client.nothingReceived());
    }
}

TEST_F(MerlowFaultHandlingTest, aTargetedFaultGoesToAllSubscriptionsOfTheMailbox)
{
    raise(0x0705, 3, "fan");
    const auto other = subscriber();
    drain(other);
    const auto client = subscriber();
    drain(client);
    client.sendHex(byDefault.req + std::string(" 00000008 0000012d"));
    EXPECT_EQ(client.receivedHex(), "0165800b 00000008 0000012d");
    EXPECT_EQ(client.receivedHex(), faultInd(0x0705, 3, "fan"));
    EXPECT_EQ(client.receivedHex(), faultInd(0x0705, 3, "fan", " 00000008 0000012d"));
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(other.nothingReceived());
}

// Moving between the lists

TEST_F(MerlowFaultHandlingTest, aSubscriptionWithLabelsEndsTheDefaultOneForGood)
{
    const auto client = subscriber();
    subscribe(client, withLabel);
    EXPECT_TRUE(m_board.traced(5, "Removing client subscription for default faults, serverRef = 300, "
                                  "mboxId = 0x" +
                                      hex(client.mbox())));
    EXPECT_EQ(m_handling.getNumSubscribers(), 1U);
    raise(0x0705);
    EXPECT_TRUE(client.nothingReceived());

    for (const Kind& kind : {byDefault, withRecoveryTime}) {
        client.sendHex(kind.req + std::string(refs));
        EXPECT_TRUE(client.nothingReceived());
        EXPECT_TRUE(m_board.traced(
            4, std::string("ABN: Signal ignored, signal: ") + kind.name +
                   "; additional info: received after TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REQ; "
                   "serverRef: 300clientRef: 7 sender: 0x" +
                   hex(client.mbox())));
    }
    EXPECT_EQ(m_handling.getNumSubscribers(), 1U);
    subscribe(client, byDefault, " 00000008 0000012c"); // other references are another subscriber
}

TEST_F(MerlowFaultHandlingTest, aSubscriptionWithLabelsLeavesOtherReferencesAlone)
{
    const auto client = subscriber();
    subscribe(client, withLabel, " 00000008 0000012c");
    EXPECT_EQ(m_handling.getNumSubscribers(), 2U);
    raise(0x0705, 1, "fan");
    EXPECT_EQ(client.receivedHex(), faultInd(0x0705, 1, "fan"));
}

TEST_F(MerlowFaultHandlingTest, withoutASessionTheDefaultSubscriptionIsTakenAwayAllTheSame)
{
    const auto client = subscriber();
    subscribe(client, byDefault, " 00000008 0000012c");
    m_board.endSession(client); // takes the first subscription
    client.sendHex(withLabel.req + std::string(" 00000008 0000012c"));
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(m_board.traced(4, "ABN: TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REQ ignored, serverRef "
                                  "300 is not connected"));
    EXPECT_EQ(m_handling.getNumSubscribers(), 0U);
}

TEST_F(MerlowFaultHandlingTest, aRecoveryTimeSubscriptionStandsBesideTheOthers)
{
    const auto client = subscriber();
    subscribe(client, withRecoveryTime);
    EXPECT_EQ(m_handling.getNumSubscribers(), 2U);
    raise(0x0705, 1, "fan");
    EXPECT_EQ(client.receivedHex(), faultInd(0x0705, 1, "fan"));
    EXPECT_TRUE(client.nothingReceived());
    subscribe(client, withLabel);
    EXPECT_EQ(m_handling.getNumSubscribers(), 2U);
}

// Faults

TEST_F(MerlowFaultHandlingTest, aFaultIsTheseBytes)
{
    const auto client = m_board.connectClient();
    subscribe(client, byDefault, " 80000001 fffffffe");
    raise(0x0705, 0xABCD, "RU External Fan Failed");
    EXPECT_EQ(client.receivedHex(),
              "0165800d 80000001 fffffffe 07050000 52552045 78746572 6e616c20 46616e20 4661696c 65640000 "
              "00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000 "
              "00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000 00000000 "
              "00000000 00000000 00000000 00000000 00000000 abcd0000");
    cease(0x0705);
    EXPECT_EQ(client.receivedHex(), "0165800e 80000001 fffffffe 07050000 00000000 00000000 abcd0000");
    EXPECT_TRUE(client.nothingReceived());
}

TEST_F(MerlowFaultHandlingTest, recoveryTimeAndLabelDoNotGoOut)
{
    const auto client = subscriber();
    FaultData data(FaultSource::CCFI, 0x0703, 1, "text", 77, "label");
    EXPECT_TRUE(m_board.commonData().getFaultManager().addFault(data));
    EXPECT_EQ(client.receivedHex(), faultInd(0x0703, 1, "text"));
}

TEST_F(MerlowFaultHandlingTest, aLongDescriptionIsCutAndTerminated)
{
    const auto client = subscriber();
    raise(0x0704, 1, std::string(109, 'a'));
    EXPECT_EQ(client.receivedHex(), faultInd(0x0704, 1, std::string(109, 'a')));
    EXPECT_FALSE(m_board.traces().contains(4, "data lost"));
    raise(0x0705, 1, std::string(110, 'b'));
    EXPECT_EQ(client.receivedHex(), faultInd(0x0705, 1, std::string(109, 'b')));
    EXPECT_TRUE(m_board.traces().contains(4, "data lost"));
}

TEST_F(MerlowFaultHandlingTest, everyDefaultSubscriptionGetsEveryFaultInOrderOfSubscribing)
{
    const auto first = subscriber();
    const auto second = subscriber();
    subscribe(first, byDefault, " 00000009 0000012c");
    m_board.traces().clear();
    raise(0x0705, 1, "fan");
    cease(0x0705);
    EXPECT_EQ(first.receivedHex(), faultInd(0x0705, 1, "fan"));
    EXPECT_EQ(first.receivedHex(), faultInd(0x0705, 1, "fan", " 00000009 0000012c"));
    EXPECT_EQ(first.receivedHex(), "0165800e 00000007 0000012c 07050000 00000000 00000000 00010000");
    EXPECT_EQ(first.receivedHex(), "0165800e 00000009 0000012c 07050000 00000000 00000000 00010000");
    EXPECT_EQ(second.receivedHex(), faultInd(0x0705, 1, "fan"));
    EXPECT_EQ(second.receivedHex(), "0165800e 00000007 0000012c 07050000 00000000 00000000 00010000");
    const auto& sent = m_board.mnet().sent();
    ASSERT_GE(sent.size(), 6U);
    EXPECT_EQ(sent[sent.size() - 6].to, first.mbox());
    EXPECT_EQ(sent[sent.size() - 5].to, second.mbox());
    EXPECT_EQ(sent[sent.size() - 4].to, first.mbox());
}

TEST_F(MerlowFaultHandlingTest, indicationsAreTraced)
{
    const auto client = m_board.connectClient();
    subscribe(client, byDefault, " 00000007 fffffffe");
    raise(0x0705, 3, "fan");
    cease(0x0705);
    EXPECT_TRUE(m_board.traced(5, "ABN:Equipment fault,signal:TARN_BC_FAULT_IND,client ref:7,server ref:-2,"
                                  "fault id:TARN_CONST_FH_FAULT_ID_FAN_FAILED (0x705),fault description:fan,"
                                  "fault case:3"));
    EXPECT_TRUE(m_board.traced(5, "sending TARN_BC_FAULT_IND, serverRef = 4294967294"));
    EXPECT_TRUE(m_board.traced(5, "ABN:Equipment fault cease,signal:TARN_BC_FAULTCEASE_IND,client ref:7,"
                                  "server ref:-2,fault id:TARN_CONST_FH_FAULT_ID_FAN_FAILED (0x705),"
                                  "fault case:3"));
    EXPECT_TRUE(m_board.traced(5, "sending TARN_BC_FAULTCEASE_IND, serverRef = 4294967294"));
    EXPECT_TRUE(m_board.traced(5, "new BcFaultSubscriber: mboxId = 0x" + hex(client.mbox()) +
                                      ", clientRef = 7, serverRef = 4294967294"));
}

TEST_F(MerlowFaultHandlingTest, aFaultWithoutSubscribersReachesALaterOne)
{
    raise(0x0705, 3, "fan");
    const auto client = m_board.connectClient();
    client.sendHex(byDefault.req + std::string(refs));
    EXPECT_EQ(drain(client), 2U);
}

TEST_F(MerlowFaultHandlingTest, aClientThatIsNotConnectedAnyMoreDoesNotDisturbTheOthers)
{
    const auto first = subscriber();
    const auto second = subscriber();
    m_board.mnet().fail(support::FakeMnet::Call::send);
    raise(0x0705, 1, "fan");
    EXPECT_TRUE(first.nothingReceived());
    EXPECT_EQ(second.receivedHex(), faultInd(0x0705, 1, "fan"));
}

TEST_F(MerlowFaultHandlingTest, theSignalsHaveNames)
{
    const std::pair<unsigned int, const char*> names[] = {
        {0x165800A, "TARN_BC_SUBSCRIBE_FAULTS_REQ"},
        {0x165800B, "TARN_BC_SUBSCRIBE_FAULTS_CFM"},
        {0x165800D, "TARN_BC_FAULT_IND"},
        {0x165800E, "TARN_BC_FAULTCEASE_IND"},
        {0x165A002, "TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_CFM"},
        {0x165A004, "TARN_BC_SUBSCRIBE_FAULTS_WITH_RECOVERY_TIME_REQ"},
        {0x165A104, "TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_CFM"},
        {0x165A107, "TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REQ"},
    };
    for (const auto& [number, name] : names) {
        EXPECT_EQ(MerlowUtil::getMsgName(number), name);
    }
}

// The session's end

TEST_F(MerlowFaultHandlingTest, aLostSessionTakesItsFirstDefaultSubscriptionAlone)
{
    const auto client = subscriber();
    subscribe(client, byDefault, " 00000008 0000012c");
    subscribe(client, withRecoveryTime);
    const auto other = subscriber();
    m_board.endSession(client);
    EXPECT_TRUE(m_board.traced(5, "Deleting fault subscriber using mbox = " + std::to_string(client.mbox())));
    EXPECT_EQ(m_handling.getNumSubscribers(), 3U);
    raise(0x0705, 1, "fan");
    EXPECT_EQ(client.receivedHex(), faultInd(0x0705, 1, "fan", " 00000008 0000012c"));
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(drain(other), 1U);
}

TEST_F(MerlowFaultHandlingTest, aLostSessionWithoutSubscriptionsIsNoEvent)
{
    const auto client = m_board.connectClient();
    subscriber();
    m_board.endSession(client);
    EXPECT_EQ(m_handling.getNumSubscribers(), 1U);
    EXPECT_FALSE(m_board.traces().contains(5, "Deleting fault subscriber"));
    EXPECT_EQ(m_board.mnet().monitorCount(), 1U); // the other session's own
}

TEST_F(MerlowFaultHandlingTest, aSubscriptionWithLabelsOutlivesItsSessionWhileItsClientLives)
{
    const auto client = m_board.connectClient();
    subscribe(client, withLabel);
    m_board.endSession(client);
    client.sendHex(byDefault.req + std::string(refs));
    EXPECT_TRUE(m_board.traces().contains(4, "ABN: Signal ignored"));
    EXPECT_EQ(m_handling.getNumSubscribers(), 1U);
}

TEST_F(MerlowFaultHandlingTest, clientsThatComeAndGoLeaveNothing)
{
    for (int i = 0; i < 100; ++i) {
        const auto client = subscriber();
        subscribe(client, byDefault, " 00000008 0000012c");
        subscribe(client, withRecoveryTime);
        subscribe(client, withLabel, " 00000009 0000012c");
        client.die();
        m_board.pump();
        ASSERT_EQ(m_handling.getNumSubscribers(), 0U);
        ASSERT_EQ(m_board.mnet().monitorCount(), 0U);
    }
}

TEST_F(MerlowFaultHandlingTest, sessionsThatComeAndGoInOneClientLeaveOneWatch)
{
    const auto client = m_board.newClient();
    for (int i = 0; i < 100; ++i) {
        m_board.commonData().addClientSession(client.mbox(), 7, 300, 3, "DU_0", 0);
        subscribe(client, withRecoveryTime);
        m_board.endSession(client);
        ASSERT_EQ(m_handling.getNumSubscribers(), 1U);
        ASSERT_EQ(m_board.mnet().monitorCount(), 1U);
    }
    client.die();
    m_board.pump();
    EXPECT_EQ(m_handling.getNumSubscribers(), 0U);
}

TEST_F(MerlowFaultHandlingTest, whatCannotBeWatchedIsWatchedTheNextTime)
{
    const auto client = m_board.connectClient();
    subscribe(client, withLabel);
    m_board.mnet().fail(support::FakeMnet::Call::monitor);
    m_board.endSession(client);
    EXPECT_TRUE(m_board.traced(4, "ABN: Cannot watch fault subscriber using mbox = " +
                                      std::to_string(client.mbox())));
    m_board.commonData().addClientSession(client.mbox(), 7, 300, 3, "DU_0", 0);
    client.die();
    m_board.pump();
    EXPECT_EQ(m_handling.getNumSubscribers(), 0U);
}

TEST_F(MerlowFaultHandlingTest, nobodyCanSayThatASubscriberIsLost)
{
    const auto client = subscriber();
    client.sendHex("deadbef0");
    EXPECT_TRUE(m_board.traced(13, "Using default handler to process message 0xdeadbef0"));
    EXPECT_EQ(m_handling.getNumSubscribers(), 1U);
}
