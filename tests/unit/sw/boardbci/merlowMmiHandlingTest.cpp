#include "merlowMmiHandling.h"

#include "bci/bciMmi.h"
#include "bmmi.pb.h"
#include "board.h"

#include <gmock/gmock.h>

namespace bmmi = boardresourcehandler::bmmi;
using support::Board;
using support::rejectTail;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class MerlowMmiHandlingTest : public ::testing::Test {
protected:
    [[nodiscard]] std::size_t openTransactions()
    {
        return m_board.commonData().getBmmiClient().getNumTransactions();
    }
    static bool isResponded(const support::VirtualClient& client)
    {
        // The other registration counts as answered, so that this one decides.
        client.session()->setTimeSourceRegisterReqResponded(true);
        return client.session()->areRegistrationsResponded();
    }
    static bmmi::RegisterMmiUserCfm userCfm(unsigned int id)
    {
        bmmi::RegisterMmiUserCfm cfm;
        cfm.set_mmi_user_id(id);
        return cfm;
    }

    Board m_board;
    MerlowMmiHandling& m_mmi = m_board.add<MerlowMmiHandling>();
};

} // namespace

// Selection

TEST_F(MerlowMmiHandlingTest, theOneModeIsConfirmed)
{
    const auto client = m_board.connectClient();
    client.sendHex("01658012 00000007 fffffffe 00000001");
    EXPECT_EQ(client.receivedHex(), "01658013 00000007 fffffffe");
    EXPECT_TRUE(client.nothingReceived());
    EXPECT_TRUE(m_board.bmmi().nothingReceived());
}

TEST_F(MerlowMmiHandlingTest, everyOtherModeIsRejected)
{
    const auto client = m_board.connectClient();
    for (const auto* mode : {"00000000", "00000002", "01000000", "ffffffff"}) {
        client.sendHex(std::string("01658012 80000000 0000012c ") + mode);
        EXPECT_EQ(client.receivedHex(), "01658014 80000000 0000012c " + rejectTail("Unsupported MMI mode"));
        EXPECT_TRUE(client.nothingReceived());
    }
}

TEST_F(MerlowMmiHandlingTest, strangerGetsNoAnswer)
{
    const auto stranger = m_board.newClient();
    stranger.send(TarnBcSelectMmiReqS{.mmiMode = 1});
    EXPECT_TRUE(m_board.traced(4, "ABN: No BC session found for mailbox ID: " +
                                      std::to_string(stranger.mbox()) + ". Ignoring TarnBcSelectMmiReqS."));
    EXPECT_TRUE(stranger.nothingReceived());
}

TEST_F(MerlowMmiHandlingTest, selectionIsReadAtEveryLength)
{
    const auto client = m_board.connectClient();
    const auto whole = support::messageFromHex("01658012 00000007 fffffffe 00000001 deadbeef");
    for (std::size_t size = 4; size <= whole.size(); ++size) {
        SCOPED_TRACE(size);
        m_board.traces().clear();
        client.sendToServer({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)});
        if (size < 16) {
            EXPECT_TRUE(client.nothingReceived());
            EXPECT_TRUE(m_board.traces().contains(4, "too short: " + std::to_string(size) + " of 16 bytes"));
        } else {
            EXPECT_EQ(client.receivedHex(), "01658013 00000007 fffffffe");
        }
    }
}

// Registration

TEST_F(MerlowMmiHandlingTest, newSessionRegistersAUser)
{
    const auto client = m_board.connectClient({.clientRef = -1, .serverRef = 301});
    m_board.announceSession(client);
    EXPECT_EQ(m_board.bmmi().receivedHex(), "01707580 00000001 00c0ffee 0801");
    EXPECT_TRUE(m_board.bmmi().nothingReceived());
    const auto* transaction = m_board.commonData().getBmmiClient().searchTransactionProcedure(1);
    ASSERT_NE(transaction, nullptr);
    EXPECT_EQ(*transaction, (BrhClient::ProcedureTransaction{.procedureRef = 1,
                                                             .clientMbox = client.mbox(),
                                                             .serverRef = 301,
                                                             .clientRef = -1,
                                                             .data = 0x1707580}));
}

