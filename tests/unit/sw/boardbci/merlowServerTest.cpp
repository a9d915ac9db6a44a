/// The server with its real components, from start-up to a connected client.
#include "bci/bciSignals.h"
#include "bmmi.pb.h"
#include "bri.pb.h"
#include "coreFixture.h"
#include "rowTest.h"
#include "virtualSwmServer.h"

#include <array>
#include <cstdlib>
#include <cxxabi.h>
#include <gmock/gmock.h>
#include <random>
#include <typeinfo>

namespace {

namespace bri = boardresourcehandler::bri;
namespace bmmi = boardresourcehandler::bmmi;
using core::InMemoryTest;
using core::Peer;

/// A server of BRI or BMMI that answers by hand.
class Backend {
public:
    Backend(const char* name, std::uint32_t clientRef) : m_peer(name), m_clientRef(clientRef)
    {
        core::FakeLoop::instance().pumpUntilIdle();
    }
    /// Takes frames up to the first that carries a Q, and answers that one.
    template <class Q, class A> void answer(const A& message, mnet_mbox_id_t server)
    {
        support::Bytes frame;
        std::uint32_t number = 0;
        while (number != static_cast<std::uint32_t>(Q::MESSAGE_NUMBER)) {
            const std::string hex = received();
            ASSERT_FALSE(hex.empty()) << "No " << Q().GetTypeName();
            frame = support::messageFromHex(hex);
            std::memcpy(&number, frame.data(), sizeof(number));
        }
        m_peer.sendBytes(support::makeFrame(A::MESSAGE_NUMBER, support::wordAt(frame, 4),
                                            std::is_same_v<A, bri::ConnEstablishCfm> ||
                                                    std::is_same_v<A, bmmi::ConnEstablishCfm>
                                                ? 0x4711
                                                : m_clientRef,
                                            message.SerializeAsString()),
                         server);
    }
    [[nodiscard]] std::string received() const { return m_peer.receive().hex; }
    [[nodiscard]] const Peer& peer() const { return m_peer; }
    [[nodiscard]] std::uint32_t clientRef() const { return m_clientRef; }
    /// Takes all frames; the procedure reference of the last one.
    std::uint32_t lastProcedureRef() const
    {
        std::uint32_t ref = 0;
        for (std::string hex = received(); !hex.empty(); hex = received()) {
            ref = support::wordAt(support::messageFromHex(hex), 4);
        }
        return ref;
    }

private:
    Peer m_peer;
    std::uint32_t m_clientRef;
};

class MerlowServerTest : public InMemoryTest {
protected:
    MerlowServerTest() { support::VirtualSwmServer::listen(); }
    void bringUpBri()
    {
        m_bri.emplace("BriServer", 100);
        bri::ConnEstablishCfm cfm;
        cfm.set_selected_protocol_revision(1);
        m_bri->answer<bri::ConnEstablishReq>(cfm, data().getPrivateMbox());
        bri::GetCapabilitiesCfm capabilities;
        capabilities.add_capabilities(bri::GetCapabilitiesCfm::UTC_TIME);
        m_bri->answer<bri::GetCapabilitiesReq>(capabilities, data().getPrivateMbox());
    }
    void bringUpBmmi()
    {
        m_bmmi.emplace("BmmiServer", 101);
        bmmi::ConnEstablishCfm cfm;
        cfm.set_selected_protocol_revision(1);
        m_bmmi->answer<bmmi::ConnEstablishReq>(cfm, data().getPrivateMbox());
        m_bmmi->answer<bmmi::GetCapabilitiesReq>(bmmi::GetCapabilitiesCfm(), data().getPrivateMbox());
    }
    /// It is up from the start, else the server would not start.
    static void bringUpSwm()
    {
        support::VirtualSwmServer::send("00000002 00000000 0801");
        support::VirtualSwmServer::send("00000005 00000000");
    }
    void bringUpLegacy()
    {
        m_legacy.emplace("LegacyMerlow");
        loop().pumpUntilIdle();
    }
    MerlowCommonData& data() { return m_impl.getCommonData(); }
    bool isPublic() { return data().getPublicMbox() != MNET_MBOX_NONE; }

