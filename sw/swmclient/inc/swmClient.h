#pragma once

#include "swayCapability.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

struct sway_socket;
namespace google::protobuf {
class Message;
}

/// The one connection to the SWM server: frames messages, routes what comes in by its number, and brings the
/// connection up in two steps, first the connection, then the capabilities.
///
///   ConnEstablishReq   -> ConnEstablishCfm   -> connected
///   GetCapabilitiesReq -> GetCapabilitiesCfm -> ready for public access
///
/// A frame is one message of the socket: number and procedure reference, 32 bits each in network order, and
/// from offset 8 the serialised message. The reference is the requester's: the server puts it into each
/// answer. This class keeps none of the procedures; who sends a request registers for its answers.
///
/// A body that does not parse counts as far as it does: fields that are missing read as their defaults. When
/// the server closes, the object still counts as connected, and its requests fail: there is no reconnection.
///
/// Every failure is traced and nothing throws. Server thread only, but for `destroy` and the destructor,
/// which may also run on the thread that ends the server once the server thread is over.
class SWMClient {
public:
    /// Takes the procedure reference and the body's bytes, which are gone when it returns.
    using MsgHandler = std::function<void(unsigned int procRef, const char* buffer, unsigned int size)>;

    /// What operations return.
    static constexpr unsigned int SUCCESS = 0;
    static constexpr unsigned int NOT_CONNECTED = 1;
    static constexpr unsigned int SEND_FAILED = 2;
    static constexpr unsigned int ALREADY_EXISTS = 3;
    static constexpr unsigned int NOT_FOUND = 4;

    static constexpr std::size_t headerSize = 8;
    /// The longest frame that is received when the connection does not tell its own limit.
    static constexpr std::uint64_t defaultMaxMsgSize = 4096;
    /// What is kept when a server announces its capabilities for ever.
    static constexpr std::size_t maxCapabilities = 4096;

    SWMClient() = default;
    virtual ~SWMClient();
    SWMClient(const SWMClient&) = delete;
    SWMClient& operator=(const SWMClient&) = delete;

    /// Opens the connection and asks for it; `isConnected` tells when it has been confirmed. Waits for the
    /// kernel while the connection opens. A connection that is still there is closed first.
    /// `readyForPublicAccess` is called with each capabilities confirm; it may be empty.
    /// `SUCCESS` or `NOT_CONNECTED`, after which it may be called again.
    unsigned int connEstablishReq(std::function<void()> readyForPublicAccess, unsigned int procRef,
                                  const std::string& serverAddress,
                                  const std::vector<unsigned int>& supportedRevisions);
    /// The server has confirmed the connection. Its capabilities may not have come yet.
    [[nodiscard]] bool isConnected() const { return m_selectedProtocolRev != 0; }
    [[nodiscard]] unsigned int getSelectedProtocolRev() const { return m_selectedProtocolRev; }
    /// Appends what the server has announced, in its order of arrival; the records are shared.
    void getCapabilities(std::vector<std::shared_ptr<SWAYCapability>>& capabilities) const;

    /// `SUCCESS`, or `ALREADY_EXISTS`: the first handler of a number stays.
    unsigned int addMsgHandler(unsigned int msgNo, const MsgHandler& handler);
    /// `SUCCESS` or `NOT_FOUND`. The number alone tells which one goes.
    unsigned int removeMsgHandler(unsigned int msgNo, const MsgHandler& handler);

    /// All that send: `SUCCESS` or `SEND_FAILED`. What the connection refuses is not sent again.
    unsigned int sendMsg(unsigned int msgNo, unsigned int procRef, const google::protobuf::Message& message);

    unsigned int getCapabilitiesReq(unsigned int procRef);
    /// `resource` is a value of the schema's enumeration.
    unsigned int acquireResourceReq(unsigned int procRef, unsigned int ticketRef, unsigned int resource);
    unsigned int releaseResourceReq(unsigned int procRef, unsigned int ticket);
    /// `software` is product number, '_' and revision; with null the field is left out.
    unsigned int pushLoadInitReq(unsigned int procRef, unsigned int ticket, const char* software);
    unsigned int pushLoadInitReq(unsigned int procRef, unsigned int ticket, const std::string& software);
    /// One block of `size` bytes, which are copied once.
    unsigned int pushLoadData(unsigned int procRef, unsigned int ticket, unsigned int sequenceNumber,
                              const void* data, unsigned long size);
    unsigned int pushLoadEndReq(unsigned int procRef, unsigned int ticket);
    unsigned int deleteReq(unsigned int procRef, unsigned int ticket, const char* software);
    unsigned int deleteReq(unsigned int procRef, unsigned int ticket, const std::string& software);
    unsigned int getSwProductInvReq(unsigned int procRef, unsigned int ticket);
    unsigned int swCompListReq(unsigned int procRef, unsigned int ticket);
    unsigned int swCompListAck(unsigned int procRef, unsigned int ticket, bool abort);
    unsigned int getRunningSwReq(unsigned int procRef);
    unsigned int setCurrentSlotWorkingReq(unsigned int procRef);

    /// The event loop's callback: takes one frame. Both arguments are only traced.
    void receiveHandler(int fd, unsigned int eventMask);

    /// Closes the connection and forgets what was negotiated; the handlers stay. Harmless when done already.
    void destroy();

protected:
    /// Enters the handlers below in the table, each through its virtual slot.
    virtual void registerHandlers();
    virtual void handleConnEstablishCfm(unsigned int procRef, const char* buffer, unsigned int size);
    virtual void handleConnEstablishRej(unsigned int procRef, const char* buffer, unsigned int size);
    virtual void handleGetCapabilitiesCfm(unsigned int procRef, const char* buffer, unsigned int size);
    virtual void handleGetCapabilitiesRej(unsigned int procRef, const char* buffer, unsigned int size);

private:
    class Frame;

    bool openConnection(const std::string& serverAddress);
    /// The descriptor stays with the event loop, which gets no event of it any more.
    void closeConnection();
    unsigned int send(const Frame& frame);
    template <class Record, class... Arguments> void addCapability(Arguments&&... arguments);
    void limitCapabilities();

    sway_socket* m_connection{nullptr};
    std::uint64_t m_maxMsgSize{defaultMaxMsgSize};
    std::uint32_t m_selectedProtocolRev{0};
    std::vector<std::shared_ptr<SWAYCapability>> m_capabilities;
    std::function<void()> m_readyForPublicAccess;
    std::unordered_map<std::uint32_t, MsgHandler> m_msgHandlers;
    bool m_capabilityCapTraced{false};
    /// A callback that is left with the event loop does nothing once this is gone.
    std::shared_ptr<const bool> m_alive{std::make_shared<const bool>(true)};
};
