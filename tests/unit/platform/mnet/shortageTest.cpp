/// Each allocation and each call of the system that takes something fails once: the call of the library that
/// it was for tells so or does without, nothing is lost or left, and the same call works when it is made
/// again.
#include "mnetFixture.h"
#include "rowTest.h"
#include "shortageSweep.h"

#include <cstdlib>
#include <filesystem>
#include <grp.h>
#include <memory>
#include <optional>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <utility>

namespace mnet::test {
namespace {

namespace shortage = support::shortage;
using shortage::insist;

bool insistOnSending(mnet_mbox_id_t to, std::uint32_t number, std::size_t size, mnet_mbox_id_t from)
{
    return insist("send", [&] {
        Message msg(size, number);
        if (!msg) {
            return false;
        }
        for (std::size_t i = 4; i < size; i += 997) {
            msg.bytes()[i] = static_cast<unsigned char>(number + i);
        }
        return mnet_send(msg.give(), to, from) == 0;
    });
}

/// What a call gives that has no mailbox or monitor to give.
struct Id {
    std::uint32_t value = MNET_MBOX_NONE;
    explicit operator bool() const { return value != MNET_MBOX_NONE; }
};

/// Owns a message across attempts.
struct Got {
    std::shared_ptr<Message> message;
    explicit operator bool() const { return message && *message; }
};

/// The next message of the number, whole.
Got insistOnReceiving(std::uint32_t number)
{
    const std::uint32_t filter[] = {1, number};
    auto got = insist("receive", [&] {
        mnet_msg* msg = mnet_receive(filter, deadlineMs, MNET_FROM_ANY);
        const shortage::Pause pause;
        return Got{std::make_shared<Message>(msg)};
    });
    if (got) {
        for (std::size_t i = 4; i < got.message->size(); i += 997) {
            EXPECT_EQ(got.message->bytes()[i], static_cast<unsigned char>(number + i));
        }
    }
    return got;
}

Id insistOnMailbox(const char* name)
{
    return insist("create", [&] { return Id{mnet_create_mailbox(name, 0)}; });
}

Id insistOnMonitor(mnet_mbox_id_t target, std::uint32_t number)
{
    return insist("monitor", [&] {
        Message msg(4, number);
        return msg ? Id{mnet_monitor(target, msg.give())} : Id{};
    });
}

bool insistOnLocate(const char* name, std::uint32_t number, mnet_mbox_id_t mbox)
{
    return insist("locate", [&] {
        Message msg(4, number);
        return msg && mnet_locate_async(name, msg.give(), mbox) == 0;
    });
}

bool insistOnDeleting(mnet_mbox_id_t mbox)
{
    return insist("delete", [&] { return mnet_delete_mailbox(mbox) == 0; });
}

mnet_mbox_id_t insistOnStart(const char* name)
{
    insist("init", [] { return mnet_init(50, 0, nullptr, 0) == 0; });
    return insistOnMailbox(name).value;
}

void insistOnExit()
{
    insist("exit", [] { return mnet_exit() == 0; });
}

/// Does as it is told by those who write to it.
constexpr std::uint32_t echoIt = 100; ///< and below: sends it back
constexpr std::uint32_t watchSender =
    101; ///< watches who has sent it, and tells of its end with `senderGone`
constexpr std::uint32_t senderGone = 102;
constexpr std::uint32_t makeExtra = 103; ///< makes a mailbox called "extra", from which it answers
constexpr std::uint32_t dropExtra = 104; ///< deletes it
constexpr std::uint32_t leave = 105;

void serve(const char* name)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const mnet_mbox_id_t own = start(name);
    mnet_mbox_id_t extra = MNET_MBOX_NONE;
    mnet_mbox_id_t last = MNET_MBOX_NONE;
    for (;;) {
        Message msg = receive(120000);
        if (!msg || msg.number() == leave) {
            return;
        }
        const mnet_mbox_id_t to = msg.sender();
        if (msg.isNotice()) {
            EXPECT_EQ(send(last, senderGone, 4, own), 0);
        } else if (msg.number() == watchSender) {
            Message notice(4, senderGone);
            EXPECT_NE(mnet_monitor(to, notice.give()), MNET_MBOX_NONE);
        } else if (msg.number() == makeExtra) {
            extra = mnet_create_mailbox("extra", 0);
            EXPECT_EQ(mnet_send(msg.give(), to, extra), 0);
        } else if (msg.number() == dropExtra) {
            EXPECT_EQ(mnet_delete_mailbox(extra), 0);
        } else {
            last = to;
            EXPECT_EQ(mnet_send(msg.give(), to, own), 0);
        }
    }
}

/// All of the interface within one process.
void alone()
{
    const mnet_mbox_id_t mine = insistOnStart("a name that is no short string");
    insist("descriptor", [] { return mnet_get_fd() >= 0; });
    const mnet_mbox_id_t clone =
        insist("clone", [mine] { return Id{mnet_clone_mailbox(mine, "clone")}; }).value;
    EXPECT_TRUE(insistOnLocate("comes/later", 1, mine));
    EXPECT_TRUE(insistOnLocate("clone", 2, mine));
    EXPECT_TRUE(insistOnReceiving(2));
    const Id ended = insistOnMonitor(clone, 3);
    insist("unmonitor", [ended] { return mnet_unmonitor(ended.value) == 0; });
    insistOnMonitor(clone, 4);
    EXPECT_TRUE(insistOnSending(clone, 5, 2000, mine));
    EXPECT_TRUE(insistOnReceiving(5));
    const mnet_mbox_id_t later = insistOnMailbox("comes/later").value;
    EXPECT_TRUE(insistOnReceiving(1));
    EXPECT_TRUE(insistOnDeleting(clone));
    EXPECT_TRUE(insistOnReceiving(4));
    insistOnMonitor(mine, 6);
    EXPECT_TRUE(insistOnDeleting(later));
    EXPECT_FALSE(receive(0));
    insistOnExit();
}

/// In a new run-time folder that belongs to a group.
void inAGroup()
{
    const std::string folder = std::getenv("MERLOW_RUN_DIR");
    std::filesystem::remove_all(folder);
    setenv("MERLOW_GROUP", std::to_string(getegid()).c_str(), 1);
    insistOnStart("mine");
    insistOnExit();
    unsetenv("MERLOW_GROUP");
    for (const char* name : {"", "/mnet", "/mnet/ep", "/mnet/names", "/mnet/endpoints"}) {
        struct stat status {};
        EXPECT_EQ(stat((folder + name).c_str(), &status), 0) << name;
        EXPECT_EQ(status.st_mode & 07777, S_ISDIR(status.st_mode) ? 02770U : 0660U) << name;
    }
}

/// With another user's process, of the unit's group.
void withMember()
{
    const mnet_mbox_id_t mine = insistOnStart("mine");
    EXPECT_TRUE(insistOnLocate("peer", 1, mine));
    const Got found = insistOnReceiving(1);
    ASSERT_TRUE(found);
    EXPECT_TRUE(insistOnSending(found.message->sender(), 2, 4, mine));
    EXPECT_TRUE(insistOnReceiving(2));
    insistOnExit();
}

/// With another process that lives on.
void withPeer()
{
    const mnet_mbox_id_t mine = insistOnStart("mine");
    EXPECT_TRUE(insistOnLocate("peer", 1, mine));
    const Got found = insistOnReceiving(1);
    ASSERT_TRUE(found);
    const mnet_mbox_id_t peer = found.message->sender();
    insistOnMonitor(peer, 2);
    for (const std::size_t size :
         {std::size_t{4}, std::size_t{20000}, std::size_t{20001}, std::size_t{300000}}) {
        EXPECT_TRUE(insistOnSending(peer, 3, size, mine));
        const Got back = insistOnReceiving(3);
        ASSERT_TRUE(back);
        EXPECT_EQ(back.message->size(), size);
    }
    // A mailbox over there comes and goes.
    EXPECT_TRUE(insistOnSending(peer, makeExtra, 4, mine));
    const Got extra = insistOnReceiving(makeExtra);
    ASSERT_TRUE(extra);
    insistOnMonitor(extra.message->sender(), 4);
    insistOnMonitor(extra.message->sender(), 5);
    EXPECT_TRUE(insistOnSending(peer, dropExtra, 4, mine));
    EXPECT_TRUE(insistOnReceiving(4));
    EXPECT_TRUE(insistOnReceiving(5));
    // One here that is watched goes.
    const mnet_mbox_id_t second = insistOnMailbox("second").value;
    EXPECT_TRUE(insistOnSending(peer, watchSender, 4, second));
    EXPECT_TRUE(insistOnSending(peer, 6, 4, mine));
    EXPECT_TRUE(insistOnReceiving(6));
    EXPECT_TRUE(insistOnDeleting(second));
    EXPECT_TRUE(insistOnReceiving(senderGone));
    insistOnExit();
}

/// With another process that says something and dies, watched.
void withOneThatDies()
{
    const mnet_mbox_id_t mine = insistOnStart("mine");
    Child peer([] { serve("mortal"); });
    EXPECT_TRUE(insistOnLocate("mortal", 1, mine));
    const Got found = insistOnReceiving(1);
    ASSERT_TRUE(found);
    const mnet_mbox_id_t mortal = found.message->sender();
    insistOnMonitor(mortal, 2);
    EXPECT_TRUE(insistOnSending(mortal, 3, 2000, mine));
    EXPECT_TRUE(insistOnReceiving(3));
    EXPECT_TRUE(insistOnSending(mortal, leave, 4, mine));
    // What was kept moves on.
    EXPECT_TRUE(serveUntil([&peer] { return peer.hasEnded(); }));
    peer.finish();
    EXPECT_TRUE(insistOnReceiving(2));
    EXPECT_TRUE(insistOnLocate("mortal", 4, mine)); // nobody
    insistOnExit();
}

enum class Peer { none, own, member };

struct MnetShortageRow {
    const char* name;
    void (*run)();
    Peer peer;
};

constexpr gid_t unitGroup = 4711;

/// Becomes another user of the unit's group.
void becomeMember()
{
    constexpr uid_t nobody = 65534;
    const gid_t groups[] = {unitGroup};
    ASSERT_EQ(setgroups(1, groups), 0);
    ASSERT_EQ(setgid(nobody), 0);
    ASSERT_EQ(setuid(nobody), 0);
}

class MnetShortageTest : public MnetTest, public WithRow<MnetShortageRow> {
protected:
    /// But for what is kept for a while.
    std::size_t files() const
    {
        std::size_t count = 0;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(m_folder)) {
            count += entry.is_directory() || entry.path().filename() == "endpoints" ||
                             entry.path().extension() == ".live"
                         ? 0
                         : 1;
        }
        return count;
    }
    /// What is kept of the endpoints of earlier runs: each start of the library looks through it.
    void removeKept() const
    {
        const std::filesystem::path folder = std::getenv("MERLOW_RUN_DIR") + std::string("/mnet/ep");
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            if (entry.path().extension() == ".live" && !exists(folder / entry.path().stem())) {
                std::filesystem::remove(entry.path());
            }
        }
    }
};

