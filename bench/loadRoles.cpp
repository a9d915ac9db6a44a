// The two ends of a load: a client, and an SWM server at its plainest.

#include "mailboxLink.h"
#include "role.h"
#include "sway.h"
#include "swmi.pb.h"
#include "unit.h"

#include <arpa/inet.h>
#include <cstring>
#include <google/protobuf/io/coded_stream.h>
#include <memory>
#include <stdexcept>

namespace merlow::bench {

namespace {

constexpr std::uint32_t acquireResourceReq = 0x1659800;
constexpr std::uint32_t acquireResourceCfm = 0x1659801;
constexpr std::uint32_t lmcInitReq = 0x1658803;
constexpr std::uint32_t lmcInitCfm = 0x1658804;
constexpr std::uint32_t lmcData = 0x1658806;
constexpr std::uint32_t lmcDataAck = 0x1658807;
constexpr std::size_t dataHeader = 20;

constexpr std::uint32_t ticket = 1; // the client is alone

class SwmLink {
public:
    SwmLink() : m_listener(sway_listen(swm::ServerMetadata().name().c_str(), 0)), m_frame(capacity) {}

    void accept() { m_connection.reset(sway_accept(m_listener.get())); }

    struct Frame {
        std::uint32_t number;
        std::uint32_t procRef;
        const std::uint8_t* body;
        int size;
    };
    /// Waits for a frame, which lasts until the next; a number of 0 when the client is gone.
    Frame receive()
    {
        const ssize_t length = sway_receive(m_connection.get(), m_frame.data(), m_frame.size());
        if (length < static_cast<ssize_t>(header)) {
            return {};
        }
        std::uint32_t words[2];
        std::memcpy(words, m_frame.data(), header);
        return {ntohl(words[0]), ntohl(words[1]), m_frame.data() + header,
                static_cast<int>(length - static_cast<ssize_t>(header))};
    }
    template <class Body> void send(std::uint32_t procRef, const Body& body)
    {
        const std::size_t size = body.ByteSizeLong();
        m_answer.resize(header + size);
        const std::uint32_t words[2] = {htonl(Body::MESSAGE_NUMBER), htonl(procRef)};
        std::memcpy(m_answer.data(), words, header);
        body.SerializeToArray(m_answer.data() + header, static_cast<int>(size));
        if (sway_send(m_connection.get(), m_answer.data(), m_answer.size()) != 0) {
            throw std::runtime_error("an answer was not sent");
        }
    }

private:
    struct Close {
        void operator()(sway_socket* socket) const { sway_close(socket); }
    };

    static constexpr std::size_t header = 8;
    static constexpr std::size_t capacity = 262144;

    std::unique_ptr<sway_socket, Close> m_listener;
    std::unique_ptr<sway_socket, Close> m_connection;
    std::vector<std::uint8_t> m_frame;
    std::vector<std::uint8_t> m_answer;
};

/// The number of a block, whose data is passed over.
std::uint32_t blockNumber(const SwmLink::Frame& frame)
{
    google::protobuf::io::CodedInputStream input(frame.body, frame.size);
    std::uint32_t number = 0;
    while (const std::uint32_t tag = input.ReadTag()) {
        const bool isData = tag >> 3U == swm::PushLoadData::kDataFieldNumber;
        std::uint32_t value = 0;
        if (!input.ReadVarint32(&value) || (isData && !input.Skip(static_cast<int>(value)))) {
            throw std::runtime_error("a block cannot be read");
        }
        number = isData ? number : value; // the ticket is in front
    }
    return number;
}

template <class Body> void confirmTicket(SwmLink& link, std::uint32_t procRef)
{
    Body body;
    body.set_ticket_number(ticket);
    link.send(procRef, body);
}

void serveSwmRequest(SwmLink& link, const SwmLink::Frame& frame)
{
    switch (frame.number) {
    case swm::PushLoadData::MESSAGE_NUMBER: {
        swm::PushLoadAck ack;
        ack.set_ticket_number(ticket);
        ack.set_sequence_number(blockNumber(frame));
        link.send(frame.procRef, ack);
        break;
    }
    case swm::ConnEstablishReq::MESSAGE_NUMBER: {
        swm::ConnEstablishCfm cfm;
        cfm.set_selected_protocol_revision(1);
        link.send(frame.procRef, cfm);
        break;
    }
    case swm::GetCapabilitiesReq::MESSAGE_NUMBER:
        link.send(frame.procRef, swm::GetCapabilitiesCfm());
        break;
    case swm::AcquireResourceReq::MESSAGE_NUMBER: {
        swm::AcquireResourceReq req;
        req.ParseFromArray(frame.body, frame.size);
        swm::AcquireResourceCfm cfm;
        cfm.set_ticket_request_reference(req.ticket_request_reference());
        cfm.set_ticket_number(ticket);
        link.send(frame.procRef, cfm);
        confirmTicket<swm::AcquireResourceInd>(link, frame.procRef);
        break;
    }
    case swm::PushLoadInitReq::MESSAGE_NUMBER:
        confirmTicket<swm::PushLoadInitCfm>(link, frame.procRef);
        break;
    default:
        break;
    }
}

/// A client with a load under way; what it sends are blocks.
class LoadLink : public MailboxLink {
public:
    LoadLink() : MailboxLink("")
    {
        aimAt(publicName);
        Message connect(16, connEstablishReq);
        ask(std::move(connect), connEstablishCfm);
        Message acquire(16, acquireResourceReq);
        ask(std::move(acquire), acquireResourceCfm);
        Message init(16, lmcInitReq); // the name is one letter, the rest is zero
        init.bytes()[12] = 'A';
        ask(std::move(init), lmcInitCfm);
    }
    void send(std::size_t size)
    {
        Message block = addressed(Message(dataHeader + size, lmcData));
        block.setWord(12, m_number++ << 16U);
        block.setWord(16, static_cast<std::uint32_t>(size));
        sendTo(target(), std::move(block));
    }
    void receive()
    {
        if (take().number() != lmcDataAck) {
            throw std::runtime_error("no acknowledgement");
        }
    }

private:
    static Message addressed(Message message)
    {
        message.setWord(4, 1);
        message.setWord(8, 300);
        return message;
    }
    void ask(Message request, std::uint32_t confirm)
    {
        sendTo(target(), addressed(std::move(request)));
        if (take().number() != confirm) {
            throw std::runtime_error("a request was not confirmed");
        }
    }

    std::uint32_t m_number = 0;
};

} // namespace

int playSwm(const RoleArguments&)
{
    SwmLink link;
    line::say("ready");
    for (;;) {
        link.accept();
        for (SwmLink::Frame frame = link.receive(); frame.number != 0; frame = link.receive()) {
            serveSwmRequest(link, frame);
        }
    }
}

int playLoadClient(const RoleArguments&)
{
    LoadLink link;
    return serveClient(link);
}

} // namespace merlow::bench
