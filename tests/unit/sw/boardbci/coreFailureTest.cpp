/// Every number that the core knows, at each length from the number alone to beyond its full size, with
/// zeros, ones and random bytes, from a client, a stranger and the legacy server, before and after
/// publication: nothing is read behind the end, nothing leaks, and the server goes on.
#include "bci/bciSignals.h"
#include "ccfi.h"
#include "coreFixture.h"
#include "merlowCapabilities.h"
#include "merlowFaultHandling.h"
#include "merlowHereIAm.h"
#include "merlowHwLog.h"
#include "merlowLinkSupervision.h"
#include "merlowMaintState.h"
#include "merlowPid.h"
#include "merlowRestart.h"
#include "merlowState.h"
#include "merlowSwmi.h"
#include "merlowTemperature.h"
#include "merlowVisual.h"
#include "rowTest.h"
#include "virtualSwmServer.h"

#include <random>

namespace {

using core::CoreTest;
using core::Peer;

enum class Sender { client, stranger, legacy };

struct Case {
    std::uint32_t number;
    std::size_t size;
    Sender sender;
};

void PrintTo(const Case& testCase, std::ostream* out)
{
    *out << "0x" << std::hex << testCase.number << std::dec << " of " << testCase.size << " bytes from "
         << static_cast<int>(testCase.sender);
}

std::vector<Case> allCases()
{
    std::vector<std::pair<std::uint32_t, std::size_t>> numbers{
        {0xDEADBEEF, 16}, {0x1901000, 16}, {0x1901001, 16}, {0x165ABCD, 20},
        {0xDEADBEF0, 16}, {0, 12},         {0xFFFFFFFF, 12}};
    for (const BciSignal& signal : BCI_SIGNALS) {
        numbers.emplace_back(signal.number, signal.size);
    }
    std::vector<Case> cases;
    for (const auto& [number, size] : numbers) {
        for (const auto sender : {Sender::client, Sender::stranger, Sender::legacy}) {
            cases.push_back({number, size, sender});
        }
    }
    return cases;
}

class CoreFailureTest : public CoreTest, public WithRow<Case> {
protected:
    enum class Fill { zeros, ones, random };

    /// Sends the signal at each length, up to a word more than it has.
    void sendAtEachLength(const Peer& peer, mnet_mbox_id_t to, Fill fill)
    {
        // A reject takes the clone that it was sent to away.
        for (std::size_t length = 4; length <= row().size + 4 && mnet().exists(to); ++length) {
            support::Bytes bytes(length, fill == Fill::ones ? 0xFF : 0);
            if (fill == Fill::random) {
                std::generate(bytes.begin(), bytes.end(),
                              [this] { return static_cast<std::uint8_t>(m_random()); });
            }
            std::memcpy(bytes.data(), &row().number, 4);
            peer.sendBytes(bytes, to);
        }
    }
    /// Connected to an SWM server that takes what it is sent.
    static void startSwmi(MerlowSwmi& swmi)
    {
        support::VirtualSwmServer::listen();
        swmi.subscribeForCheckComponents([] { return false; });
        EXPECT_TRUE(swmi.init());
    }
    static void drain(const Peer& peer)
    {
        while (!peer.receive().hex.empty()) {
        }
    }

