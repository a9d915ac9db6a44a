#include "coreFixture.h"

namespace {

using core::CoreTest;
using core::Peer;
using support::FakeMnet;
using ::testing::ElementsAre;

class MerlowForwardingTest : public CoreTest {};

// Publication

TEST_F(MerlowForwardingTest, theLegacyServerFoundLastPublishes)
{
    startUp();
    m_legacy.emplace("LegacyMerlow");
    loop().pumpUntilIdle();
    EXPECT_EQ(mnet().nameOf(publicMbox()), "Merlow");
    EXPECT_THAT(m_diary, ElementsAre("a.ready?", "b.ready?"));
    EXPECT_TRUE(traced(5, "Legacy Merlow was found at mailbox 0x" + hex(m_legacy->mbox())));
    EXPECT_TRUE(traced(4, "Publishing cloned mailbox: Merlow(0x" + hex(privateMbox()) +
                              ") and highestProtocolRev(3)"));
    EXPECT_THAT(rushlog(), ElementsAre("Radio Merlow Published (BCI)"));
}

TEST_F(MerlowForwardingTest, theLastComponentThatBecomesReadyPublishes)
{
    m_a->ready = false;
    m_b->ready = false;
    startUp();
    m_legacy.emplace("LegacyMerlow");
    loop().pumpUntilIdle();
    EXPECT_THAT(m_diary, ElementsAre("a.ready?"));
    EXPECT_TRUE(traced(4, "a component is not ready to publish."));

    EXPECT_FALSE(m_a->becomeReady());
    EXPECT_TRUE(traced(4, "b component is not ready to publish."));
    EXPECT_EQ(publicMbox(), MNET_MBOX_NONE);
    EXPECT_TRUE(m_b->becomeReady());
    EXPECT_NE(publicMbox(), MNET_MBOX_NONE);
}

TEST_F(MerlowForwardingTest, withoutTheLegacyServerNothingIsPublished)
{
    startUp();
    EXPECT_FALSE(m_a->becomeReady());
    EXPECT_EQ(publicMbox(), MNET_MBOX_NONE);
    EXPECT_TRUE(m_diary.empty()) << "nobody is asked";
    EXPECT_TRUE(traced(5, "legacySession not found"));
    EXPECT_FALSE(traces().has(5, "Already published to the DU."));
}

TEST_F(MerlowForwardingTest, aReportAfterPublicationChangesNothing)
{
    publish();
    const auto before = publicMbox();
    EXPECT_FALSE(m_a->becomeReady());
    EXPECT_EQ(publicMbox(), before);
    EXPECT_TRUE(traced(5, "Already published to the DU."));
    EXPECT_FALSE(traces().has(5, "legacySession not found"));
}

TEST_F(MerlowForwardingTest, aCloneThatFailsIsTracedAndTriedAgainWithTheNextReport)
{
    startUp();
    mnet().fail(FakeMnet::Call::clone);
    m_legacy.emplace("LegacyMerlow");
    loop().pumpUntilIdle();
    EXPECT_EQ(publicMbox(), MNET_MBOX_NONE);
    EXPECT_TRUE(traced(1, "Cannot add clone \"Merlow\" to mailbox 0x" + hex(privateMbox())));
    EXPECT_TRUE(rushlog().empty());
    EXPECT_TRUE(m_b->becomeReady());
    EXPECT_NE(publicMbox(), MNET_MBOX_NONE);
}

TEST_F(MerlowForwardingTest, aSecondLocateAnswerReplacesTheLegacyServer)
{
    publish();
    mnet_locate_async("LegacyMerlow", nullptr, privateMbox());
    loop().pumpUntilIdle();
    EXPECT_EQ(mnet().monitorCount(), 1U) << "the first one's watch has ended";
}

// Admission

TEST_F(MerlowForwardingTest, aRequestBeforePublicationIsDroppedWithATrace)
{
    startUp();
    const Peer client;
    client.send("01658000 00000007 0000012c 0003", privateMbox());
    EXPECT_TRUE(traced(5, "ABN: TARN_BC_CONN_ESTABLISH_REQ received before going public"));
    EXPECT_EQ(client.receive().hex, "");
    EXPECT_EQ(mnet().heldMessages(), 0U);
    EXPECT_EQ(data().getNumClientSessions(), 0U);
    EXPECT_TRUE(rushlog().empty());
}

TEST_F(MerlowForwardingTest, aRequestMakesASessionAndGoesOnThroughItsCloneUnchanged)
{
    publish();
    const Peer client;
    client.send("01658000 00000007 0000012c 0003", publicMbox());

    const BcSession* session = sessionOf(client);
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(session->clientRef, 7);
    EXPECT_EQ(session->serverRef, 300);
    EXPECT_EQ(session->protocolRev, 3);
    EXPECT_EQ(session->extraRef, 0U);
    EXPECT_EQ(session->getMboxName(), "DU_0");
    EXPECT_EQ(session->getFwdMbox()->getMboxName(), "BcFwdMbox_0");
    EXPECT_EQ(mnet().nameOf(session->getFwdMailboxId()), "BcFwdMbox_0");

    const auto letter = m_legacy->receive();
    EXPECT_EQ(letter.hex, "01658000 00000007 0000012c 0003");
    EXPECT_EQ(letter.from, session->getFwdMailboxId());
    EXPECT_EQ(client.receive().hex, "");
    EXPECT_TRUE(traced(5, "Creating new session and FwdMbox named BcFwdMbox_0 for DU_0"));
    EXPECT_TRUE(traced(5, "TARN_BC_CONN_ESTABLISH_REQ from DU_0 has been forwarded to LegacyMerlow via the "
                          "BcFwdMbox_0"));
    EXPECT_THAT(rushlog(), ElementsAre("Radio Merlow Connection Established, Start clientRef=7"));
    EXPECT_TRUE(m_diary.empty());
}

TEST_F(MerlowForwardingTest, aSecondRequestTravelsThroughTheSameClone)
{
    publish();
    const Peer client = requestingClient();
    client.send("01658000 00000008 0000012d 0002", publicMbox());
    EXPECT_EQ(data().getNumClientSessions(), 1U);
    EXPECT_EQ(sessionOf(client)->clientRef, 7) << "the session stays as it was";
    const auto letter = m_legacy->receive();
    EXPECT_EQ(letter.hex, "01658000 00000008 0000012d 0002");
    EXPECT_EQ(letter.from, m_lastClone);
    EXPECT_TRUE(
        traced(5, "A session for this client already exists, forwarding to LegacyMerlow from BcFwdMbox_0"));
}

TEST_F(MerlowForwardingTest, aCloneThatFailsLeavesASessionWithoutAForward)
{
    publish();
    mnet().fail(FakeMnet::Call::clone, 2);
    const Peer client;
    client.send("01658000 00000007 0000012c 0003", publicMbox());
    const Peer other;
    other.send("0000abcd 00000007 0000012c", publicMbox());
    for (const Peer* peer : {&client, &other}) {
        ASSERT_NE(sessionOf(*peer), nullptr);
        EXPECT_EQ(sessionOf(*peer)->getFwdMailboxId(), MNET_MBOX_NONE);
        EXPECT_EQ(peer->receive().hex, "");
    }
    EXPECT_EQ(m_legacy->receive().hex, "");
    EXPECT_TRUE(
        traced(4, "ABN: failed to create cloned mailbox BcFwdMbox_0 for parent 0x" + hex(privateMbox())));
    EXPECT_EQ(mnet().heldMessages(), 0U);

    client.send("01658000 00000007 0000012c 0003", publicMbox());
    EXPECT_EQ(data().getNumClientSessions(), 2U);
    EXPECT_EQ(m_legacy->receive().hex, "");
}

TEST_F(MerlowForwardingTest, beyondFiftyMailboxesSessionsAreWithoutAForwardAndNothingElseSuffers)
{
    publish();
    std::vector<Peer> clients;
    for (int i = 0; i < 49; ++i) {
        clients.push_back(requestingClient());
    }
    EXPECT_EQ(sessionOf(clients[48])->getFwdMailboxId(), MNET_MBOX_NONE);
    clients[0].send("0000abcd", publicMbox());
    EXPECT_EQ(m_legacy->receive().hex, "0000abcd");
    clients[0].die();
    clients.push_back(requestingClient());
    EXPECT_NE(sessionOf(clients.back())->getFwdMailboxId(), MNET_MBOX_NONE);
}

// The held confirm

TEST_F(MerlowForwardingTest, aConfirmIsHeldAndItsReferenceAdopted)
{
    publish();
    const Peer client = confirmedClient();
    EXPECT_EQ(client.receive().hex, "");
    EXPECT_EQ(sessionOf(client)->serverRef, 310);
    EXPECT_FALSE(sessionOf(client)->areRegistrationsResponded());
    EXPECT_NE(sessionOf(client)->getCfmPending(), nullptr);
    EXPECT_TRUE(traced(5, "Message was forwarded from legacy Merlow via BcFwdMbox_0"));
    EXPECT_TRUE(traced(5, "Adopting TARN_BC_CONN_ESTABLISH_CFM's serverRef 310"));
    EXPECT_THAT(m_diary, ElementsAre("a.new DU_0", "b.new DU_0"));
}

TEST_F(MerlowForwardingTest, theConfirmGoesWhenBothRegistrationsAreAnswered)
{
    publish();
    const Peer client = confirmedClient();
    traces().clear();
    BcSession& session = *sessionOf(client);
    m_a->releaseConfirm(session);
    session.setTimeSourceRegisterReqResponded(true);
    m_a->releaseConfirm(session);
    EXPECT_EQ(client.receive().hex, "");
    EXPECT_TRUE(traces().lines().empty());

    session.setMmiUserRegisterReqResponded(true);
    m_a->releaseConfirm(session);
    const auto letter = client.receive();
    EXPECT_EQ(letter.hex, "01658001 00000007 00000136");
    EXPECT_EQ(letter.from, publicMbox());
    EXPECT_TRUE(traced(5, "Registrations complete. Send the pending TARN_BC_CONN_ESTABLISH_CFM."));
    EXPECT_THAT(rushlog(),
                ElementsAre("Radio Merlow Connection Established, End clientRef=7, serverRef=310"));
}

TEST_F(MerlowForwardingTest, theConfirmGoesOnce)
{
    publish();
    const Peer client = confirmedClient();
    BcSession& session = *sessionOf(client);
    session.setTimeSourceRegisterReqResponded(true);
    session.setMmiUserRegisterReqResponded(true);
    m_a->releaseConfirm(session);
    ASSERT_EQ(client.receive().hex, "01658001 00000007 00000136");
    traces().clear();
    m_a->releaseConfirm(session);
    EXPECT_EQ(client.receive().hex, "");
    EXPECT_TRUE(traced(4, "No TARN_BC_CONN_ESTABLISH_CFM had been received to forward!"));
    EXPECT_TRUE(rushlog().empty());
}

TEST_F(MerlowForwardingTest, aSecondConfirmReplacesTheFirstAndRegistersAgain)
{
    publish();
    const Peer client = confirmedClient();
    BcSession& session = *sessionOf(client);
    session.setTimeSourceRegisterReqResponded(true);
    session.setMmiUserRegisterReqResponded(true);
    clearRecords();
    m_legacy->send("01658001 00000007 00000137", m_lastClone);
    EXPECT_THAT(m_diary, ElementsAre("a.new DU_0", "b.new DU_0"));
    EXPECT_FALSE(session.areRegistrationsResponded());
    EXPECT_EQ(session.serverRef, 311);
    EXPECT_EQ(mnet().heldMessages(), 1U) << "the first is freed";

    session.setTimeSourceRegisterReqResponded(true);
    session.setMmiUserRegisterReqResponded(true);
    m_b->releaseConfirm(session);
    EXPECT_EQ(client.receive().hex, "01658001 00000007 00000137");
    EXPECT_EQ(client.receive().hex, "");
}

TEST_F(MerlowForwardingTest, aSessionThatGoesWithAHeldConfirmFreesIt)
{
    publish();
    const Peer client = confirmedClient();
    EXPECT_EQ(mnet().heldMessages(), 1U);
    client.die();
    EXPECT_EQ(mnet().heldMessages(), 0U);
}

// There and back

TEST_F(MerlowForwardingTest, aSignalWithoutAHandlerReachesTheLegacyServerThroughTheClone)
{
    publish();
    const Peer client = requestingClient();
    traces().clear();
    client.send("0165abcd 00000007 0000012c 01020304 05", publicMbox());
    const auto letter = m_legacy->receive();
    EXPECT_EQ(letter.hex, "0165abcd 00000007 0000012c 01020304 05");
    EXPECT_EQ(letter.from, m_lastClone);
    EXPECT_TRUE(traced(5, "Merlow received an unhandled message (0x165abcd)"));
    EXPECT_TRUE(traced(5, "Forwarding message 0x165abcd from DU_0 to LegacyMerlow via BcFwdMbox_0"));
}

TEST_F(MerlowForwardingTest, theAnswerReachesTheClientFromThePublicMailbox)
{
    publish();
    const Peer client = requestingClient();
    traces().clear();
    m_legacy->send("0165abce 00000007 0000012c 01020304 05", m_lastClone);
    const auto letter = client.receive();
    EXPECT_EQ(letter.hex, "0165abce 00000007 0000012c 01020304 05");
    EXPECT_EQ(letter.from, publicMbox());
    EXPECT_TRUE(traced(5, "Message was forwarded from legacy Merlow via BcFwdMbox_0"));
    EXPECT_TRUE(traced(5, "Forwarding message 0x165abce to DU_0"));
}

TEST_F(MerlowForwardingTest, eachClientGetsItsOwnAnswer)
{
    publish();
    const Peer one = requestingClient();
    const auto cloneOfOne = m_lastClone;
    const Peer two = requestingClient();
    m_legacy->send("0165abce 00000002", m_lastClone);
    m_legacy->send("0165abce 00000001", cloneOfOne);
    EXPECT_EQ(one.receive().hex, "0165abce 00000001");
    EXPECT_EQ(two.receive().hex, "0165abce 00000002");
    EXPECT_EQ(mnet().nameOf(m_lastClone), "BcFwdMbox_1");
}

TEST_F(MerlowForwardingTest, aPassedSignalIsNotTouchedWhateverItsLength)
{
    publish();
    const Peer client = requestingClient();
    for (const auto* signal : {"0165abcd", "0165abcd 01", "0165abcd 00000007 00"}) {
        client.send(signal, publicMbox());
        EXPECT_EQ(m_legacy->receive().hex, signal);
        m_legacy->send(signal, m_lastClone);
        EXPECT_EQ(client.receive().hex, signal);
    }
}

TEST_F(MerlowForwardingTest, aRejectPassesAndEndsTheSession)
{
    publish();
    const Peer client = requestingClient();
    clearRecords();
    m_legacy->send("01658002 00000007 0000012c", m_lastClone);
    EXPECT_EQ(client.receive().hex, "01658002 00000007 0000012c");
    EXPECT_THAT(m_diary, ElementsAre("a.lost DU_0", "b.lost DU_0"));
    EXPECT_TRUE(traced(5, "MerlowImpl::deleteBcSession erasing DU_0"));
    EXPECT_EQ(sessionOf(client), nullptr);
    EXPECT_FALSE(mnet().exists(m_lastClone));

    client.send("01658000 00000007 0000012c 0003", publicMbox());
    EXPECT_EQ(sessionOf(client)->getMboxName(), "DU_1") << "a new session has a new number";
}

TEST_F(MerlowForwardingTest, whoSpeaksWithoutAConnectionGetsASessionOfRevision0)
{
    publish();
    const Peer client;
    client.send("0165abcd 00000007 0000012c 0003", publicMbox());
    const BcSession* session = sessionOf(client);
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(session->clientRef, 7);
    EXPECT_EQ(session->serverRef, 300);
    EXPECT_EQ(session->protocolRev, 0);
    EXPECT_EQ(session->getMboxName(), "DU_0");
    const auto letter = m_legacy->receive();
    EXPECT_EQ(letter.hex, "0165abcd 00000007 0000012c 0003");
    EXPECT_EQ(letter.from, session->getFwdMailboxId());
    EXPECT_TRUE(traced(5, "default from DU_0 creating new session list entry"));
    EXPECT_TRUE(
        traced(5, "Message 0x165abcd from DU_0 has been forwarded to LegacyMerlow via the BcFwdMbox_0"));
    m_legacy->send("0165abce 00000007", session->getFwdMailboxId());
    EXPECT_EQ(client.receive().hex, "0165abce 00000007");
}

TEST_F(MerlowForwardingTest, anySignalBeforePublicationIsDroppedWithATrace)
{
    startUp();
    const Peer client;
    client.send("0165abcd 00000007 0000012c", privateMbox());
    EXPECT_TRUE(traced(5, "ABN: DU message received before going public"));
    EXPECT_EQ(data().getNumClientSessions(), 0U);
    EXPECT_EQ(mnet().heldMessages(), 0U);
}

TEST_F(MerlowForwardingTest, aPublicMailboxWithoutALegacyServerDropsWithATrace)
{
    startUp();
    data().setPublicMbox(mnet_clone_mailbox(privateMbox(), "Merlow"));
    const Peer client;
    client.send("01658000 00000007 0000012c 0003", publicMbox());
    client.send("01658000 00000007 0000012c 0003", publicMbox());
    client.send("0165abcd", publicMbox());
    const Peer other;
    other.send("0165abcd", publicMbox());
    EXPECT_EQ(traces().count(4, "ABN: No LegacyMerlow for message 0x1658000 from BcFwdMbox_0. Ignoring it."),
              2U);
    EXPECT_TRUE(traced(4, "ABN: No LegacyMerlow for message 0x165abcd from BcFwdMbox_0. Ignoring it."));
    EXPECT_TRUE(traced(4, "ABN: No LegacyMerlow for message 0x165abcd from BcFwdMbox_1. Ignoring it."));
    EXPECT_EQ(mnet().heldMessages(), 0U);
}

TEST_F(MerlowForwardingTest, aPassedSignalBuildsNoTextWhenTracesAreOff)
{
    publish();
    const Peer client = requestingClient();
    traces().setProcMask(0);
    traces().clear();
    client.send("0165abcd", publicMbox());
    EXPECT_EQ(m_legacy->receive().hex, "0165abcd");
    EXPECT_TRUE(traces().lines().empty());
}

// Loss

TEST_F(MerlowForwardingTest, aLostClientIsToldOfToAllComponentsAndThenErased)
{
    publish();
    const Peer client = requestingClient();
    const Peer other = requestingClient();
    clearRecords();
    client.die();
    EXPECT_THAT(m_diary, ElementsAre("a.lost DU_0", "b.lost DU_0"));
    EXPECT_TRUE(traced(5, "Client disconnected: DU_0"));
    EXPECT_TRUE(traced(5, "MerlowImpl::deleteBcSession erasing DU_0"));
    EXPECT_EQ(sessionOf(client), nullptr);
    EXPECT_NE(sessionOf(other), nullptr);
    EXPECT_NE(publicMbox(), MNET_MBOX_NONE);
    EXPECT_EQ(mnet().find("BcFwdMbox_0"), MNET_MBOX_NONE);
}

TEST_F(MerlowForwardingTest, openTransactionsOfALostClientCountAsAbandoned)
{
    publish();
    const Peer client = requestingClient();
    BrhClient& bri = data().getBriClient();
    for (std::uint32_t ref = 1; ref <= BrhClient::maxAbandonedTransactions + 5; ++ref) {
        bri.addProcedureTransaction(
            {.procedureRef = ref, .clientMbox = client.mbox(), .serverRef = 0, .clientRef = 0, .data = 0});
    }
    client.die();
    EXPECT_EQ(bri.getNumTransactions(), BrhClient::maxAbandonedTransactions);
}

TEST_F(MerlowForwardingTest, theLostLegacyServerTakesPublicationBackAndIsSearchedAgain)
{
    publish();
    const Peer client = requestingClient();
    clearRecords();
    m_legacy->die();
    EXPECT_EQ(publicMbox(), MNET_MBOX_NONE);
    EXPECT_EQ(mnet().find("Merlow"), MNET_MBOX_NONE);
    EXPECT_TRUE(traced(1, "ABN: Backend disconnected: erasing LegacyMerlow"));
    EXPECT_TRUE(m_diary.empty()) << "nobody is told";
    EXPECT_NE(sessionOf(client), nullptr);
    EXPECT_TRUE(mnet().exists(m_lastClone));
    EXPECT_EQ(mnet().pendingLocates(), 1U);

    client.send("0165abcd", m_lastClone);
    EXPECT_TRUE(traced(5, "ABN: DU message received before going public"));
    EXPECT_EQ(client.receive().hex, "");
}

TEST_F(MerlowForwardingTest, withoutMemoryToSearchForTheLostLegacyServerTheThreadEnds)
{
    publish();
    mnet().fail(FakeMnet::Call::locate, 2);
    m_legacy->die();
    EXPECT_TRUE(traced(1, "ABN: Without a search for LegacyMerlow Merlow ends"));
    EXPECT_TRUE(loop().stopped());
}

TEST_F(MerlowForwardingTest, theWatchOfTheLegacyServerIsTriedTwice)
{
    startUp();
    m_b->becomeReady();
    mnet().fail(FakeMnet::Call::monitor);
    m_legacy.emplace("LegacyMerlow");
    loop().pumpUntilIdle();
    EXPECT_EQ(mnet().monitorCount(), 1U);
    m_legacy->die();
    EXPECT_TRUE(traced(1, "ABN: Backend disconnected: erasing LegacyMerlow"));
}

TEST_F(MerlowForwardingTest, aLostClientsSessionGoesThoughAComponentHasNoMemory)
{
    publish();
    m_b->onLost = [] {
        throw std::bad_alloc();
    };
    const Peer client = requestingClient();
    EXPECT_EQ(data().getNumClientSessions(), 1U);
    client.die();
    EXPECT_EQ(data().getNumClientSessions(), 0U);
    EXPECT_FALSE(mnet().exists(m_lastClone));
    EXPECT_TRUE(traced(1, "ABN: No memory to give back all that DU_0 has held"));
}

TEST_F(MerlowForwardingTest, aLegacyServerThatIsAClientTooIsLostAsBoth)
{
    publish();
    m_legacy->send("0165abcd 00000007 0000012c", publicMbox());
    ASSERT_NE(sessionOf(*m_legacy), nullptr);
    clearRecords();
    m_legacy->die();
    EXPECT_TRUE(traced(5, "Client disconnected: DU_0"));
    EXPECT_THAT(m_diary, ElementsAre("a.lost DU_0", "b.lost DU_0"));
    EXPECT_TRUE(traced(1, "ABN: Backend disconnected: erasing LegacyMerlow"));
    EXPECT_EQ(data().getNumClientSessions(), 0U);
    EXPECT_EQ(publicMbox(), MNET_MBOX_NONE);
    EXPECT_EQ(mnet().pendingLocates(), 1U);
    EXPECT_EQ(mnet().monitorCount(), 0U);
}

TEST_F(MerlowForwardingTest, whenTheLegacyServerComesBackAnOldClonesStillWorks)
{
    publish();
    const Peer client = requestingClient();
    m_legacy->die();
    m_legacy.emplace("LegacyMerlow");
    loop().pumpUntilIdle();
    ASSERT_NE(publicMbox(), MNET_MBOX_NONE);
    client.send("0165abcd", publicMbox());
    EXPECT_EQ(m_legacy->receive().from, m_lastClone);
    m_legacy->send("0165abce", m_lastClone);
    EXPECT_EQ(client.receive().from, publicMbox());
}

TEST_F(MerlowForwardingTest, aNoticeOfAMailboxThatNobodyHoldsOnlyTraces)
{
    publish();
    const Peer gone;
    gone.die();
    mnet_monitor(gone.mbox(), nullptr);
    loop().pumpUntilIdle();
    EXPECT_TRUE(traced(5, "Unknown client disconnected: " + std::to_string(gone.mbox())));
    EXPECT_NE(publicMbox(), MNET_MBOX_NONE);
}

TEST_F(MerlowForwardingTest, nobodyCanPassAMessageOffAsANotice)
{
    publish();
    const Peer client = requestingClient();
    clearRecords();
    m_legacy->send("01901001", privateMbox());
    client.send("01901001", publicMbox());
    client.send("01901000", publicMbox());
    EXPECT_TRUE(m_diary.empty());
    EXPECT_NE(publicMbox(), MNET_MBOX_NONE);
    EXPECT_NE(sessionOf(client), nullptr);
    EXPECT_TRUE(traced(4, "ABN: Monitor notification from mbox: 0x" + hex(m_legacy->mbox()) +
                              " is no notice. Ignoring it."));
    EXPECT_TRUE(traced(4, "ABN: Monitor notification from mbox: 0x" + hex(client.mbox()) +
                              " is no notice. Ignoring it."));
    EXPECT_TRUE(
        traced(4, "ABN: Locate answer from mbox: 0x" + hex(client.mbox()) + " is no notice. Ignoring it."));
    client.send("0165abcd", publicMbox());
    EXPECT_EQ(m_legacy->receive().hex, "0165abcd") << "the legacy server is the same";
}

} // namespace
