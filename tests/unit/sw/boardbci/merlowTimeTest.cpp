#include "merlowTime.h"
#include "rowTest.h"

#include "bci/bciTime.h"
#include "board.h"
#include "bri.pb.h"

#include <gmock/gmock.h>

namespace bri = boardresourcehandler::bri;
using support::Board;
using support::rejectTail;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class MerlowTimeTest : public ::testing::Test {
protected:
    /// A session whose time source `ref` is registered.
    support::VirtualClient registeredClient(Board::ClientOptions options, unsigned int ref)
    {
        auto client = m_board.connectClient(options);
        m_board.announceSession(client);
        bri::RegisterUtcTimeSourceCfm cfm;
        cfm.set_utc_time_source_ref(ref);
        m_board.bri().answer(m_board.bri().expect<bri::RegisterUtcTimeSourceReq>(), cfm);
        return client;
    }
    [[nodiscard]] std::size_t openTransactions()
    {
        return m_board.commonData().getBriClient().getNumTransactions();
    }
    static bool isResponded(const support::VirtualClient& client)
    {
        // The other registration counts as answered, so that this one decides.
        client.session()->setMmiUserRegisterReqResponded(true);
        return client.session()->areRegistrationsResponded();
    }

    Board m_board;
    MerlowTime& m_time = m_board.add<MerlowTime>();
};

} // namespace

// Registration

struct Accuracy {
    std::int32_t serverRef;
    const char* hex;
};

class MerlowTimeAccuracyTest : public MerlowTimeTest, public WithRow<Accuracy> {};

ROW_TEST(MerlowTimeAccuracyTest, registrationCarriesTheAccuracyOfTheAccessType)
{
    const auto client = m_board.connectClient({.serverRef = row().serverRef});
    m_board.announceSession(client);
    EXPECT_EQ(m_board.bri().receivedHex(), row().hex);
    EXPECT_TRUE(m_board.bri().nothingReceived());
    const auto* transaction = m_board.commonData().getBriClient().searchTransactionProcedure(1);
    ASSERT_NE(transaction, nullptr);
    EXPECT_EQ(*transaction, (BrhClient::ProcedureTransaction{.procedureRef = 1,
                                                             .clientMbox = client.mbox(),
                                                             .serverRef = row().serverRef,
                                                             .clientRef = 7,
                                                             .data = 0x1707733}));
}

const Accuracy accuracies[] = {
    {99, "01707733 00000001 00c0ffee 0801"},  {100, "01707733 00000001 00c0ffee 0802"},
    {150, "01707733 00000001 00c0ffee 0802"}, {199, "01707733 00000001 00c0ffee 0802"},
    {200, "01707733 00000001 00c0ffee 0801"}, {-1, "01707733 00000001 00c0ffee 0801"}};
TEST_ROWS(all, MerlowTimeAccuracyTest, accuracies, [](const auto& row) {
    const auto ref = row.serverRef;
    return ref < 0 ? "negative" : std::to_string(ref);
});

TEST_F(MerlowTimeTest, registrationWithoutABackendLeavesNoTransaction)
{
    m_board.bri().stop();
    const auto client = m_board.connectClient();
    m_board.announceSession(client);
    EXPECT_EQ(openTransactions(), 0U);
    EXPECT_FALSE(isResponded(client));
    EXPECT_TRUE(m_board.traced(4, "ABN: Failed to send message -- not connected to BRH server"));
}

TEST_F(MerlowTimeTest, registerConfirmStoresTheReferenceAndReleasesTheConnection)
{
    const auto client = registeredClient({}, 77);
    EXPECT_EQ(client.session()->getUtcTimeSourceRef(), 77U);
    EXPECT_TRUE(isResponded(client));
    EXPECT_THAT(m_board.confirmCallbacks(), ElementsAre(client.mbox()));
    EXPECT_EQ(openTransactions(), 0U);
}

TEST_F(MerlowTimeTest, registerConfirmWithReferenceZeroIsOne)
{
    const auto client = registeredClient({}, 0);
    EXPECT_TRUE(isResponded(client));
    EXPECT_THAT(m_board.confirmCallbacks(), ElementsAre(client.mbox()));
}

