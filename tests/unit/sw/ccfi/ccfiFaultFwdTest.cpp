#include "ccfiFixture.h"
#include "recordingFaultManager.h"

namespace {

using ccfi::Bytes;
using ccfi::Event;
using Merlow::FaultData;
using Merlow::FaultSource;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

struct ManagerFirst {
    support::RecordingFaultManager m_manager; // outlives the board
};

/// CCFI_BC_FAULT_FWD over a connection; all texts as they stand, without terminators of their own.
Bytes faultFwd(const std::string& reference, std::uint16_t id, const std::string& description = {},
               const std::string& recoveryTime = "00000000", const std::string& label = {})
{
    Bytes bytes = support::messageFromHex("017c0204 00000103 " + reference + " 00000000");
    bytes[12] = static_cast<std::uint8_t>(id >> 8);
    bytes[13] = static_cast<std::uint8_t>(id);
    bytes[14] = bytes[15] = 0xEE; // nobody reads these
    bytes.insert(bytes.end(), description.begin(), description.end());
    bytes.resize(128);
    const Bytes time = support::messageFromHex("00000000 " + recoveryTime);
    bytes.insert(bytes.end(), time.begin() + 4, time.end());
    bytes.insert(bytes.end(), label.begin(), label.end());
    return bytes;
}

Bytes faultceaseFwd(const std::string& reference, std::uint16_t id)
{
    Bytes bytes = support::messageFromHex("017c0205 00000104 " + reference + " 0000");
    bytes[12] = static_cast<std::uint8_t>(id >> 8);
    bytes[13] = static_cast<std::uint8_t>(id);
    return bytes;
}

std::string hex(unsigned int id)
{
    std::ostringstream text;
    text << std::hex << id;
    return text.str();
}

class CcfiFaultFwdTest : protected ManagerFirst, public ccfi::CcfiTest {
protected:
    CcfiFaultFwdTest() : CcfiTest({.faultManager = &m_manager}), m_client(m_board.newClient())
    {
        connect(m_client);
        m_log.clear();
    }
    void send(const Bytes& bytes) { m_client.sendBytes(bytes, privateMbox()); }

