#include "brhClient.h"

#include "eventLoopIf.h"
#include "insist.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace {

constexpr std::size_t PROCEDURE_REF_OFFSET = 4;
constexpr std::size_t CONNECTION_REF_OFFSET = 8;

void putWord(mnet_msg& frame, std::size_t offset, std::uint32_t value)
{
    const std::uint32_t network = htonl(value);
    std::memcpy(reinterpret_cast<unsigned char*>(&frame) + offset, &network, sizeof(network));
}

/// The client reference at `offset`; nothing, and a trace, when the frame ends before it does.
std::optional<std::uint32_t> readClientRef(const mnet_msg& msg, std::size_t offset)
{
    const std::size_t size = mnet_size(&msg);
    const std::size_t needed = offset + sizeof(std::uint32_t);
    if (size < needed) {
        SCRY_TRACE(4, "ABN: Frame 0x" << std::hex << msg.msgNo << " from mbox: 0x" << mnet_sender(&msg)
                                      << " is too short: " << std::dec << size << " of " << needed
                                      << " bytes. Ignoring it.");
        return std::nullopt;
    }
    return Bci::fieldOrZero<std::uint32_t>(msg, offset);
}

} // namespace

std::map<std::uint32_t, BrhClient*> BrhClient::s_clientMap;

BrhClient::BrhClient(unsigned int firstRef) : m_clientRef(generateClientRef(firstRef))
{
    s_clientMap[m_clientRef] = this;
}

BrhClient::~BrhClient()
{
    // The subscription may be gone by now: what is left on it finds no object in the map.
    leaveClientMap();
    if (m_monitorId != MNET_MBOX_NONE) {
        mnet_unmonitor(m_monitorId);
    }
}

void BrhClient::leaveClientMap()
{
    // The reference may be another object's since this one gave it up.
    const auto found = s_clientMap.find(m_clientRef);
    if (found != s_clientMap.end() && found->second == this) {
        s_clientMap.erase(found);
    }
}

unsigned int BrhClient::generateClientRef(unsigned int firstRef)
{
    while (s_clientMap.count(firstRef) != 0) {
        ++firstRef;
    }
    return firstRef;
}

bool BrhClient::isServerFound() const
{
    return m_serverMbox != MNET_MBOX_NONE && m_monitorId != MNET_MBOX_NONE;
}

bool BrhClient::isConnected() const
{
    return m_connectionRef != 0 && m_selectedProtocolRev != 0;
}

void BrhClient::disconnect()
{
    m_connectionRef = 0;
    m_selectedProtocolRev = 0;
}

// Capabilities

void BrhClient::addCapability(std::shared_ptr<Capability> capability)
{
    m_capabilities.push_back(std::move(capability));
    if (m_capabilities.size() <= maxCapabilities) {
        return;
    }
    if (!std::exchange(m_capabilityCapTraced, true)) {
        SCRY_TRACE(4, "ABN: More than " << maxCapabilities << " capability records of BRH server "
                                        << m_serverName << ": the oldest repeated ones go");
    }
    auto repeated = m_capabilities.begin();
    for (auto it = m_capabilities.begin(); it != m_capabilities.end(); ++it) {
        const bool again = std::any_of(std::next(it), m_capabilities.end(),
                                       [&](const auto& later) { return later->id == (*it)->id; });
        if (again) {
            repeated = it;
            break;
        }
    }
    m_capabilities.erase(repeated);
}

bool BrhClient::getCapabilities(std::vector<std::shared_ptr<Capability>>& capabilities) const
{
    capabilities.insert(capabilities.end(), m_capabilities.begin(), m_capabilities.end());
    return !m_capabilities.empty();
}

bool BrhClient::isCapabilityPresent(CapSupport_en id) const
{
    return std::any_of(m_capabilities.begin(), m_capabilities.end(),
                       [id](const auto& capability) { return capability->id == id; });
}

// Transactions

unsigned int BrhClient::generateProcedureRef()
{
    do {
        if (++m_lastProcedureRef == 0) {
            m_lastProcedureRef = 1;
        }
    } while (searchTransactionProcedure(m_lastProcedureRef) != nullptr);
    return m_lastProcedureRef;
}