    MerlowImpl m_impl;
    std::optional<Backend> m_bri;
    std::optional<Backend> m_bmmi;
    std::optional<Peer> m_legacy;
};

TEST_F(MerlowServerTest, hasItsNineteenComponentsInTheirOrder)
{
    Merlow::FaultManager faultManager;
    const std::unique_ptr<MerlowCommonData> commonData(MerlowCommonData::getNew(100, faultManager));
    std::vector<std::string> names;
    for (const auto& component : MerlowImpl::createComponents(*commonData)) {
        const MerlowComponent& one = *component;
        int status = -1;
        const std::unique_ptr<char, decltype(&std::free)> name(
            abi::__cxa_demangle(typeid(one).name(), nullptr, nullptr, &status), &std::free);
        ASSERT_EQ(status, 0);
        names.emplace_back(name.get());
    }
    EXPECT_THAT(
        names, testing::ElementsAreArray(
                   {"MerlowPid", "MerlowState", "MerlowLinkSupervision", "MerlowRestart", "MerlowTemperature",
                    "MerlowTime", "MerlowCapabilities", "MerlowMaintState", "MerlowVisual", "MerlowBri",
                    "MerlowBmmi", "MerlowMmiHandling", "MerlowSwmi", "MerlowHereIAm", "MerlowHwLog",
                    "MerlowFaultHandling", "BriFaultHandler", "Merlow::BbBci::BbBci", "Merlow::Ccfi::Ccfi"}));
}

TEST_F(MerlowServerTest, isPublishedByTheLastOfItsNeighboursWhicheverThatIs)
{
    const std::vector<std::function<void()>> steps{[this] { bringUpBri(); }, [this] { bringUpBmmi(); },
                                                   bringUpSwm,
                                                   [this] {
                                                       bringUpLegacy();
                                                   }};
    for (std::size_t last = 0; last < steps.size(); ++last) {
        SCOPED_TRACE(last);
        MnetMessageSubscriptionCustom::reset();
        mnet().reset();
        loop().reset();
        ASSERT_EQ(m_impl.startUp(), 0);
        for (std::size_t step = 1; step < steps.size(); ++step) {
            steps[(last + step) % steps.size()]();
        }
        EXPECT_FALSE(isPublic());
        steps[last]();
        EXPECT_TRUE(isPublic());
        m_impl.cleanUp();
    }
}

TEST_F(MerlowServerTest, aClientIsConnectedWhenBothRegistrationsAreAnswered)
{
    ASSERT_EQ(m_impl.startUp(), 0);
    bringUpBri();
    bringUpBmmi();
    bringUpSwm();
    bringUpLegacy();
    const Peer client;
    client.send("01658000 00000007 0000012c 0003", data().getPublicMbox());
    const auto clone = m_legacy->receive().from;
    m_legacy->send("01658001 00000007 0000012d", clone);

    bri::RegisterUtcTimeSourceCfm timeCfm;
    timeCfm.set_utc_time_source_ref(5);
    m_bri->answer<bri::RegisterUtcTimeSourceReq>(timeCfm, data().getPrivateMbox());
    EXPECT_EQ(client.receive().hex, "") << "one registration is open";
    bmmi::RegisterMmiUserCfm userCfm;
    userCfm.set_mmi_user_id(6);
    m_bmmi->answer<bmmi::RegisterMmiUserReq>(userCfm, data().getPrivateMbox());
    const auto letter = client.receive();
    EXPECT_EQ(letter.hex, "01658001 00000007 0000012d");
    EXPECT_EQ(letter.from, data().getPublicMbox());

    client.send("01658400 00000007 0000012d", data().getPublicMbox());
    EXPECT_EQ(client.receive().hex, "01658401 00000007 0000012d 00000000");

    ASSERT_EQ(m_bri->received(), "");
    client.die();
    EXPECT_EQ(m_bri->received(), "01707736 00000006 00004711 0805") << "the time source is given back";
    EXPECT_EQ(data().getNumClientSessions(), 0U);
}

TEST_F(MerlowServerTest, aSecondStartFindsItsBackendsAgain)
{
    ASSERT_EQ(m_impl.startUp(), 0);
    m_impl.cleanUp();
    MnetMessageSubscriptionCustom::reset();
    ASSERT_EQ(m_impl.startUp(), 0);
    bringUpBri();
    bringUpBmmi();
    bringUpSwm();
    bringUpLegacy();
    EXPECT_TRUE(isPublic()) << traces().dump();
}

// Garbage

enum class GarbageSender { client, stranger, bri, bmmi, legacy };

void PrintTo(GarbageSender sender, std::ostream* out)
{
    static constexpr std::array<const char*, 5> names{"client", "stranger", "bri", "bmmi", "legacy"};
    *out << names[static_cast<std::size_t>(sender)];
}

/// A server with everything up, and a client that must not notice what others send.
class GarbageTest : public MerlowServerTest, public WithRow<GarbageSender> {
protected:
    GarbageTest()
    {
        EXPECT_EQ(m_impl.startUp(), 0);
        bringUpBri();
        bringUpBmmi();
        bringUpSwm();
        bringUpLegacy();
        connect(m_witness);
        connect(m_client);
    }
    void connect(const Peer& client)
    {
        client.send("01658000 00000007 0000012c 0003", data().getPublicMbox());
        m_legacy->send("01658001 00000007 0000012d", cloneOf(client));
        m_bri->answer<bri::RegisterUtcTimeSourceReq>(bri::RegisterUtcTimeSourceRej(),
                                                     data().getPrivateMbox());
        m_bmmi->answer<bmmi::RegisterMmiUserReq>(bmmi::RegisterMmiUserRej(), data().getPrivateMbox());
        EXPECT_EQ(client.receive().hex, "01658001 00000007 0000012d");
    }
    mnet_mbox_id_t cloneOf(const Peer& client)
    {
        const BcSession* session = data().getClientSession(client.mbox());
        return session == nullptr ? MNET_MBOX_NONE : session->getFwdMailboxId();
    }
    /// Both backends are connected and have a transaction open, whatever was sent before.
    void openTransactions()
    {
        m_bri->peer().send("0170772e 00000064 00004711 0801", data().getPrivateMbox());
        m_bmmi->peer().send("01707571 00000065 00004711 0801", data().getPrivateMbox());
        if (cloneOf(m_client) == MNET_MBOX_NONE) { // rejected meanwhile
            m_client.send("01658000 00000007 0000012c 0003", data().getPublicMbox());
        }
        m_legacy->send("01658001 00000007 0000012d", cloneOf(m_client));
        m_briRef = m_bri->lastProcedureRef();
        m_bmmiRef = m_bmmi->lastProcedureRef();
    }
    /// Random bytes, and three times out of four references that lead to a backend client and a transaction.
    support::Bytes garbage(std::uint32_t number, std::size_t size)
    {
        support::Bytes bytes(size);
        const unsigned int largest = m_random() % 2 == 0 ? 0xFF : 0x1F; // small ones often are valid fields
        for (auto& byte : bytes) {
            byte = static_cast<std::uint8_t>(m_random() % (largest + 1));
        }
        if (size >= 12 && m_random() % 4 != 0) {
            const bool isBri = m_random() % 2 == 0;
            bytes = support::makeFrame(number, isBri ? m_briRef : m_bmmiRef,
                                       isBri ? m_bri->clientRef() : m_bmmi->clientRef(),
                                       {bytes.begin() + 12, bytes.end()});
        }
        std::memcpy(bytes.data(), &number, sizeof(number));
        return bytes;
    }
    [[nodiscard]] const Peer& sender() const
    {
        switch (row()) {
        case GarbageSender::client:
            return m_client;
        case GarbageSender::stranger:
            return m_stranger;
        case GarbageSender::bri:
            return m_bri->peer();
        case GarbageSender::bmmi:
            return m_bmmi->peer();
        case GarbageSender::legacy:
            break;
        }
        return *m_legacy;
    }
    void drain()
    {
        for (const Peer* peer : {&m_client, &m_stranger, &*m_legacy}) {
            while (!peer->receive().hex.empty()) {
            }
        }
        (void)support::VirtualSwmServer::received();
        traces().clear();
    }
    /// Each number with its size: the signals, the frames that have a handler, and the core's own.
    static std::vector<std::pair<std::uint32_t, std::size_t>> knownNumbers()
    {
        std::vector<std::pair<std::uint32_t, std::size_t>> numbers{
            {0xDEADBEEF, 4}, {0x1901000, 4}, {0x1901001, 4}, {0x165ABCD, 12}};
        for (const BciSignal& signal : BCI_SIGNALS) {
            numbers.emplace_back(signal.number, signal.size);
        }
        MnetMessageSubscriptionCustom::MsgHandler handler;
        for (std::uint32_t frame = 0x1707500; frame < 0x1707800; ++frame) {
            if (MnetMessageSubscriptionCustom::getInstance().getMsgHandler(frame, handler) == 0) {
                numbers.emplace_back(frame, 48);
            }
        }
        return numbers;
    }

