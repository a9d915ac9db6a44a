#include "bbBciFixture.h"

#include "bbBci.h"
#include "bbbciConnEstablish.h"
#include "bbBciEnableOperation.h"
#include "bbBciGetCapabilities.h"

#include <stdexcept>

namespace {

using Merlow::BbBci::BbBci;
using Merlow::BbBci::BbbciConnEstablish;
using Merlow::BbBci::BbBciEnableOperation;
using Merlow::BbBci::BbBciGetCapabilities;
using Merlow::BbBci::CapabilityInfo;
using testing::ElementsAre;
using testing::IsEmpty;

/// A reject of a connection: 132 bytes.
std::string connectionReject(const std::string& revision, const std::string& text)
{
    return "01658002 00000001 0000012c " + revision + "0000 " + support::rejectTail(text);
}

class BbBciConnEstablishTest : public bbbci::BbBciTest {
protected:
    BbBciConnEstablishTest() { m_establish.initialize(); }
    void connect()
    {
        m_establish.sendConnEstablishReq(
            m_peer.mbox(),
            [this](const TarnNodeCommonAddressInfoS& address) { m_confirmed.push_back(address); },
            [this] { ++m_rejects; });
    }

    BbbciConnEstablish m_establish;
    std::vector<TarnNodeCommonAddressInfoS> m_confirmed;
    int m_rejects = 0;
};

TEST_F(BbBciConnEstablishTest, asksAtRevisionThreeFromItsOwnMailbox)
{
    connect();
    EXPECT_EQ(request(), "01658000 00000001 0000012c 00030000");
    EXPECT_EQ(request(), "");
    EXPECT_EQ(m_log.count(bbbci::Event::SendSig,
                          "Sent signal TARN_BC_CONN_ESTABLISH_REQ: clientRef: 1, serverRef: 300"),
              1U);
}

TEST_F(BbBciConnEstablishTest, theConfirmGivesTheReferencesInHostOrder)
{
    connect();
    answer("01658001 00000001 0000013a");
    ASSERT_EQ(m_confirmed.size(), 1U);
    EXPECT_EQ(m_confirmed.front().clientRef, 1);
    EXPECT_EQ(m_confirmed.front().serverRef, 314);
    EXPECT_EQ(m_rejects, 0);
    EXPECT_EQ(m_log.count(bbbci::Event::RecSig,
                          "Received signal TARN_BC_CONN_ESTABLISH_CFM: clientRef: 1, serverRef: 314"),
              1U);
}

TEST_F(BbBciConnEstablishTest, anotherRevisionInTheRejectIsTriedAtOnce)
{
    connect();
    request();
    answer(connectionReject("0002", "Protocol not supported"));
    EXPECT_EQ(request(), "01658000 00000001 0000012c 00020000");
    EXPECT_EQ(m_rejects, 0);
    EXPECT_THAT(m_confirmed, IsEmpty());
    EXPECT_THAT(errors(), IsEmpty());

    answer("01658001 00000001 0000012d");
    EXPECT_EQ(m_confirmed.size(), 1U) << "the callbacks stay";
}

TEST_F(BbBciConnEstablishTest, aRejectThatNamesTheOfferedRevisionEndsIt)
{
    connect();
    request();
    answer(connectionReject("0003", "Client already registered"));
    EXPECT_EQ(m_rejects, 1);
    EXPECT_EQ(request(), "");
    EXPECT_THAT(errors(),
                ElementsAre(receivedReject("TARN_BC_CONN_ESTABLISH_REJ", "Client already registered")));
}

TEST_F(BbBciConnEstablishTest, aPeerThatKeepsChangingItsMindGetsOneRequestForEachReject)
{
    connect();
    request();
    for (int i = 0; i < 50; ++i) {
        answer(connectionReject(i % 2 == 0 ? "0001" : "ffff", "no"));
        EXPECT_EQ(request(),
                  i % 2 == 0 ? "01658000 00000001 0000012c 00010000" : "01658000 00000001 0000012c ffff0000");
        EXPECT_EQ(request(), "") << "nothing is sent that the peer did not ask for";
    }
    answer(connectionReject("0003", "no"));
    EXPECT_EQ(m_rejects, 1);
}

TEST_F(BbBciConnEstablishTest, theNextRequestGoesToTheSenderOfTheReject)
{
    connect();
    const auto other = m_board.newClient();
    other.sendBytes(support::messageFromHex(connectionReject("0001", "no")), own());
    const auto received = other.receive();
    ASSERT_TRUE(received.has_value());
    EXPECT_EQ(support::messageToHex(received->bytes), "01658000 00000001 0000012c 00010000");
}

TEST_F(BbBciConnEstablishTest, aTextWithoutAnEndIsCutAtItsArray)
{
    connect();
    answer(connectionReject("0003", std::string(110, 'x')));
    EXPECT_THAT(errors(), ElementsAre(receivedReject("TARN_BC_CONN_ESTABLISH_REJ", std::string(110, 'x'))));
}

TEST_F(BbBciConnEstablishTest, shortSignalsAreTracedAndDropped)
{
    connect();
    request();
    answer("01658001 00000001 0000");
    EXPECT_TRUE(tracedAsShort("TARN_BC_CONN_ESTABLISH_CFM (0x1658001)", "10 of 12"));
    auto reject = support::messageFromHex(connectionReject("0002", "no"));
    reject.resize(131);
    answer(reject);
    EXPECT_TRUE(tracedAsShort("TARN_BC_CONN_ESTABLISH_REJ (0x1658002)", "131 of 132"));
    EXPECT_THAT(m_confirmed, IsEmpty());
    EXPECT_EQ(m_rejects, 0);
    EXPECT_EQ(request(), "");
}

TEST_F(BbBciConnEstablishTest, answersWithoutACallbackRaiseTheStandardError)
{
    EXPECT_THROW(answer("01658001 00000001 0000013a"), std::bad_function_call);
    EXPECT_THROW(answer(connectionReject("0003", "no")), std::bad_function_call);
    connect();
    answer("01658001 00000001 0000013a");
    EXPECT_EQ(m_confirmed.size(), 1U) << "and the pump goes on";
}

TEST_F(BbBciConnEstablishTest, aCallbackMayEndTheObject)
{
    m_establish.removeMessageHandlers();
    auto other = std::make_unique<BbbciConnEstablish>();
    other->initialize();
    int confirms = 0;
    const std::string kept = "a text that is longer than what fits into the function object itself";
    std::string seen;
    other->sendConnEstablishReq(
        m_peer.mbox(),
        [&, kept](const TarnNodeCommonAddressInfoS&) {
            other.reset();
            seen = kept;
            ++confirms;
        },
        [] {});
    answer("01658001 00000001 0000013a");
    EXPECT_EQ(confirms, 1);
    EXPECT_EQ(seen, kept);
    answer("01658001 00000001 0000013a");
    EXPECT_EQ(confirms, 1);
    EXPECT_THAT(m_board.unhandled(), ElementsAre(0x1658001U));
}

TEST_F(BbBciConnEstablishTest, aCallbackMayAskAgain)
{
    int first = 0;
    int second = 0;
    m_establish.sendConnEstablishReq(
        m_peer.mbox(),
        [&](const TarnNodeCommonAddressInfoS&) {
            ++first;
            m_establish.sendConnEstablishReq(
                m_peer.mbox(), [&](const TarnNodeCommonAddressInfoS&) { ++second; }, [] {});
        },
        [] {});
    answer("01658001 00000001 0000013a");
    answer("01658001 00000001 0000013a");
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 1);
}

