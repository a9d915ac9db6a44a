#include "swmClient.h"

#include "eventLoopIf.h"
#include "insist.h"
#include "merlowTracepoints.h"
#include "sway.h"
#include "swmi.pb.h"
#include "swmiBody.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <cstring>
#include <google/protobuf/io/coded_stream.h>
#include <utility>

using Loomwork::EventLoop::V1::EventLoopIf;

namespace {

constexpr unsigned int SWAY_READABLE = 1;
constexpr std::size_t SWMI_PROC_REF_OFFSET = 4;

std::uint32_t swmiWordAt(const char* bytes)
{
    std::uint32_t network = 0;
    std::memcpy(&network, bytes, sizeof(network));
    return ntohl(network);
}

void putSwmiWord(char* bytes, std::uint32_t value)
{
    const std::uint32_t network = htonl(value);
    std::memcpy(bytes, &network, sizeof(network));
}

/// A message that consists of its ticket.
template <class M> M withTicket(unsigned int ticket)
{
    M message;
    message.set_ticket_number(ticket);
    return message;
}

} // namespace

/// A frame to be sent, its body still to be written.
class SWMClient::Frame {
public:
    Frame(unsigned int msgNo, unsigned int procRef, std::size_t bodySize)
        : m_msgNo(msgNo), m_procRef(procRef), m_size(headerSize + bodySize),
          m_bytes(std::make_unique_for_overwrite<char[]>(m_size))
    {
        putSwmiWord(m_bytes.get(), msgNo);
        putSwmiWord(m_bytes.get() + SWMI_PROC_REF_OFFSET, procRef);
    }

    [[nodiscard]] unsigned int msgNo() const { return m_msgNo; }
    [[nodiscard]] unsigned int procRef() const { return m_procRef; }
    [[nodiscard]] std::size_t size() const { return m_size; }
    [[nodiscard]] const char* bytes() const { return m_bytes.get(); }
    [[nodiscard]] std::uint8_t* body() { return reinterpret_cast<std::uint8_t*>(m_bytes.get() + headerSize); }

private:
    unsigned int m_msgNo;
    unsigned int m_procRef;
    std::size_t m_size;
    std::unique_ptr<char[]> m_bytes;
};

SWMClient::~SWMClient()
{
    destroy();
}

// The connection

unsigned int SWMClient::connEstablishReq(std::function<void()> readyForPublicAccess, unsigned int procRef,
                                         const std::string& serverAddress,
                                         const std::vector<unsigned int>& supportedRevisions)
{
    destroy();
    m_readyForPublicAccess = std::move(readyForPublicAccess);
    if (!openConnection(serverAddress)) {
        return NOT_CONNECTED;
    }
    registerHandlers();
    swm::ConnEstablishReq req;
    for (const unsigned int revision : supportedRevisions) {
        req.add_supported_protocol_revisions(revision);
    }
    if (const unsigned int result = sendMsg(swm::ConnEstablishReq::MESSAGE_NUMBER, procRef, req);
        result != SUCCESS) {
        TP_ERROR("SWMClient::connEstablishReq() failed to send ConnEstablishReq errCode(0x" << std::hex
                                                                                            << result << ")");
        closeConnection();
        return NOT_CONNECTED;
    }
    return SUCCESS;
}

