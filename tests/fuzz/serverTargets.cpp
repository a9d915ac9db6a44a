/// The server with all its components on the in-memory platform, amid clients and neighbours that say
/// anything.
#include "board.h"
#include "boardPeers.h"
#include "clientTargets.h"
#include "fakeBrh.h"
#include "fakeLoop.h"
#include "fakeMnet.h"
#include "fakeSway.h"
#include "fakeTrace.h"
#include "merlowCommonData.h"
#include "merlowHwLog.h"
#include "mnetMessageSubscriptionCustom.h"
#include "otherPeers.h"
#include "swCompList.h"
#include "swRevision.h"
#include "unit.h"
#include "virtualSwmServer.h"

#include "bci/bciHwLog.h"
#include "bci/bciSignals.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <gtest/gtest.h>

namespace fuzz {

int platformFailures()
{
    return ::testing::UnitTest::GetInstance()->ad_hoc_test_result().total_part_count();
}

namespace {

using support::FakeLoop;
using support::FakeMnet;
using support::FakeSway;
using support::VirtualSwmServer;

/// Far above what a unit at rest has left to do.
constexpr unsigned int idleLimit = 5000;

/// One way to go on, as the input has it.
enum class Step : std::uint8_t { signal, stranger, bri, bmmi, swmi, legacy, honest, death, restart };

class FuzzedUnit {
public:
    explicit FuzzedUnit(Input& input) : m_input(input), m_failures(platformFailures())
    {
        MnetMessageSubscriptionCustom::reset();
        FakeMnet::instance().reset();
        FakeLoop::instance().reset();
        FakeSway::instance().reset();
        support::FakeBrh::instance().reset();
        // Most inputs play without a trace, which is most of the work.
        support::Traces::instance().reset();
        if (m_input.u8() % 4 != 0) {
            support::Traces::instance().setProcMask(0);
            support::Traces::instance().setObjMask(0);
        }
        m_swm.start();
        startServer();
    }
    ~FuzzedUnit()
    {
        m_unit.end();
        FakeMnet::instance().reset();
        FakeLoop::instance().reset();
    }
    FuzzedUnit(const FuzzedUnit&) = delete;
    FuzzedUnit& operator=(const FuzzedUnit&) = delete;

    /// All neighbours are up, and two clients are connected; the second one holds the software store and has
    /// asked for all there is.
    void bringUp()
    {
        startAll();
        settle();
        for (std::size_t i = 0; i < 2; ++i) {
            m_clients[i].send(connection(300 + static_cast<std::uint32_t>(i)), publicMbox());
        }
        settle();
        const sim::Peer& busy = m_clients[1];
        busy.send(signal(TARN_BC_ACQUIRE_RESOURCE_REQ, 16, {0, 0, 0, 7, 0, 0, 1, 0x2C, 0, 1}), publicMbox());
        settle();
        for (const BciSignal& row : BCI_SIGNALS) {
            // Neither a second connection, nor what ends the load and gives the store back.
            if (row.name.ends_with("_REQ") && row.number != TARN_BC_CONN_ESTABLISH_REQ &&
                row.number != TARN_BC_LMC_END_REQ && row.number != TARN_BC_RELEASE_RESOURCE_REQ) {
                busy.send(signal(row.number, row.size, usualReferences), publicMbox());
            }
        }
        pump();
    }
    void play(const std::vector<Step>& steps)
    {
        for (unsigned int i = 0; i < maxSteps && !m_input.empty(); ++i) {
            const std::uint8_t choice = m_input.step();
            take(steps[(choice & 0x7FU) % steps.size()]);
            if ((choice & 0x80U) == 0) {
                pump();
            }
            require(platformFailures() == m_failures, "the platform is used as it may be");
        }
    }
    /// All others die, and then the server ends.
    void leave()
    {
        pump();
        m_bri.die();
        m_bmmi.die();
        m_legacy.die();
        for (sim::Peer& client : m_clients) {
            client.die();
        }
        pump();
        if (m_unit.isUp()) {
            require(m_unit.data().getNumClientSessions() == 0, "a session goes with its client");
            require(publicMbox() == MNET_MBOX_NONE, "without a legacy server there is no public mailbox");
            require(FakeMnet::instance().mailboxCount(FakeMnet::server) == 1, "no clone is left");
            require(FakeMnet::instance().monitorCount() == 0, "no watch is left");
        }
        m_unit.end();
        const auto& mnet = FakeMnet::instance();
        require(mnet.mailboxCount(FakeMnet::server) == 0, "no mailbox is left");
        require(mnet.monitorCount() == 0, "no watch outlives the server");
        require(mnet.pendingLocates() == 0, "no search outlives the server");
        require(mnet.heldMessages() == 0, "no message is left");
        require(FakeSway::instance().openConnections() == 0, "no connection is left");
        require(platformFailures() == m_failures, "the platform is used as it may be");
    }

private:
    inline static const Bytes usualReferences{0, 0, 0, 7, 0, 0, 1, 0x2C};

