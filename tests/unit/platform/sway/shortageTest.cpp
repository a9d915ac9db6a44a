/// Each allocation and each call of the system that takes something fails once: the call of the library that
/// it was for tells so or does without, no message is lost or torn, nothing is left, and the same call works
/// when it is made again.
#include "rowTest.h"
#include "shortageSweep.h"
#include "swayFixture.h"

#include <utility>

namespace swayTest {
namespace {

namespace shortage = support::shortage;
using shortage::insist;

/// What the library takes for its own announcement unless it is told otherwise: such a message goes in parts.
const std::string mark = "\xF5sway-in-parts\xF5\xA1";

Handle insistOnListening()
{
    Handle listener = insist("listen", [] { return Handle(sway_listen("ux:Server", 0)); });
    insist("set_blocking", [&] { return sway_set_blocking(listener.get(), false) == 0; });
    return listener;
}

/// The next connection that is not over already; null when there is none.
Handle acceptNext(const Handle& listener)
{
    for (;;) {
        Handle server = [&listener] {
            const shortage::Watch watch;
            return Handle(sway_accept(listener.get()));
        }();
        // One whose other end could not be made.
        if (!server || !readable(sway_fd(server.get()))) {
            return server;
        }
        EXPECT_EQ(receive(server), "");
    }
}

/// Both ends. A connection that was refused is asked for again.
std::pair<Handle, Handle> insistOnConnection(const Handle& listener)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        Handle client = insist("connect", [] { return Handle(sway_connect("ux:Server", 0)); });
        const bool before = shortage::hasFailed();
        Handle server = acceptNext(listener);
        if (!server) {
            const int error = errno;
            EXPECT_TRUE(shortage::isShortage(error)) << strerror(error);
            EXPECT_TRUE(!before && shortage::hasFailed());
            server = acceptNext(listener); // unless it was refused
        }
        if (server) {
            insist("set_blocking", [&] { return sway_set_blocking(client.get(), false) == 0; });
            insist("set_blocking", [&] { return sway_set_blocking(server.get(), false) == 0; });
            return {std::move(client), std::move(server)};
        }
        EXPECT_EQ(receive(client), "") << "a refused connection is over";
    }
    ADD_FAILURE() << "no connection";
    return {};
}

void insistOnSending(const Handle& from, const std::string& message)
{
    insist("send", [&] { return send(from, message) == 0; });
}

void insistOnReceiving(const Handle& to, const std::string& message)
{
    static std::string buffer(largest, '\0');
    ssize_t length = -1;
    insist("receive", [&] {
        length = sway_receive(to.get(), buffer.data(), buffer.size());
        return length >= 0;
    });
    EXPECT_TRUE(length >= 0 && message == std::string_view(buffer.data(), static_cast<std::size_t>(length)))
        << length << " of " << message.size();
}

void connection()
{
    const Handle listener = insistOnListening();
    const auto [client, server] = insistOnConnection(listener);
    std::uint64_t most = 0;
    insist("attr_get", [&client = client, &most] {
        return sway_attr_get(client.get(), "sway.max_msg_size", nullptr, &most, sizeof(most)) == 0;
    });
    insist("await", [&client = client] { return sway_await(client.get(), 0) == 0; });
    insist("fd", [&client = client] { return sway_fd(client.get()) >= 0; });
    EXPECT_TRUE(readable(sway_fd(client.get())));
    insistOnSending(client, "question");
    EXPECT_TRUE(readable(sway_fd(server.get())));
    insistOnReceiving(server, "question");
    insistOnSending(server, "answer");
    insistOnReceiving(client, "answer");
}

/// Whole ones, ones in parts, and ones that the kernel does not take yet.
void messages()
{
    const Handle listener(sway_listen("ux:Server", 0));
    const Handle client(sway_connect("ux:Server", 0));
    const Handle server(sway_accept(listener.get()));
    for (const Handle* end : {&client, &server}) {
        ASSERT_EQ(sway_set_blocking(end->get(), false), 0);
    }
    static const std::vector<std::string> sent{patterned(200000, 'a'), mark + patterned(100000, 'b'),
                                               patterned(largest, 'c'), mark, "short"};
    for (const auto& message : sent) {
        insistOnSending(client, message);
    }
    for (const auto& message : sent) {
        // What is kept moves on when there is room, as its descriptor tells.
        for (int turn = 0; turn < 5 && !readable(sway_fd(server.get())); ++turn) {
            EXPECT_TRUE(readable(sway_fd(client.get())));
            const shortage::Watch watch;
            char byte = 0;
            EXPECT_EQ(sway_receive(client.get(), &byte, 1), -1);
        }
        std::string got;
        for (int turn = 0; turn < 20; ++turn) {
            const shortage::Watch watch;
            static std::string buffer(largest, '\0');
            const ssize_t length = sway_receive(server.get(), buffer.data(), buffer.size());
            if (length >= 0) {
                const shortage::Pause pause;
                got.assign(buffer, 0, static_cast<std::size_t>(length));
                break;
            }
            EXPECT_TRUE(shortage::isShortage(errno)) << strerror(errno);
            char byte = 0;
            EXPECT_EQ(sway_receive(client.get(), &byte, 1), -1); // the rest of one in parts
        }
        EXPECT_TRUE(got == message) << got.size() << " of " << message.size();
    }
}

/// In a new run-time folder that belongs to a group.
void group()
{
    std::filesystem::remove_all(std::getenv("MERLOW_RUN_DIR"));
    setenv("MERLOW_GROUP", std::to_string(getegid()).c_str(), 1);
    connection();
    for (const char* folder : {"", "/sway", "/sway.lock"}) {
        struct stat status {};
        EXPECT_EQ(stat((std::getenv("MERLOW_RUN_DIR") + std::string(folder)).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 02770U) << folder;
    }
    unsetenv("MERLOW_GROUP");
}

/// At an address where somebody has died.
void afterADeath()
{
    EXPECT_EQ(inChild([] { return sway_listen("ux:Server", 0) != nullptr ? 0 : 1; }), 0);
    connection();
}

struct SwayShortageRow {
    const char* name;
    void (*run)();
};

class SwayShortageTest : public ::testing::Test, public WithRow<SwayShortageRow> {
protected:
    RunDir m_runDir;
};

ROW_TEST(SwayShortageTest, eachThatFailsIsToldOfOrMadeUpFor)
{
    const auto state = [this] {
        const std::filesystem::recursive_directory_iterator entries(m_runDir.parent());
        return std::pair{openDescriptors(), std::distance(begin(entries), end(entries))};
    };
    EXPECT_GT(shortage::failEachOnce(row().run, state), 3U);
}

const SwayShortageRow swayShortageRows[] = {
    {"connection", connection}, {"messages", messages}, {"group", group}, {"afterADeath", afterADeath}};
TEST_ROWS(Each, SwayShortageTest, swayShortageRows);

} // namespace
} // namespace swayTest