TEST_F(MerlowMmiHandlingTest, registrationWithoutABackendLeavesNoTransaction)
{
    m_board.bmmi().stop();
    const auto client = m_board.connectClient();
    m_board.announceSession(client);
    EXPECT_EQ(openTransactions(), 0U);
    EXPECT_FALSE(isResponded(client));
    EXPECT_EQ(client.session()->getMmiUserId(), 0U);
}

TEST_F(MerlowMmiHandlingTest, confirmStoresTheUserAndReleasesTheConnection)
{
    const auto client = m_board.connectClient();
    m_board.announceSession(client);
    const auto bmmiReq = m_board.bmmi().expect<bmmi::RegisterMmiUserReq>();
    m_board.bmmi().answer(bmmiReq, userCfm(55));
    EXPECT_EQ(client.session()->getMmiUserId(), 55U);
    EXPECT_TRUE(isResponded(client));
    EXPECT_THAT(m_board.confirmCallbacks(), ElementsAre(client.mbox()));
    EXPECT_EQ(openTransactions(), 0U);

    m_board.bmmi().answer(bmmiReq, userCfm(56)); // late
    EXPECT_TRUE(m_board.traced(
        4, "ABN: No BMMI transaction was found for procedureRef: 1. Ignoring RegisterMmiUserCfm."));
    EXPECT_EQ(client.session()->getMmiUserId(), 55U);
    EXPECT_THAT(m_board.confirmCallbacks(), ElementsAre(client.mbox()));
}

TEST_F(MerlowMmiHandlingTest, confirmWithoutAUserLeavesTheClientWaiting)
{
    const auto client = m_board.connectClient();
    m_board.announceSession(client);
    m_board.bmmi().answer(m_board.bmmi().expect<bmmi::RegisterMmiUserReq>(), bmmi::RegisterMmiUserCfm());
    EXPECT_TRUE(m_board.traced(4, "ABN: RegisterMmiUserCfm did not have a user ID"));
    EXPECT_FALSE(isResponded(client));
    EXPECT_THAT(m_board.confirmCallbacks(), IsEmpty());
    EXPECT_EQ(openTransactions(), 0U);
}

TEST_F(MerlowMmiHandlingTest, rejectReleasesTheConnectionWithoutAUser)
{
    const auto client = m_board.connectClient();
    m_board.announceSession(client);
    const auto bmmiReq = m_board.bmmi().expect<bmmi::RegisterMmiUserReq>();
    m_board.bmmi().answer(bmmiReq, bmmi::RegisterMmiUserRej());
    EXPECT_EQ(client.session()->getMmiUserId(), 0U);
    EXPECT_TRUE(isResponded(client));
    EXPECT_THAT(m_board.confirmCallbacks(), ElementsAre(client.mbox()));

    m_board.bmmi().answer(bmmiReq, bmmi::RegisterMmiUserRej());
    EXPECT_TRUE(m_board.traced(
        4, "ABN: No BMMI transaction was found for procedureRef: 1. Ignoring RegisterMmiUserRej."));
    client.die();
    EXPECT_EQ(m_board.bmmi().receivedHex(), "01707583 00000002 00c0ffee 0800");
}

TEST_F(MerlowMmiHandlingTest, answersWithoutASubscribedCoreAreTaken)
{
    m_mmi.subscribeForSendTarnBcConnCfm({});
    const auto client = m_board.connectClient();
    m_board.announceSession(client);
    m_board.bmmi().answer(m_board.bmmi().expect<bmmi::RegisterMmiUserReq>(), userCfm(55));
    m_board.announceSession(client);
    m_board.bmmi().answer(m_board.bmmi().expect<bmmi::RegisterMmiUserReq>(), bmmi::RegisterMmiUserRej());
    EXPECT_TRUE(isResponded(client));
    EXPECT_THAT(m_board.confirmCallbacks(), IsEmpty());
}