    static Bytes signal(std::uint32_t number, std::size_t size, const Bytes& fields)
    {
        Bytes bytes(std::max<std::size_t>(size, sizeof(number)));
        std::memcpy(bytes.data(), &number, sizeof(number));
        std::copy_n(fields.begin(), std::min(fields.size(), bytes.size() - sizeof(number)),
                    bytes.begin() + sizeof(number));
        return bytes;
    }
    static Bytes connection(std::uint32_t serverRef)
    {
        sim::Signal signal(TARN_BC_CONN_ESTABLISH_REQ);
        return signal.u32(7).u32(serverRef).u16(3).u16(0).bytes();
    }

    void take(Step step)
    {
        switch (step) {
        case Step::signal:
            sendSignal(client());
            break;
        case Step::stranger: {
            Bytes bytes = m_input.block();
            bytes.resize(std::max<std::size_t>(bytes.size(), 4));
            client().send(bytes, receiver());
            break;
        }
        case Step::bri:
            sendFrame("BriServer", briSchema(), m_unit.isUp() ? &m_unit.data().getBriClient() : nullptr);
            break;
        case Step::bmmi:
            sendFrame("BmmiServer", bmmiSchema(), m_unit.isUp() ? &m_unit.data().getBmmiClient() : nullptr);
            break;
        case Step::swmi:
            sendSwmiFrame();
            break;
        case Step::legacy:
            if (m_legacy.isUp()) {
                sendSignal(m_legacy);
            }
            break;
        case Step::honest:
            settle();
            break;
        case Step::death:
            somebodyDies();
            break;
        case Step::restart:
            startAll();
            break;
        }
    }

    /// Of the table, with its size or another one, with the references of its session or others.
    void sendSignal(const sim::Peer& peer)
    {
        const std::uint8_t how = m_input.how(true);
        const SchemaMessage& row = m_input.message(bciSchema());
        const bool isAsBody = (how & 0x11U) == 0x10U;
        std::size_t size = row.size;
        if ((how & 0x11U) == 0) {
            size = m_input.u8() * 4U + (how >> 1U & 3U);
        }
        Bytes fields = (how & 0x8U) != 0 ? usualReferences : m_input.take(8);
        const Bytes more = m_input.body(sizeof(row.number) + usualReferences.size());
        fields.insert(fields.end(), more.begin(), more.end());
        peer.send(signal(row.number, isAsBody ? sizeof(row.number) + fields.size() : size, fields),
                  receiver());
    }
    void sendFrame(const char* server, const Schema& schema, const BrhClient* client)
    {
        const std::uint8_t how = m_input.how();
        const std::uint32_t number = m_input.message(schema).number;
        const std::uint32_t procedureRef = (how & 1U) != 0 ? m_input.u32() : m_input.u8();
        const bool isOurs = (how & 0xEU) != 0xEU;
        const std::uint32_t otherRef = isOurs ? 0 : m_input.u32();
        const Bytes body = m_input.body();
        const bool isCut = (how & 0x70U) == 0x70U;
        const std::size_t cutSize = isCut ? 4U + m_input.u8() % 12U : 0;
        const mnet_mbox_id_t from = FakeMnet::instance().find(server);
        if (from == MNET_MBOX_NONE || client == nullptr) {
            return;
        }
        Bytes frame = support::makeFrame(number, procedureRef, isOurs ? client->getClientRef() : otherRef,
                                         std::string(body.begin(), body.end()));
        if (isCut) {
            frame.resize(cutSize);
        }
        const FakeMnet::As self(FakeMnet::instance().processOf(from));
        mnet_msg* msg = mnet_alloc(frame.size(), 0);
        std::memcpy(msg, frame.data(), frame.size());
        mnet_send(&msg, m_unit.data().getPrivateMbox(), from);
    }
    void sendSwmiFrame()
    {
        const std::uint8_t how = m_input.how();
        const std::uint32_t words[] = {m_input.message(swmiSchema()).number, m_input.u8()};
        Bytes frame;
        for (const std::uint32_t word : words) {
            for (unsigned int shift = 32; shift > 0; shift -= 8) {
                frame.push_back(static_cast<std::uint8_t>(word >> (shift - 8)));
            }
        }
        const Bytes body = m_input.body();
        frame.insert(frame.end(), body.begin(), body.end());
        if ((how & 0xFU) == 0xFU) {
            frame.resize(1 + m_input.u8() % 12);
        }
        sway_socket* const socket = VirtualSwmServer::connection();
        if (socket != nullptr && !socket->closedByPeer) {
            socket->fromPeer.push_back(frame);
        }
    }
    void somebodyDies()
    {
        const std::uint8_t who = m_input.u8();
        switch (who % 7) {
        case 0:
            m_bri.die();
            break;
        case 1:
            m_bmmi.die();
            break;
        case 2:
            m_legacy.die();
            break;
        case 3:
            m_swm.die();
            break;
        case 4:
            if (m_unit.isUp()) {
                m_unit.requestStop();
            }
            break;
        default:
            m_clients[who / 7 % m_clients.size()].die();
            break;
        }
    }
    void startAll()
    {
        if (!m_swm.isUp()) {
            m_swm.start();
        }
        for (sim::BoardPeer* peer :
             {static_cast<sim::BoardPeer*>(&m_bri), static_cast<sim::BoardPeer*>(&m_bmmi)}) {
            if (!peer->isUp()) {
                peer->start();
            }
        }
        if (!m_legacy.isUp()) {
            m_legacy.start("LegacyMerlow");
        }
        for (sim::Peer& client : m_clients) {
            if (!client.isUp()) {
                client.start("");
            }
        }
        if (!m_unit.isUp()) {
            startServer();
        }
    }
    void startServer()
    {
        sim::Outcome outcome;
        require(m_unit.start(outcome) == 0, "the server starts");
    }

