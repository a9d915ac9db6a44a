// Peers that go, die or lie.

#include "swayFixture.h"

#include <cstring>
#include <future>
#include <thread>

using namespace swayTest;

namespace {

const std::string mark("\xF5sway-in-parts\xF5\xA1", 16);

/// What announces a message of `length` bytes in parts.
std::string announcement(std::uint32_t length)
{
    std::string bytes = mark;
    bytes.append(reinterpret_cast<const char*>(&length), sizeof(length));
    return bytes;
}

void sendRaw(int fd, const std::string& packet)
{
    EXPECT_EQ(::send(fd, packet.data(), packet.size(), MSG_NOSIGNAL), static_cast<ssize_t>(packet.size()));
}

/// A peer that speaks raw packets, accepted.
class SwayRawPeerTest : public SwayTest {
protected:
    SwayRawPeerTest() : m_raw(rawClient())
    {
        m_accepted.reset(sway_accept(m_listener.get()));
        EXPECT_TRUE(m_accepted);
        EXPECT_EQ(sway_set_blocking(m_accepted.get(), false), 0);
    }
    ~SwayRawPeerTest() override { close(m_raw); }

    /// The connection is over: told once, then as an end; and the peer sees it end.
    void expectRefused()
    {
        EXPECT_EQ(receive(m_accepted), error(EPROTO));
        EXPECT_EQ(receive(m_accepted), "");
        EXPECT_EQ(send(m_accepted, "x"), -1);
        EXPECT_EQ(errno, EPIPE);
        char byte = 0;
        EXPECT_EQ(recv(m_raw, &byte, 1, 0), 0);
    }

    int m_raw;
    Handle m_accepted;
};

} // namespace

TEST_F(SwayTest, tellsTheEndAfterTheLastMessage)
{
    EXPECT_EQ(send(m_client, "last"), 0);
    m_client.reset();
    EXPECT_TRUE(becomesReadable(sway_fd(m_server.get())));
    EXPECT_EQ(receive(m_server), "last");
    EXPECT_EQ(receive(m_server), "");
    EXPECT_EQ(receive(m_server), "") << "and again";
}

TEST_F(SwayTest, givesWhatAPeerSentThatWentWithUnreadMessages)
{
    EXPECT_EQ(send(m_server, "unread"), 0);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(send(m_client, std::to_string(i)), 0);
    }
    m_client.reset();
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(receive(m_server), std::to_string(i));
    }
    EXPECT_EQ(receive(m_server), "");
}

TEST_F(SwayTest, failsToSendToAPeerThatWentAndRaisesNoSignal)
{
    m_client.reset();
    EXPECT_EQ(send(m_server, "x"), -1);
    EXPECT_EQ(errno, EPIPE);
    ASSERT_EQ(sway_set_blocking(m_server.get(), true), 0);
    EXPECT_EQ(send(m_server, "x"), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(SwayTest, dropsWhatIsKeptForAPeerThatWent)
{
    for (int i = 0; i < 3000; ++i) {
        ASSERT_EQ(send(m_server, patterned(1000, 'k')), 0);
    }
    m_client.reset();
    EXPECT_TRUE(becomesReadable(sway_fd(m_server.get())));
    EXPECT_EQ(receive(m_server), "");
    EXPECT_EQ(send(m_server, "x"), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(SwayTest, endsABlockedSendWhenThePeerGoes)
{
    ASSERT_EQ(sway_set_blocking(m_server.get(), true), 0);
    int result = 0;
    int number = 0;
    std::promise<void> blocked;
    std::thread sender([&] {
        for (int i = 0; result == 0; ++i) {
            if (i == 100) {
                blocked.set_value();
            }
            result = send(m_server, patterned(1000, 'b'));
            number = errno;
        }
    });
    blocked.get_future().wait();
    m_client.reset();
    sender.join();
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(number == EPIPE || number == ECONNRESET) << number;
}

TEST_F(SwayTest, endsABlockedReceiveWhenThePeerGoes)
{
    ASSERT_EQ(sway_set_blocking(m_server.get(), true), 0);
    std::string got = "nothing yet";
    std::thread receiver([&] { got = receive(m_server); });
    m_client.reset();
    receiver.join();
    EXPECT_EQ(got, "");
}

TEST_F(SwayRawPeerTest, speaksPlainPackets)
{
    sendRaw(m_raw, "plain");
    EXPECT_EQ(receive(m_accepted), "plain");
    EXPECT_EQ(send(m_accepted, "answer"), 0);
    std::array<char, 16> buffer{};
    EXPECT_EQ(recv(m_raw, buffer.data(), buffer.size(), 0), 6);
    EXPECT_STREQ(buffer.data(), "answer");
}

TEST_F(SwayRawPeerTest, isRefusedForAnEmptyPacket)
{
    EXPECT_EQ(::send(m_raw, "", 0, 0), 0);
    expectRefused();
}

TEST_F(SwayRawPeerTest, isRefusedForAnnouncingNothing)
{
    sendRaw(m_raw, announcement(0));
    expectRefused();
}

TEST_F(SwayRawPeerTest, isRefusedForAnnouncingTooMuch)
{
    sendRaw(m_raw, announcement(largest + 1));
    expectRefused();
}

TEST_F(SwayRawPeerTest, isRefusedForEachAnnouncementOfAWrongLength)
{
    for (const auto& packet : {mark, announcement(10).substr(0, 19), announcement(10) + "x"}) {
        const int raw = rawClient();
        const Handle accepted(sway_accept(m_listener.get()));
        ASSERT_EQ(sway_set_blocking(accepted.get(), false), 0);
        sendRaw(raw, packet);
        EXPECT_EQ(receive(accepted), error(EPROTO)) << packet.size();
        EXPECT_EQ(receive(accepted), "");
        close(raw);
    }
}

TEST_F(SwayRawPeerTest, isRefusedForPartsThatAreTooLong)
{
    sendRaw(m_raw, announcement(10));
    EXPECT_EQ(receive(m_accepted), error(EAGAIN));
    sendRaw(m_raw, "12345");
    EXPECT_EQ(receive(m_accepted), error(EAGAIN));
    sendRaw(m_raw, "123456");
    expectRefused();
}

TEST_F(SwayRawPeerTest, mayGoInTheMiddleOfAMessage)
{
    sendRaw(m_raw, announcement(largest));
    sendRaw(m_raw, "12345");
    EXPECT_EQ(receive(m_accepted), error(EAGAIN));
    shutdown(m_raw, SHUT_RDWR);
    EXPECT_EQ(receive(m_accepted), "");
}

TEST_F(SwayRawPeerTest, sendsPartsOfAnySize)
{
    sendRaw(m_raw, announcement(6));
    for (const char* part : {"1", "23", "456"}) {
        sendRaw(m_raw, part);
    }
    sendRaw(m_raw, "next");
    EXPECT_EQ(receive(m_accepted), "123456");
    EXPECT_EQ(receive(m_accepted), "next");
}

TEST_F(SwayRawPeerTest, leavesNoDescriptorBehindThatItPassesOn)
{
    char byte = 'x';
    iovec content{&byte, 1};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &m_raw, sizeof(int));
    const auto before = openDescriptors();
    EXPECT_EQ(sendmsg(m_raw, &message, 0), 1);
    EXPECT_EQ(receive(m_accepted), "x");
    EXPECT_EQ(openDescriptors(), before);
}
