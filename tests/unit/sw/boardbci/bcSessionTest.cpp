#include "coreFixture.h"

namespace {

using core::InMemoryTest;
using core::Peer;
using support::FakeMnet;

class BcSessionTest : public InMemoryTest {
protected:
    BcSessionTest()
        : m_parent(mnet_create_mailbox("private_Merlow", 0)),
          m_session(std::in_place, m_client.mbox(), 7, 300, std::uint16_t{3}, "DU_0", 0U)
    {
    }
    static mnet_msg* confirm() { return mnet_alloc(12, 0x1658001); }

    mnet_mbox_id_t m_parent;
    Peer m_client;
    std::optional<BcSession> m_session;
};

TEST(BcClientInfo, isNobodyByDefault)
{
    const BcClientInfo info;
    EXPECT_EQ(info.mailboxId, 0xFFFFFFFFU);
    EXPECT_EQ(info.clientRef, 0);
    EXPECT_EQ(info.serverRef, 0);
    EXPECT_EQ(info.protocolRev, 0);
    EXPECT_EQ(info.extraRef, 0U);
}

TEST_F(BcSessionTest, startsWithWhatItIsGivenAndNothingElse)
{
    EXPECT_EQ(m_session->mailboxId, m_client.mbox());
    EXPECT_EQ(m_session->clientRef, 7);
    EXPECT_EQ(m_session->serverRef, 300);
    EXPECT_EQ(m_session->protocolRev, 3);
    EXPECT_EQ(m_session->getMboxName(), "DU_0");
    EXPECT_EQ(m_session->getBcState(), BcState::Starting);
    EXPECT_EQ(m_session->getUtcTimeSourceRef(), 0U);
    EXPECT_EQ(m_session->getMmiUserId(), 0U);
    EXPECT_FALSE(m_session->areRegistrationsResponded());
    EXPECT_NE(m_session->getMonitorId(), MNET_MBOX_NONE);
}

TEST_F(BcSessionTest, watchesItsMailboxAsLongAsItLives)
{
    EXPECT_EQ(mnet().monitorCount(), 1U);
    m_session.reset();
    EXPECT_EQ(mnet().monitorCount(), 0U);
}

TEST_F(BcSessionTest, theLossOfItsMailboxArrivesUnderTheDefaultNumber)
{
    m_client.die();
    mnet_msg* msg = mnet_receive(nullptr, 0, MNET_FROM_ANY);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(msg->msgNo, 0x1901001U);
    EXPECT_EQ(mnet_sender(msg), m_client.mbox());
    mnet_free(&msg);
}

TEST_F(BcSessionTest, namesItsState)
{
    m_session->setBcState(BcState::Disabled);
    EXPECT_EQ(m_session->getBcStateName(), "DISABLED");
    m_session->setBcState(BcState::Starting);
    EXPECT_EQ(m_session->getBcStateName(), "STARTING");
    m_session->setBcState(BcState::Operational);
    EXPECT_EQ(m_session->getBcStateName(), "OPERATIONAL");
    m_session->setBcState(static_cast<BcState>(3));
    EXPECT_EQ(m_session->getBcStateName(), "Unknown");
}

TEST_F(BcSessionTest, aConfirmThatIsNotHeldIsNullAndTraced)
{
    EXPECT_EQ(m_session->getCfmPending(), nullptr);
    EXPECT_TRUE(traced(4, "No TARN_BC_CONN_ESTABLISH_CFM had been received to forward!"));
}

TEST_F(BcSessionTest, aSecondHeldConfirmFreesTheFirst)
{
    m_session->setCfmPending(confirm());
    m_session->setCfmPending(confirm());
    EXPECT_EQ(mnet().heldMessages(), 1U);
    EXPECT_NE(m_session->getCfmPending(), nullptr);
}

TEST_F(BcSessionTest, aHeldConfirmIsFreedWithTheSession)
{
    m_session->setCfmPending(confirm());
    m_session.reset();
    EXPECT_EQ(mnet().heldMessages(), 0U);
}

TEST_F(BcSessionTest, aTakenConfirmIsHeldNoMore)
{
    m_session->setCfmPending(confirm());
    EXPECT_TRUE(m_session->takeCfmPending());
    EXPECT_FALSE(m_session->takeCfmPending());
    EXPECT_EQ(m_session->getCfmPending(), nullptr);
}

TEST_F(BcSessionTest, aMissingForwardingMailboxIsNullAndTraced)
{
    EXPECT_EQ(m_session->getFwdMbox(), nullptr);
    EXPECT_TRUE(traced(4, "ABN: Forward mailbox for ID " + std::to_string(m_client.mbox()) + " is null!"));
    EXPECT_EQ(m_session->getFwdMailboxId(), MNET_MBOX_NONE);
}

TEST_F(BcSessionTest, aForwardingMailboxGoesWithItsSuccessorAndWithTheSession)
{
    m_session->setFwdMbox(new FwdMbox(m_parent, "BcFwdMbox_0"));
    ASSERT_EQ(m_session->getFwdMbox()->start(), 0);
    EXPECT_NE(mnet().find("BcFwdMbox_0"), MNET_MBOX_NONE);
    m_session->setFwdMbox(new FwdMbox(m_parent, "BcFwdMbox_1"));
    EXPECT_EQ(mnet().find("BcFwdMbox_0"), MNET_MBOX_NONE);
    ASSERT_EQ(m_session->getFwdMbox()->start(), 0);
    EXPECT_EQ(m_session->getFwdMailboxId(), mnet().find("BcFwdMbox_1"));
    m_session.reset();
    EXPECT_EQ(mnet().find("BcFwdMbox_1"), MNET_MBOX_NONE);
}

TEST_F(BcSessionTest, bothRegistrationsMustBeAnswered)
{
    m_session->setMmiUserRegisterReqResponded(true);
    EXPECT_FALSE(m_session->areRegistrationsResponded());
    m_session->setMmiUserRegisterReqResponded(false);
    m_session->setTimeSourceRegisterReqResponded(true);
    EXPECT_FALSE(m_session->areRegistrationsResponded());
    m_session->setMmiUserRegisterReqResponded(true);
    EXPECT_TRUE(m_session->areRegistrationsResponded());
}

TEST_F(BcSessionTest, keepsWhatServicesStore)
{
    m_session->setUtcTimeSourceRef(11);
    m_session->setMmiUserId(12);
    m_session->setTempMeasRef(13);
    EXPECT_EQ(m_session->getUtcTimeSourceRef(), 11U);
    EXPECT_EQ(m_session->getMmiUserId(), 12U);
    EXPECT_EQ(m_session->getTempMeasRef(), 13U);
}

TEST_F(BcSessionTest, aStandingTransactionKeepsItsFirstReference)
{
    EXPECT_FALSE(m_session->isProcedureRefInfoExist(5));
    EXPECT_EQ(m_session->getProcedureRef(5), 0U);
    m_session->addProcedureRefInfo(5, 100);
    m_session->addProcedureRefInfo(5, 200);
    EXPECT_TRUE(traced(4, "ABN: Cannot add procedureRef : (200) to procedureRefInfoMap.Key Value with signal "
                          "Number: (5) already exist."));
    EXPECT_TRUE(m_session->isProcedureRefInfoExist(5));
    EXPECT_EQ(m_session->getProcedureRef(5), 100U);
    m_session->deleteProcedureRefInfo(5);
    m_session->deleteProcedureRefInfo(5);
    EXPECT_FALSE(m_session->isProcedureRefInfoExist(5));
}

class FwdMboxTest : public InMemoryTest {
protected:
    FwdMboxTest() : m_parent(mnet_create_mailbox("private_Merlow", 0)), m_fwdMbox(m_parent, "BcFwdMbox_4") {}

