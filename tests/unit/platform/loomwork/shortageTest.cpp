/// Each allocation and each call of the system that takes something fails once: the call of the loop that it
/// was for tells so, no descriptor is forgotten, nothing is left, and the same call works when it is made
/// again.
#include "loopFixture.h"
#include "rowTest.h"
#include "shortageSweep.h"

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

namespace loopTest {
namespace {

namespace shortage = support::shortage;
using shortage::insist;

std::size_t openDescriptors()
{
    std::size_t count = 0;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc/self/fd"), &closedir);
    while (readdir(folder.get()) != nullptr) {
        ++count;
    }
    return count;
}

void insistOnAdding(const Pipe& pipe, const std::function<void(int, unsigned int)>& callback)
{
    insist("addFd", [&] {
        const auto copied = [&callback] {
            const shortage::Pause own;
            return callback;
        };
        return loop().addFd(pipe.fd(), 1, copied()) == 0;
    });
}

void insistOnRunning()
{
    insist("run", [] { return loop().run() == 0; });
}

/// A thread's whole life with its descriptors. What a callback throws is reported, and the loop goes on.
void life()
{
    Pipe first;
    Pipe second;
    const Pipe third;
    int calls = 0;
    insistOnAdding(first, [&](int fd, unsigned int) {
        const shortage::Pause own;
        ++calls;
        first.drain();
        insistOnAdding(third, [&](int, unsigned int) { // which makes the callback a block of its own
            const shortage::Pause inner;
            ++calls;
            third.drain();
            second.makeReady();
        });
        third.makeReady();
        EXPECT_EQ(loop().removeFd(fd), 0);
        throw std::runtime_error("a text that is no short string, and needs memory");
    });
    insistOnAdding(second, [&](int, unsigned int) {
        const shortage::Pause own;
        ++calls;
        second.drain();
        insist("stop", [] {
            loop().stop();
            return true;
        });
    });
    insist("updateFd", [&] { return loop().updateFd(second.fd(), 1) == 0; });
    first.makeReady();
    insistOnRunning();
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(loop().removeFd(second.fd()), 0);
    EXPECT_EQ(loop().removeFd(third.fd()), 0);
}

/// A number whose descriptor was closed, while a duplicate keeps it in the kernel's set.
void staleEvents()
{
    Pipe stale;
    const Pipe pipes[3];
    int calls = 0;
    insistOnAdding(stale, [](int, unsigned int) { ADD_FAILURE() << "an event of a closed descriptor"; });
    for (const Pipe& pipe : pipes) {
        insistOnAdding(pipe, [&](int, unsigned int) {
            const shortage::Pause own;
            pipe.drain();
            if (++calls == 3) {
                loop().stop();
            } else {
                pipes[calls].makeReady();
            }
        });
    }
    const int number = stale.fd();
    const int duplicate = dup(number);
    stale.closeReader();
    EXPECT_EQ(loop().removeFd(number), 0);
    stale.makeReady();
    pipes[0].makeReady();
    insistOnRunning();
    EXPECT_EQ(calls, 3);
    close(duplicate);
}

struct LoopShortageRow {
    const char* name;
    void (*run)();
};

class LoopShortageTest : public ::testing::Test, public WithRow<LoopShortageRow> {
protected:
    LoopShortageTest()
    {
        setenv("RUSHLOG_OUT", "/dev/null", 1);
        alarm(20); // a loop that has forgotten a descriptor waits for ever
    }
    ~LoopShortageTest() override { alarm(0); }
};

ROW_TEST(LoopShortageTest, eachThatFailsIsToldOfAndMissesNothing)
{
    const auto inThread = [] {
        auto count = shortage::state; // each thread has its own
        std::thread([&count] {
            shortage::state = count;
            row().run();
            count = shortage::state;
        }).join();
        shortage::state = count;
    };
    EXPECT_GT(shortage::failEachOnce(inThread, openDescriptors), 5U);
}

const LoopShortageRow loopShortageRows[] = {{"life", life}, {"staleEvents", staleEvents}};
TEST_ROWS(Each, LoopShortageTest, loopShortageRows);

} // namespace
} // namespace loopTest
