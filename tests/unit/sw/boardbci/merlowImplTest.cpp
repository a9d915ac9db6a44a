#include "coreFixture.h"
#include "merlowIf.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

extern std::atomic<int> g_pthreadCreateError;

namespace {

using core::CoreTest;
using core::Diary;
using core::Peer;
using support::FakeMnet;
using ::testing::ElementsAre;

class MerlowImplTest : public CoreTest {
protected:
    void sendExitFromPrivateMbox()
    {
        m_impl->sendRequestToStop();
        loop().pumpUntilIdle();
    }
};

// Start and stop orders, with a real thread

TEST_F(MerlowImplTest, stopBeforeStartSucceeds)
{
    EXPECT_EQ(m_impl->stop(false), 0);
    EXPECT_EQ(m_impl->stop(true), 0);
}

TEST_F(MerlowImplTest, aMailboxLibraryThatFailsGives1)
{
    mnet().setInitResult(-5);
    EXPECT_EQ(m_impl->start(), 0) << "what fails on the thread is told by stop";
    EXPECT_EQ(m_impl->stop(false), 1);
    EXPECT_TRUE(m_diary.empty());
}

TEST_F(MerlowImplTest, aMissingPrivateMailboxGives2)
{
    mnet().fail(FakeMnet::Call::create);
    EXPECT_EQ(m_impl->start(), 0);
    EXPECT_EQ(m_impl->stop(false), 2);
    EXPECT_TRUE(m_diary.empty());
}

TEST_F(MerlowImplTest, aLoopThatRefusesTheDescriptorGives3AndNothingElseHasHappened)
{
    loop().failAddFd();
    EXPECT_EQ(m_impl->start(), 0);
    EXPECT_EQ(m_impl->stop(false), 3);
    EXPECT_TRUE(m_diary.empty()) << "no component has run";
    EXPECT_EQ(mnet().pendingLocates(), 0U);
    EXPECT_EQ(mnet().find("private_Merlow"), MNET_MBOX_NONE);
}

TEST_F(MerlowImplTest, aThreadThatCannotBeCreatedGives5)
{
    g_pthreadCreateError = EAGAIN;
    EXPECT_EQ(m_impl->start(), 5);
    EXPECT_EQ(m_impl->stop(false), 0) << "no thread has left a result";
}

TEST_F(MerlowImplTest, aComponentThatFailsGives6AndThoseBehindItStayAsTheyAre)
{
    m_a->initResult = false;
    EXPECT_EQ(m_impl->start(), 0);
    EXPECT_EQ(m_impl->stop(false), 6);
    EXPECT_EQ(m_impl->stop(true), 6);
    EXPECT_THAT(m_diary, ElementsAre("a.init"));
    EXPECT_EQ(mnet().find("private_Merlow"), MNET_MBOX_NONE) << "cleaned up";
    EXPECT_EQ(loop().watchCount(), 0U);
}

TEST_F(MerlowImplTest, afterAFailedStartAFurtherOneWorks)
{
    m_a->initResult = false;
    ASSERT_EQ(m_impl->start(), 0);
    ASSERT_EQ(m_impl->stop(false), 6);
    m_diary.clear();
    m_b->initResult = false;
    m_a->initResult = true;
    ASSERT_EQ(m_impl->start(), 0);
    EXPECT_EQ(m_impl->stop(false), 6);
    EXPECT_THAT(m_diary, ElementsAre("a.init", "b.init"));
}

TEST_F(MerlowImplTest, theDestructorJoinsAThreadWhoseStartFailed)
{
    m_a->initResult = false;
    ASSERT_EQ(m_impl->start(), 0);
    m_impl.reset();
    EXPECT_THAT(m_diary, ElementsAre("a.init", "a.gone", "b.gone")) << "components go from first to last";
}

// The in-memory platform is for one thread at a time: it is the server's from start() until the private
// mailbox has gone again.
class ThreadEndTest : public MerlowImplTest {
protected:
    /// Starts a server that finds the exit message in its queue, and waits until it has handled it.
    void startAndExit()
    {
        std::atomic<bool> isAsked{false};
        m_b->onInit = [this, &isAsked] {
            m_impl->sendRequestToStop();
            isAsked = true;
        };
        ASSERT_EQ(m_impl->start(), 0);
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!isAsked || privateMbox() != MNET_MBOX_NONE) {
            ASSERT_LT(std::chrono::steady_clock::now(), end) << "The server does not exit";
            std::this_thread::yield();
        }
        EXPECT_EQ(m_impl->stop(false), 0);
    }
};

