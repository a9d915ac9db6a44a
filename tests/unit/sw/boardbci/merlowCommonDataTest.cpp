#include "coreFixture.h"
#include "fakeSway.h"
#include "faultManager.h"
#include "merlowUtil.h"

#include <cstdlib>

namespace {

using core::InMemoryTest;
using core::Peer;

class MerlowCommonDataTest : public InMemoryTest {
protected:
    MerlowCommonDataTest() { ::unsetenv("SYS_MODE"); }
    ~MerlowCommonDataTest() override { ::unsetenv("SYS_MODE"); }

    MerlowCommonData& data()
    {
        if (!m_data) {
            m_data.reset(MerlowCommonData::getNew(100, m_faultManager));
        }
        return *m_data;
    }
    BcSession* add(const Peer& client, const std::string& name)
    {
        return data().addClientSession(client.mbox(), 1, 2, 3, name, 0);
    }

    Merlow::FaultManager m_faultManager;
    std::unique_ptr<MerlowCommonData> m_data;
};

TEST_F(MerlowCommonDataTest, supportsRevisionsThreeTwoOneByDefault)
{
    EXPECT_FALSE(data().isAuboot());
    EXPECT_EQ(data().getHighestProtocolRev(), 3);
    EXPECT_TRUE(data().isSupportedProtocolRev(1));
    EXPECT_TRUE(data().isSupportedProtocolRev(2));
    EXPECT_TRUE(data().isSupportedProtocolRev(3));
    EXPECT_FALSE(data().isSupportedProtocolRev(0));
    EXPECT_FALSE(data().isSupportedProtocolRev(4));
}

TEST_F(MerlowCommonDataTest, supportsRevisionOneAloneInAutomaticBootMode)
{
    ::setenv("SYS_MODE", "AUBOOT", 1);
    EXPECT_TRUE(data().isAuboot());
    EXPECT_EQ(data().getHighestProtocolRev(), 1);
    EXPECT_TRUE(data().isSupportedProtocolRev(1));
    EXPECT_FALSE(data().isSupportedProtocolRev(2));
    EXPECT_FALSE(data().isSupportedProtocolRev(0));
}

TEST_F(MerlowCommonDataTest, anotherModeCountsAsNone)
{
    ::setenv("SYS_MODE", "AUBOOT2", 1);
    EXPECT_FALSE(data().isAuboot());
    EXPECT_EQ(data().getHighestProtocolRev(), 3);
}

TEST_F(MerlowCommonDataTest, theBackendClientsHaveTheFirstTwoReferences)
{
    EXPECT_EQ(data().getBriClient().getClientRef(), 100U);
    EXPECT_EQ(data().getBmmiClient().getClientRef(), 101U);
}

TEST_F(MerlowCommonDataTest, anUnsetMailboxIsDeletedAsItIs)
{
    data().setPublicMbox(MNET_MBOX_NONE);
    EXPECT_EQ(mnet().deleteCalls(), std::vector<mnet_mbox_id_t>{0xFFFFFFFF});
    EXPECT_EQ(data().getPublicMbox(), MNET_MBOX_NONE);
}

TEST_F(MerlowCommonDataTest, unsettingAMailboxDeletesIt)
{
    const auto mailbox = mnet_create_mailbox("private_Merlow", 0);
    data().setPrivateMbox(mailbox);
    EXPECT_EQ(data().getPrivateMbox(), mailbox);
    data().setPrivateMbox(MNET_MBOX_NONE);
    EXPECT_FALSE(mnet().exists(mailbox));
}

TEST_F(MerlowCommonDataTest, findsSessionsByClientAndByForwardingMailbox)
{
    mnet_create_mailbox("private_Merlow", 0);
    const Peer one;
    const Peer two;
    EXPECT_EQ(data().getClientSession(one.mbox()), nullptr);
    BcSession* first = add(one, "DU_0");
    BcSession* second = add(two, "DU_1");
    second->setFwdMbox(new FwdMbox(mnet_current_mbox(), "BcFwdMbox_1"));
    ASSERT_EQ(second->getFwdMbox()->start(), 0);

    EXPECT_EQ(data().getNumClientSessions(), 2U);
    EXPECT_EQ(data().getClientSession(one.mbox()), first);
    EXPECT_EQ(data().getClientSession(two.mbox()), second);
    EXPECT_EQ(data().getSessionFromFwdMbox(second->getFwdMailboxId()), second);
    EXPECT_EQ(data().getSessionFromFwdMbox(one.mbox()), nullptr);
    EXPECT_EQ(data().getSessionFromFwdMbox(MNET_MBOX_NONE), nullptr) << "the first has no mailbox";
}

TEST_F(MerlowCommonDataTest, removesTheFirstSessionOfAMailboxAndNothingForAnUnknownOne)
{
    const Peer one;
    const Peer two;
    add(one, "DU_0");
    add(two, "DU_1");
    add(one, "DU_2");
    data().removeClientSession(0x4711);
    EXPECT_EQ(data().getNumClientSessions(), 3U);
    data().removeClientSession(one.mbox());
    EXPECT_EQ(data().getNumClientSessions(), 2U);
    EXPECT_EQ(data().getClientSession(one.mbox())->getMboxName(), "DU_2");
}

TEST_F(MerlowCommonDataTest, numbersSessionsUpward)
{
    EXPECT_EQ(data().generateSessionNumber(), 0U);
    EXPECT_EQ(data().generateSessionNumber(), 1U);
}

TEST_F(MerlowCommonDataTest, countsThePowerDropFaultSwitch)
{
    EXPECT_FALSE(data().isPdsFaultsEnabled());
    data().setPdsFaultsEnabled(true);
    data().setPdsFaultsEnabled(true);
    data().setPdsFaultsEnabled(false);
    EXPECT_TRUE(data().isPdsFaultsEnabled());
    data().setPdsFaultsEnabled(false);
    EXPECT_FALSE(data().isPdsFaultsEnabled());
    data().setPdsFaultsEnabled(false);
    data().setPdsFaultsEnabled(true);
    EXPECT_TRUE(data().isPdsFaultsEnabled()) << "a surplus false leaves the count at 0";
}

TEST_F(MerlowCommonDataTest, cleanUpClosesTheConnectionToTheSwmServer)
{
    auto& sway = support::FakeSway::instance();
    sway.reset();
    sway.listen("ux:SWMServer");
    ASSERT_EQ(data().getSwmiClient().connEstablishReq({}, 1, "ux:SWMServer", {1}), 0U);
    EXPECT_EQ(sway.openConnections(), 1U);
    data().cleanUp();
    EXPECT_EQ(sway.openConnections(), 0U);
}

TEST_F(MerlowCommonDataTest, cleanUpDeletesBothMailboxesAndAllSessionsAndFreesTheReferences)
{
    data().setPrivateMbox(mnet_create_mailbox("private_Merlow", 0));
    data().setPublicMbox(mnet_clone_mailbox(data().getPrivateMbox(), "Merlow"));
    const Peer client;
    add(client, "DU_0")->setCfmPending(mnet_alloc(12, 0x1658001));
    const std::vector<mnet_mbox_id_t> both{data().getPrivateMbox(), data().getPublicMbox()};

    data().cleanUp();
    EXPECT_EQ(mnet().deleteCalls(), both) << "the private one first";
    EXPECT_EQ(data().getPrivateMbox(), MNET_MBOX_NONE);
    EXPECT_EQ(data().getPublicMbox(), MNET_MBOX_NONE);
    EXPECT_EQ(data().getNumClientSessions(), 0U);
    EXPECT_EQ(mnet().monitorCount(), 0U);
    EXPECT_EQ(BrhClient::generateClientRef(100), 100U);

    data().cleanUp();
    EXPECT_EQ(mnet().deleteCalls().size(), 2U) << "nothing is deleted twice";
}

class MerlowUtilTest : public InMemoryTest {};

TEST_F(MerlowUtilTest, anUnknownNumberIsItsDecimalText)
{
    EXPECT_EQ(MerlowUtil::getMsgName(0xFFFFFFFFU), "4294967295");
}

TEST_F(MerlowUtilTest, aKnownNumberKeepsItsFirstName)
{
    MerlowUtil::registerMessageNames({{0xA0001U, "FIRST"}, {0xA0002U, "SECOND"}});
    MerlowUtil::registerMessageNames({{0xA0001U, "OTHER"}, {0xA0003U, "THIRD"}});
    EXPECT_EQ(MerlowUtil::getMsgName(0xA0001U), "FIRST");
    EXPECT_EQ(MerlowUtil::getMsgName(0xA0002U), "SECOND");
    EXPECT_EQ(MerlowUtil::getMsgName(0xA0003U), "THIRD");
}

TEST_F(MerlowUtilTest, namesAReceivedMessageAndItsSender)
{
    MerlowUtil::registerMessageNames({{0xA0004U, "FOURTH"}});
    const auto own = mnet_create_mailbox("own", 0);
    const Peer peer;
    peer.send("000a0004", own);
    mnet_msg* msg = mnet_receive(nullptr, 0, MNET_FROM_ANY);
    ASSERT_NE(msg, nullptr);
    std::ostringstream text;
    text << "FOURTH from mbox: 0x" << std::hex << peer.mbox();
    EXPECT_EQ(MerlowUtil::getMsgName(msg), "FOURTH");
    EXPECT_EQ(MerlowUtil::traceReceivedMsg(msg), text.str());
    mnet_free(&msg);
}

} // namespace