TEST_F(MerlowTimeTest, registerConfirmWithoutReferenceLeavesTheClientWaiting)
{
    const auto client = m_board.connectClient();
    m_board.announceSession(client);
    m_board.bri().answer(m_board.bri().expect<bri::RegisterUtcTimeSourceReq>(),
                         bri::RegisterUtcTimeSourceCfm());
    EXPECT_TRUE(m_board.traced(4, "ABN: RegisterUtcTimeSourceCfm did not have a time source reference"));
    EXPECT_FALSE(isResponded(client));
    EXPECT_THAT(m_board.confirmCallbacks(), IsEmpty());
    EXPECT_EQ(openTransactions(), 0U);
}

TEST_F(MerlowTimeTest, registerRejectReleasesTheConnectionWithoutAReference)
{
    const auto client = m_board.connectClient();
    m_board.announceSession(client);
    m_board.bri().answer(m_board.bri().expect<bri::RegisterUtcTimeSourceReq>(),
                         bri::RegisterUtcTimeSourceRej());
    EXPECT_EQ(client.session()->getUtcTimeSourceRef(), 0U);
    EXPECT_TRUE(isResponded(client));
    EXPECT_THAT(m_board.confirmCallbacks(), ElementsAre(client.mbox()));

    client.send(TarnBcSetUtcTimeReqS{.utcTime = 5});
    EXPECT_EQ(m_board.bri().receivedHex(), "01707739 00000002 00c0ffee 08001005");
}

TEST_F(MerlowTimeTest, answersWithoutASubscribedCoreAreTaken)
{
    m_time.subscribeForSendTarnBcConnCfm({});
    const auto client = registeredClient({}, 77);
    EXPECT_TRUE(isResponded(client));
    EXPECT_THAT(m_board.confirmCallbacks(), IsEmpty());
}

// Setting the time

TEST_F(MerlowTimeTest, timeGoesOutUnderTheSessionsSource)
{
    const auto client = registeredClient({}, 77);
    client.sendHex("01659500 00000007 fffffffe fedcba98");
    EXPECT_EQ(m_board.bri().receivedHex(), "01707739 00000002 00c0ffee 084d1098 f5f2f60f");
    const auto* transaction = m_board.commonData().getBriClient().searchTransactionProcedure(2);
    ASSERT_NE(transaction, nullptr);
    EXPECT_EQ(*transaction, (BrhClient::ProcedureTransaction{.procedureRef = 2,
                                                             .clientMbox = client.mbox(),
                                                             .serverRef = -2,
                                                             .clientRef = 7,
                                                             .data = 0x1707739}));
    EXPECT_TRUE(client.nothingReceived());
}

TEST_F(MerlowTimeTest, confirmCarriesTheReferencesOfTheRequestItAnswers)
{
    const auto client = registeredClient({}, 77);
    client.sendHex("01659500 00000007 fffffffe 00000005");
    const auto briReq = m_board.bri().expect<bri::SetUtcTimeReq>();
    m_board.bri().answer(briReq, bri::SetUtcTimeCfm());
    EXPECT_EQ(client.receivedHex(), "01659501 00000007 fffffffe");
    EXPECT_EQ(openTransactions(), 0U);

    m_board.bri().answer(briReq, bri::SetUtcTimeCfm()); // late
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(
        m_board.traced(1, "No BRI transaction was found for procedureRef: 2. Ignoring SetUtcTimeCfm."));
}

TEST_F(MerlowTimeTest, rejectIsTheFixedText)
{
    const auto client = registeredClient({}, 77);
    client.sendHex("01659500 00000007 fffffffe 00000005");
    const auto briReq = m_board.bri().expect<bri::SetUtcTimeReq>();
    m_board.bri().answer(briReq, bri::SetUtcTimeRej());
    EXPECT_EQ(client.receivedHex(), "01659502 00000007 fffffffe " + rejectTail("Failed to set UTC time"));
    EXPECT_EQ(openTransactions(), 0U);

    m_board.bri().answer(briReq, bri::SetUtcTimeRej());
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(
        m_board.traced(1, "No BRI transaction was found for procedureRef: 2. Ignoring SetUtcTimeRej."));
}