    Peer m_witness;
    Peer m_client;
    Peer m_stranger;
    std::uint32_t m_briRef = 0;
    std::uint32_t m_bmmiRef = 0;
    std::mt19937 m_random{1}; // NOLINT(bugprone-random-generator-seed): the same bytes in every run
};

ROW_TEST(GarbageTest, leavesTheServerWhole)
{
    const auto numbers = knownNumbers();
    ASSERT_GT(numbers.size(), BCI_SIGNALS.size() + 20);
    for (const auto& [number, whole] : numbers) {
        SCOPED_TRACE(number);
        openTransactions();
        for (std::size_t size = 4; size <= whole + 4; ++size) {
            // Of clones each sender knows its own; the legacy server knows that of the client.
            for (const auto target : {data().getPublicMbox(), data().getPrivateMbox(), cloneOf(m_client)}) {
                if (target != MNET_MBOX_NONE) {
                    sender().sendBytes(garbage(number, size), target);
                }
            }
        }
        drain();
        ASSERT_FALSE(loop().stopped());
        ASSERT_TRUE(data().getBriClient().isServerFound() && data().getBmmiClient().isServerFound());
        m_witness.send("01658400 00000007 0000012d", data().getPublicMbox());
        ASSERT_EQ(m_witness.receive().hex, "01658401 00000007 0000012d 00000000");
        m_witness.send("0165abcd 00000001", data().getPublicMbox());
        ASSERT_EQ(m_legacy->receive().hex, "0165abcd 00000001");
    }
}

const GarbageSender garbageSenders[] = {GarbageSender::client, GarbageSender::stranger, GarbageSender::bri,
                                        GarbageSender::bmmi, GarbageSender::legacy};
TEST_ROWS(From, GarbageTest, garbageSenders, [](const auto& row) { return ::testing::PrintToString(row); });

} // namespace