bool BrhClient::addProcedureTransaction(const ProcedureTransaction& transaction)
{
    return m_transactions.emplace(transaction.procedureRef, transaction).second;
}

BrhClient::ProcedureTransaction* BrhClient::searchTransactionProcedure(unsigned int procedureRef)
{
    const auto found = m_transactions.find(procedureRef);
    return found == m_transactions.end() ? nullptr : &found->second;
}

bool BrhClient::removeTransactionProcedure(unsigned int procedureRef)
{
    return takeTransaction(procedureRef).has_value();
}

std::optional<BrhClient::ProcedureTransaction> BrhClient::takeTransaction(unsigned int procedureRef)
{
    const auto found = m_transactions.find(procedureRef);
    if (found == m_transactions.end()) {
        return std::nullopt;
    }
    const ProcedureTransaction transaction = found->second;
    m_transactions.erase(found);
    if (const auto abandoned = m_abandonedAges.find(procedureRef); abandoned != m_abandonedAges.end()) {
        m_abandoned.erase(abandoned->second);
        m_abandonedAges.erase(abandoned);
    }
    return transaction;
}

void BrhClient::abandonTransactions(std::uint32_t clientMbox)
{
    for (const auto& [procedureRef, transaction] : m_transactions) {
        if (transaction.clientMbox == clientMbox) {
            markAbandoned(procedureRef);
        }
    }
    capAbandonedTransactions();
}

void BrhClient::abandonTransaction(unsigned int procedureRef)
{
    if (m_transactions.count(procedureRef) != 0) {
        markAbandoned(procedureRef);
        capAbandonedTransactions();
    }
}

void BrhClient::markAbandoned(std::uint32_t procedureRef)
{
    if (m_abandonedAges.emplace(procedureRef, m_nextAbandonedAge).second) {
        m_abandoned.emplace(m_nextAbandonedAge++, procedureRef);
    }
}

void BrhClient::capAbandonedTransactions()
{
    while (m_abandoned.size() > maxAbandonedTransactions) {
        if (!std::exchange(m_transactionCapTraced, true)) {
            SCRY_TRACE(4, "ABN: More than " << maxAbandonedTransactions
                                            << " unanswered transactions without a session at BRH server "
                                            << m_serverName << ": the oldest go");
        }
        removeTransactionProcedure(m_abandoned.begin()->second);
    }
}

// The server's coming and going

bool BrhClient::hasInternalHandler(unsigned int msgNo) const
{
    return msgNo == m_notifyMsgNo || msgNo == m_connCfmMsgNo;
}

bool BrhClient::startSearch(Subscription* subscription, const std::string& serverName,
                            unsigned int notifyMsgNo, unsigned int connCfmMsgNo,
                            const std::function<void(mnet_msg*)>& onConnCfm)
{
    if (subscription == nullptr) {
        return false;
    }
    m_notifyMsgNo = notifyMsgNo;
    m_connCfmMsgNo = connCfmMsgNo;
    m_serverName = serverName;
    m_ownMbox = mnet_current_mbox();
    // After `destroy` the object is not in the map, and its reference may be another's by now.
    if (!s_clientMap.emplace(m_clientRef, this).second && s_clientMap.at(m_clientRef) != this) {
        m_clientRef = generateClientRef(m_clientRef);
        s_clientMap[m_clientRef] = this;
    }
    subscription->addMsgHandler(notifyMsgNo, routeServerNotify);
    subscription->addMsgHandler(connCfmMsgNo, routeConnEstablishCfm);
    m_onConnCfm = onConnCfm;
    addCleanup(connCfmMsgNo, [this, subscription] { onThreadExit(subscription); });
    locate();
    return true;
}

MnetMsgPtr BrhClient::notifyFrame() const
{
    MnetMsgPtr frame = allocMsg(headerSize, m_notifyMsgNo);
    if (frame) {
        putWord(*frame, CONNECTION_REF_OFFSET, m_clientRef);
    } else {
        SCRY_TRACE(1, "ABN: No memory for the notify message of BRH server " << m_serverName);
    }
    return frame;
}