TEST_F(MerlowTimeTest, twoClientsGetTheirOwnAnswers)
{
    const auto first = registeredClient({.clientRef = 1}, 77);
    const auto second = registeredClient({.clientRef = 2}, 78);
    first.sendHex("01659500 00000001 0000012c 00000005");
    second.sendHex("01659500 00000002 0000012c 00000006");
    const auto firstReq = m_board.bri().expect<bri::SetUtcTimeReq>();
    const auto secondReq = m_board.bri().expect<bri::SetUtcTimeReq>();
    EXPECT_EQ(firstReq.message.utc_time_source_ref(), 77U);
    EXPECT_EQ(secondReq.message.utc_time_source_ref(), 78U);
    m_board.bri().answer(secondReq, bri::SetUtcTimeCfm());
    EXPECT_TRUE(first.nothingReceived());
    EXPECT_EQ(second.receivedHex(), "01659501 00000002 0000012c");
    m_board.bri().answer(firstReq, bri::SetUtcTimeCfm());
    EXPECT_EQ(first.receivedHex(), "01659501 00000001 0000012c");
    EXPECT_TRUE(second.nothingReceived());
}

TEST_F(MerlowTimeTest, strangerGetsNoAnswer)
{
    const auto stranger = m_board.newClient();
    stranger.send(TarnBcSetUtcTimeReqS{.utcTime = 5});
    EXPECT_TRUE(m_board.traced(4, "ABN: No session for this client exists. Ignoring REQ!"));
    EXPECT_TRUE(m_board.bri().nothingReceived());
    EXPECT_TRUE(stranger.nothingReceived());
}

TEST_F(MerlowTimeTest, backendGoneLeavesTheClientWithoutAnAnswer)
{
    const auto client = registeredClient({}, 77);
    m_board.bri().stop();
    client.send(TarnBcSetUtcTimeReqS{.utcTime = 5});
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_EQ(openTransactions(), 0U);
}

TEST_F(MerlowTimeTest, requestIsReadAtEveryLength)
{
    const auto client = registeredClient({}, 77);
    const auto whole = support::messageFromHex("01659500 00000007 fffffffe 00000005 deadbeef");
    for (std::size_t size = 4; size <= whole.size(); ++size) {
        SCOPED_TRACE(size);
        m_board.traces().clear();
        client.sendToServer({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)});
        if (size < 16) {
            EXPECT_TRUE(m_board.bri().nothingReceived());
            EXPECT_TRUE(m_board.traces().contains(4, "ABN: "));
            EXPECT_TRUE(m_board.traces().contains(4, "too short: " + std::to_string(size) + " of 16 bytes"));
        } else {
            EXPECT_EQ(m_board.bri().expect<bri::SetUtcTimeReq>().message.utc_time(), 5U);
        }
    }
}

TEST_F(MerlowTimeTest, badBodiesAreTracedAndTheTransactionStays)
{
    const auto client = registeredClient({}, 77);
    client.send(TarnBcSetUtcTimeReqS{.addressInfo = {.clientRef = 7, .serverRef = 300}, .utcTime = 5});
    const auto briReq = m_board.bri().expect<bri::SetUtcTimeReq>();
    m_board.announceSession(client);
    const auto registration = m_board.bri().expect<bri::RegisterUtcTimeSourceReq>();
    m_board.bri().sendBody(bri::SetUtcTimeCfm::MESSAGE_NUMBER, briReq.procedureRef, "\x08");
    m_board.bri().sendBody(bri::SetUtcTimeRej::MESSAGE_NUMBER, briReq.procedureRef, "\x08");
    m_board.bri().sendBody(bri::RegisterUtcTimeSourceCfm::MESSAGE_NUMBER, registration.procedureRef, "\x08");
    m_board.bri().sendBody(bri::RegisterUtcTimeSourceRej::MESSAGE_NUMBER, registration.procedureRef, "\x08");
    for (const auto* name :
         {"SetUtcTimeCfm", "SetUtcTimeRej", "RegisterUtcTimeSourceCfm", "RegisterUtcTimeSourceRej"}) {
        EXPECT_TRUE(m_board.traced(1, std::string("Unable to parse GPB message boardresourcehandler.bri.") +
                                          name + " of size 13 bytes"));
    }
    EXPECT_EQ(openTransactions(), 2U);
    EXPECT_TRUE(client.nothingReceived());
    m_board.bri().answer(briReq, bri::SetUtcTimeCfm());
    EXPECT_EQ(client.receivedHex(), "01659501 00000007 0000012c");
}