    support::VirtualClient m_client;
};

TEST_F(CcfiFaultFwdTest, aFaultReachesTheManagerWithAllItsFields)
{
    send(faultFwd("00001000", 0x0502, "link 3 is down", "00010203", std::string("FAN-7\0", 6)));
    ASSERT_EQ(m_manager.added.size(), 1U);
    const FaultData& data = m_manager.added.front();
    EXPECT_EQ(data.source, FaultSource::CCFI);
    EXPECT_EQ(data.faultId, 0x0502);
    EXPECT_EQ(data.faultCase, 0);
    EXPECT_EQ(data.faultDescription, "link 3 is down");
    EXPECT_EQ(data.recoveryTime, 0x010203U);
    EXPECT_EQ(data.hwFaultLabel, "FAN-7");
    EXPECT_TRUE(m_client.nothingReceived());
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_THAT(m_log.lines(),
                Contains(support::TracepointLog::Line{
                    Event::RecSig,
                    "Received signal CCFI_BC_FAULT_FWD: procedureRef: 259, connectionRef: 4096, faultId: "
                    "0x502, faultDescription: link 3 is down, faultCase: 0, recoveryTime: 66051, "
                    "hwFaultLabel: FAN-7",
                    0x17C0204, 0}));
}

TEST_F(CcfiFaultFwdTest, aCeaseReachesTheManager)
{
    send(faultceaseFwd("00001000", 0x0502));
    EXPECT_THAT(m_manager.removed, ElementsAre(0x0502));
    EXPECT_TRUE(m_client.nothingReceived());
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_THAT(m_log.lines(),
                Contains(support::TracepointLog::Line{
                    Event::RecSig,
                    "Received signal CCFI_BC_FAULTCEASE_FWD: procedureRef: 260, connectionRef: 4096, "
                    "faultId: 0x502",
                    0x17C0205, 0}));
}

TEST_F(CcfiFaultFwdTest, sevenIdsComeThroughAndNoOthers)
{
    const std::vector<std::uint16_t> accepted{0x0300, 0x0301, 0x0502, 0x0521, 0x0522, 0x0710, 0x0711};
    std::vector<std::uint16_t> refused{0x0000, 0x0101, 0x0103, 0x0104, 0x0108, 0x0302, 0x0703,
                                       0x0705, 0x0003, 0x0205, 0x1007, 0x8301, 0xFFFF};
    for (const auto id : accepted) {
        for (const auto near : {static_cast<std::uint16_t>(id - 1), static_cast<std::uint16_t>(id + 1)}) {
            if (std::find(accepted.begin(), accepted.end(), near) == accepted.end()) {
                refused.push_back(near);
            }
        }
    }
    for (const auto id : accepted) {
        send(faultFwd("00001000", id));
        send(faultceaseFwd("00001000", id));
        EXPECT_EQ(m_manager.added.back().faultId, id);
        EXPECT_EQ(m_manager.removed.back(), id);
    }
    EXPECT_THAT(errors(), IsEmpty());
    for (const auto id : refused) {
        m_log.clear();
        send(faultFwd("00001000", id));
        send(faultceaseFwd("00001000", id));
        EXPECT_THAT(errors(), ElementsAre("Unknown Fault-id 0x" + hex(id) + " is ignored by BC-CCFI",
                                          "Unknown FaultCease-id 0x" + hex(id) + " is ignored by BC-CCFI"));
    }
    EXPECT_EQ(m_manager.added.size(), accepted.size());
    EXPECT_EQ(m_manager.removed.size(), accepted.size());
    EXPECT_TRUE(m_client.nothingReceived());
}

TEST_F(CcfiFaultFwdTest, withoutAConnectionItIsDropped)
{
    connect(m_client);
    support::VirtualPeer stranger = m_board.newClient();
    m_client.sendBytes(support::messageFromHex("017c0206 00000001 00001001"), privateMbox());
    (void)m_client.receive();
    for (const auto* reference : {"00001001", "00001002", "00000007", "00100000"}) {
        const auto number = std::to_string(std::stoul(reference, nullptr, 16));
        m_log.clear();
        stranger.sendBytes(faultFwd(reference, 0x0502), privateMbox());
        stranger.sendBytes(faultceaseFwd(reference, 0x0502), privateMbox());
        const auto notFound =
            "No client with corresponding server connection reference " + number + " was found.";
        const auto dropped = "Client with server connection reference " + number +
                             " is not connected. The failure is dropped.";
        EXPECT_THAT(infos(), ElementsAre(notFound, dropped, notFound, dropped));
        EXPECT_THAT(errors(), IsEmpty()) << "nor is the id looked at";
        EXPECT_EQ(m_log.texts(Event::RecSig).size(), 2U);
    }
    EXPECT_THAT(m_manager.added, IsEmpty());
    EXPECT_THAT(m_manager.removed, IsEmpty());
    EXPECT_TRUE(stranger.nothingReceived());

    stranger.sendBytes(faultceaseFwd("00001000", 0x0502), privateMbox());
    EXPECT_THAT(m_manager.removed, ElementsAre(0x0502)) << "the reference counts, not who uses it";
}

TEST_F(CcfiFaultFwdTest, whatTheManagerRefusesIsTraced)
{
    m_manager.takes = false;
    send(faultFwd("00001000", 0x0711));
    EXPECT_EQ(m_manager.added.size(), 1U);
    EXPECT_THAT(errors(), ElementsAre("active fault 0x711 from BC-CCFI added failed"));
    EXPECT_TRUE(m_client.nothingReceived());
}

TEST_F(CcfiFaultFwdTest, textsEndWithTheirTerminatorOrTheirRoom)
{
    const std::string full(112, 'd');
    send(faultFwd("00001000", 0x0502, full, "41424344", "label"));
    send(faultFwd("00001000", 0x0502, std::string("a\0b", 3), "00000000", std::string("c\0d", 3)));
    send(faultFwd("00001000", 0x0502, "", "ffffffff", ""));
    send(faultFwd("00001000", 0x0502, "", "00000000", std::string(100000, 'l')));
    ASSERT_EQ(m_manager.added.size(), 4U);
    EXPECT_EQ(m_manager.added[0].faultDescription, full)
        << "112 bytes without a terminator, and not one more";
    EXPECT_EQ(m_manager.added[0].hwFaultLabel, "label") << "the signal's end ends it";
    EXPECT_EQ(m_manager.added[0].recoveryTime, 0x41424344U);
    EXPECT_EQ(m_manager.added[1].faultDescription, "a");
    EXPECT_EQ(m_manager.added[1].hwFaultLabel, "c");
    EXPECT_EQ(m_manager.added[2].faultDescription, "");
    EXPECT_EQ(m_manager.added[2].hwFaultLabel, "");
    EXPECT_EQ(m_manager.added[2].recoveryTime, 0xFFFFFFFFU);
    EXPECT_EQ(m_manager.added[3].hwFaultLabel.size(), 100000U);
}

TEST_F(CcfiFaultFwdTest, shortSignalsAreDroppedAtEachLength)
{
    const Bytes raise = faultFwd("00001000", 0x0502);
    const Bytes cease = faultceaseFwd("00001000", 0x0502);
    ASSERT_EQ(raise.size(), 132U);
    ASSERT_EQ(cease.size(), 14U);
    for (const Bytes& whole : {raise, cease}) {
        const auto* signal =
            whole.size() == 14 ? "CCFI_BC_FAULTCEASE_FWD (0x17c0205)" : "CCFI_BC_FAULT_FWD (0x17c0204)";
        for (std::size_t size = 4; size < whole.size(); ++size) {
            m_board.traces().clear();
            send({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)});
            EXPECT_TRUE(tracedAsShort(m_client, signal,
                                      std::to_string(size) + " of " + std::to_string(whole.size())));
        }
    }
    EXPECT_THAT(m_manager.added, IsEmpty());
    EXPECT_THAT(m_manager.removed, IsEmpty());
    send(raise);
    send(cease);
    EXPECT_EQ(m_manager.added.size(), 1U);
    EXPECT_EQ(m_manager.removed.size(), 1U);
}