/// Without memory for it a trace, and std::bad_alloc.
void BrhClient::locate()
{
    const bool isSearching = insist([this] {
        mnet_msg* frame = notifyFrame().release();
        return frame != nullptr && mnet_locate_async(m_serverName.c_str(), &frame, m_ownMbox) == 0;
    });
    if (!isSearching) {
        SCRY_TRACE(1, "ABN: Failed to start the search for BRH server " << m_serverName);
        throw std::bad_alloc();
    }
}

void BrhClient::onServerFound(const mnet_msg& msg)
{
    m_serverMbox = mnet_sender(&msg);
    const bool isWatched = insist([this] {
        mnet_msg* frame = notifyFrame().release();
        m_monitorId = frame == nullptr ? MNET_MBOX_NONE : mnet_monitor(m_serverMbox, &frame);
        return m_monitorId != MNET_MBOX_NONE;
    });
    if (!isWatched) {
        SCRY_TRACE(1, "ABN: Failed to watch BRH server " << m_serverName << ": searching for it again");
        onServerLost();
    }
}

void BrhClient::onServerLost()
{
    mnet_unmonitor(m_monitorId);
    disconnect();
    m_serverMbox = MNET_MBOX_NONE;
    m_monitorId = MNET_MBOX_NONE;
    try {
        locate();
    } catch (const std::bad_alloc&) {
        // It would be missed for ever: who supervises the server is to start it again.
        SCRY_TRACE(1, "ABN: Without a search for BRH server " << m_serverName << " Merlow ends");
        Loomwork::EventLoop::V1::EventLoopIf::getInstance().stop();
    }
}

BrhClient* BrhClient::findClient(std::uint32_t clientRef, std::uint32_t msgNo, const char* what)
{
    const auto found = s_clientMap.find(clientRef);
    if (found == s_clientMap.end()) {
        SCRY_TRACE(4, "ABN: Unroutable " << what << " (0x" << std::hex << msgNo << std::dec
                                         << ") meant for BRH client " << clientRef);
        return nullptr;
    }
    return found->second;
}

void BrhClient::routeServerNotify(const std::shared_ptr<mnet_msg>& msg)
{
    // Whoever could send this frame could take the backend away from everybody.
    if (mnet_is_notice(msg.get()) != 1) {
        SCRY_TRACE(4, "ABN: Server notify message (0x" << std::hex << msg->msgNo << ") from mbox: 0x"
                                                       << mnet_sender(msg.get())
                                                       << " is no notice. Ignoring it.");
        return;
    }
    const auto clientRef = readClientRef(*msg, CONNECTION_REF_OFFSET);
    if (!clientRef) {
        return;
    }
    BrhClient* client = findClient(*clientRef, msg->msgNo, "server notify message");
    if (client == nullptr) {
        return;
    }
    const bool wasFound = client->isServerFound();
    if (wasFound) {
        client->onServerLost();
    } else {
        client->onServerFound(*msg);
    }
    if (client->isServerFound() != wasFound) {
        client->callHandler(msg);
    }
}

void BrhClient::routeConnEstablishCfm(const std::shared_ptr<mnet_msg>& msg)
{
    const auto clientRef = readClientRef(*msg, PROCEDURE_REF_OFFSET);
    if (!clientRef) {
        return;
    }
    BrhClient* client = findClient(*clientRef, msg->msgNo, "connection establish confirm message");
    if (client == nullptr) {
        return;
    }
    if (client->m_onConnCfm) {
        client->m_onConnCfm(msg.get());
    }
    client->callHandler(msg);
}

// Frames

void BrhClient::addHandler(Subscription* subscription, unsigned int msgNo, const MsgHandler& handler)
{
    if (subscription == nullptr) {
        return;
    }
    if (!hasInternalHandler(msgNo)) {
        // Refused when another object has registered the number: its route serves both.
        subscription->addMsgHandler(msgNo, routeFrame);
        addCleanup(msgNo, [this, subscription, msgNo] { removeHandler(subscription, msgNo); });
    }
    m_handlers.emplace(msgNo, handler);
}

void BrhClient::addCleanup(std::uint32_t msgNo, std::function<void()> cleanup)
{
    // Made before its place is: without memory there is neither.
    m_cleanups[msgNo] = std::move(cleanup);
}