// The session's end

TEST_F(MerlowTimeTest, lostSessionUnregistersItsSource)
{
    const auto client = registeredClient({}, 77);
    client.die();
    EXPECT_EQ(m_board.bri().receivedHex(), "01707736 00000002 00c0ffee 084d");
    EXPECT_EQ(openTransactions(), 0U);
    m_board.bri().sendHex("01707737 00000002 00000064");
    m_board.bri().sendHex("01707738 00000002 00000064");
    EXPECT_TRUE(m_board.traced(5, "MerlowTime::handleUnregisterUtcTimeSourceCfm()"));
    EXPECT_TRUE(m_board.traced(5, "MerlowTime::handleUnregisterUtcTimeSourceRej()"));
}

TEST_F(MerlowTimeTest, lostSessionWithoutASourceUnregistersZero)
{
    const auto client = m_board.connectClient();
    client.die();
    EXPECT_EQ(m_board.bri().receivedHex(), "01707736 00000001 00c0ffee 0800");
}

TEST_F(MerlowTimeTest, answersAfterTheSessionFindTheTransactionAndNobody)
{
    for (const bool confirmed : {true, false}) {
        SCOPED_TRACE(confirmed);
        const auto client = registeredClient({}, 77);
        client.send(TarnBcSetUtcTimeReqS{.utcTime = 5});
        m_board.announceSession(client);
        const auto briReq = m_board.bri().expect<bri::SetUtcTimeReq>();
        const auto registration = m_board.bri().expect<bri::RegisterUtcTimeSourceReq>();
        const auto callbacks = m_board.confirmCallbacks().size();
        m_board.endSession(client);
        m_board.bri().expect<bri::UnregisterUtcTimeSourceReq>();
        EXPECT_EQ(openTransactions(), 2U);
        m_board.traces().clear();
        if (confirmed) {
            m_board.bri().answer(briReq, bri::SetUtcTimeCfm());
            bri::RegisterUtcTimeSourceCfm cfm;
            cfm.set_utc_time_source_ref(1);
            m_board.bri().answer(registration, cfm);
        } else {
            m_board.bri().answer(briReq, bri::SetUtcTimeRej());
            m_board.bri().answer(registration, bri::RegisterUtcTimeSourceRej());
        }
        EXPECT_EQ(m_board.traces().count(4, "ABN: No BC session found for mailbox ID: " +
                                                std::to_string(client.mbox())),
                  2U);
        EXPECT_TRUE(client.nothingReceived());
        EXPECT_EQ(m_board.confirmCallbacks().size(), callbacks);
        EXPECT_EQ(openTransactions(), 0U);
    }
}

TEST_F(MerlowTimeTest, registrationAnswersOfNobodyAreTraced)
{
    m_board.bri().send(bri::RegisterUtcTimeSourceCfm(), 0xFFFFFFFF);
    m_board.bri().send(bri::RegisterUtcTimeSourceRej(), 9);
    EXPECT_TRUE(m_board.traced(
        1, "No BRI transaction was found for procedureRef: 4294967295. Ignoring RegisterUtcTimeSourceCfm."));
    EXPECT_TRUE(m_board.traced(
        1, "No BRI transaction was found for procedureRef: 9. Ignoring RegisterUtcTimeSourceRej."));
}
