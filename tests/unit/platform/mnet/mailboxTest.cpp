/// Mailboxes, their ids and names, and the life of the library in a process.
#include "mnetFixture.h"

#include <set>
#include <vector>

namespace mnet::test {
namespace {

using MailboxTest = MnetTest;

TEST_F(MailboxTest, initialisesOnceAndAfreshAfterExit)
{
    EXPECT_EQ(mnet_create_mailbox("early", 0), MNET_MBOX_NONE);
    EXPECT_EQ(errno, ENOTCONN);
    const std::size_t before = openDescriptors();
    const mnet_mbox_id_t first = start("name");
    EXPECT_EQ(mnet_init(1, 0, "elsewhere", 0), -2);
    EXPECT_EQ(mnet_exit(), 0);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(mnet_exit(), -1);
    EXPECT_EQ(mnet_current_mbox(), MNET_MBOX_NONE);
    EXPECT_EQ(mnet_delete_mailbox(first), -1);
    EXPECT_EQ(mnet_unmonitor(1), -1);
    const mnet_mbox_id_t second = start("name");
    EXPECT_NE(second, first);
    EXPECT_EQ(send(second, 5), 0);
    EXPECT_EQ(receive().number(), 5u);
}

TEST_F(MailboxTest, messagesAreTakenWhateverTheResult)
{
    const mnet_mbox_id_t mine = start("mine");
    const std::string longName(201, 'x');
    const std::function<void(mnet_msg**)> failing[] = {
        [&](mnet_msg** msg) { EXPECT_EQ(mnet_send(msg, mine + 1, mine), -1); },
        [&](mnet_msg** msg) { EXPECT_EQ(mnet_send(msg, mine, mine + 1), -1); },
        [&](mnet_msg** msg) { EXPECT_EQ(mnet_locate_async(nullptr, msg, mine), -1); },
        [&](mnet_msg** msg) { EXPECT_EQ(mnet_locate_async(longName.c_str(), msg, mine), -1); },
        [&](mnet_msg** msg) { EXPECT_EQ(mnet_locate_async("name", msg, mine + 1), -1); },
        [&](mnet_msg** msg) { EXPECT_EQ(mnet_monitor(0, msg), MNET_MBOX_NONE); },
        [&](mnet_msg** msg) {
            EXPECT_EQ(mnet_exit(), 0);
            EXPECT_EQ(mnet_monitor(mine, msg), MNET_MBOX_NONE);
        },
        [&](mnet_msg** msg) { EXPECT_EQ(mnet_locate_async("name", msg, mine), -1); },
        [&](mnet_msg** msg) { EXPECT_EQ(mnet_send(msg, mine, mine), -1); },
    };
    for (const auto& call : failing) {
        mnet_msg* msg = mnet_alloc(8, 1);
        ASSERT_NE(msg, nullptr);
        call(&msg);
        EXPECT_EQ(msg, nullptr);
    }
}

TEST_F(MailboxTest, argumentsThatMeanNothingAreRefused)
{
    EXPECT_EQ(mnet_init(1, 1, nullptr, 0), -1);
    EXPECT_EQ(mnet_init(1, 0, nullptr, 1), -1);
    EXPECT_EQ(mnet_init(1, 0, "../outside", 0), -1);
    EXPECT_EQ(mnet_init(1, 0, "/outside", 0), -1);
    setenv("MERLOW_RUN_DIR", "/proc/nowhere", 1);
    EXPECT_EQ(mnet_init(1, 0, nullptr, 0), -1);
    setenv("MERLOW_RUN_DIR", m_folder.c_str(), 1);
    start();
    EXPECT_EQ(mnet_create_mailbox("flags", 1), MNET_MBOX_NONE);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(MailboxTest, exitLeavesNothingInTheFolderThatSomebodyTripsOver)
{
    start("one");
    mnet_create_mailbox("two/three", 0);
    EXPECT_EQ(mnet_exit(), 0);
    EXPECT_TRUE(std::filesystem::is_empty(m_folder + "/mnet/names"));
    for (const auto& entry : std::filesystem::directory_iterator(m_folder + "/mnet/ep")) {
        EXPECT_FALSE(std::filesystem::is_socket(entry)) << entry;
    }
}

TEST_F(MailboxTest, aNameIsTakenOnce)
{
    const mnet_mbox_id_t first = start("name");
    EXPECT_EQ(mnet_create_mailbox("name", 0), MNET_MBOX_NONE);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(mnet_clone_mailbox(first, "name"), MNET_MBOX_NONE);
    EXPECT_EQ(errno, EEXIST);
    Gate refused;
    Child other([&] {
        start("other");
        EXPECT_EQ(mnet_create_mailbox("name", 0), MNET_MBOX_NONE);
        EXPECT_EQ(errno, EEXIST);
    });
    other.finish();
    EXPECT_EQ(mnet_delete_mailbox(first), 0);
    EXPECT_NE(mnet_create_mailbox("name", 0), MNET_MBOX_NONE);
}

TEST_F(MailboxTest, anyBytesMakeAName)
{
    start();
    std::string all;
    for (int c = 1; c < 256; ++c) {
        all.push_back(static_cast<char>(c));
    }
    const std::string names[] = {"/",
                                 "//",
                                 "..",
                                 ".",
                                 "../../etc",
                                 "a/b",
                                 "@",
                                 "%",
                                 "~1.1",
                                 all.substr(0, 200),
                                 all.substr(55),
                                 std::string(200, '/'),
                                 std::string(199, '/'),
                                 std::string(200, '\xff'),
                                 "a",
                                 "A",
                                 "\n"};
    std::set<mnet_mbox_id_t> ids;
    for (const auto& name : names) {
        const mnet_mbox_id_t id = mnet_create_mailbox(name.c_str(), 0);
        ASSERT_NE(id, MNET_MBOX_NONE) << name << " " << strerror(errno);
        EXPECT_TRUE(ids.insert(id).second);
        EXPECT_EQ(find(name), id) << name;
        EXPECT_EQ(mnet_create_mailbox(name.c_str(), 0), MNET_MBOX_NONE);
        EXPECT_EQ(errno, EEXIST);
    }
    EXPECT_EQ(mnet_create_mailbox(std::string(201, 'x').c_str(), 0), MNET_MBOX_NONE);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(mnet_locate_async("", nullptr, mnet_current_mbox()), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(mnet_locate_async(std::string(201, 'x').c_str(), nullptr, mnet_current_mbox()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(MailboxTest, roomEndsWhereInitSaysSo)
{
    const mnet_mbox_id_t first = start("one", 3);
    EXPECT_NE(mnet_create_mailbox("", 0), MNET_MBOX_NONE);
    const mnet_mbox_id_t third = mnet_clone_mailbox(first, nullptr);
    EXPECT_NE(third, MNET_MBOX_NONE);
    EXPECT_EQ(mnet_create_mailbox("four", 0), MNET_MBOX_NONE);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(mnet_delete_mailbox(third), 0);
    EXPECT_NE(mnet_create_mailbox("four", 0), MNET_MBOX_NONE);
    EXPECT_EQ(mnet_clone_mailbox(first, "five"), MNET_MBOX_NONE);
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(MailboxTest, theOldestLiveMailboxIsTheThreadsOwn)
{
    const mnet_mbox_id_t first = start("one");
    const mnet_mbox_id_t clone = mnet_clone_mailbox(first, "two");
    const mnet_mbox_id_t third = mnet_create_mailbox("three", 0);
    EXPECT_EQ(mnet_current_mbox(), first);
    EXPECT_EQ(mnet_delete_mailbox(first), 0);
    EXPECT_EQ(mnet_current_mbox(), clone);
    EXPECT_EQ(send(clone, 7), 0); // a clone outlives its parent
    EXPECT_EQ(receive().receiver(), clone);
    EXPECT_EQ(mnet_delete_mailbox(clone), 0);
    EXPECT_EQ(mnet_current_mbox(), third);
    EXPECT_EQ(mnet_clone_mailbox(clone, "four"), MNET_MBOX_NONE);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(mnet_delete_mailbox(third), 0);
    EXPECT_EQ(mnet_current_mbox(), MNET_MBOX_NONE);
    EXPECT_EQ(mnet_delete_mailbox(third), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(MailboxTest, onlyTheOwningThreadClones)
{
    const mnet_mbox_id_t first = start("one");
    std::thread([&] {
        EXPECT_EQ(mnet_clone_mailbox(first, "two"), MNET_MBOX_NONE);
        EXPECT_EQ(errno, EPERM);
    }).join();
}

TEST_F(MailboxTest, idsComeBackLate)
{
    start("stays");
    std::vector<mnet_mbox_id_t> first(65535); // with the one that stays, all that a thread has
    std::set<mnet_mbox_id_t> seen;
    for (mnet_mbox_id_t& id : first) {
        id = mnet_create_mailbox(nullptr, 0);
        ASSERT_TRUE(seen.insert(id).second);
        ASSERT_NE(id, 0u);
        ASSERT_EQ(mnet_delete_mailbox(id), 0);
    }
    for (std::size_t i = 0; i < 100; ++i) { // from here on the least recently used
        const mnet_mbox_id_t id = mnet_create_mailbox(nullptr, 0);
        ASSERT_EQ(id, first[i]);
        ASSERT_EQ(mnet_delete_mailbox(id), 0);
    }
}

TEST_F(MailboxTest, idsOfProcessesThatComeAndGoComeBackLate)
{
    std::set<mnet_mbox_id_t> seen;
    for (int i = 0; i < 300; ++i) {
        ASSERT_TRUE(seen.insert(start("same")).second) << i;
        ASSERT_EQ(mnet_exit(), 0);
    }
}

TEST_F(MailboxTest, foldersWithLongNamesWork)
{
    const std::string deep = m_folder + "/" + std::string(150, 'd') + "/" + std::string(150, 'e');
    setenv("MERLOW_RUN_DIR", deep.c_str(), 1);
    Gate done;
    Child peer([&] {
        start("peer");
        EXPECT_EQ(receive().number(), 1u);
        done.open();
    });
    start();
    EXPECT_EQ(send(find("peer"), 1), 0);
    EXPECT_TRUE(done.pass());
    peer.finish();
    EXPECT_TRUE(std::filesystem::exists(deep + "/mnet/names"));
}

TEST_F(MailboxTest, twoFoldersNeverSeeEachOther)
{
    setenv("MERLOW_RUN_DIR", (m_folder + "/a").c_str(), 1);
    Gate there;
    Gate end;
    Child a([&] {
        start("name");
        there.open();
        EXPECT_TRUE(end.pass());
    });
    ASSERT_TRUE(there.pass());
    setenv("MERLOW_RUN_DIR", (m_folder + "/b").c_str(), 1);
    start("name"); // the same name, another unit
    EXPECT_EQ(mnet_locate_async("unknown here", nullptr, mnet_current_mbox()), 0);
    EXPECT_EQ(find("name"), mnet_current_mbox());
    end.open();
    a.finish();
}

TEST_F(MailboxTest, aNameSpaceIsASubFolder)
{
    Gate there;
    Gate end;
    Child plain([&] {
        start("name");
        there.open();
        EXPECT_TRUE(end.pass());
    });
    ASSERT_TRUE(there.pass());
    ASSERT_EQ(mnet_init(5, 0, "space", 0), 0);
    EXPECT_NE(mnet_create_mailbox("name", 0), MNET_MBOX_NONE);
    EXPECT_EQ(find("name"), mnet_current_mbox());
    EXPECT_TRUE(std::filesystem::exists(m_folder + "/space/mnet/names/@name"));
    end.open();
    plain.finish();
}

TEST_F(MailboxTest, filesAreForTheUserAlone)
{
    start("name");
    for (const auto& entry : std::filesystem::recursive_directory_iterator(m_folder + "/mnet")) {
        const auto rights = entry.status().permissions();
        EXPECT_EQ(rights & (std::filesystem::perms::group_all | std::filesystem::perms::others_all),
                  std::filesystem::perms::none)
            << entry;
    }
}

TEST_F(MailboxTest, aForkedChildHasNothingOfItsParents)
{
    const mnet_mbox_id_t mine = start("mine");
    ASSERT_EQ(send(mine, 1), 0);
    Message held(8, 9);
    Child child([&] {
        EXPECT_EQ(mnet_current_mbox(), MNET_MBOX_NONE);
        EXPECT_EQ(mnet_create_mailbox("child", 0), MNET_MBOX_NONE);
        EXPECT_EQ(mnet_clone_mailbox(mine, "child"), MNET_MBOX_NONE);
        EXPECT_EQ(mnet_alloc(4, 1), nullptr);
        EXPECT_EQ(mnet_get_fd(), -1);
        EXPECT_EQ(mnet_receive(nullptr, 0, MNET_FROM_ANY), nullptr);
        EXPECT_EQ(mnet_send(held.give(), mine, mine), -1);
        EXPECT_EQ(mnet_delete_mailbox(mine), -1);
        EXPECT_EQ(mnet_monitor(mine, nullptr), MNET_MBOX_NONE);
        EXPECT_EQ(mnet_unmonitor(1), -1);
        EXPECT_EQ(mnet_locate_async("mine", nullptr, mine), -1);
        EXPECT_EQ(mnet_exit(), -1);
        const mnet_mbox_id_t own = start("child");
        EXPECT_NE(own, mine);
        EXPECT_EQ(find("mine"), mine);
        EXPECT_EQ(send(mine, 2), 0);
        EXPECT_EQ(receive().number(), 3u);
    });
    EXPECT_EQ(receive().number(), 1u);
    const Message hello = receive();
    EXPECT_EQ(hello.number(), 2u);
    EXPECT_EQ(send(hello.sender(), 3), 0);
    child.finish();
}

TEST_F(MailboxTest, aChildThatGoesOnDoesNotHideTheDeathOfItsParent)
{
    Gate there;
    Gate forked;
    Gate end;
    start();
    Child parent([&] {
        start("parent");
        there.open();
        const Message hello = receive(); // a connection each way before the fork
        EXPECT_EQ(send(hello.sender(), 2), 0);
        if (fork() == 0) {
            forked.open();
            end.pass();
            _exit(0);
        }
        receive();
    });
    ASSERT_TRUE(there.pass());
    const mnet_mbox_id_t other = find("parent");
    ASSERT_NE(mnet_monitor(other, nullptr), MNET_MBOX_NONE);
    ASSERT_EQ(send(other, 1), 0);
    EXPECT_EQ(receive().number(), 2u);
    ASSERT_TRUE(forked.pass());
    parent.kill();
    const Message notice = receive();
    EXPECT_TRUE(notice.isNotice());
    EXPECT_EQ(notice.sender(), other);
    EXPECT_NE(mnet_create_mailbox("parent", 0), MNET_MBOX_NONE);
    end.open();
}

} // namespace
} // namespace mnet::test