TEST_F(ThreadEndTest, aThreadThatHasLeftTheLoopTellsItAndCannotBeStartedAgain)
{
    startAndExit();
    EXPECT_TRUE(traced(4, "Merlow exited main event loop: shutting down thread."));
    EXPECT_FALSE(traces().has(1, "failed to run event loop"));
    EXPECT_THAT(m_diary, ElementsAre("a.init", "b.init", "a.exiting", "b.exiting"));
    EXPECT_EQ(m_impl->start(), 7);
}

TEST_F(ThreadEndTest, aLoopThatFailsIsTracedAndChangesNothingElse)
{
    loop().setRunResult(-1);
    startAndExit();
    EXPECT_TRUE(traced(1, "failed to run event loop"));
    EXPECT_TRUE(traced(4, "Merlow exited main event loop: shutting down thread."));
    EXPECT_EQ(m_impl->start(), 7);
}

// The thread's way into the loop and out of it, on this thread

TEST_F(MerlowImplTest, aMailboxLibraryThatIsInitialisedAlreadyIsFine)
{
    mnet().setInitResult(-2);
    EXPECT_EQ(m_impl->startUp(), 0);
}

TEST_F(MerlowImplTest, startUpMakesRoomFor50Mailboxes)
{
    startUp();
    for (int i = 1; i < 50; ++i) {
        ASSERT_NE(mnet_create_mailbox(nullptr, 0), MNET_MBOX_NONE) << i;
    }
    EXPECT_EQ(mnet_create_mailbox(nullptr, 0), MNET_MBOX_NONE);
}

TEST_F(MerlowImplTest, startUpMakesThePrivateMailboxAndSearchesForTheLegacyServer)
{
    startUp();
    EXPECT_EQ(mnet().nameOf(privateMbox()), "private_Merlow");
    EXPECT_EQ(publicMbox(), MNET_MBOX_NONE);
    EXPECT_TRUE(loop().watches(mnet_get_fd()));
    EXPECT_EQ(mnet().pendingLocates(), 1U);
}

TEST_F(MerlowImplTest, componentsAreInitialisedInTheirOrder)
{
    ASSERT_EQ(m_impl->startUp(), 0);
    EXPECT_THAT(m_diary, ElementsAre("a.init", "b.init"));
}

TEST_F(MerlowImplTest, aSearchForTheLegacyServerThatHasNoMemoryTwiceEndsTheStart)
{
    mnet().fail(FakeMnet::Call::locate, 2);
    EXPECT_EQ(m_impl->startUp(), MerlowImpl::COMPONENT_FAILED);
    EXPECT_TRUE(traced(1, "ABN: Failed to start the search for LegacyMerlow"));
}

TEST_F(MerlowImplTest, aSearchForTheLegacyServerThatHasNoMemoryOnceIsRepeated)
{
    mnet().fail(FakeMnet::Call::locate);
    EXPECT_EQ(m_impl->startUp(), 0);
    EXPECT_EQ(mnet().pendingLocates(), 1U);
}

TEST_F(MerlowImplTest, theExitMessageTellsAllComponentsAndDeletesBothMailboxesAndStopsTheLoop)
{
    publish();
    const std::vector<mnet_mbox_id_t> publicThenPrivate{publicMbox(), privateMbox()};
    sendExitFromPrivateMbox();
    EXPECT_TRUE(traced(17, "EXIT_THREAD_MSG"));
    EXPECT_FALSE(loop().watches(mnet_get_fd()));
    EXPECT_THAT(m_diary, ElementsAre("a.exiting", "b.exiting"));
    EXPECT_EQ(mnet().deleteCalls(), publicThenPrivate);
    EXPECT_EQ(privateMbox(), MNET_MBOX_NONE);
    EXPECT_EQ(publicMbox(), MNET_MBOX_NONE);
    EXPECT_TRUE(loop().stopped());
}

