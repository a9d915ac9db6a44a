#include "coreFixture.h"

#include <thread>

namespace {

using Subscription = MnetMessageSubscriptionCustom;
using core::InMemoryTest;
using core::Peer;

class SubscriptionTest : public InMemoryTest {
protected:
    SubscriptionTest() : m_own(mnet_create_mailbox("own", 0)), m_pump(Subscription::getInstance()) {}

    void monitor() { ASSERT_EQ(m_pump.monitorMnetFd(mnet_get_fd()), Subscription::DONE); }

    mnet_mbox_id_t m_own;
    Subscription& m_pump;
    Peer m_peer;
    std::vector<std::uint32_t> m_handled;
};

TEST_F(SubscriptionTest, hasOneInstanceForEachThread)
{
    EXPECT_EQ(&Subscription::getInstance(), &m_pump);
    Subscription* other = nullptr;
    std::thread([&other] { other = &Subscription::getInstance(); }).join();
    EXPECT_NE(other, &m_pump);
}

TEST_F(SubscriptionTest, anInstanceTakesItsDescriptorOffTheLoopWhenItsThreadEnds)
{
    int result = -1;
    std::thread([&result] { result = Subscription::getInstance().monitorMnetFd(1234); }).join();
    EXPECT_EQ(result, Subscription::DONE);
    EXPECT_FALSE(loop().watches(1234));
}

TEST_F(SubscriptionTest, resetTakesTheDescriptorOffTheLoopAndTheNextInstanceServesIt)
{
    monitor();
    EXPECT_TRUE(loop().watches(mnet_get_fd()));
    Subscription::reset();
    EXPECT_FALSE(loop().watches(mnet_get_fd()));

    Subscription& next = Subscription::getInstance();
    EXPECT_EQ(next.monitorMnetFd(mnet_get_fd()), Subscription::DONE);
    next.addMsgHandler(5, [this](const std::shared_ptr<mnet_msg>& msg) { m_handled.push_back(msg->msgNo); });
    m_peer.send("00000005", m_own);
    EXPECT_EQ(m_handled, std::vector<std::uint32_t>{5});
}

TEST_F(SubscriptionTest, aSecondMonitorIsRefusedAndRegistersNothing)
{
    monitor();
    EXPECT_EQ(m_pump.monitorMnetFd(77), Subscription::ALREADY_THERE);
    EXPECT_EQ(loop().watchCount(), 1U);
}

TEST_F(SubscriptionTest, aLoopThatRefusesCanBeAskedAgain)
{
    loop().failAddFd();
    EXPECT_EQ(m_pump.monitorMnetFd(mnet_get_fd()), Subscription::LOOP_REFUSED);
    EXPECT_EQ(m_pump.monitorMnetFd(mnet_get_fd()), Subscription::DONE);
}

TEST_F(SubscriptionTest, theFirstHandlerOfANumberStays)
{
    monitor();
    EXPECT_EQ(m_pump.addMsgHandler(5, [this](const auto&) { m_handled.push_back(1); }), Subscription::DONE);
    EXPECT_EQ(m_pump.addMsgHandler(5, [this](const auto&) { m_handled.push_back(2); }),
              Subscription::ALREADY_THERE);
    m_peer.send("00000005", m_own);
    EXPECT_EQ(m_handled, std::vector<std::uint32_t>{1});
}

TEST_F(SubscriptionTest, aHandlerOfNoticesGetsNothingElse)
{
    monitor();
    EXPECT_EQ(m_pump.addNoticeHandler(5, [this](const auto&) { m_handled.push_back(1); }),
              Subscription::DONE);
    EXPECT_EQ(m_pump.addNoticeHandler(5, [this](const auto&) { m_handled.push_back(2); }),
              Subscription::ALREADY_THERE);
    EXPECT_EQ(m_pump.addMsgHandler(5, [this](const auto&) { m_handled.push_back(3); }), Subscription::DONE);
    m_peer.send("00000005", m_own);
    EXPECT_EQ(m_handled, std::vector<std::uint32_t>{3});
    mnet_msg* notice = mnet_alloc(sizeof(mnet_msg), 5);
    EXPECT_NE(mnet_monitor(m_peer.mbox(), &notice), MNET_MBOX_NONE);
    m_peer.die();
    EXPECT_EQ(m_handled, (std::vector<std::uint32_t>{3, 1}));
}

TEST_F(SubscriptionTest, aRemovedHandlerIsGoneAndCannotBeRemovedAgain)
{
    m_pump.addMsgHandler(5, [](const auto&) {});
    EXPECT_EQ(m_pump.removeMsgHandler(5), Subscription::DONE);
    EXPECT_EQ(m_pump.removeMsgHandler(5), Subscription::NOT_THERE);
    Subscription::MsgHandler out;
    EXPECT_EQ(m_pump.getMsgHandler(5, out), Subscription::NOT_THERE);
    EXPECT_FALSE(out);
}

TEST_F(SubscriptionTest, givesOutAHandlerThatIsThereAndNotAnEmptyOne)
{
    m_pump.addMsgHandler(5, [this](const auto&) { m_handled.push_back(5); });
    m_pump.addMsgHandler(6, {});
    Subscription::MsgHandler out;
    EXPECT_EQ(m_pump.getMsgHandler(6, out), Subscription::NOT_THERE);
    ASSERT_EQ(m_pump.getMsgHandler(5, out), Subscription::DONE);
    out(nullptr);
    EXPECT_EQ(m_handled, std::vector<std::uint32_t>{5});
}

TEST_F(SubscriptionTest, aForeignThreadChangesNothing)
{
    m_pump.addMsgHandler(5, [](const auto&) {});
    std::thread([this] {
        Subscription::MsgHandler out;
        EXPECT_EQ(m_pump.monitorMnetFd(77), Subscription::FOREIGN_THREAD);
        EXPECT_EQ(m_pump.addMsgHandler(6, [](const auto&) {}), Subscription::FOREIGN_THREAD);
        EXPECT_EQ(m_pump.removeMsgHandler(5), Subscription::FOREIGN_THREAD);
        EXPECT_EQ(m_pump.getMsgHandler(5, out), Subscription::FOREIGN_THREAD);
    }).join();
    Subscription::MsgHandler out;
    EXPECT_EQ(m_pump.getMsgHandler(5, out), Subscription::DONE);
    EXPECT_EQ(m_pump.getMsgHandler(6, out), Subscription::NOT_THERE);
    EXPECT_EQ(loop().watchCount(), 0U);
}

TEST_F(SubscriptionTest, anEventTakesOneMessage)
{
    m_pump.addMsgHandler(5, [this](const auto&) { m_handled.push_back(5); });
    m_peer.send("00000005", m_own);
    m_peer.send("00000005", m_own);
    m_pump.handleFdEvent();
    EXPECT_EQ(m_handled.size(), 1U);
    EXPECT_EQ(mnet().waiting(support::FakeMnet::server), 1U);
    m_pump.handleFdEvent();
    EXPECT_EQ(m_handled.size(), 2U);
}

TEST_F(SubscriptionTest, anEventWithoutAMessageDoesNothing)
{
    m_pump.addDefaultHandler([this](mnet_msg*) { m_handled.push_back(0); });
    m_pump.handleFdEvent();
    EXPECT_TRUE(m_handled.empty());
    EXPECT_TRUE(traces().lines().empty());
}

TEST_F(SubscriptionTest, aHandlerCanKeepTheMessage)
{
    monitor();
    std::shared_ptr<mnet_msg> kept;
    m_pump.addMsgHandler(5, [&kept](const auto& msg) { kept = msg; });
    m_peer.send("00000005 01020304", m_own);
    ASSERT_TRUE(kept);
    EXPECT_EQ(mnet_size(kept.get()), 8U);
    EXPECT_EQ(mnet().heldMessages(), 1U);
    kept.reset();
    EXPECT_EQ(mnet().heldMessages(), 0U);
}

TEST_F(SubscriptionTest, theDefaultHandlerOwnsWhatItGets)
{
    monitor();
    mnet_msg* kept = nullptr;
    m_pump.addDefaultHandler([&kept](mnet_msg* msg) { kept = msg; });
    m_peer.send("0000abcd", m_own);
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(mnet().heldMessages(), 1U);
    EXPECT_TRUE(traced(13, "Using default handler to process message 0xabcd"));
    mnet_free(&kept);
}

TEST_F(SubscriptionTest, theLastDefaultHandlerCounts)
{
    monitor();
    m_pump.addDefaultHandler([this](mnet_msg* msg) {
        m_handled.push_back(1);
        mnet_free(&msg);
    });
    EXPECT_EQ(m_pump.addDefaultHandler([this](mnet_msg* msg) {
        m_handled.push_back(2);
        mnet_free(&msg);
    }),
              Subscription::DONE);
    m_peer.send("0000abcd", m_own);
    EXPECT_EQ(m_handled, std::vector<std::uint32_t>{2});
}

TEST_F(SubscriptionTest, aMessageThatNobodyWantsIsTracedAndFreedAndThePumpGoesOn)
{
    monitor();
    m_peer.send("0000abcd", m_own);
    EXPECT_TRUE(traced(4, "ABN: No handler found for MNET message number: 0xabcd"));
    EXPECT_EQ(mnet().heldMessages(), 0U);
    m_pump.addMsgHandler(5, [this](const auto&) { m_handled.push_back(5); });
    m_peer.send("00000005", m_own);
    EXPECT_EQ(m_handled.size(), 1U);
}

TEST_F(SubscriptionTest, aHandlerMayRemoveItselfWhileItRuns)
{
    monitor();
    const std::string captured(100, 'x');
    m_pump.addMsgHandler(5, [this, captured](const auto&) {
        m_pump.removeMsgHandler(5);
        m_handled.push_back(static_cast<std::uint32_t>(captured.size())); // the capture still lives
    });
    m_peer.send("00000005", m_own);
    m_peer.send("00000005", m_own);
    EXPECT_EQ(m_handled, std::vector<std::uint32_t>{100});
}

TEST_F(SubscriptionTest, aDefaultHandlerMayReplaceItselfWhileItRuns)
{
    monitor();
    const std::string captured(100, 'x');
    m_pump.addDefaultHandler([this, captured](mnet_msg* msg) {
        mnet_free(&msg);
        m_pump.addDefaultHandler({});
        m_handled.push_back(static_cast<std::uint32_t>(captured.size()));
    });
    m_peer.send("00000005", m_own);
    m_peer.send("00000005", m_own);
    EXPECT_EQ(m_handled, std::vector<std::uint32_t>{100});
    EXPECT_TRUE(traced(4, "ABN: No handler found for MNET message number: 0x5"));
}

TEST_F(SubscriptionTest, aHandlerThatThrowsLeavesNoMessage)
{
    m_pump.addMsgHandler(5, [](const auto&) { throw std::runtime_error("refused"); });
    m_peer.send("00000005", m_own);
    EXPECT_THROW(m_pump.handleFdEvent(), std::runtime_error);
    EXPECT_EQ(mnet().heldMessages(), 0U);
}

} // namespace