    std::mt19937 m_random{row().number};
};

ROW_TEST(CoreFailureTest, leavesTheServerWhole)
{
    MerlowState state(data());
    MerlowFaultHandling faults(data());
    Merlow::Ccfi::Ccfi ccfi(data());
    MerlowPid pid(data());
    MerlowCapabilities capabilities(data());
    MerlowHwLog hwLog(data());
    MerlowLinkSupervision linkSupervision(data());
    MerlowMaintState maintState(data());
    MerlowVisual visual(data());
    MerlowHereIAm hereIAm(data());
    MerlowRestart restart(data());
    MerlowTemperature temperature(data());
    MerlowSwmi swmi(data());
    publish();
    startSwmi(swmi);
    ASSERT_TRUE(maintState.init() && visual.init() && hereIAm.init());
    ASSERT_TRUE(state.init() && faults.init() && ccfi.init() && pid.init() && hwLog.init() &&
                linkSupervision.init() && capabilities.init() && restart.init() && temperature.init());
    const Peer witness = confirmedClient();
    const auto cloneOfWitness = m_lastClone;
    const Peer client = confirmedClient();
    const Peer stranger;
    for (const Fill fill : {Fill::zeros, Fill::ones, Fill::random}) {
        switch (row().sender) {
        case Sender::client:
            sendAtEachLength(client, publicMbox(), fill);
            sendAtEachLength(client, m_lastClone, fill);
            sendAtEachLength(client, privateMbox(), fill);
            break;
        case Sender::stranger:
            sendAtEachLength(stranger, publicMbox(), fill);
            sendAtEachLength(stranger, privateMbox(), fill);
            break;
        case Sender::legacy:
            sendAtEachLength(*m_legacy, privateMbox(), fill);
            sendAtEachLength(*m_legacy, m_lastClone, fill);
            sendAtEachLength(*m_legacy, publicMbox(), fill);
            break;
        }
        if (sessionOf(client) != nullptr) {
            m_lastClone = sessionOf(client)->getFwdMailboxId();
        }
    }
    drain(*m_legacy);
    drain(client);
    drain(stranger);

    EXPECT_FALSE(loop().stopped());
    ASSERT_NE(publicMbox(), MNET_MBOX_NONE);
    witness.send("01658400 00000007 00000136", publicMbox());
    EXPECT_EQ(witness.receive().hex, "01658401 00000007 00000136 00000000");
    witness.send("0165abcd", publicMbox());
    const auto letter = m_legacy->receive();
    EXPECT_EQ(letter.hex, "0165abcd");
    EXPECT_EQ(letter.from, cloneOfWitness);
}

ROW_TEST(CoreFailureTest, beforePublicationNothingIsAnsweredNorKept)
{
    MerlowState state(data());
    MerlowFaultHandling faults(data());
    Merlow::Ccfi::Ccfi ccfi(data());
    MerlowPid pid(data());
    MerlowCapabilities capabilities(data());
    MerlowHwLog hwLog(data());
    MerlowLinkSupervision linkSupervision(data());
    MerlowMaintState maintState(data());
    MerlowVisual visual(data());
    MerlowHereIAm hereIAm(data());
    MerlowRestart restart(data());
    MerlowTemperature temperature(data());
    MerlowSwmi swmi(data());
    startUp();
    startSwmi(swmi);
    ASSERT_TRUE(maintState.init() && visual.init() && hereIAm.init());
    ASSERT_TRUE(state.init() && faults.init() && ccfi.init() && pid.init() && hwLog.init() &&
                linkSupervision.init() && capabilities.init() && restart.init() && temperature.init());
    const Peer stranger;
    sendAtEachLength(stranger, privateMbox(), Fill::ones);
    EXPECT_EQ(stranger.receive().hex, "");
    EXPECT_EQ(data().getNumClientSessions(), 0U);
    EXPECT_EQ(mnet().heldMessages(), 0U);
    EXPECT_FALSE(loop().stopped());
}

const auto coreFailureRows = allCases();
TEST_ROWS(Signals, CoreFailureTest, coreFailureRows);

TEST_F(CoreTest, aRequestIsForwardedAtEachLengthAndWhatItLacksReadsAsZero)
{
    publish();
    const std::string whole = "01658000 00000007 0000012c 0003";
    for (const std::size_t length : {4U, 5U, 7U, 8U, 11U, 12U, 13U, 14U}) {
        auto bytes = support::messageFromHex(whole);
        bytes.resize(length);
        const Peer client;
        client.sendBytes(bytes, publicMbox());
        EXPECT_EQ(m_legacy->receive().hex, support::messageToHex(bytes));
        const BcSession* session = sessionOf(client);
        ASSERT_NE(session, nullptr) << length;
        EXPECT_EQ(session->clientRef, length >= 8 ? 7 : 0) << length;
        EXPECT_EQ(session->serverRef, length >= 12 ? 300 : 0) << length;
        EXPECT_EQ(session->protocolRev, length >= 14 ? 3 : 0) << length;
        client.die();
    }
}

TEST_F(CoreTest, aSignalWithTheNumberOfANoticeOfTheServersOwnIsForwardedLikeAnyOther)
{
    publish();
    MerlowFaultHandling faults(data());
    ASSERT_TRUE(faults.init());
    const Peer client = confirmedClient();
    client.send("deadbef0 00000007", publicMbox());
    EXPECT_EQ(m_legacy->receive().hex, "deadbef0 00000007");
}

TEST_F(CoreTest, aConfirmIsHeldAndReleasedAtEachLength)
{
    publish();
    const std::string whole = "01658001 00000007 00000136";
    for (std::size_t length = 4; length <= 12; ++length) {
        const Peer client = requestingClient();
        auto bytes = support::messageFromHex(whole);
        bytes.resize(length);
        m_legacy->sendBytes(bytes, m_lastClone);
        BcSession& session = *sessionOf(client);
        EXPECT_EQ(session.serverRef, length >= 12 ? 310 : 0) << length;
        session.setTimeSourceRegisterReqResponded(true);
        session.setMmiUserRegisterReqResponded(true);
        m_a->releaseConfirm(session);
        EXPECT_EQ(client.receive().hex, support::messageToHex(bytes));
        client.die();
    }
}

} // namespace
