#include "bci/bciState.h"
#include "coreFixture.h"
#include "faultManager.h"
#include "merlowTrace.h"

namespace {

using core::InMemoryTest;
using core::Peer;

/// The base with its protected helpers open, and nothing overridden but what is pure.
class Plain : public MerlowComponent {
public:
    using MerlowComponent::copyStringToClearedArray;
    using MerlowComponent::htonDefault;
    using MerlowComponent::isGsmServerRef;
    using MerlowComponent::m_checkComponents;
    using MerlowComponent::m_sendConnCfm;
    using MerlowComponent::MerlowComponent;
    using MerlowComponent::ntohDefault;
    using MerlowComponent::sendToClient;

    bool init() override
    {
        onSignal(5, &Plain::handle);
        return true;
    }
    void handle(const std::shared_ptr<mnet_msg>& msg) { handled.push_back(msg->msgNo); }

    std::vector<std::uint32_t> handled;
};

class MerlowComponentTest : public InMemoryTest {
protected:
    MerlowComponentTest() : m_data(MerlowCommonData::getNew(100, m_faultManager)), m_component(*m_data) {}

    std::string copied(unsigned int destSize, const std::string& src)
    {
        std::vector<unsigned char> dest(destSize, 0xAA);
        m_component.copyStringToClearedArray(dest.data(), destSize, src);
        return {dest.begin(), dest.end()};
    }

    Merlow::FaultManager m_faultManager;
    std::unique_ptr<MerlowCommonData> m_data;
    Plain m_component;
};

TEST_F(MerlowComponentTest, doesNothingAndIsReadyByDefault)
{
    const Peer client;
    const BcSession session(client.mbox(), 1, 2, 3, "DU_0", 0);
    m_component.onBcSessionLost(session);
    m_component.onNewBcSession(session);
    m_component.onServerThreadExiting();
    EXPECT_TRUE(m_component.isReadyToPublish());
    EXPECT_EQ(m_component.getComponentName(), "");
    EXPECT_FALSE(m_component.m_sendConnCfm);
    EXPECT_FALSE(m_component.m_checkComponents);
}

TEST_F(MerlowComponentTest, storesTheCallbacks)
{
    int calls = 0;
    m_component.subscribeForSendTarnBcConnCfm([&calls](BcSession&) { ++calls; });
    m_component.subscribeForCheckComponents([&calls] {
        calls += 10;
        return true;
    });
    const Peer client;
    BcSession session(client.mbox(), 1, 2, 3, "DU_0", 0);
    m_component.m_sendConnCfm(session);
    EXPECT_TRUE(m_component.m_checkComponents());
    EXPECT_EQ(calls, 11);
}

TEST_F(MerlowComponentTest, gsmReferencesAre100To199)
{
    EXPECT_FALSE(m_component.isGsmServerRef(99));
    EXPECT_TRUE(m_component.isGsmServerRef(100));
    EXPECT_TRUE(m_component.isGsmServerRef(199));
    EXPECT_FALSE(m_component.isGsmServerRef(200));
    EXPECT_FALSE(m_component.isGsmServerRef(0));
    EXPECT_FALSE(m_component.isGsmServerRef(-1));
    EXPECT_FALSE(m_component.isGsmServerRef(-2147483647 - 1));
}

TEST_F(MerlowComponentTest, swapsBothReferencesThereAndBack)
{
    TarnNodeCommonAddressInfoS references{.clientRef = 0x01020304, .serverRef = 0x05060708};
    m_component.ntohDefault(references);
    EXPECT_EQ(references, (TarnNodeCommonAddressInfoS{0x04030201, 0x08070605}));
    m_component.htonDefault(references);
    EXPECT_EQ(references, (TarnNodeCommonAddressInfoS{0x01020304, 0x05060708}));
}

TEST_F(MerlowComponentTest, aTextThatFitsWithItsTerminatorIsCopiedWithoutATrace)
{
    EXPECT_EQ(copied(8, "1234567"), std::string("1234567\0", 8));
    EXPECT_EQ(copied(8, "12"), std::string("12\0\0\0\0\0\0", 8));
    EXPECT_TRUE(traces().lines().empty());
}

TEST_F(MerlowComponentTest, anEmptyTextLeavesZeros)
{
    EXPECT_EQ(copied(4, ""), std::string(4, '\0'));
    EXPECT_TRUE(traces().lines().empty());
}

TEST_F(MerlowComponentTest, aByteTooManyIsLostAndTraced)
{
    EXPECT_EQ(copied(8, "12345678"), std::string("1234567\0", 8));
    EXPECT_TRUE(traced(4, "ABN: copyErrorDescription: data lost. source: \"12345678\" (strlen: 9), "
                          "destination: \"1234567\" (strlen: 8)"));
}

TEST_F(MerlowComponentTest, anArrayOfOneByteHoldsTheTerminator)
{
    EXPECT_EQ(copied(1, "x"), std::string(1, '\0'));
}

TEST_F(MerlowComponentTest, anArrayWithoutRoomIsNotTouched)
{
    unsigned char guard = 0xAA;
    m_component.copyStringToClearedArray(&guard, 0, "x");
    EXPECT_EQ(guard, 0xAA);
    EXPECT_TRUE(traced(4,
                       "ABN: copyErrorDescription: data lost. source: \"x\" (strlen: 2), destination: \"\" "
                       "(strlen: 0)"));
}

TEST_F(MerlowComponentTest, anErrorDescriptionIsCutTo109AndTerminated)
{
    for (const std::size_t length : {110U, 111U, 5000U}) {
        const std::string text = copied(110, std::string(length, 'x'));
        EXPECT_EQ(text, std::string(109, 'x') + '\0') << length;
    }
}

TEST_F(MerlowComponentTest, aSignalsHandlerIsCalledWithIt)
{
    const auto own = mnet_create_mailbox("own", 0);
    MnetMessageSubscriptionCustom::getInstance().monitorMnetFd(mnet_get_fd());
    m_component.init();
    const Peer client;
    client.send("00000005", own);
    EXPECT_EQ(m_component.handled, std::vector<std::uint32_t>{5});
}

TEST_F(MerlowComponentTest, sendsToTheClientFromThePublicMailbox)
{
    const auto own = mnet_create_mailbox("own", 0);
    m_data->setPublicMbox(mnet_clone_mailbox(own, "Merlow"));
    const Peer client;
    m_component.sendToClient(client.mbox(),
                             answerTo<TarnBcEnableOperationCfmS>({.clientRef = 1, .serverRef = 2}));
    const auto letter = client.receive();
    EXPECT_EQ(letter.hex, "01658404 00000001 00000002");
    EXPECT_EQ(letter.from, m_data->getPublicMbox());
}

TEST_F(MerlowComponentTest, withoutMemoryNothingIsSent)
{
    mnet().fail(support::FakeMnet::Call::alloc);
    const Peer client;
    m_component.sendToClient(client.mbox(), answerTo<TarnBcEnableOperationCfmS>({}));
    EXPECT_EQ(client.receive().hex, "");
}

// Traces

struct BuildCounter {
    int built = 0;
    const char* text()
    {
        ++built;
        return "text";
    }
};

class MerlowTraceTest : public InMemoryTest {
protected:
    void traceAll()
    {
        SCRY_TRACE(1, m_counter.text());
        SCRY_TRACE(4, m_counter.text());
        SCRY_OBJ_TRACE(5, m_counter.text());
        SCRY_OBJ_TRACE(6, m_counter.text());
        SCRY_OBJ_TRACE(13, m_counter.text());
        SCRY_REC_SIG(nullptr, m_counter.text());
        SCRY_SEND_SIG(7, 8, m_counter.text());
    }
    static std::vector<unsigned int> levels()
    {
        std::vector<unsigned int> seen;
        for (const auto& line : traces().lines()) {
            seen.push_back(line.level);
        }
        return seen;
    }