    /// The neighbours answer all that they were asked, the server handles it, until nobody has anything to
    /// do.
    void settle()
    {
        const sim::Weather calm = sim::Weather::calm();
        sim::Random random(1);
        for (unsigned int i = 0; i < idleLimit; ++i) {
            pump();
            if (m_bri.hasWork()) {
                m_bri.act(random, calm);
            } else if (m_bmmi.hasWork()) {
                m_bmmi.act(random, calm);
            } else if (m_swm.hasWork() && !VirtualSwmServer::connection()->closedByPeer) {
                m_swm.act(random, calm);
            } else if (m_legacy.hasMessage()) {
                confirmConnection();
            } else {
                return;
            }
        }
        require(false, "the unit comes to rest");
    }
    void confirmConnection()
    {
        const auto received = m_legacy.receive();
        if (received->msgNo == TARN_BC_CONN_ESTABLISH_REQ) {
            sim::Signal signal(TARN_BC_CONN_ESTABLISH_CFM);
            m_legacy.send(signal.u32(support::wordAt(received->bytes, 4))
                              .u32(support::wordAt(received->bytes, 8))
                              .bytes(),
                          received->sender);
        }
    }

    void pump()
    {
        for (unsigned int i = 0; m_unit.hasMessage() || m_unit.hasSwmiFrame(); ++i) {
            require(i < idleLimit, "the server comes to rest");
            const sim::Outcome outcome = m_unit.handle(!m_unit.hasMessage());
            // A list of components without the tag that its rewriting needs.
            require(outcome.exception.empty() || outcome.exception.starts_with("basic_string::replace"),
                    outcome.exception.c_str());
            if (m_unit.hasStopped()) {
                m_unit.end();
                FakeLoop::instance().reset();
            }
        }
        for (const sim::Peer& client : m_clients) {
            while (client.hasMessage()) {
                static_cast<void>(client.receive());
            }
        }
    }

    const sim::Peer& client()
    {
        sim::Peer& peer = m_clients[m_input.u8() % m_clients.size()];
        if (!peer.isUp()) {
            peer.start("");
        }
        return peer;
    }
    /// One of the server's mailboxes, the public one above all.
    mnet_mbox_id_t receiver()
    {
        const std::uint8_t which = m_input.u8();
        if (!m_unit.isUp()) {
            return MNET_MBOX_NONE;
        }
        if (which < 0xC0) {
            return publicMbox();
        }
        const BcSession* const session =
            m_unit.data().getClientSession(m_clients[which % m_clients.size()].mbox());
        return session == nullptr ? m_unit.data().getPrivateMbox() : session->getFwdMailboxId();
    }
    mnet_mbox_id_t publicMbox() const
    {
        return m_unit.isUp() ? m_unit.data().getPublicMbox() : MNET_MBOX_NONE;
    }

