/// The server with its real components, from start-up to a connected client.
#include "bmmi.pb.h"
#include "bri.pb.h"
#include "coreFixture.h"

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

private:
    Peer m_peer;
    std::uint32_t m_clientRef;
};

class MerlowServerTest : public InMemoryTest {
protected:
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

TEST_F(MerlowServerTest, isPublishedByTheLastOfItsNeighboursWhicheverThatIs)
{
    const std::vector<std::function<void()>> steps{[this] { bringUpBri(); }, [this] { bringUpBmmi(); },
                                                   [this] {
                                                       bringUpLegacy();
                                                   }};
    for (std::size_t last = 0; last < steps.size(); ++last) {
        SCOPED_TRACE(last);
        MnetMessageSubscriptionCustom::reset();
        mnet().reset();
        loop().reset();
        ASSERT_EQ(m_impl.startUp(), 0);
        steps[(last + 1) % 3]();
        steps[(last + 2) % 3]();
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
    bringUpLegacy();
    EXPECT_TRUE(isPublic()) << traces().dump();
}

} // namespace