void BrhClient::removeHandler(Subscription* subscription, unsigned int msgNo)
{
    m_handlers.erase(msgNo);
    const bool inUse = std::any_of(s_clientMap.begin(), s_clientMap.end(), [msgNo](const auto& entry) {
        return entry.second->m_handlers.count(msgNo) != 0;
    });
    if (!inUse) {
        subscription->removeMsgHandler(msgNo);
    }
}

void BrhClient::callHandler(const std::shared_ptr<mnet_msg>& msg) const
{
    const auto found = m_handlers.find(msg->msgNo);
    if (found != m_handlers.end()) {
        const MsgHandler handler = found->second; // it may take itself off
        handler(msg);
    }
}

void BrhClient::routeFrame(const std::shared_ptr<mnet_msg>& msg)
{
    const auto clientRef = readClientRef(*msg, CONNECTION_REF_OFFSET);
    if (!clientRef) {
        return;
    }
    const BrhClient* client = findClient(*clientRef, msg->msgNo, "message");
    if (client == nullptr) {
        return;
    }
    if (client->m_handlers.count(msg->msgNo) == 0) {
        SCRY_TRACE(4, "ABN: The BRH Client " << *clientRef << " received a message (0x" << std::hex
                                             << msg->msgNo << ") but has no registered handler for it.");
        return;
    }
    client->callHandler(msg);
}

unsigned int BrhClient::sendConnected(const google::protobuf::Message& message, std::uint32_t msgNo,
                                      unsigned int procedureRef)
{
    if (!isConnected()) {
        SCRY_TRACE(4, "ABN: Failed to send message -- not connected to BRH server");
        return 0;
    }
    if (procedureRef == 0) {
        procedureRef = generateProcedureRef();
    }
    return sendFrame(message, msgNo, procedureRef, m_connectionRef) ? procedureRef : 0;
}

bool BrhClient::sendFrame(const google::protobuf::Message& message, std::uint32_t msgNo,
                          std::uint32_t procedureRef, std::uint32_t connectionRef) const
{
    const std::size_t length = message.ByteSizeLong();
    bool isEncoded = false;
    const bool isSent = insist([&] {
        MnetMsgPtr frame = allocMsg(headerSize + length, msgNo);
        isEncoded =
            frame && message.SerializeToArray(reinterpret_cast<unsigned char*>(frame.get()) + headerSize,
                                              static_cast<int>(length));
        if (!isEncoded) {
            return false;
        }
        putWord(*frame, PROCEDURE_REF_OFFSET, procedureRef);
        putWord(*frame, CONNECTION_REF_OFFSET, connectionRef);
        SCRY_SEND_SIG(msgNo, m_serverMbox,
                      "msgNo:" << msgNo << " procedureRef:" << procedureRef
                               << " connectionRef:" << connectionRef << " " << message.GetTypeName() << ":{"
                               << message.ShortDebugString() << "}");
        // A server that has just gone is told of by its notice; the request stays without an answer.
        return sendMsg(std::move(frame), m_serverMbox, m_ownMbox) == 0 ||
               (errno != ENOMEM && errno != ENOBUFS);
    });
    if (!isEncoded) {
        SCRY_TRACE(1, "Failed to encode message " << msgNo);
    } else if (!isSent) {
        SCRY_TRACE(1, "ABN: No room for message " << msgNo << " to BRH server " << m_serverName);
    }
    return isEncoded;
}

// The end

void BrhClient::destroy()
{
    disconnect();
    for (const auto& [msgNo, cleanup] : std::exchange(m_cleanups, {})) {
        cleanup();
    }
    if (m_monitorId != MNET_MBOX_NONE) {
        mnet_unmonitor(std::exchange(m_monitorId, MNET_MBOX_NONE));
    }
    leaveClientMap();
}

bool BrhClient::onThreadExit(Subscription* subscription)
{
    leaveClientMap();
    const bool mboxInUse = std::any_of(s_clientMap.begin(), s_clientMap.end(), [this](const auto& entry) {
        return entry.second->m_ownMbox == m_ownMbox;
    });
    if (!mboxInUse) {
        subscription->removeMsgHandler(m_notifyMsgNo);
        subscription->removeMsgHandler(m_connCfmMsgNo);
    }
    return true;
}