ROW_TEST(MnetShortageTest, eachThatFailsIsToldOfOrMadeUpFor)
{
    const bool isMember = row().peer == Peer::member;
    if (isMember) {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs the right to become another user";
        }
        std::filesystem::permissions(m_folder, std::filesystem::perms::all);
        setenv("MERLOW_RUN_DIR", (m_folder + "/unit").c_str(), 1);
        setenv("MERLOW_GROUP", std::to_string(unitGroup).c_str(), 1);
        start("first"); // the folder is root's
        mnet_exit();
    }
    std::optional<Child> peer;
    if (row().peer != Peer::none) {
        peer.emplace([isMember] {
            if (isMember) {
                becomeMember();
            }
            serve("peer");
        });
        // It is there when its name is.
        const mnet_mbox_id_t mine = start("before");
        ASSERT_NE(find("peer"), MNET_MBOX_NONE);
        EXPECT_NE(mine, MNET_MBOX_NONE);
        mnet_exit();
    }
    const auto state = [this, &peer] {
        removeKept();
        return std::pair{openDescriptors(), peer ? std::size_t{0} : files()};
    };
    const std::size_t failures = shortage::failEachOnce(row().run, state);
    EXPECT_GT(failures, 10U);
    if (peer) {
        start("after");
        EXPECT_EQ(send(find("peer"), leave), 0);
        peer->finish();
    }
}

const MnetShortageRow mnetShortageRows[] = {{"alone", alone, Peer::none},
                                            {"inAGroup", inAGroup, Peer::none},
                                            {"withMember", withMember, Peer::member},
                                            {"withPeer", withPeer, Peer::own},
                                            {"withOneThatDies", withOneThatDies, Peer::none}};
TEST_ROWS(Each, MnetShortageTest, mnetShortageRows);

} // namespace
} // namespace mnet::test
