#include "part.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <sstream>
#include <unistd.h>

namespace merlow::unit {
namespace {

int statusOf(Part& part)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        if (const auto status = part.reap()) {
            return *status;
        }
        poll(nullptr, 0, 1);
    }
    ADD_FAILURE() << part.name() << " does not end";
    return -1;
}

Part shell(const std::string& script)
{
    return Part("shell", {"/bin/sh", "-c", script}, Part::Place::background);
}

TEST(PartTest, endsAreDescribed)
{
    Part fails = shell("exit 3");
    ASSERT_TRUE(fails.start({}));
    EXPECT_EQ(describeEnd(statusOf(fails)), "exit status 3");
    EXPECT_FALSE(fails.isRunning());

    Part hangs = shell("kill -9 $$");
    ASSERT_TRUE(hangs.start({}));
    EXPECT_EQ(describeEnd(statusOf(hangs)), "signal 9 (Killed)");
}

TEST(PartTest, aProgramThatIsNotThereIsToldAtTheStart)
{
    Part part("none", {"/nowhere/at/all"}, Part::Place::background);
    EXPECT_FALSE(part.start({}));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(part.isRunning());
}

TEST(PartTest, theSurroundingsAreAsTold)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    Part part = shell("echo \"$NOTIFY_SOCKET\"; cat; cut -d' ' -f5 /proc/$$/stat; echo $$");
    ASSERT_TRUE(part.start({"@name", ends[1]}));
    close(ends[1]);
    std::string text(256, '\0');
    std::size_t length = 0;
    ssize_t got = 0;
    while ((got = read(ends[0], text.data() + length, text.size() - length)) > 0) {
        length += static_cast<std::size_t>(got);
    }
    close(ends[0]);
    text.resize(length);
    EXPECT_EQ(statusOf(part), 0);
    std::istringstream lines(text);
    std::string socket;
    std::string group;
    std::string process;
    lines >> socket >> group >> process;
    EXPECT_EQ(socket, "@name");
    EXPECT_EQ(group, process) << "a process group of its own";
}

TEST(PartTest, signalsReachIt)
{
    Part part("tail", {"tail", "-f", "/dev/null"}, Part::Place::background);
    ASSERT_TRUE(part.start({}));
    EXPECT_FALSE(part.reap());
    part.signal(SIGTERM);
    EXPECT_EQ(describeEnd(statusOf(part)), "signal 15 (Terminated)");
}

} // namespace
} // namespace merlow::unit