    BuildCounter m_counter;
};

TEST_F(MerlowTraceTest, withAllMasksOffNoTextIsBuilt)
{
    traces().setProcMask(0);
    traces().setObjMask(0);
    traceAll();
    EXPECT_EQ(m_counter.built, 0);
    EXPECT_TRUE(traces().lines().empty());
}

TEST_F(MerlowTraceTest, withAllMasksOnEachTextIsBuiltOnceAndHandedOver)
{
    traceAll();
    EXPECT_EQ(m_counter.built, 7);
    EXPECT_EQ(levels(), (std::vector<unsigned int>{1, 4, 5, 6, 13, 17, 18}));
    EXPECT_EQ(traces().lines().back().sigNo, 7U);
    EXPECT_EQ(traces().lines().back().receiver, 8U);
}

TEST_F(MerlowTraceTest, theObjectsLevelsAreSilentWithoutTheProcesssBit21)
{
    traces().setProcMask(~(1U << 21U));
    traceAll();
    EXPECT_EQ(levels(), (std::vector<unsigned int>{1, 4}));
    EXPECT_EQ(m_counter.built, 2);
}

TEST_F(MerlowTraceTest, eachLevelHasItsOwnBit)
{
    traces().setProcMask(1U << 21U | 1U << 4U);
    traces().setObjMask(1U << 5U | 1U << 18U);
    traceAll();
    EXPECT_EQ(levels(), (std::vector<unsigned int>{4, 5, 18}));
}

} // namespace