    mnet_mbox_id_t m_parent;
    FwdMbox m_fwdMbox;
};

TEST_F(FwdMboxTest, hasANameButNoMailboxUntilItIsStarted)
{
    EXPECT_EQ(m_fwdMbox.getMboxName(), "BcFwdMbox_4");
    EXPECT_EQ(m_fwdMbox.getMailbox(), MNET_MBOX_NONE);
    EXPECT_EQ(m_fwdMbox.start(), 0);
    EXPECT_EQ(mnet().nameOf(m_fwdMbox.getMailbox()), "BcFwdMbox_4");
}

TEST_F(FwdMboxTest, aSecondStartKeepsTheMailbox)
{
    ASSERT_EQ(m_fwdMbox.start(), 0);
    const auto mailbox = m_fwdMbox.getMailbox();
    EXPECT_EQ(m_fwdMbox.start(), 0);
    EXPECT_EQ(m_fwdMbox.getMailbox(), mailbox);
}

TEST_F(FwdMboxTest, aFailedStartIsTracedAndCanBeRepeated)
{
    mnet().fail(FakeMnet::Call::clone);
    EXPECT_EQ(m_fwdMbox.start(), 1);
    std::ostringstream text;
    text << "ABN: failed to create cloned mailbox BcFwdMbox_4 for parent 0x" << std::hex << m_parent;
    EXPECT_TRUE(traced(4, text.str()));
    EXPECT_EQ(m_fwdMbox.getMailbox(), MNET_MBOX_NONE);
    EXPECT_EQ(m_fwdMbox.start(), 0);
}

TEST_F(FwdMboxTest, sendsUnderItsOwnMailbox)
{
    const Peer peer;
    ASSERT_EQ(m_fwdMbox.start(), 0);
    mnet_msg* msg = mnet_alloc(4, 0xabcd);
    EXPECT_EQ(m_fwdMbox.send(&msg, peer.mbox()), 0);
    EXPECT_EQ(msg, nullptr);
    EXPECT_EQ(peer.receive().from, m_fwdMbox.getMailbox());
}

TEST_F(FwdMboxTest, takesTheMessageAlsoWhenItCannotBeSent)
{
    mnet_msg* msg = mnet_alloc(4, 0xabcd);
    EXPECT_EQ(m_fwdMbox.send(&msg, 0x12345), 0);
    EXPECT_EQ(msg, nullptr);
    EXPECT_EQ(mnet().heldMessages(), 0U);
}

TEST_F(FwdMboxTest, stopDeletesTheMailboxOnce)
{
    ASSERT_EQ(m_fwdMbox.start(), 0);
    const auto mailbox = m_fwdMbox.getMailbox();
    EXPECT_EQ(m_fwdMbox.stop(false), 0);
    EXPECT_EQ(m_fwdMbox.getMailbox(), MNET_MBOX_NONE);
    EXPECT_FALSE(mnet().exists(mailbox));
    EXPECT_EQ(m_fwdMbox.stop(true), 0);
    EXPECT_EQ(mnet().deleteCalls().size(), 1U);
}

} // namespace
