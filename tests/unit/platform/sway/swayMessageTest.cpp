// Messages between two ends: boundaries, sizes, modes, what is kept.

#include "swayFixture.h"

#include <dirent.h>
#include <thread>
#include <vector>

using namespace swayTest;

namespace {

/// Sends `message` until the kernel takes nothing more and it is kept, then until `EAGAIN`; how many were
/// taken.
std::size_t fill(const Handle& s, const std::string& message)
{
    std::size_t count = 0;
    while (send(s, message) == 0) {
        ++count;
    }
    EXPECT_EQ(errno, EAGAIN);
    return count;
}

/// One message at `to`, while `from` serves its descriptor, which is how what is kept moves on.
std::string receiveServing(const Handle& to, const Handle& from)
{
    for (;;) {
        auto message = receive(to);
        if (message != error(EAGAIN) || !becomesReadable(sway_fd(from.get()))) {
            return message;
        }
        EXPECT_EQ(receive(from), error(EAGAIN));
    }
}

/// The sockets of this process that are connected.
std::vector<int> connectedSockets()
{
    std::vector<int> found;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc/self/fd"), &closedir);
    while (const dirent* entry = readdir(folder.get())) {
        const int fd = std::atoi(entry->d_name); // NOLINT(cert-err34-c): "." and ".." give 0, no socket
        sockaddr_un address{};
        socklen_t length = sizeof(address);
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
            found.push_back(fd);
        }
    }
    return found;
}

} // namespace

TEST_F(SwayTest, keepsMessageBoundaries)
{
    EXPECT_EQ(send(m_client, "one"), 0);
    EXPECT_EQ(send(m_client, "twotwo"), 0);
    EXPECT_EQ(send(m_server, "back"), 0);
    EXPECT_EQ(receive(m_server), "one");
    EXPECT_EQ(receive(m_server), "twotwo");
    EXPECT_EQ(receive(m_server), error(EAGAIN));
    EXPECT_EQ(receive(m_client), "back");
}

TEST_F(SwayTest, carriesEachSizeUpToTheAttribute)
{
    std::uint64_t attribute = 0;
    ASSERT_EQ(sway_attr_get(m_client.get(), "sway.max_msg_size", nullptr, &attribute, 8), 0);
    EXPECT_EQ(attribute, largest);
    for (const std::size_t length : {std::size_t{1}, std::size_t{15}, std::size_t{16}, std::size_t{19},
                                     std::size_t{20}, std::size_t{21}, std::size_t{4096}, std::size_t{65536},
                                     std::size_t{65537}, std::size_t{212960}, largest - 1, largest}) {
        const auto message = patterned(length, 'm');
        EXPECT_EQ(send(m_client, message), 0) << length;
        EXPECT_TRUE(receiveNext(m_server) == message) << length;
    }
}