TEST_F(BbBciConnEstablishTest, handlersComeWithInitializeAndGoWithTheObject)
{
    m_establish.removeMessageHandlers();
    answer("01658001 00000001 0000013a");
    answer(connectionReject("0002", "no"));
    EXPECT_THAT(m_board.unhandled(), ElementsAre(0x1658001U, 0x1658002U));
    EXPECT_EQ(request(), "");
    {
        BbbciConnEstablish other;
        other.initialize();
        answer(connectionReject("0002", "no"));
        EXPECT_EQ(request(), "01658000 00000001 0000012c 00020000");
    }
    answer(connectionReject("0002", "no"));
    EXPECT_EQ(request(), "");
}

TEST_F(BbBciConnEstablishTest, aSecondObjectGetsNothingAndTakesTheHandlersOffAtItsEnd)
{
    connect();
    {
        BbbciConnEstablish second;
        second.initialize();
        second.sendConnEstablishReq(
            m_peer.mbox(), [](const TarnNodeCommonAddressInfoS&) { FAIL() << "not the first"; }, [] {});
        answer("01658001 00000001 0000013a");
        EXPECT_EQ(m_confirmed.size(), 1U);
    }
    answer("01658001 00000001 0000013a");
    EXPECT_EQ(m_confirmed.size(), 1U);
    EXPECT_THAT(m_board.unhandled(), ElementsAre(0x1658001U));
}

