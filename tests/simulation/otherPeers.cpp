#include "otherPeers.h"

#include "bci/bciSignals.h"
#include "swmi.pb.h"
#include "virtualSwmServer.h"

#include <algorithm>

namespace sim {

using support::FakeMnet;
using support::VirtualSwmServer;

namespace {

std::vector<std::uint8_t> swmiFrame(std::uint32_t number, std::uint32_t procRef, const std::string& body)
{
    std::vector<std::uint8_t> frame;
    for (const std::uint32_t word : {number, procRef}) {
        for (unsigned int shift = 32; shift > 0; shift -= 8) {
            frame.push_back(static_cast<std::uint8_t>(word >> (shift - 8)));
        }
    }
    frame.insert(frame.end(), body.begin(), body.end());
    return frame;
}

swm::GetSwProductInvCfm inventory(std::uint32_t ticket, Random& random)
{
    swm::GetSwProductInvCfm cfm;
    cfm.set_ticket_number(ticket);
    for (unsigned int i = random.below(5); i > 0; --i) {
        auto* module = cfm.add_product_inventory();
        module->set_product_number("QXR7041162/" + std::to_string(random.below(3)));
        module->set_revision(std::string("R") + static_cast<char>('1' + random.below(3)) +
                             static_cast<char>('A' + random.below(2)));
        module->set_running(random.chance(20));
        module->set_software_type(random.chance(80) ? swm::ProductInventory::AUAPPLIC
                                                    : swm::ProductInventory::AUBOOT);
        module->set_status(random.chance(90) ? swm::ProductInventory::VALID
                                             : static_cast<swm::ProductInventory::Status>(random.below(4)));
        module->set_access(random.chance(80) ? swm::ProductInventory::READ_WRITE
                                             : swm::ProductInventory::READ_ONLY);
    }
    return cfm;
}

std::string listPiece(std::uint32_t ticket, bool isFirst, bool isLast, Random& random)
{
    swm::SwCompListData data;
    data.set_ticket_number(ticket);
    data.set_end(isLast);
    std::string text = isFirst && random.chance(90) ? "<Preinstalled/>" : "";
    text.append(random.below(400), 'x');
    data.set_data(text);
    return data.SerializeAsString();
}

} // namespace

// The SWM server

void SwmPeer::start()
{
    VirtualSwmServer::listen();
    m_isUp = true;
}

void SwmPeer::die()
{
    VirtualSwmServer::refuse();
    if (sway_socket* socket = VirtualSwmServer::connection()) {
        socket->closedByPeer = true;
    }
    m_mouth.clear();
    m_lists.clear();
    m_isUp = false;
}

bool SwmPeer::hasWork() const
{
    const sway_socket* socket = VirtualSwmServer::connection();
    return m_isUp && socket != nullptr && (!socket->toPeer.empty() || m_mouth.hasDue());
}

std::string SwmPeer::act(Random& random, const Weather& weather)
{
    sway_socket* socket = VirtualSwmServer::connection();
    if (!m_isUp || socket == nullptr || socket->closedByPeer) {
        m_mouth.clear();
        return "The SWM server has nobody to talk to";
    }
    if (random.chance(weather.garbage)) {
        const Frame frame =
            swmiFrame(7 + random.below(40), random.below(40), random.chance(50) ? "" : "\x08");
        socket->fromPeer.emplace_back(frame.begin(), frame.begin() + 1 + random.below(frame.size()));
        return "The SWM server sends garbage " + support::frameToHex(socket->fromPeer.back());
    }
    if (random.chance(weather.repeats)) {
        if (const Frame* frame = m_mouth.repeat(random)) {
            socket->fromPeer.push_back(*frame);
            return "The SWM server repeats " + support::frameToHex(*frame);
        }
    }
    if (m_mouth.hasDue() && (random.chance(40) || socket->toPeer.empty())) {
        const Frame frame = m_mouth.takeDue(random);
        say(frame);
        return "The SWM server says late " + support::frameToHex(frame);
    }
    if (socket->toPeer.empty()) {
        return "The SWM server has nothing to do";
    }
    const Frame frame = socket->toPeer.front();
    socket->toPeer.pop_front();
    onRequest(frame, random, weather);
    return "The SWM server takes " + support::frameToHex(frame);
}

void SwmPeer::say(const Frame& frame)
{
    VirtualSwmServer::connection()->fromPeer.push_back(frame);
    m_mouth.said(frame);
}

void SwmPeer::answer(std::uint32_t number, std::uint32_t procRef,
                     const google::protobuf::MessageLite& message, Random& random, const Weather& weather)
{
    const Frame frame = swmiFrame(number, procRef, message.SerializeAsString());
    if (random.chance(weather.silence)) {
        return;
    }
    if (random.chance(weather.lateness)) {
        m_mouth.willSay(frame);
    } else {
        say(frame);
    }
}

void SwmPeer::onListAck(std::uint32_t procRef, const Frame& frame)
{
    swm::SwCompListAck ack;
    static_cast<void>(ack.ParseFromArray(frame.data() + 8, static_cast<int>(frame.size() - 8)));
    const auto list = m_lists.find(procRef);
    if (list == m_lists.end()) {
        return;
    }
    if (ack.abort() || list->second == 0) {
        m_lists.erase(list);
        return;
    }
    Random text(procRef + list->second);
    --list->second;
    say(swmiFrame(swm::SwCompListData::MESSAGE_NUMBER, procRef,
                  listPiece(ack.ticket_number(), false, list->second == 0, text)));
}

void SwmPeer::onRequest(const Frame& frame, Random& random, const Weather& weather)
{
    const std::uint32_t procRef = wordAt(frame, 4);
    // Of all requests with a ticket it is the first field.
    swm::ReleaseResourceReq any;
    static_cast<void>(any.ParseFromArray(frame.data() + 8, static_cast<int>(frame.size() - 8)));
    const std::uint32_t ticket = any.ticket_number();
    const auto with = [ticket](auto message) {
        message.set_ticket_number(ticket);
        return message;
    };
    switch (wordAt(frame, 0)) {
    case swm::ConnEstablishReq::MESSAGE_NUMBER: {
        swm::ConnEstablishCfm cfm;
        cfm.set_selected_protocol_revision(1);
        say(random.chance(weather.refusals / 8)
                ? swmiFrame(swm::ConnEstablishRej::MESSAGE_NUMBER, procRef, "")
                : swmiFrame(swm::ConnEstablishCfm::MESSAGE_NUMBER, procRef, cfm.SerializeAsString()));
        break;
    }
    case swm::GetCapabilitiesReq::MESSAGE_NUMBER: {
        swm::GetCapabilitiesCfm cfm;
        cfm.mutable_sw_comp_list_support();
        cfm.mutable_lockable_resource_sw_store_support();
        cfm.mutable_loading_block_size_support()->set_block_size(1024);
        say(swmiFrame(swm::GetCapabilitiesCfm::MESSAGE_NUMBER, procRef, cfm.SerializeAsString()));
        break;
    }
    case swm::AcquireResourceReq::MESSAGE_NUMBER: {
        if (random.chance(weather.refusals)) {
            swm::AcquireResourceRej rej;
            rej.set_ticket_request_reference(ticket); // the same place in the request
            answer(swm::AcquireResourceRej::MESSAGE_NUMBER, procRef, rej, random, weather);
            break;
        }
        swm::AcquireResourceCfm cfm;
        cfm.set_ticket_request_reference(ticket);
        cfm.set_ticket_number(++m_lastTicket);
        say(swmiFrame(swm::AcquireResourceCfm::MESSAGE_NUMBER, procRef, cfm.SerializeAsString()));
        swm::AcquireResourceInd ind;
        ind.set_ticket_number(m_lastTicket);
        answer(swm::AcquireResourceInd::MESSAGE_NUMBER, procRef, ind, random, weather);
        break;
    }
    case swm::ReleaseResourceReq::MESSAGE_NUMBER:
        settle(procRef, with(swm::ReleaseResourceCfm()), with(swm::ReleaseResourceRej()), random, weather);
        break;
    case swm::PushLoadInitReq::MESSAGE_NUMBER: {
        auto rej = with(swm::PushLoadInitRej());
        rej.set_reason(static_cast<swm::PushLoadInitRej::Reason>(random.below(7)));
        settle(procRef, with(swm::PushLoadInitCfm()), rej, random, weather);
        break;
    }
    case swm::PushLoadData::MESSAGE_NUMBER: {
        swm::PushLoadData data;
        static_cast<void>(data.ParseFromArray(frame.data() + 8, static_cast<int>(frame.size() - 8)));
        auto ack = with(swm::PushLoadAck());
        ack.set_sequence_number(data.sequence_number());
        ack.set_abort(random.chance(weather.refusals));
        answer(swm::PushLoadAck::MESSAGE_NUMBER, procRef, ack, random, weather);
        break;
    }
    case swm::PushLoadEndReq::MESSAGE_NUMBER: {
        auto cfm = with(swm::PushLoadEndCfm());
        cfm.set_result(random.chance(80) ? swm::PushLoadEndCfm::COMPLETED : swm::PushLoadEndCfm::FAILED);
        auto rej = with(swm::PushLoadEndRej());
        rej.set_reason(static_cast<swm::PushLoadEndRej::Reason>(random.below(5)));
        settle(procRef, cfm, rej, random, weather);
        break;
    }
    case swm::DeleteReq::MESSAGE_NUMBER:
        settle(procRef, with(swm::DeleteCfm()), with(swm::DeleteRej()), random, weather);
        break;
    case swm::GetSwProductInvReq::MESSAGE_NUMBER:
        settle(procRef, inventory(ticket, random), with(swm::GetSwProductInvRej()), random, weather);
        break;
    case swm::SwCompListReq::MESSAGE_NUMBER:
        if (random.chance(weather.refusals)) {
            auto rej = with(swm::SwCompListRej());
            rej.set_reason(static_cast<swm::SwCompListRej::Reason>(random.below(3)));
            answer(swm::SwCompListRej::MESSAGE_NUMBER, procRef, rej, random, weather);
            break;
        }
        m_lists[procRef] = random.below(3);
        say(swmiFrame(swm::SwCompListCfm::MESSAGE_NUMBER, procRef,
                      with(swm::SwCompListCfm()).SerializeAsString()));
        say(swmiFrame(swm::SwCompListData::MESSAGE_NUMBER, procRef,
                      listPiece(ticket, true, m_lists[procRef] == 0, random)));
        break;
    case swm::SwCompListAck::MESSAGE_NUMBER:
        onListAck(procRef, frame);
        break;
    case swm::GetRunningSwReq::MESSAGE_NUMBER: {
        swm::GetRunningSwCfm cfm;
        cfm.set_running_software("QXR7041162%15_R91KT");
        swm::GetRunningSwRej rej;
        rej.set_reason(static_cast<swm::GetRunningSwRej::Reason>(random.below(2)));
        settle(procRef, cfm, rej, random, weather);
        break;
    }
    default:
        break;
    }
}

// The legacy server

void LegacyPeer::die()
{
    m_peer.die();
    m_mouth.clear();
    m_clones.clear();
}

std::string LegacyPeer::say(const Letter& letter)
{
    m_peer.send(letter.bytes, letter.to);
    m_mouth.said(letter);
    return "The legacy server says " + support::messageToHex(letter.bytes);
}

std::string LegacyPeer::act(Random& random, const Weather& weather)
{
    if (random.chance(weather.repeats)) {
        if (const Letter* letter = m_mouth.repeat(random)) {
            const Letter again = *letter;
            return say(again);
        }
    }
    if (m_mouth.hasDue() && (random.chance(40) || !m_peer.hasMessage())) {
        return say(m_mouth.takeDue(random));
    }
    const auto received = m_peer.receive();
    if (!received) {
        if (m_clones.empty() || !random.chance(30)) {
            return "The legacy server has nothing to do";
        }
        Signal signal(random.chance(70) ? 0x165A600 + random.below(5)
                                        : std::uint32_t{TARN_BC_RESTART_BOARD_NOTIFICATION_IND});
        signal.u32(random.below(4)).u32(300 + random.below(4)).u16(401).u16(0).u16(random.below(4));
        return say({.to = random.of(m_clones), .bytes = signal.upTo(random.chance(80) ? 180 : 20).bytes()});
    }
    if (std::find(m_clones.begin(), m_clones.end(), received->sender) == m_clones.end()) {
        m_clones.push_back(received->sender);
    }
    std::uint32_t number = received->msgNo + 0x100;
    std::uint32_t serverRef = wordAt(received->bytes, 8);
    if (received->msgNo == TARN_BC_CONN_ESTABLISH_REQ) {
        const bool isRefused = random.chance(weather.refusals);
        number = isRefused ? TARN_BC_CONN_ESTABLISH_REJ : TARN_BC_CONN_ESTABLISH_CFM;
        // Now and then two clients get the same reference.
        serverRef = (serverRef >= 100 && serverRef < 200 ? 100 : 300) + (m_served++ % 30);
        if (random.chance(weather.garbage)) {
            serverRef -= serverRef % 10;
        }
    } else if (random.chance(50)) {
        return "The legacy server takes " + support::messageToHex(received->bytes);
    }
    const Letter letter{.to = received->sender,
                        .bytes = Signal(number)
                                     .u32(wordAt(received->bytes, 4))
                                     .u32(serverRef)
                                     .upTo(number == TARN_BC_CONN_ESTABLISH_CFM ? 12 : 12 + random.below(40))
                                     .bytes()};
    if (random.chance(weather.silence)) {
        return "The legacy server does not answer";
    }
    if (random.chance(weather.lateness)) {
        m_mouth.willSay(letter);
        return "The legacy server will say " + support::messageToHex(letter.bytes);
    }
    return say(letter);
}

// A process that forwards faults

void CcfiPeer::die()
{
    m_peer.die();
    m_connections.clear();
}

std::string CcfiPeer::act(Random& random, const Weather& weather)
{
    const mnet_mbox_id_t server = FakeMnet::instance().find("private_Merlow");
    while (const auto received = m_peer.receive()) {
        if (received->msgNo == CCFI_BC_CONN_ESTABLISH_CFM) {
            m_connections.push_back(wordAt(received->bytes, 8));
        }
    }
    if (server == MNET_MBOX_NONE) {
        m_connections.clear();
        return "A fault forwarder finds no server";
    }
    constexpr std::uint16_t ids[] = {0x0300, 0x0301, 0x0502, 0x0521, 0x0522, 0x0710, 0x0101, 0x0103, 0x0302};
    Signal signal(CCFI_BC_CONN_ESTABLISH_REQ);
    const unsigned int what = random.below(10);
    if (m_connections.empty() || what == 0) {
        signal = Signal(CCFI_BC_CONN_ESTABLISH_REQ);
        signal.u32(++m_lastProcedure).u32(random.below(10)).u32(2).u32(random.chance(80) ? 1 : 3).u32(2);
    } else if (what == 1) {
        signal = Signal(CCFI_BC_CONN_CLOSE_REQ);
        const std::uint32_t reference = random.of(m_connections);
        signal.u32(++m_lastProcedure).u32(reference);
        if (random.chance(80)) { // else it goes on as if the connection stood
            std::erase(m_connections, reference);
        }
    } else {
        const bool isRaise = random.chance(55);
        signal = Signal(isRaise ? CCFI_BC_FAULT_FWD : CCFI_BC_FAULTCEASE_FWD);
        signal.u32(++m_lastProcedure).u32(random.of(m_connections)).u16(random.of(ids));
        if (isRaise) {
            signal.u16(0).text("fault " + std::to_string(m_lastProcedure)).upTo(128).u32(5).text("label");
        }
    }
    Bytes bytes = signal.bytes();
    if (random.chance(weather.garbage)) {
        bytes.resize(4 + random.below(bytes.size() - 4));
    }
    m_peer.send(bytes, server);
    return "A fault forwarder says " + support::messageToHex(bytes);
}

} // namespace sim
