#include "board.h"

#include "bmmi.pb.h"
#include "bri.pb.h"

#include <cstring>

namespace support {

namespace {

constexpr std::uint32_t briNotifyNo = 0x17075AD;
constexpr std::uint32_t bmmiNotifyNo = 0x17075BD;

std::unique_ptr<MerlowCommonData> newCommonData(Merlow::FaultManagerIf& faultManager)
{
    FakeMnet::instance().reset();
    FakeLoop::instance().reset();
    FakeSway::instance().reset();
    FakeBrh::instance().reset();
    Traces::instance().reset();
    return std::unique_ptr<MerlowCommonData>(MerlowCommonData::getNew(100, faultManager));
}

} // namespace

// VirtualPeer

void VirtualPeer::sendBytes(const Bytes& bytes, mnet_mbox_id_t to) const
{
    const FakeMnet::As peer(m_process);
    mnet_msg* msg = mnet_alloc(bytes.size(), 0);
    std::memcpy(msg, bytes.data(), bytes.size());
    EXPECT_EQ(mnet_send(&msg, to, m_mbox), 0) << "The virtual peer could not send";
    m_board->pump();
}

std::optional<Received> VirtualPeer::receive() const
{
    const FakeMnet::As peer(m_process);
    mnet_msg* msg = mnet_receive(nullptr, 0, MNET_FROM_ANY);
    if (msg == nullptr) {
        return std::nullopt;
    }
    Received received{.msgNo = msg->msgNo, .sender = mnet_sender(msg), .bytes = Bytes(mnet_size(msg))};
    std::memcpy(received.bytes.data(), msg, received.bytes.size());
    mnet_free(&msg);
    return received;
}

bool VirtualPeer::nothingReceived() const
{
    return FakeMnet::instance().waiting(m_process) == 0;
}

void VirtualPeer::die() const
{
    FakeMnet::instance().killProcess(m_process);
    m_board->pump();
}

// VirtualClient

void VirtualClient::sendToServer(const Bytes& bytes) const
{
    sendBytes(bytes, m_board->commonData().getPublicMbox());
}

void VirtualClient::sendHex(const std::string& hex) const
{
    sendToServer(messageFromHex(hex));
}

Received VirtualClient::receiveFromPublic() const
{
    const auto received = receive();
    if (!received) {
        return {};
    }
    EXPECT_EQ(received->sender, m_board->commonData().getPublicMbox()) << "Not from the public mailbox";
    return *received;
}

std::string VirtualClient::receivedHex() const
{
    return messageToHex(receiveFromPublic().bytes);
}

BcSession* VirtualClient::session() const
{
    return m_board->commonData().getClientSession(m_mbox);
}

// VirtualBrhServer

VirtualBrhServer::VirtualBrhServer(Board& board, std::string name, std::uint32_t confirmNo, BrhClient& client)
    : m_board(board), m_name(std::move(name)), m_confirmNo(confirmNo), m_client(client)
{
}

void VirtualBrhServer::start()
{
    auto& mnet = FakeMnet::instance();
    const auto process = mnet.newProcess();
    mnet_mbox_id_t mbox = MNET_MBOX_NONE;
    {
        const FakeMnet::As peer(process);
        mbox = mnet_create_mailbox(m_name.c_str(), 0);
    }
    ASSERT_NE(mbox, MNET_MBOX_NONE) << m_name << " is up already";
    m_peer.emplace(m_board, process, mbox);
    m_board.pump();
}

void VirtualBrhServer::stop()
{
    const VirtualPeer gone = peer();
    m_peer.reset();
    gone.die();
}

void VirtualBrhServer::confirm(std::uint32_t revision)
{
    boardresourcehandler::bri::ConnEstablishCfm cfm; // of BMMI the same but for its number
    cfm.set_selected_protocol_revision(revision);
    sendBytes(makeFrame(m_confirmNo, m_client.getClientRef(), connectionRef, cfm.SerializeAsString()));
}

void VirtualBrhServer::sendBody(std::uint32_t msgNo, std::uint32_t procedureRef, const std::string& body)
{
    sendBytes(makeFrame(msgNo, procedureRef, m_client.getClientRef(), body));
}

void VirtualBrhServer::sendBytes(const Bytes& bytes)
{
    peer().sendBytes(bytes, m_board.commonData().getPrivateMbox());
}

std::optional<Received> VirtualBrhServer::receive() const
{
    return peer().receive();
}

std::string VirtualBrhServer::receivedHex() const
{
    const auto received = receive();
    return received ? messageToHex(received->bytes) : std::string();
}

bool VirtualBrhServer::nothingReceived() const
{
    return peer().nothingReceived();
}

// Board

Board::Board(Options options)
    : m_commonData(newCommonData(options.faultManager != nullptr ? *options.faultManager : m_faultManager)),
      m_bri(*this, "BriServer", boardresourcehandler::bri::ConnEstablishCfm::MESSAGE_NUMBER,
            m_commonData->getBriClient()),
      m_bmmi(*this, "BmmiServer", boardresourcehandler::bmmi::ConnEstablishCfm::MESSAGE_NUMBER,
             m_commonData->getBmmiClient())
{
    MnetMessageSubscriptionCustom::reset();
    auto& subscription = MnetMessageSubscriptionCustom::getInstance();
    EXPECT_EQ(mnet_init(50, 0, nullptr, 0), 0);
    m_commonData->setPrivateMbox(mnet_create_mailbox("private_Merlow", 0));
    if (options.published) {
        m_commonData->setPublicMbox(mnet_clone_mailbox(m_commonData->getPrivateMbox(), "Merlow"));
    }
    EXPECT_EQ(subscription.monitorMnetFd(mnet_get_fd()), 0);
    subscription.addMsgHandler(MNET_MONITOR_DEFAULT_MSGNO, [this](const std::shared_ptr<mnet_msg>& msg) {
        loseSession(mnet_sender(msg.get()));
    });
    subscription.addDefaultHandler([this](mnet_msg* msg) {
        m_unhandled.push_back(msg->msgNo);
        mnet_free(&msg);
    });
    if (options.bri) {
        m_commonData->getBriClient().locateServer<boardresourcehandler::bri::ConnEstablishCfm>(
            &subscription, "BriServer", briNotifyNo);
        m_bri.start();
        m_bri.confirm();
    }
    if (options.bmmi) {
        m_commonData->getBmmiClient().locateServer<boardresourcehandler::bmmi::ConnEstablishCfm>(
            &subscription, "BmmiServer", bmmiNotifyNo);
        m_bmmi.start();
        m_bmmi.confirm();
    }
    traces().clear();
}

Board::~Board()
{
    m_commonData->cleanUp();
    m_components.clear();
    m_commonData.reset();
    MnetMessageSubscriptionCustom::reset();
    EXPECT_EQ(mnet().heldMessages(), 0U) << "Messages were neither sent nor freed";
    mnet().reset();
    loop().reset();
}

void Board::start(std::unique_ptr<MerlowComponent> component)
{
    component->subscribeForSendTarnBcConnCfm(
        [this](const BcSession& session) { m_confirmCallbacks.push_back(session.mailboxId); });
    component->subscribeForCheckComponents([this] {
        ++m_checkComponentsCalls;
        return false;
    });
    m_components.push_back(std::move(component));
    EXPECT_TRUE(m_components.back()->init());
    pump();
}

VirtualClient Board::newClient()
{
    const auto process = mnet().newProcess();
    const FakeMnet::As client(process);
    return {*this, process, mnet_create_mailbox(nullptr, 0)};
}

VirtualClient Board::connectClient(ClientOptions options)
{
    const VirtualClient client = newClient();
    const std::string name = "DU_" + std::to_string(m_commonData->generateSessionNumber());
    m_commonData->addClientSession(client.mbox(), options.clientRef, options.serverRef, options.protocolRev,
                                   name, 0);
    return client;
}

void Board::announceSession(const VirtualClient& client)
{
    for (const auto& component : m_components) {
        component->onNewBcSession(*client.session());
    }
    pump();
}

void Board::endSession(const VirtualClient& client)
{
    loseSession(client.mbox());
    pump();
}

void Board::loseSession(mnet_mbox_id_t mbox)
{
    if (const BcSession* session = m_commonData->getClientSession(mbox)) {
        for (const auto& component : m_components) {
            component->onBcSessionLost(*session);
        }
        m_commonData->removeClientSession(mbox);
    }
}

::testing::AssertionResult Board::traced(unsigned int level, const std::string& text)
{
    const std::size_t count = traces().count(level, text);
    if (count == 1) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << count << " times \"" << text << "\" at level " << level << " in\n"
                                         << traces().dump();
}

} // namespace support
