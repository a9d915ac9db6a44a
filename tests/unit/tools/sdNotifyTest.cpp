// Both ends of the notification protocol: what merlowd sends, what the unit's supervisor takes.

#include "sdNotify.h"
#include "notifySocket.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace merlow {
namespace {

class SdNotifyTest : public testing::Test {
protected:
    SdNotifyTest() : m_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {}
    ~SdNotifyTest() override
    {
        unsetenv("NOTIFY_SOCKET");
        close(m_fd);
    }

    void listenAt(const std::string& name)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.data(), name.size());
        if (name.front() == '@') {
            address.sun_path[0] = '\0';
        }
        ASSERT_EQ(bind(m_fd, reinterpret_cast<const sockaddr*>(&address),
                       static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size())),
                  0)
            << std::strerror(errno);
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
    }

    std::string received() const
    {
        std::array<char, 256> text{};
        const auto length = recv(m_fd, text.data(), text.size(), 0);
        return length < 0 ? std::strerror(errno) : std::string(text.data(), static_cast<std::size_t>(length));
    }

    int m_fd;
};

TEST_F(SdNotifyTest, aPathIsReached)
{
    const auto path = std::filesystem::temp_directory_path() / ("notify" + std::to_string(getpid()));
    listenAt(path);
    EXPECT_TRUE(merlowd::sdNotify("READY=1\nSTATUS=published"));
    EXPECT_EQ(received(), "READY=1\nSTATUS=published");
    std::filesystem::remove(path);
}

TEST_F(SdNotifyTest, anAbstractNameIsReached)
{
    listenAt("@merlow-notify-" + std::to_string(getpid()));
    EXPECT_TRUE(merlowd::sdNotify("STOPPING=1"));
    EXPECT_EQ(received(), "STOPPING=1");
}

TEST_F(SdNotifyTest, withoutAManagerNothingHappens)
{
    unsetenv("NOTIFY_SOCKET");
    EXPECT_FALSE(merlowd::sdNotify("READY=1"));
    for (const std::string& name : {std::string(), std::string("relative"), std::string("@"),
                                    std::string("/nowhere/at/all"), '/' + std::string(200, 'x')}) {
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        EXPECT_FALSE(merlowd::sdNotify("READY=1")) << name;
    }
}

TEST_F(SdNotifyTest, theSupervisorTakesReportsOfItsPartOnly)
{
    const unit::NotifySocket supervisor;
    ASSERT_GE(supervisor.fd(), 0);
    ASSERT_EQ(supervisor.name().front(), '@');
    setenv("NOTIFY_SOCKET", supervisor.name().c_str(), 1);
    ASSERT_TRUE(merlowd::sdNotify("READY=1"));
    EXPECT_EQ(supervisor.receive(getpid()), "READY=1");
    EXPECT_EQ(supervisor.receive(getpid()), std::nullopt);
    ASSERT_TRUE(merlowd::sdNotify("READY=1"));
    EXPECT_EQ(supervisor.receive(getpid() + 1), std::nullopt) << "it came from somebody else";
}

} // namespace
} // namespace merlow