bool SWMClient::openConnection(const std::string& serverAddress)
{
    m_connection = sway_connect(serverAddress.c_str(), 0);
    if (m_connection == nullptr) {
        TP_ERROR("SWMClient::connEstablishReq() SWAY connection to SWMI Server was unsuccessful.");
        return false;
    }
    sway_set_blocking(m_connection, false);
    if (sway_attr_get(m_connection, "sway.max_msg_size", nullptr, &m_maxMsgSize, sizeof(m_maxMsgSize)) < 0) {
        const int error = errno;
        TP_ERROR("SWMClient::connEstablishReq() sway_attr_get() failed to get 'max_msg_size' with error='"
                 << std::strerror(error) << "'");
        m_maxMsgSize = defaultMaxMsgSize;
    }
    if (sway_await(m_connection, 1) < 0) {
        const int error = errno;
        TP_ERROR("SWMClient::connEstablishReq() sway_await() error='" << std::strerror(error) << "'");
        closeConnection();
        return false;
    }
    const auto onEvent = [this, alive = std::weak_ptr(m_alive)](int fd, unsigned int eventMask) {
        if (!alive.expired()) {
            receiveHandler(fd, eventMask);
        }
    };
    if (EventLoopIf::getInstance().addFd(sway_fd(m_connection), SWAY_READABLE, onEvent) != 0) {
        TP_ERROR("SWMClient::connEstablishReq() the event loop refused the SWAY connection");
        closeConnection();
        return false;
    }
    return true;
}

void SWMClient::closeConnection()
{
    sway_close(std::exchange(m_connection, nullptr));
}

void SWMClient::destroy()
{
    if (m_connection != nullptr) {
        EventLoopIf::getInstance().removeFd(sway_fd(m_connection));
        closeConnection();
    }
    m_selectedProtocolRev = 0;
    m_capabilities.clear();
}

// Answers to the connection's own requests

void SWMClient::registerHandlers()
{
    const auto enter = [this](unsigned int msgNo,
                              void (SWMClient::*handle)(unsigned int, const char*, unsigned int)) {
        addMsgHandler(msgNo, [this, handle](unsigned int procRef, const char* buffer, unsigned int size) {
            (this->*handle)(procRef, buffer, size);
        });
    };
    enter(swm::ConnEstablishCfm::MESSAGE_NUMBER, &SWMClient::handleConnEstablishCfm);
    enter(swm::ConnEstablishRej::MESSAGE_NUMBER, &SWMClient::handleConnEstablishRej);
    enter(swm::GetCapabilitiesCfm::MESSAGE_NUMBER, &SWMClient::handleGetCapabilitiesCfm);
    enter(swm::GetCapabilitiesRej::MESSAGE_NUMBER, &SWMClient::handleGetCapabilitiesRej);
}

#define TRACE_SWMI_ANSWER(handler)                                                                           \
    TP_TRACE7("SWMClient::" handler "(procRef=0x" << std::hex << procRef << ", size=0x" << size << ")")

void SWMClient::handleConnEstablishCfm(unsigned int procRef, const char* buffer, unsigned int size)
{
    TRACE_SWMI_ANSWER("handleConnEstablishCfm");
    m_selectedProtocolRev = parsedSwmiBody<swm::ConnEstablishCfm>(buffer, size).selected_protocol_revision();
    TP_TRACE7("SWMClient::handleConnEstablishCfm() GetCapabilitiesReq");
    if (getCapabilitiesReq(procRef) != SUCCESS) {
        TP_ERROR("SWMClient::handleConnEstablishCfm() GetCapabilitiesReq failed to sendMsg");
        m_capabilities.clear();
    }
}

void SWMClient::handleConnEstablishRej(unsigned int procRef, const char* buffer, unsigned int size)
{
    TRACE_SWMI_ANSWER("handleConnEstablishRej");
    const auto rej = parsedSwmiBody<swm::ConnEstablishRej>(buffer, size);
    TP_ERROR("SWMClient::handleConnEstablishRej() reason(" << rej.reason() << ")");
    closeConnection();
}