TEST_F(SwayTest, refusesEmptyAndTooLongMessages)
{
    EXPECT_EQ(sway_send(m_client.get(), "x", 0), -1);
    EXPECT_EQ(errno, EINVAL);
    const auto tooLong = patterned(largest + 1, 'x');
    EXPECT_EQ(send(m_client, tooLong), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(receive(m_server), error(EAGAIN)) << "nothing of it was sent";
}

TEST_F(SwayTest, discardsWholeWhatTheBufferIsTooSmallFor)
{
    for (const std::size_t length : {std::size_t{5}, std::size_t{100}, std::size_t{70'000}}) {
        EXPECT_EQ(send(m_client, patterned(length, 'a')), 0);
        EXPECT_EQ(send(m_client, "next"), 0);
        EXPECT_EQ(receive(m_server, 4), error(EMSGSIZE)) << length;
        EXPECT_EQ(receive(m_server, 4), "next") << length;
    }
    EXPECT_EQ(send(m_client, "x"), 0);
    EXPECT_EQ(sway_receive(m_server.get(), nullptr, 0), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(receive(m_server), error(EAGAIN));
}

TEST_F(SwayTest, carriesInPartsWhatTheSocketDoesNotTakeWhole)
{
    // The socket is made small behind the library's back, as it is where the kernel grants little.
    for (const int fd : connectedSockets()) {
        const int size = 4096;
        ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)), 0);
    }
    for (const auto& message : {patterned(largest, 'p'), patterned(100'000, 'q'), std::string("small")}) {
        ASSERT_EQ(send(m_client, message), 0);
    }
    EXPECT_TRUE(receiveServing(m_server, m_client) == patterned(largest, 'p'));
    EXPECT_TRUE(receiveServing(m_server, m_client) == patterned(100'000, 'q'));
    EXPECT_EQ(receiveServing(m_server, m_client), "small");
}

TEST_F(SwayTest, carriesTheLargestInOnePacketWithTheKernelsDefaultLimits)
{
    // What an ordinary user is granted where net.core.wmem_max is as Linux sets it.
    for (const int fd : connectedSockets()) {
        const int size = 212992;
        ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)), 0);
    }
    ASSERT_EQ(send(m_client, patterned(largest, 'o')), 0);
    std::size_t packets = 0;
    for (const int fd : connectedSockets()) {
        char byte = 0;
        const ssize_t length = recv(fd, &byte, 1, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
        packets += length == static_cast<ssize_t>(largest) ? 1 : 0;
    }
    EXPECT_EQ(packets, 1u);
    EXPECT_TRUE(receive(m_server) == patterned(largest, 'o'));
}

TEST_F(SwayTest, carriesWhatLooksLikeAPartOfItsOwnTalk)
{
    const std::string mark("\xF5sway-in-parts\xF5\xA1", 16);
    for (const auto& message : {mark, mark + std::string("\1\0\0\0", 4), mark + patterned(200'000, 'z')}) {
        EXPECT_EQ(send(m_client, message), 0);
        EXPECT_EQ(send(m_client, "next"), 0);
        EXPECT_TRUE(receiveServing(m_server, m_client) == message) << message.size();
        EXPECT_EQ(receiveServing(m_server, m_client), "next");
        EXPECT_EQ(send(m_client, message), 0);
        EXPECT_EQ(receive(m_server, 8), error(EMSGSIZE));
    }
}

TEST_F(SwayTest, carriesMessagesInPartsThatTheKernelDoesNotTakeAtOnce)
{
    const std::string mark("\xF5sway-in-parts\xF5\xA1", 16);
    std::vector<std::string> messages;
    for (char seed = 'a'; seed < 'y'; ++seed) {
        messages.push_back((seed % 2 == 0 ? mark : std::string()) + patterned(150'000, seed));
        ASSERT_EQ(send(m_client, messages.back()), 0);
    }
    for (const auto& message : messages) {
        ASSERT_TRUE(receiveServing(m_server, m_client) == message);
    }
}

TEST_F(SwayTest, keepsInOrderWhatTheKernelDoesNotTake)
{
    const std::string filler = patterned(1000, 'f');
    std::size_t sent = 0;
    for (; sent < 3000; ++sent) {
        ASSERT_EQ(send(m_client, std::to_string(sent) + filler), 0);
    }
    EXPECT_FALSE(readable(sway_fd(m_client.get()))) << "there is no room, and nothing came";
    for (std::size_t i = 0; i < sent; ++i) {
        ASSERT_TRUE(receiveServing(m_server, m_client) == std::to_string(i) + filler) << i;
    }
    EXPECT_EQ(receive(m_server), error(EAGAIN));
    EXPECT_FALSE(readable(sway_fd(m_client.get()))) << "room alone does not wake";
}

TEST_F(SwayTest, keepsSixteenMebibytesAndNotMore)
{
    const auto message = patterned(64 * 1024, 'k');
    const std::size_t taken = fill(m_client, message);
    EXPECT_GE(taken, 256u);
    EXPECT_LE(taken, 256u + 4 * 1024 * 1024 * 2 / message.size());
    // Nothing of what was refused is sent: as many come out as went in, each whole.
    for (std::size_t i = 0; i < taken; ++i) {
        ASSERT_TRUE(receiveServing(m_server, m_client) == message) << i;
    }
    EXPECT_EQ(receive(m_server), error(EAGAIN));
    EXPECT_EQ(send(m_client, "again"), 0);
    EXPECT_EQ(receive(m_server), "again");
}

TEST_F(SwayTest, keepsWhatTheEnvironmentAllows)
{
    const auto message = patterned(1000, 'e');
    setenv("SWAY_QUEUE_LIMIT", "0", 1);
    connect();
    const std::size_t without = fill(m_client, message);
    setenv("SWAY_QUEUE_LIMIT", "10500", 1);
    connect();
    EXPECT_EQ(fill(m_client, message), without + 10);
    EXPECT_EQ(send(m_client, patterned(500, 's')), 0) << "a smaller one still fits";
    setenv("SWAY_QUEUE_LIMIT", "-1", 1);
    connect();
    EXPECT_GT(fill(m_client, message), 16'000u) << "what is no number counts as unset";
}

TEST_F(SwayTest, sendsTheRestWhenItGoesBackToBlocking)
{
    const auto message = patterned(1000, 'b');
    constexpr int count = 3000;
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(send(m_client, message), 0);
    }
    ASSERT_EQ(sway_set_blocking(m_client.get(), true), 0);
    ASSERT_EQ(sway_set_blocking(m_server.get(), true), 0);
    std::thread reader([&] {
        for (int i = 0; i < count; ++i) {
            ASSERT_TRUE(receive(m_server) == message) << i;
        }
        EXPECT_EQ(receive(m_server), "last");
        EXPECT_EQ(send(m_server, "answer"), 0);
    });
    EXPECT_EQ(send(m_client, "last"), 0);
    EXPECT_EQ(receive(m_client), "answer");
    reader.join();
}

TEST_F(SwayTest, movesKeptMessagesOnInABlockingReceive)
{
    const auto message = patterned(1000, 'b');
    constexpr int count = 3000;
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(send(m_client, message), 0);
    }
    ASSERT_EQ(sway_set_blocking(m_client.get(), true), 0);
    ASSERT_EQ(sway_set_blocking(m_server.get(), true), 0);
    std::thread reader([&] {
        for (int i = 0; i < count; ++i) {
            ASSERT_TRUE(receive(m_server) == message) << i;
        }
        EXPECT_EQ(send(m_server, "answer"), 0);
    });
    EXPECT_EQ(receive(m_client), "answer");
    reader.join();
}

TEST_F(SwayTest, waitsInBlockingMode)
{
    ASSERT_EQ(sway_set_blocking(m_client.get(), true), 0);
    ASSERT_EQ(sway_set_blocking(m_server.get(), true), 0);
    constexpr int count = 2000;
    std::thread sender([&] {
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(send(m_client, patterned(static_cast<std::size_t>(1 + i * 37 % 9000), 'w')), 0);
        }
        EXPECT_EQ(send(m_client, patterned(largest, 'w')), 0);
    });
    for (int i = 0; i < count; ++i) {
        ASSERT_TRUE(receive(m_server) == patterned(static_cast<std::size_t>(1 + i * 37 % 9000), 'w')) << i;
    }
    EXPECT_TRUE(receive(m_server) == patterned(largest, 'w'));
    sender.join();
}

TEST_F(SwayTest, wakesForRoomWhenThatIsAwaited)
{
    EXPECT_FALSE(readable(sway_fd(m_client.get())));
    EXPECT_EQ(sway_await(m_client.get(), 0), 0);
    EXPECT_TRUE(readable(sway_fd(m_client.get())));
    EXPECT_EQ(sway_await(m_client.get(), 1), 0) << "returns at once with nothing to receive";
    EXPECT_FALSE(readable(sway_fd(m_client.get())));
    EXPECT_EQ(send(m_server, "m"), 0);
    EXPECT_TRUE(readable(sway_fd(m_client.get())));
}

TEST_F(SwayTest, tellsTheAttribute)
{
    std::uint64_t value = 1;
    std::size_t size = 1;
    EXPECT_EQ(sway_attr_get(m_client.get(), "sway.max_msg_size", &size, nullptr, 0), 0);
    EXPECT_EQ(size, 8u);
    EXPECT_EQ(sway_attr_get(m_client.get(), "sway.max_msg_size", nullptr, &value, 7), -1);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(value, 1u);
    EXPECT_EQ(sway_attr_get(m_listener.get(), "sway.max_msg_size", &size, &value, 100), 0);
    EXPECT_EQ(value, largest);
    EXPECT_EQ(sway_attr_get(m_client.get(), "sway.other", nullptr, &value, 8), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(sway_attr_get(m_client.get(), nullptr, nullptr, &value, 8), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(sway_attr_get(m_client.get(), "sway.max_msg_size", nullptr, nullptr, 8), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(SwayTest, refusesWhatAHandleIsNotFor)
{
    EXPECT_EQ(send(m_listener, "x"), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(receive(m_listener), error(EINVAL));
    EXPECT_EQ(sway_accept(m_client.get()), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(sway_await(m_listener.get(), 1), 0);
    EXPECT_EQ(sway_await(m_listener.get(), 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(sway_send(m_client.get(), nullptr, 1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(sway_receive(m_client.get(), nullptr, 1), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(SwayNullHandle, givesEbadf)
{
    std::uint64_t value = 0;
    const auto fails = [](auto result) {
        const bool failed = static_cast<long>(result) == -1 && errno == EBADF;
        errno = 0;
        return failed;
    };
    EXPECT_TRUE(fails(sway_set_blocking(nullptr, true)));
    EXPECT_TRUE(fails(sway_attr_get(nullptr, "sway.max_msg_size", nullptr, &value, 8)));
    EXPECT_TRUE(fails(sway_await(nullptr, 1)));
    EXPECT_TRUE(fails(sway_fd(nullptr)));
    EXPECT_TRUE(fails(sway_receive(nullptr, &value, 8)));
    EXPECT_TRUE(fails(sway_send(nullptr, &value, 8)));
    EXPECT_EQ(sway_accept(nullptr), nullptr);
    EXPECT_EQ(errno, EBADF);
    sway_close(nullptr);
}