// With the real manager

class CcfiFaultsTest : public ccfi::CcfiTest {
protected:
    CcfiFaultsTest() : m_client(m_board.newClient())
    {
        connect(m_client);
        m_board.commonData().getFaultManager().subscribeForFaultNotifications(
            [this](const FaultData& data, unsigned int /*mbox*/) {
                m_calls.push_back("raise 0x" + hex(data.faultId) + " " + data.faultDescription);
            },
            [this](const FaultData& data) { m_calls.push_back("cease 0x" + hex(data.faultId)); });
    }
    /// What a new subscriber would be told.
    std::vector<std::string> shown()
    {
        m_calls.clear();
        m_board.commonData().getFaultManager().sendActiveFaults(5);
        return std::exchange(m_calls, {});
    }

    support::VirtualClient m_client;
    std::vector<std::string> m_calls;
};

TEST_F(CcfiFaultsTest, aFaultOutlivesItsConnectionAndAnotherMayCeaseIt)
{
    m_client.sendBytes(faultFwd("00001000", 0x0502, "first"), privateMbox());
    EXPECT_THAT(m_calls, ElementsAre("raise 0x502 first"));
    m_client.sendBytes(support::messageFromHex("017c0206 00000001 00001000"), privateMbox());
    m_client.sendBytes(faultceaseFwd("00001000", 0x0502), privateMbox());
    EXPECT_THAT(shown(), ElementsAre("raise 0x502 first")) << "the cease came over a closed connection";
    m_client.die();
    EXPECT_THAT(shown(), ElementsAre("raise 0x502 first"));

    const auto other = m_board.newClient();
    const auto reference = connect(other);
    EXPECT_EQ(reference, "00001001");
    m_calls.clear();
    other.sendBytes(faultceaseFwd(reference, 0x0502), privateMbox());
    EXPECT_THAT(m_calls, ElementsAre("cease 0x502"));
    EXPECT_THAT(shown(), IsEmpty());
}

TEST_F(CcfiFaultsTest, softwareFaultsAreTakenAndForgotten)
{
    for (const auto id : std::vector<std::uint16_t>{0x0301, 0x0522, 0x0710, 0x0711}) {
        m_log.clear();
        m_client.sendBytes(faultFwd("00001000", id), privateMbox());
        EXPECT_THAT(errors(), IsEmpty());
        m_client.sendBytes(faultceaseFwd("00001000", id), privateMbox());
        EXPECT_THAT(errors(), ElementsAre("The fault has not been activated ID = 0x" + hex(id)));
    }
    EXPECT_THAT(m_calls, IsEmpty());
}

} // namespace