void SWMClient::handleGetCapabilitiesCfm(unsigned int procRef, const char* buffer, unsigned int size)
{
    TRACE_SWMI_ANSWER("handleGetCapabilitiesCfm");
    const auto cfm = parsedSwmiBody<swm::GetCapabilitiesCfm>(buffer, size);
    if (cfm.has_preinstalled_support()) {
        addCapability<SWAYCapPreinstalled>();
    }
    if (cfm.has_sw_comp_list_support()) {
        addCapability<SWAYCapSwCompList>();
    }
    if (cfm.has_lockable_resource_sw_store_support()) {
        addCapability<SWAYCapLockableResourceSwStore>();
    }
    if (cfm.has_boot_sw_inventory_support()) {
        SWAYCapBootSwInventory::Inventory inventory;
        for (const auto& software : cfm.boot_sw_inventory_support().boot_sw_inventory()) {
            inventory.emplace_back(software.product_number(), software.product_revision());
        }
        addCapability<SWAYCapBootSwInventory>(std::move(inventory));
    }
    if (cfm.has_loading_block_size_support()) {
        addCapability<SWAYCapLoadingBlockSize>(cfm.loading_block_size_support().block_size());
    }
    if (cfm.has_set_slot_working_support()) {
        addCapability<SWAYCapSetSlotWorking>();
    }
    if (m_readyForPublicAccess) {
        TP_TRACE7("SWMClient::handleGetCapabilitiesCfm() readyForPublicAccess()");
        const auto ready = m_readyForPublicAccess; // it may ask for a new connection
        ready();
    }
}

void SWMClient::handleGetCapabilitiesRej(unsigned int procRef, const char* buffer, unsigned int size)
{
    TRACE_SWMI_ANSWER("handleGetCapabilitiesRej");
    const auto rej = parsedSwmiBody<swm::GetCapabilitiesRej>(buffer, size);
    TP_ERROR("SWMClient::handleGetCapabilitiesRej() reason(" << rej.reason() << ")");
    m_capabilities.clear();
}

#undef TRACE_SWMI_ANSWER

template <class Record, class... Arguments> void SWMClient::addCapability(Arguments&&... arguments)
{
    m_capabilities.push_back(std::make_shared<Record>(std::forward<Arguments>(arguments)...));
    limitCapabilities();
}

/// There are few kinds, so that of more than `maxCapabilities` records the first that is repeated is soon
/// found, and no kind is lost.
void SWMClient::limitCapabilities()
{
    if (m_capabilities.size() <= maxCapabilities) {
        return;
    }
    if (!std::exchange(m_capabilityCapTraced, true)) {
        TP_ERROR("ABN: More than " << maxCapabilities
                                   << " capability records of the SWM server: the oldest repeated ones go");
    }
    const auto repeated =
        std::find_if(m_capabilities.begin(), m_capabilities.end(), [this](const auto& record) {
            return std::any_of(m_capabilities.rbegin(), m_capabilities.rend(),
                               [&](const auto& other) { return other != record && other->id == record->id; });
        });
    m_capabilities.erase(repeated);
}

void SWMClient::getCapabilities(std::vector<std::shared_ptr<SWAYCapability>>& capabilities) const
{
    capabilities.insert(capabilities.end(), m_capabilities.begin(), m_capabilities.end());
}

// What comes in

unsigned int SWMClient::addMsgHandler(unsigned int msgNo, const MsgHandler& handler)
{
    const bool added = m_msgHandlers.emplace(msgNo, handler).second;
    TP_INFO("SWMClient::addMsgHandler(msgNo=0x" << std::hex << msgNo << (added ? ")" : ") ALREADY_EXISTS"));
    return added ? SUCCESS : ALREADY_EXISTS;
}

unsigned int SWMClient::removeMsgHandler(unsigned int msgNo, const MsgHandler& /*handler*/)
{
    const bool removed = m_msgHandlers.erase(msgNo) != 0;
    TP_INFO("SWMClient::removeMsgHandler(msgNo=0x" << std::hex << msgNo << (removed ? ")" : ") NOT_FOUND"));
    return removed ? SUCCESS : NOT_FOUND;
}