class BbBciGetCapabilitiesTest : public bbbci::BbBciTest {
protected:
    BbBciGetCapabilitiesTest() { m_get.initialize(); }
    void ask()
    {
        m_get.sendGetCapabilitiesReq(
            m_peer.mbox(), {.clientRef = 1, .serverRef = 314},
            [this](const std::vector<CapabilityInfo>& capabilities) {
                m_capabilities = capabilities;
                ++m_confirms;
            },
            [this] { ++m_rejects; });
    }

    BbBciGetCapabilities m_get;
    std::vector<CapabilityInfo> m_capabilities;
    int m_confirms = 0;
    int m_rejects = 0;
};

TEST_F(BbBciGetCapabilitiesTest, sendsTheGivenReferences)
{
    ask();
    EXPECT_EQ(request(), "01658007 00000001 0000013a");
}

TEST_F(BbBciGetCapabilitiesTest, eachRecordBecomesAnEntry)
{
    ask();
    answer("01658008 00000001 0000013a 0003eeee"
           " 0006 0008 deadbeef"
           " ff9c 0004"
           " 0019 0005 07"
           " 99");
    ASSERT_EQ(m_confirms, 1);
    ASSERT_EQ(m_capabilities.size(), 3U);
    EXPECT_EQ(m_capabilities[0].tag, 6);
    EXPECT_THAT(m_capabilities[0].value, ElementsAre(0xDE, 0xAD, 0xBE, 0xEF));
    EXPECT_EQ(m_capabilities[1].tag, -100);
    EXPECT_THAT(m_capabilities[1].value, IsEmpty());
    EXPECT_EQ(m_capabilities[2].tag, 25);
    EXPECT_THAT(m_capabilities[2].value, ElementsAre(7));
    EXPECT_EQ(m_log.count(bbbci::Event::Info, "numberOfBoardCapabilities: 3"), 1U);
}

TEST_F(BbBciGetCapabilitiesTest, noRecordsAreAnEmptyList)
{
    ask();
    m_capabilities.resize(1);
    answer("01658008 00000001 0000013a 00000000");
    EXPECT_EQ(m_confirms, 1);
    EXPECT_THAT(m_capabilities, IsEmpty());
}

TEST_F(BbBciGetCapabilitiesTest, recordsBehindTheEndAreTracedAndTheConfirmDropped)
{
    ask();
    answer("01658008 00000001 0000013a ffff0000 0001 0004");
    EXPECT_TRUE(tracedAsShort("TARN_BC_GET_CAPABILITIES_CFM (0x1658008)", "20 of 24"));
    answer("01658008 00000001 0000013a 00020000 0001 0004 0002 00");
    EXPECT_TRUE(tracedAsShort("TARN_BC_GET_CAPABILITIES_CFM (0x1658008)", "23 of 24"));
    answer("01658008 00000001 0000013a 00010000 0001 ffff 11223344");
    EXPECT_TRUE(tracedAsShort("TARN_BC_GET_CAPABILITIES_CFM (0x1658008)", "24 of 65551"));
    answer("01658008 00000001 0000013a 0001");
    EXPECT_TRUE(tracedAsShort("TARN_BC_GET_CAPABILITIES_CFM (0x1658008)", "14 of 16"));
    EXPECT_EQ(m_confirms, 0);
    answer("01658008 00000001 0000013a 00010000 0001 0004");
    EXPECT_EQ(m_confirms, 1);
}

TEST_F(BbBciGetCapabilitiesTest, aRecordBelowItsHeadRaisesTheLengthErrorOfTheVector)
{
    ask();
    for (const char* length : {"0000", "0003"}) {
        try {
            answer("01658008 00000001 0000013a 00020000 0001 0004 0002 " + std::string(length));
            ADD_FAILURE() << length;
        } catch (const std::length_error& error) {
            EXPECT_STREQ(error.what(), "cannot create std::vector larger than max_size()");
        }
    }
    EXPECT_EQ(m_confirms, 0);
    answer("01658008 00000001 0000013a 00000000");
    EXPECT_EQ(m_confirms, 1);
}

TEST_F(BbBciGetCapabilitiesTest, theRejectIsTracedAndReported)
{
    ask();
    answer(reject("01658009", "not now"));
    EXPECT_EQ(m_rejects, 1);
    EXPECT_THAT(errors(), ElementsAre(receivedReject("TARN_BC_GET_CAPABILITIES_REJ", "not now")));
    answer("01658009 00000001 0000012c 0001");
    EXPECT_TRUE(tracedAsShort("TARN_BC_GET_CAPABILITIES_REJ (0x1658009)", "14 of 128"));
    EXPECT_EQ(m_rejects, 1);
}

TEST_F(BbBciGetCapabilitiesTest, answersWithoutACallbackRaiseTheStandardError)
{
    EXPECT_THROW(answer("01658008 00000001 0000013a 00000000"), std::bad_function_call);
    EXPECT_THROW(answer(reject("01658009", "no")), std::bad_function_call);
}