    Input& m_input;
    int m_failures;
    sim::Unit m_unit;
    sim::BriPeer m_bri;
    sim::BmmiPeer m_bmmi;
    sim::SwmPeer m_swm;
    sim::Peer m_legacy;
    std::array<sim::Peer, 3> m_clients;
};

void play(Input& input, const std::vector<Step>& steps)
{
    FuzzedUnit unit(input);
    if (input.u8() != 0) {
        unit.bringUp();
    }
    unit.play(steps);
    unit.leave();
}

/// Clients of all kinds, and the legacy server.
void runBci(Input& input)
{
    play(input, {Step::signal, Step::signal, Step::signal, Step::legacy, Step::stranger, Step::honest,
                 Step::death, Step::restart});
}

void runBoard(Input& input)
{
    play(input, {Step::bri, Step::bri, Step::bmmi, Step::bmmi, Step::signal, Step::honest, Step::death,
                 Step::restart});
}

void runSwmi(Input& input)
{
    play(input, {Step::swmi, Step::swmi, Step::swmi, Step::signal, Step::honest, Step::death, Step::restart});
}

// Texts

/// From the last tag on that closes what is rewritten, or from where a list is put in if that is behind it.
std::string untouchedEnd(const std::string& list)
{
    std::size_t start = 0;
    for (const char* const tag : {"</ProdNbr>", "</Rev>"}) {
        const std::size_t found = list.rfind(tag);
        start = std::max(start, found == std::string::npos ? 0 : found);
    }
    if (list.find("<Preinstalled/>") == std::string::npos) {
        start = std::max(start, list.find("<LmcList>"));
    }
    return list.substr(start);
}

void runComponentList(Input& input)
{
    const Bytes running = input.block();
    const std::string before = input.restAsText();
    std::string list = before;
    try {
        SwCompList::rewrite(list, {running.begin(), running.end()});
        require(list.ends_with(untouchedEnd(before)), "what no tag closes behind stays as it was");
    } catch (const std::out_of_range&) {
        require(list == before, "a list that cannot be rewritten stays as it was");
    }
    std::string joined;
    for (std::string rest = list; !rest.empty();) {
        const std::string piece = SwCompList::cutPiece(rest);
        require(piece.size() == SwCompList::PIECE_SIZE || rest.empty(), "only the last piece is shorter");
        joined += piece;
    }
    require(joined == list, "the pieces are the list");
}

void runRevision(Input& input)
{
    constexpr int missing[] = {'H', 'L', 'F', 0};
    const int missingLetters = input.of(missing);
    std::string text = input.restAsText();
    const std::int64_t value = swrev_str_to_int(text.c_str(), missingLetters);
    require(value >= -1 && value < std::int64_t{1} << 53, "a revision has a place");
    // Three groups of four behind the first letter count, nothing else.
    text = std::string(text.c_str()).substr(0, 13);
    require(swrev_str_to_int(text.c_str(), missingLetters) == value, "what follows does not count");
    if (value >= 0 && text.size() < 13) {
        text += '~';
        require(swrev_str_to_int(text.c_str(), missingLetters) == value, "what follows does not count");
    }
}

void runHardwareLogArea(Input& input)
{
    support::Traces::instance().reset();
    const std::uint32_t length = input.u8();
    Bytes area = input.rest();
    area.resize(std::max<std::size_t>(area.size(), BCI_HWLOG_ENTRIES_SIZE));
    const auto entries = getHwLogData(length, {reinterpret_cast<const char*>(area.data()), area.size()});
    require(entries.empty() || entries.size() == length, "all entries or none");
    std::size_t at = 0;
    for (const std::string& entry : entries) {
        require(!entry.empty() && at + entry.size() <= area.size() &&
                    std::memcmp(entry.data(), area.data() + at, entry.size()) == 0,
                "an entry is what stands in the area");
        at += entry.size() + 1;
    }
}

} // namespace

const std::vector<Target> targets = {
    {"bci", runBci},
    {"board", runBoard},
    {"swmi", runSwmi},
    {"component-list", runComponentList},
    {"revision", runRevision},
    {"hardware-log", runHardwareLogArea},
    {"client-drivers", runClientDrivers},
    {"agent", runAgent},
};

} // namespace fuzz