TEST_F(MerlowImplTest, theExitMessageHasFourBytes)
{
    startUp();
    m_impl->sendRequestToStop();
    ASSERT_EQ(mnet().sent().size(), 1U);
    EXPECT_EQ(mnet().sent()[0].msgNo, 0xDEADBEEFU);
    EXPECT_EQ(mnet().sent()[0].size, 4U);
    EXPECT_EQ(mnet().sent()[0].from, privateMbox());
    EXPECT_EQ(mnet().sent()[0].to, privateMbox());
    loop().pumpUntilIdle();
}

TEST_F(MerlowImplTest, nobodyElseCanStopTheServer)
{
    publish();
    const Peer client = confirmedClient();
    clearRecords();
    for (const auto target : {privateMbox(), publicMbox(), m_lastClone}) {
        client.send("deadbeef", target);
        m_legacy->send("deadbeef", target);
    }
    EXPECT_FALSE(loop().stopped());
    EXPECT_TRUE(m_diary.empty());
    EXPECT_NE(privateMbox(), MNET_MBOX_NONE);
    EXPECT_EQ(traces().count(4, "ABN: EXIT_THREAD_MSG from mbox: 0x" + hex(client.mbox()) +
                                    " is not the server's own. Ignoring it."),
              3U);
}

TEST_F(MerlowImplTest, atExitNoSessionIsToldOfAsLost)
{
    publish();
    const Peer client = confirmedClient();
    ASSERT_NE(sessionOf(client), nullptr);
    clearRecords();
    sendExitFromPrivateMbox();
    m_impl->cleanUp();
    EXPECT_THAT(m_diary, ElementsAre("a.exiting", "b.exiting"));
    EXPECT_EQ(data().getNumClientSessions(), 0U);
    EXPECT_EQ(mnet().monitorCount(), 0U);
}

TEST_F(MerlowImplTest, cleanUpForgetsTheLegacyServer)
{
    publish();
    m_impl->cleanUp();
    EXPECT_EQ(mnet().monitorCount(), 0U);
    EXPECT_FALSE(m_impl->areComponentsReadyToPublish());
    EXPECT_TRUE(traced(5, "legacySession not found"));
}

TEST_F(MerlowImplTest, thePowerDropSwitchReachesTheCommonData)
{
    m_impl->enablePowerDropSvFaultSupport(true);
    EXPECT_TRUE(data().isPdsFaultsEnabled());
    m_impl->enablePowerDropSvFaultSupport(false);
    EXPECT_FALSE(data().isPdsFaultsEnabled());
}

// The front door

class MerlowIfTest : public core::InMemoryTest {};

TEST_F(MerlowIfTest, isOneObjectAndHasItsImplementation)
{
    auto& server = Merlow::V1::MerlowIf::getInstance();
    EXPECT_EQ(&server, &Merlow::V1::MerlowIf::getInstance());
    EXPECT_EQ(&server.getImpl(), &Merlow::V1::MerlowIf::getInstance().getImpl());
}

TEST_F(MerlowIfTest, aThreadThatCannotBeCreatedIsFalse)
{
    g_pthreadCreateError = EAGAIN;
    EXPECT_FALSE(Merlow::V1::MerlowIf::getInstance().startServer());
}

TEST_F(MerlowIfTest, theCallbackIsNeverCalledAndAFailedStartUpIsToldByStop)
{
    auto& server = Merlow::V1::MerlowIf::getInstance();
    bool called = false;
    loop().failAddFd();
    EXPECT_TRUE(server.startServer([&called] { called = true; }));
    EXPECT_FALSE(server.stopServer());
    EXPECT_EQ(server.getImpl().stop(false), 3);
    EXPECT_FALSE(called);
}

} // namespace
