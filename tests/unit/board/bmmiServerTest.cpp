#include "brhdTest.h"

namespace merlow::board::test {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

class BmmiServerTest : public BrhdTest {
protected:
    BmmiServerTest()
    {
        receive(bmmiMailbox, client, "01707570 00000065 00000065 0801");
        m_outbox.takeSent();
    }

    std::string ask(const std::string& text) { return BrhdTest::ask(bmmiMailbox, text); }
};

TEST_F(BmmiServerTest, announcesAllThree)
{
    EXPECT_EQ(ask("0170757d 00000005 00000001"), "0170757e 00000005 00000065 0a001200 1a00");
}

TEST_F(BmmiServerTest, everyUserHasItsOwnId)
{
    EXPECT_EQ(ask("01707580 00000002 00000001 0801"), "01707581 00000002 00000065 0801");
    EXPECT_EQ(ask("01707580 00000003 00000001 0800"), "01707581 00000003 00000065 0802");
    ASSERT_THAT(statusAt("/bmmi/users"), SizeIs(2));
    EXPECT_EQ(statusAt("/bmmi/users/0/priority"), "NORMAL");
    EXPECT_EQ(statusAt("/bmmi/users/1/priority"), "LOW");
}

TEST_F(BmmiServerTest, aUserWithoutAKnownPriorityIsRefused)
{
    for (const char* body : {"", "0802", "08ffffffff0f"}) {
        EXPECT_EQ(ask(std::string("01707580 00000002 00000001") + body), "01707582 00000002 00000065");
    }
    EXPECT_THAT(statusAt("/bmmi/users"), IsEmpty());
}

TEST_F(BmmiServerTest, unregistersWhatIsRegistered)
{
    ask("01707580 00000002 00000001 0801");
    EXPECT_EQ(ask("01707583 00000003 00000001 0801"), "01707584 00000003 00000065");
    EXPECT_THAT(statusAt("/bmmi/users"), IsEmpty());
    EXPECT_EQ(ask("01707583 00000004 00000001 0801"), "01707585 00000004 00000065");
}

TEST_F(BmmiServerTest, nothingIsWrongWithUnregisteringNothing)
{
    EXPECT_EQ(ask("01707583 00000003 00000001 0800"), "01707584 00000003 00000065");
    EXPECT_EQ(ask("01707583 00000003 00000001"), "01707584 00000003 00000065");
}

TEST_F(BmmiServerTest, anIdIsNotUsedAgainSoon)
{
    ask("01707580 00000002 00000001 0801");
    ask("01707583 00000003 00000001 0801");
    EXPECT_EQ(ask("01707580 00000004 00000001 0801"), "01707581 00000004 00000065 0802");
}

TEST_F(BmmiServerTest, whatAConnectionHeldEndsWithIt)
{
    ask("01707580 00000002 00000001 0801");
    m_brhd.mailboxGone(client);
    EXPECT_THAT(statusAt("/bmmi/users"), IsEmpty());

    receive(bmmiMailbox, client, "01707570 00000065 00000065 0801");
    m_outbox.takeSent();
    ask("01707580 00000002 00000002 0801");
    EXPECT_EQ(m_brhd.lose("bmmi", 2).result, ControlAnswer::Result::done);
    EXPECT_THAT(statusAt("/bmmi/users"), IsEmpty());
}

class BareBmmiTest : public BrhdTest {
protected:
    static Brhd::Config bare()
    {
        Brhd::Config config;
        config.board.description.bmmi = {false, true, false};
        return config;
    }

    BareBmmiTest() : BrhdTest(bare()) {}
};

TEST_F(BareBmmiTest, announcesWhatItsDescriptionSays)
{
    receive(bmmiMailbox, client, "01707570 00000064 00000064 0801");
    m_outbox.takeSent();
    EXPECT_EQ(ask(bmmiMailbox, "0170757d 00000005 00000001"), "0170757e 00000005 00000064 1200");
}

} // namespace
} // namespace merlow::board::test
