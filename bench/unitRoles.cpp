// The roles of a whole unit: the host of the server, the neighbours at their plainest, clients, and a watch
// that notes when mailboxes come and go.

#include "bmmi.pb.h"
#include "bri.pb.h"
#include "mailboxLink.h"
#include "merlowIf.h"
#include "role.h"
#include "unit.h"

#include <stdexcept>
#include <time.h>

namespace merlow::bench {

namespace {

namespace bri = boardresourcehandler::bri;
namespace bmmi = boardresourcehandler::bmmi;

constexpr std::uint32_t setUtcTimeReq = 0x1659500;
constexpr std::uint32_t setUtcTimeCfm = 0x1659501;
constexpr std::uint32_t passingSignal = 0x1658FF0; // one that no component handles

constexpr std::size_t procedureRefAt = 4;
constexpr std::size_t connectionRefAt = 8;
constexpr std::size_t frameHeader = 12;

/// The board's reference of a connection, made so that the client's can be told from it.
constexpr std::uint32_t connectionRefBase = 0x10000;

template <class Body> Message frame(const Body& body, std::uint32_t procedureRef, std::uint32_t connectionRef)
{
    const std::size_t size = body.ByteSizeLong();
    Message message(frameHeader + size, Body::MESSAGE_NUMBER);
    message.setWord(procedureRefAt, procedureRef);
    message.setWord(connectionRefAt, connectionRef);
    body.SerializeToArray(message.bytes() + frameHeader, static_cast<int>(size));
    return message;
}

/// The confirm of a connection request: the client's reference in front, the board's behind.
template <class Confirm> Message confirmedConnection(const Message& request)
{
    Confirm confirm;
    confirm.set_selected_protocol_revision(1);
    const std::uint32_t clientRef = request.word(procedureRefAt);
    return frame(confirm, clientRef, clientRef + connectionRefBase);
}

/// An answer within a connection.
template <class Body> Message answer(const Message& request, const Body& body)
{
    return frame(body, request.word(procedureRefAt), request.word(connectionRefAt) - connectionRefBase);
}

/// What the board answers; nothing to requests that it does not know.
Message boardAnswer(Message& request)
{
    switch (request.number()) {
    case bri::ConnEstablishReq::MESSAGE_NUMBER:
        return confirmedConnection<bri::ConnEstablishCfm>(request);
    case bmmi::ConnEstablishReq::MESSAGE_NUMBER:
        return confirmedConnection<bmmi::ConnEstablishCfm>(request);
    case bri::GetCapabilitiesReq::MESSAGE_NUMBER: {
        bri::GetCapabilitiesCfm confirm;
        confirm.add_capabilities(bri::GetCapabilitiesCfm::UTC_TIME);
        return answer(request, confirm);
    }
    case bmmi::GetCapabilitiesReq::MESSAGE_NUMBER:
        return answer(request, bmmi::GetCapabilitiesCfm{});
    case bri::RegisterUtcTimeSourceReq::MESSAGE_NUMBER: {
        bri::RegisterUtcTimeSourceCfm confirm;
        confirm.set_utc_time_source_ref(request.word(procedureRefAt));
        return answer(request, confirm);
    }
    case bmmi::RegisterMmiUserReq::MESSAGE_NUMBER: {
        bmmi::RegisterMmiUserCfm confirm;
        confirm.set_mmi_user_id(request.word(procedureRefAt));
        return answer(request, confirm);
    }
    case bri::SetUtcTimeReq::MESSAGE_NUMBER: {
        bri::SetUtcTimeReq body;
        const auto size = static_cast<int>(request.size() - frameHeader);
        if (!body.ParseFromArray(request.bytes() + frameHeader, size) || !body.has_utc_time()) {
            return answer(request, bri::SetUtcTimeRej{});
        }
        return answer(request, bri::SetUtcTimeCfm{});
    }
    default:
        return Message();
    }
}

/// What the board tells the server of on order: faults, one at a time, each raised and then ceased.
class BoardFaults {
public:
    explicit BoardFaults(MailboxLink& link) : m_link(link) {}

