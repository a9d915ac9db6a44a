/// The server's surroundings in one thread: its mailboxes, virtual clients and virtual neighbours.
#pragma once

#include "bci/bciRecord.h"
#include "fakeBrh.h"
#include "fakeLoop.h"
#include "fakeMnet.h"
#include "fakeSway.h"
#include "fakeTrace.h"
#include "faultManager.h"
#include "merlowCommonData.h"
#include "merlowComponent.h"
#include "wire.h"

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace support {

class Board;

/// A process with one mailbox that talks to the server. A handle: copies are the same peer.
class VirtualPeer {
public:
    VirtualPeer(Board& board, FakeMnet::Process process, mnet_mbox_id_t mbox)
        : m_board(&board), m_process(process), m_mbox(mbox)
    {
    }

    [[nodiscard]] mnet_mbox_id_t mbox() const { return m_mbox; }
    [[nodiscard]] FakeMnet::Process process() const { return m_process; }

    /// Sends the bytes, number first, in one block of exactly their size, and pumps until the server is idle.
    void sendBytes(const Bytes& bytes, mnet_mbox_id_t to) const;
    /// The oldest message that has not been taken.
    [[nodiscard]] std::optional<Received> receive() const;
    [[nodiscard]] bool nothingReceived() const;
    /// The process ends: whoever watches it is told.
    void die() const;

protected:
    Board* m_board;
    FakeMnet::Process m_process;
    mnet_mbox_id_t m_mbox;
};

/// A client of BCI. What it sends goes to the public mailbox.
class VirtualClient : public VirtualPeer {
public:
    using VirtualPeer::VirtualPeer;

    void sendHex(const std::string& hex) const;
    /// Sends a record given in host order; its number is filled in.
    template <class R> void send(R record) const
    {
        record.msgNo = BciRecord<R>::number;
        hton(record);
        Bytes bytes(BciRecord<R>::size);
        std::memcpy(bytes.data(), &record, bytes.size());
        sendToServer(bytes);
    }
    void sendToServer(const Bytes& bytes) const;

    /// The oldest message as text, "" when there is none. It must have come from the public mailbox.
    [[nodiscard]] std::string receivedHex() const;
    /// The oldest message as a record in host order; fails the test when it is another one or of another
    /// size.
    template <class R> [[nodiscard]] R expect() const
    {
        R record{};
        const auto received = receiveFromPublic();
        if (received.msgNo != BciRecord<R>::number || received.bytes.size() != BciRecord<R>::size) {
            ADD_FAILURE() << "Not the expected signal: " << messageToHex(received.bytes);
            return record;
        }
        std::memcpy(&record, received.bytes.data(), received.bytes.size());
        ntoh(record);
        return record;
    }
    /// Its session in the common data; null when there is none.
    [[nodiscard]] BcSession* session() const;

private:
    [[nodiscard]] Received receiveFromPublic() const;
};

/// A request as a virtual server of BRI or BMMI received it.
template <class M> struct BrhRequest {
    std::uint32_t procedureRef = 0;
    std::uint32_t connectionRef = 0;
    M message;
};

/// A virtual server of BRI or BMMI.
class VirtualBrhServer {
public:
    /// What the server's requests carry once it has been confirmed.
    static constexpr std::uint32_t connectionRef = 0x00C0FFEE;

    VirtualBrhServer(Board& board, std::string name, std::uint32_t confirmNo, BrhClient& client);

    /// Comes up under its name, and the server's answer to that is waited for.
    void start();
    /// Goes away with its process.
    void stop();
    [[nodiscard]] bool isUp() const { return m_peer.has_value(); }
    [[nodiscard]] mnet_mbox_id_t mbox() const { return peer().mbox(); }

    /// Confirms a connection at `revision`.
    void confirm(std::uint32_t revision = 1);

    /// Sends a frame to the client of the server under test.
    template <class M> void send(const M& message, std::uint32_t procedureRef)
    {
        sendBody(M::MESSAGE_NUMBER, procedureRef, message.SerializeAsString());
    }
    /// Answers a request: with its procedure reference.
    template <class Q, class M> void answer(const BrhRequest<Q>& request, const M& message)
    {
        send(message, request.procedureRef);
    }
    void sendBody(std::uint32_t msgNo, std::uint32_t procedureRef, const std::string& body);
    void sendBytes(const Bytes& bytes);
    void sendHex(const std::string& hex) { sendBytes(messageFromHex(hex)); }

    /// The oldest frame, which must carry an M; fails the test when it does not.
    template <class M> BrhRequest<M> expect()
    {
        BrhRequest<M> request;
        const auto received = receive();
        if (!received || received->msgNo != M::MESSAGE_NUMBER || received->bytes.size() < 12 ||
            !request.message.ParseFromArray(received->bytes.data() + 12,
                                            static_cast<int>(received->bytes.size() - 12))) {
            ADD_FAILURE() << "No " << M().GetTypeName() << " but "
                          << (received ? messageToHex(received->bytes) : std::string("nothing"));
            return request;
        }
        request.procedureRef = wordAt(received->bytes, 4);
        request.connectionRef = wordAt(received->bytes, 8);
        return request;
    }
    [[nodiscard]] std::optional<Received> receive() const;
    [[nodiscard]] std::string receivedHex() const;
    [[nodiscard]] bool nothingReceived() const;

private:
    [[nodiscard]] const VirtualPeer& peer() const { return m_peer.value(); }

    Board& m_board;
    std::string m_name;
    std::uint32_t m_confirmNo;
    BrhClient& m_client;
    std::optional<VirtualPeer> m_peer;
};

/// What a test needs around the components under test. Each object starts from an empty platform, and its end
/// fails the test when a message was neither sent nor freed.
///
/// It stands for the core towards the components: it hands out their callbacks, walks them when a session
/// comes or goes, and removes the session of a client whose mailbox is lost. One at a time.
class Board {
public:
    struct Options {
        bool bri = true;       ///< the virtual BRI server is up and connected
        bool bmmi = true;      ///< the virtual BMMI server is up and connected
        bool published = true; ///< the public mailbox exists
        /// Takes the place of a real fault manager; must outlive the board.
        Merlow::FaultManagerIf* faultManager = nullptr;
    };
    struct ClientOptions {
        std::int32_t clientRef = 7;
        std::int32_t serverRef = 300;
        std::uint16_t protocolRev = 3;
    };

    Board() : Board(Options{}) {}
    explicit Board(Options options);
    ~Board();
    Board(const Board&) = delete;
    Board& operator=(const Board&) = delete;

    [[nodiscard]] MerlowCommonData& commonData() { return *m_commonData; }
    [[nodiscard]] VirtualBrhServer& bri() { return m_bri; }
    [[nodiscard]] VirtualBrhServer& bmmi() { return m_bmmi; }
    [[nodiscard]] Traces& traces() { return Traces::instance(); }
    [[nodiscard]] FakeMnet& mnet() { return FakeMnet::instance(); }
    [[nodiscard]] FakeLoop& loop() { return FakeLoop::instance(); }

    /// Makes a component, subscribes the board's callbacks and calls init(), which must give true.
    template <class C, class... Args> C& add(Args&&... args)
    {
        auto component = std::make_unique<C>(commonData(), std::forward<Args>(args)...);
        C& reference = *component;
        start(std::move(component));
        return reference;
    }
    void start(std::unique_ptr<MerlowComponent> component);

    /// A client with a mailbox and no session.
    [[nodiscard]] VirtualClient newClient();
    /// A client with a session. The components are not told.
    [[nodiscard]] VirtualClient connectClient(ClientOptions options);
    [[nodiscard]] VirtualClient connectClient() { return connectClient(ClientOptions{}); }
    /// The legacy server confirmed the session: every component hears of it.
    void announceSession(const VirtualClient& client);
    /// The session ends while the client lives on: every component hears of it first.
    void endSession(const VirtualClient& client);

    /// Runs the event loop until nothing waits for the server.
    void pump() { loop().pumpUntilIdle(); }

    /// The sessions for which a component asked for the establishment's confirm, by client mailbox.
    [[nodiscard]] const std::vector<mnet_mbox_id_t>& confirmCallbacks() const { return m_confirmCallbacks; }
    [[nodiscard]] unsigned int checkComponentsCalls() const { return m_checkComponentsCalls; }
    /// The numbers of messages for which there was no handler.
    [[nodiscard]] const std::vector<std::uint32_t>& unhandled() const { return m_unhandled; }
    /// A trace of level 1 or 4 with this text came exactly once.
    [[nodiscard]] ::testing::AssertionResult traced(unsigned int level, const std::string& text);

private:
    void loseSession(mnet_mbox_id_t mbox);

    Merlow::FaultManager m_faultManager;
    std::unique_ptr<MerlowCommonData> m_commonData;
    std::vector<std::unique_ptr<MerlowComponent>> m_components;
    VirtualBrhServer m_bri;
    VirtualBrhServer m_bmmi;
    std::vector<mnet_mbox_id_t> m_confirmCallbacks;
    unsigned int m_checkComponentsCalls = 0;
    std::vector<std::uint32_t> m_unhandled;
};

} // namespace support
