// A host without a legacy server: it puts common data, admission and operational state together itself, over
// the real platform.

#include "bci/bciRecord.h"
#include "client.h"
#include "eventLoopIf.h"
#include "faultManager.h"
#include "merlowCommonData.h"
#include "merlowEstablish.h"
#include "merlowState.h"
#include "mnetMessageSubscriptionCustom.h"

#include <future>
#include <gtest/gtest.h>
#include <thread>

namespace merlow::test {
namespace {

constexpr std::uint32_t STOP = 0x5705;

/// The server side on a thread of its own.
class AdmissionHost {
public:
    AdmissionHost()
    {
        std::promise<void> up;
        auto isUp = up.get_future();
        m_thread = std::thread([this, &up] { serve(up); });
        isUp.wait();
    }
    ~AdmissionHost()
    {
        mnet_msg* stop = mnet_alloc(sizeof(mnet_msg), STOP);
        EXPECT_EQ(mnet_send(&stop, m_private, MNET_MY_MBOX), 0);
        m_thread.join();
    }
    AdmissionHost(const AdmissionHost&) = delete;
    AdmissionHost& operator=(const AdmissionHost&) = delete;

    [[nodiscard]] mnet_mbox_id_t privateMbox() const { return m_private; }

private:
    void serve(std::promise<void>& up)
    {
        auto& loop = Loomwork::EventLoop::V1::EventLoopIf::getInstance();
        auto& subscription = MnetMessageSubscriptionCustom::getInstance();
        m_private = mnet_create_mailbox("private_Merlow", 0);
        Merlow::FaultManager faultManager;
        const std::unique_ptr<MerlowCommonData> commonData(MerlowCommonData::getNew(100, faultManager));
        commonData->setPrivateMbox(m_private);
        EXPECT_EQ(subscription.monitorMnetFd(mnet_get_fd()), 0);
        subscription.addMsgHandler(STOP, [&](const std::shared_ptr<mnet_msg>&) { loop.stop(); });
        subscription.addMsgHandler(MNET_MONITOR_DEFAULT_MSGNO, [&](const std::shared_ptr<mnet_msg>& msg) {
            if (mnet_is_notice(msg.get()) == 1) {
                commonData->removeClientSession(mnet_sender(msg.get()));
            }
        });
        MerlowEstablish establish(*commonData);
        MerlowState state(*commonData);
        EXPECT_TRUE(establish.init() && state.init());
        commonData->setPublicMbox(mnet_clone_mailbox(m_private, "Merlow"));
        up.set_value();
        loop.run();
        commonData->destroyClients();
        MnetMessageSubscriptionCustom::reset();
        commonData->cleanUp();
    }

    mnet_mbox_id_t m_private = MNET_MBOX_NONE;
    std::thread m_thread;
};

class AdmissionTest : public ::testing::Test {
protected:
    AdmissionTest()
        : m_mailboxes(m_folder.path()), m_mailbox(mnet_create_mailbox("test", 0)), m_host(std::in_place)
    {
        m_server = locate("Merlow");
    }

    TempDir m_folder;
    Mailboxes m_mailboxes;
    Client m_mailbox;
    std::optional<AdmissionHost> m_host;
    mnet_mbox_id_t m_server = MNET_MBOX_NONE;
};

TEST_F(AdmissionTest, clientsAreAdmittedServedAndForgotten)
{
    ASSERT_NE(m_server, MNET_MBOX_NONE);
    Client first(mnet_create_mailbox("first", 0));
    Client second(mnet_create_mailbox("second", 0));
    Client third(mnet_create_mailbox("third", 0));
    Client fourth(mnet_create_mailbox("fourth", 0));
    ASSERT_EQ(first.send(m_server, 0x1658000, "00000007 0000013a 0003 0000"), 0);
    EXPECT_EQ(first.receive(0x1658001), "000000070000012c");
    EXPECT_EQ(first.lastSender(), m_host->privateMbox());
    EXPECT_EQ(second.connect(m_server, 8, 150), 100);
    EXPECT_EQ(third.connect(m_server, 9, 399), 301);

    ASSERT_EQ(first.send(m_server, 0x1658403, "00000007 0000012c"), 0);
    EXPECT_TRUE(first.receive(0x1658404));
    ASSERT_EQ(first.send(m_server, 0x1658400, "00000007 0000012c"), 0);
    EXPECT_EQ(first.receive(0x1658401).value_or("").substr(0, 20), "000000070000012c0001");

    ASSERT_EQ(fourth.send(m_server, 0x1658000, "0000000a 0000012c 0003 0000"), 0);
    auto reject = fourth.receive(0x1658002);
    ASSERT_TRUE(reject);
    EXPECT_EQ(reject->substr(0, 32), "0000000a0000012c0003000000010000");
    EXPECT_EQ(reject->substr(32, 70),
              "416c7265616479206174206d6178696d756d20636c69656e7420636170616369747900")
        << "\"Already at maximum client capacity\"";

    first.close();
    EXPECT_TRUE(waitUntil([&] {
        if (fourth.send(m_server, 0x1658000, "0000000a 0000012c 0003 0000") != 0) {
            return false;
        }
        const std::uint32_t answers[] = {2, 0x1658001, 0x1658002};
        mnet_msg* answer = mnet_receive(answers, static_cast<int>(patience.count()), MNET_FROM_ANY);
        const bool admitted = answer != nullptr && answer->msgNo == 0x1658001;
        mnet_free(&answer);
        return admitted;
    }));
}

TEST_F(AdmissionTest, refusalsAreToldByWhatIsWrongLast)
{
    Client client(mnet_create_mailbox("du", 0));
    ASSERT_EQ(client.send(m_server, 0x1658000, "00000007 000000c8 0009 0000"), 0);
    const auto reject = client.receive(0x1658002);
    ASSERT_TRUE(reject);
    EXPECT_EQ(reject->substr(32, 36), "524154206e6f7420737570706f7274656400") << "\"RAT not supported\"";
    EXPECT_EQ(client.connect(m_server, 7, 300), 300) << "a refusal leaves no session";
}

} // namespace
} // namespace merlow::test