void SWMClient::receiveHandler(int fd, unsigned int eventMask)
{
    TP_TRACE7("SWMClient::receiveHandler(fd=" << fd << ", eventMask=0x" << std::hex << eventMask << ")");
    const auto frame = std::make_unique_for_overwrite<char[]>(m_maxMsgSize);
    const ssize_t length = sway_receive(m_connection, frame.get(), m_maxMsgSize);
    if (length == 0) {
        TP_ERROR("SWAY connection closed by SWMI Server.");
        EventLoopIf::getInstance().removeFd(sway_fd(m_connection)); // it stays readable for ever
        return;
    }
    if (length < 0) {
        const int error = errno;
        TP_ERROR("SWMClient: receiveHandler() msgHandler error='" << std::strerror(error) << "'");
        return;
    }
    if (static_cast<std::size_t>(length) < headerSize) {
        TP_ERROR("SWMClient: receiveHandler() msgHandler size(" << length << ") < expected size("
                                                                << headerSize << ")");
        return;
    }
    const std::uint32_t msgNo = swmiWordAt(frame.get());
    const std::uint32_t procRef = swmiWordAt(frame.get() + SWMI_PROC_REF_OFFSET);
    const auto found = m_msgHandlers.find(msgNo);
    if (found == m_msgHandlers.end()) {
        TP_ERROR("SWMClient: receiveHandler() msgHandler unhandled msgNo(0x"
                 << std::hex << msgNo << "), procRef(0x" << procRef << ")");
        return;
    }
    MsgHandler handler; // a copy, since it may take itself off
    const bool isCopied = insist([&] {
        try {
            handler = found->second;
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    });
    if (!isCopied) {
        throw std::bad_alloc();
    }
    handler(procRef, frame.get() + headerSize,
            static_cast<unsigned int>(static_cast<std::size_t>(length) - headerSize));
}

// What goes out

unsigned int SWMClient::sendMsg(unsigned int msgNo, unsigned int procRef,
                                const google::protobuf::Message& message)
{
    const std::size_t size = message.ByteSizeLong();
    Frame frame(msgNo, procRef, size);
    if (!message.SerializeToArray(frame.body(), static_cast<int>(std::min<std::size_t>(size, INT_MAX)))) {
        TP_ERROR("SWMClient::sendMsg(msgNo=0x" << std::hex << msgNo << ", procRef=0x" << procRef
                                               << ") failed: message of 0x" << size << " bytes");
        return SEND_FAILED;
    }
    return send(frame);
}

unsigned int SWMClient::send(const Frame& frame)
{
    TP_TRACE7("SWMClient::sendMsg(msgNo=0x" << std::hex << frame.msgNo() << ", procRef=0x" << frame.procRef()
                                            << ")");
    if (sway_send(m_connection, frame.bytes(), frame.size()) != 0) {
        const int error = errno;
        TP_ERROR("SWMClient::sendMsg(msgNo=0x" << std::hex << frame.msgNo() << ", procRef=0x"
                                               << frame.procRef() << ") failed sway_send() error='"
                                               << std::strerror(error) << "'");
        return SEND_FAILED;
    }
    return SUCCESS;
}

unsigned int SWMClient::getCapabilitiesReq(unsigned int procRef)
{
    return sendMsg(swm::GetCapabilitiesReq::MESSAGE_NUMBER, procRef, swm::GetCapabilitiesReq());
}

unsigned int SWMClient::acquireResourceReq(unsigned int procRef, unsigned int ticketRef,
                                           unsigned int resource)
{
    swm::AcquireResourceReq req;
    req.set_ticket_request_reference(ticketRef);
    req.set_resource(static_cast<swm::Resource>(resource));
    return sendMsg(swm::AcquireResourceReq::MESSAGE_NUMBER, procRef, req);
}

unsigned int SWMClient::releaseResourceReq(unsigned int procRef, unsigned int ticket)
{
    return sendMsg(swm::ReleaseResourceReq::MESSAGE_NUMBER, procRef,
                   withTicket<swm::ReleaseResourceReq>(ticket));
}

unsigned int SWMClient::pushLoadInitReq(unsigned int procRef, unsigned int ticket, const char* software)
{
    auto req = withTicket<swm::PushLoadInitReq>(ticket);
    if (software != nullptr) {
        req.set_software(software);
    }
    return sendMsg(swm::PushLoadInitReq::MESSAGE_NUMBER, procRef, req);
}

unsigned int SWMClient::pushLoadInitReq(unsigned int procRef, unsigned int ticket,
                                        const std::string& software)
{
    auto req = withTicket<swm::PushLoadInitReq>(ticket);
    req.set_software(software);
    return sendMsg(swm::PushLoadInitReq::MESSAGE_NUMBER, procRef, req);
}

/// The blocks are the bulk of what the server moves, so each goes straight into its frame: a serialised
/// message is its fields one behind the other, here the ticket, the data, the number.
unsigned int SWMClient::pushLoadData(unsigned int procRef, unsigned int ticket, unsigned int sequenceNumber,
                                     const void* data, unsigned long size)
{
    using google::protobuf::io::CodedOutputStream;
    constexpr std::uint32_t lengthDelimited = 2;
    constexpr std::uint32_t dataTag = swm::PushLoadData::kDataFieldNumber << 3U | lengthDelimited;

    const auto ticketField = withTicket<swm::PushLoadData>(ticket);
    swm::PushLoadData numberField;
    numberField.set_sequence_number(sequenceNumber);

    const std::size_t dataSize =
        CodedOutputStream::VarintSize32(dataTag) + CodedOutputStream::VarintSize64(size) + size;
    Frame frame(swm::PushLoadData::MESSAGE_NUMBER, procRef,
                ticketField.ByteSizeLong() + dataSize + numberField.ByteSizeLong());
    std::uint8_t* end = ticketField.SerializeWithCachedSizesToArray(frame.body());
    end = CodedOutputStream::WriteTagToArray(dataTag, end);
    end = CodedOutputStream::WriteVarint64ToArray(size, end);
    end = std::copy_n(static_cast<const std::uint8_t*>(data), size, end);
    numberField.SerializeWithCachedSizesToArray(end);
    return send(frame);
}

unsigned int SWMClient::pushLoadEndReq(unsigned int procRef, unsigned int ticket)
{
    return sendMsg(swm::PushLoadEndReq::MESSAGE_NUMBER, procRef, withTicket<swm::PushLoadEndReq>(ticket));
}

unsigned int SWMClient::deleteReq(unsigned int procRef, unsigned int ticket, const char* software)
{
    auto req = withTicket<swm::DeleteReq>(ticket);
    if (software != nullptr) {
        req.set_software(software);
    }
    return sendMsg(swm::DeleteReq::MESSAGE_NUMBER, procRef, req);
}

unsigned int SWMClient::deleteReq(unsigned int procRef, unsigned int ticket, const std::string& software)
{
    auto req = withTicket<swm::DeleteReq>(ticket);
    req.set_software(software);
    return sendMsg(swm::DeleteReq::MESSAGE_NUMBER, procRef, req);
}

unsigned int SWMClient::getSwProductInvReq(unsigned int procRef, unsigned int ticket)
{
    return sendMsg(swm::GetSwProductInvReq::MESSAGE_NUMBER, procRef,
                   withTicket<swm::GetSwProductInvReq>(ticket));
}

unsigned int SWMClient::swCompListReq(unsigned int procRef, unsigned int ticket)
{
    return sendMsg(swm::SwCompListReq::MESSAGE_NUMBER, procRef, withTicket<swm::SwCompListReq>(ticket));
}

unsigned int SWMClient::swCompListAck(unsigned int procRef, unsigned int ticket, bool abort)
{
    auto ack = withTicket<swm::SwCompListAck>(ticket);
    ack.set_abort(abort);
    return sendMsg(swm::SwCompListAck::MESSAGE_NUMBER, procRef, ack);
}

unsigned int SWMClient::getRunningSwReq(unsigned int procRef)
{
    return sendMsg(swm::GetRunningSwReq::MESSAGE_NUMBER, procRef, swm::GetRunningSwReq());
}

unsigned int SWMClient::setCurrentSlotWorkingReq(unsigned int procRef)
{
    return sendMsg(swm::SetCurrentSlotWorkingReq::MESSAGE_NUMBER, procRef, swm::SetCurrentSlotWorkingReq());
}