TEST_F(MerlowMmiHandlingTest, twoSessionsGetTheirOwnUsers)
{
    const auto first = m_board.connectClient();
    const auto second = m_board.connectClient();
    m_board.announceSession(first);
    m_board.announceSession(second);
    EXPECT_EQ(openTransactions(), 2U);
    const auto firstReq = m_board.bmmi().expect<bmmi::RegisterMmiUserReq>();
    const auto secondReq = m_board.bmmi().expect<bmmi::RegisterMmiUserReq>();
    m_board.bmmi().answer(secondReq, userCfm(2));
    m_board.bmmi().answer(firstReq, userCfm(1));
    EXPECT_EQ(first.session()->getMmiUserId(), 1U);
    EXPECT_EQ(second.session()->getMmiUserId(), 2U);
    EXPECT_THAT(m_board.confirmCallbacks(), ElementsAre(second.mbox(), first.mbox()));
}

TEST_F(MerlowMmiHandlingTest, badBodiesAreTracedAndTheTransactionStays)
{
    const auto client = m_board.connectClient();
    m_board.announceSession(client);
    const auto bmmiReq = m_board.bmmi().expect<bmmi::RegisterMmiUserReq>();
    m_board.bmmi().sendBody(bmmi::RegisterMmiUserCfm::MESSAGE_NUMBER, bmmiReq.procedureRef, "\x08");
    m_board.bmmi().sendBody(bmmi::RegisterMmiUserRej::MESSAGE_NUMBER, bmmiReq.procedureRef, "\x08");
    for (const auto* name : {"RegisterMmiUserCfm", "RegisterMmiUserRej"}) {
        EXPECT_TRUE(m_board.traced(1, std::string("Unable to parse GPB message boardresourcehandler.bmmi.") +
                                          name + " of size 13 bytes"));
    }
    EXPECT_EQ(openTransactions(), 1U);
    EXPECT_THAT(m_board.confirmCallbacks(), IsEmpty());
    m_board.bmmi().answer(bmmiReq, userCfm(3));
    EXPECT_EQ(client.session()->getMmiUserId(), 3U);
}

// The session's end

TEST_F(MerlowMmiHandlingTest, lostSessionUnregistersItsUser)
{
    const auto client = m_board.connectClient();
    m_board.announceSession(client);
    m_board.bmmi().answer(m_board.bmmi().expect<bmmi::RegisterMmiUserReq>(), userCfm(0x123));
    client.die();
    EXPECT_EQ(m_board.bmmi().receivedHex(), "01707583 00000002 00c0ffee 08a302");
    EXPECT_EQ(openTransactions(), 0U);
    m_board.bmmi().sendHex("01707584 00000002 00000065");
    m_board.bmmi().sendHex("01707585 00000002 00000065");
    EXPECT_TRUE(m_board.traced(5, "MerlowMmiHandling:handleUnregisterMmiUserCfm()"));
    EXPECT_TRUE(m_board.traced(5, "MerlowMmiHandling:handleUnregisterMmiUserRej()"));
}

TEST_F(MerlowMmiHandlingTest, answerAfterTheSessionRemovesTheTransaction)
{
    for (const bool confirmed : {true, false}) {
        const auto client = m_board.connectClient();
        m_board.announceSession(client);
        const auto bmmiReq = m_board.bmmi().expect<bmmi::RegisterMmiUserReq>();
        client.die();
        m_board.bmmi().expect<bmmi::UnregisterMmiUserReq>();
        EXPECT_EQ(openTransactions(), 1U);
        if (confirmed) {
            m_board.bmmi().answer(bmmiReq, userCfm(3));
        } else {
            m_board.bmmi().answer(bmmiReq, bmmi::RegisterMmiUserRej());
        }
        EXPECT_TRUE(
            m_board.traced(4, "ABN: No BC session found for mailbox ID: " + std::to_string(client.mbox()) +
                                  ". Ignoring RegisterMmiUser" + (confirmed ? "Cfm." : "Rej.")));
        EXPECT_EQ(openTransactions(), 0U);
        EXPECT_THAT(m_board.confirmCallbacks(), IsEmpty());
    }
}