TEST_F(BbBciGetCapabilitiesTest, handlersGoWithTheObject)
{
    {
        BbBciGetCapabilities other; // never initialised, and yet its end takes the number's handlers off
    }
    answer("01658008 00000001 0000013a 00000000");
    answer(reject("01658009", "no"));
    EXPECT_THAT(m_board.unhandled(), ElementsAre(0x1658008U, 0x1658009U));
}

class BbBciEnableOperationTest : public bbbci::BbBciTest {
protected:
    BbBciEnableOperationTest() { m_enable.initialize(); }
    void ask()
    {
        m_enable.sendEnableOperationReq(
            m_peer.mbox(), {.clientRef = 1, .serverRef = -2}, [this] { ++m_confirms; },
            [this] { ++m_rejects; });
    }

    BbBciEnableOperation m_enable;
    int m_confirms = 0;
    int m_rejects = 0;
};

TEST_F(BbBciEnableOperationTest, sendsTheGivenReferences)
{
    ask();
    EXPECT_EQ(request(), "01658403 00000001 fffffffe");
}

TEST_F(BbBciEnableOperationTest, theConfirmIsTracedAndReported)
{
    ask();
    answer("01658404 00000001 fffffffe");
    EXPECT_EQ(m_confirms, 1);
    EXPECT_EQ(m_rejects, 0);
    EXPECT_EQ(m_log.count(bbbci::Event::RecSig,
                          "Received signal TARN_BC_ENABLE_OPERATION_CFM: clientRef: 1, serverRef: -2"),
              1U);
}

TEST_F(BbBciEnableOperationTest, theRejectIsTracedAndReported)
{
    ask();
    answer(reject("01658405", "signal expected elsewhere"));
    EXPECT_EQ(m_rejects, 1);
    EXPECT_EQ(m_confirms, 0);
    EXPECT_THAT(errors(),
                ElementsAre(receivedReject("TARN_BC_ENABLE_OPERATION_REJ", "signal expected elsewhere")));
}

TEST_F(BbBciEnableOperationTest, aSecondSendReplacesTheCallbacks)
{
    ask();
    int confirms = 0;
    m_enable.sendEnableOperationReq(
        m_peer.mbox(), m_address, [&] { ++confirms; }, [] {});
    answer("01658404 00000001 0000012c");
    EXPECT_EQ(m_confirms, 0);
    EXPECT_EQ(confirms, 1);
}

TEST_F(BbBciEnableOperationTest, answersWithoutASendRaiseTheStandardError)
{
    EXPECT_THROW(answer("01658404 00000001 0000012c"), std::bad_function_call);
    EXPECT_THROW(answer(reject("01658405", "no")), std::bad_function_call);
}

TEST_F(BbBciEnableOperationTest, shortSignalsAreTracedAndDropped)
{
    ask();
    answer("01658404 00000001");
    EXPECT_TRUE(tracedAsShort("TARN_BC_ENABLE_OPERATION_CFM (0x1658404)", "8 of 12"));
    answer("01658405 00000001 0000012c");
    EXPECT_TRUE(tracedAsShort("TARN_BC_ENABLE_OPERATION_REJ (0x1658405)", "12 of 128"));
    EXPECT_EQ(m_confirms + m_rejects, 0);
}

TEST_F(BbBciEnableOperationTest, handlersGoWithTheObject)
{
    m_enable.removeMessageHandlers();
    answer("01658404 00000001 0000012c");
    answer(reject("01658405", "no"));
    EXPECT_THAT(m_board.unhandled(), ElementsAre(0x1658404U, 0x1658405U));
}

class BbBciComponentTest : public bbbci::BbBciTest {};

TEST_F(BbBciComponentTest, takesNoSignalAndHoldsNothingUp)
{
    auto& component = m_board.add<BbBci>();
    EXPECT_TRUE(component.isReadyToPublish());
    EXPECT_EQ(component.getComponentName(), "");
    EXPECT_EQ(m_log.count(bbbci::Event::Trace1, "Entering virtual bool Merlow::BbBci::BbBci::init()"), 1U);
    for (const char* signal : {"01658001", "01658008", "0165800b", "0165800d", "01658404"}) {
        answer(std::string(signal) + " 00000001 0000012c 00000000");
    }
    EXPECT_THAT(m_board.unhandled(), ElementsAre(0x1658001U, 0x1658008U, 0x165800BU, 0x165800DU, 0x1658404U));
    EXPECT_TRUE(m_peer.nothingReceived());
}

} // namespace