    /// Whom to tell.
    void connect(const Message& request)
    {
        m_server = request.sender();
        m_serverRef = request.word(procedureRefAt);
    }
    /// The next event of so many different faults.
    void tell(std::uint32_t kinds)
    {
        const auto kind = static_cast<std::uint32_t>(m_events / 2 % kinds);
        const auto id = static_cast<bri::BriFaultId>(kind % idCount);
        if (m_events++ % 2 == 0) {
            bri::FaultInd ind;
            ind.set_fault_id(id);
            ind.set_fault_case(kind / idCount);
            m_link.sendTo(m_server, frame(ind, 0, m_serverRef));
        } else {
            bri::FaultCeaseInd ind;
            ind.set_fault_id(id);
            m_link.sendTo(m_server, frame(ind, 0, m_serverRef));
        }
    }
    /// Ends with a cease. Millisecond by millisecond, what is due by then.
    void storm(const Message& order)
    {
        const std::uint32_t total = order.word(4) * order.word(8) / 2 * 2;
        const double start = nowNanoseconds();
        for (std::uint32_t sent = 0; sent < total;) {
            const double due = (nowNanoseconds() - start) / 1e9 * order.word(8);
            while (sent < total && sent < due) {
                tell(1);
                ++sent;
            }
            m_link.takeNow(); // moves what is kept
            const timespec pause{0, 1000000};
            nanosleep(&pause, nullptr);
        }
        Message over(8, boardStormOver);
        over.setWord(4, total);
        m_link.answer(order, std::move(over));
    }

private:
    static constexpr std::uint32_t idCount = 12;

    MailboxLink& m_link;
    mnet_mbox_id_t m_server = MNET_MBOX_NONE;
    std::uint32_t m_serverRef = 0;
    std::uint64_t m_events = 0;
};

/// A link that accepts only the one answer.
class ClientLink : public MailboxLink {
public:
    ClientLink(std::uint32_t request, std::uint32_t confirm) : MailboxLink(""), m_confirm(confirm)
    {
        setNumber(request);
    }

    std::size_t receive()
    {
        const Message message = take();
        if (message.number() != m_confirm) {
            throw std::runtime_error("a wrong answer: " + std::to_string(message.number()));
        }
        return message.size();
    }

private:
    std::uint32_t m_confirm;
};

} // namespace

int playHost(const RoleArguments&)
{
    if (!Merlow::V1::MerlowIf::getInstance().startServer()) {
        throw std::runtime_error("the server did not start");
    }
    line::say("ready");
    while (line::next()) {
    }
    return 0;
}

int playEmpty(const RoleArguments&)
{
    line::say("ready");
    while (line::next()) {
    }
    return 0;
}

int playLegacy(const RoleArguments&)
{
    MailboxLink link(legacyName);
    line::say("ready");
    for (;;) {
        Message message = link.take();
        if (message.number() == connEstablishReq) {
            Message confirm(frameHeader, connEstablishCfm);
            confirm.setWord(4, message.word(4));
            confirm.setWord(8, message.word(8));
            link.sendTo(message.sender(), std::move(confirm));
        } else {
            link.giveBack(std::move(message));
        }
    }
}

int playBoard(const RoleArguments&)
{
    MailboxLink link(bri::BriServerMetadata().name());
    link.addName(bmmi::ServerMetadata().name());
    BoardFaults faults(link);
    line::say("ready");
    for (;;) {
        Message request = link.take();
        if (request.number() == boardFaultOrder) {
            faults.tell(request.word(4));
            continue;
        }
        if (request.size() < frameHeader) {
            continue;
        }
        if (request.number() == boardStormOrder) {
            faults.storm(request);
            continue;
        }
        if (request.number() == bri::ConnEstablishReq::MESSAGE_NUMBER) {
            faults.connect(request);
        }
        if (Message reply = boardAnswer(request)) {
            link.answer(request, std::move(reply));
        }
    }
}

int playUnitClient(const RoleArguments& arguments)
{
    const bool utc = arguments.at(1) == "utc";
    ClientLink link(utc ? setUtcTimeReq : passingSignal, utc ? setUtcTimeCfm : passingSignal);
    link.aimAt(publicName);
    Message request(16, connEstablishReq);
    request.setWord(4, 1);
    request.setWord(8, 300);
    link.sendTo(link.target(), std::move(request));
    if (const Message confirm = link.take(); confirm.number() != connEstablishCfm) {
        throw std::runtime_error("no connection");
    }
    return serveClient(link);
}

/// Orders: "locate NAME", "loss NAME", "return NAME" (lost, then there again). Each is answered with "armed"
/// and then, when it has happened, with the time.
int playWatch(const RoleArguments&)
{
    MailboxLink link("");
    line::say("ready");
    while (const auto order = line::next()) {
        const auto space = order->find(' ');
        const std::string verb = order->substr(0, space);
        const std::string name = order->substr(space + 1);
        if (verb == "locate") {
            link.startLocate(name);
            line::say("armed");
            link.take();
        } else {
            link.aimAt(name);
            link.startMonitor(link.target());
            line::say("armed");
            link.take();
            if (verb == "return") {
                link.aimAt(name);
            }
        }
        line::say(std::to_string(nowNanoseconds()));
    }
    return 0;
}

} // namespace merlow::bench
