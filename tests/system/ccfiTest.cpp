// Faults of another process of the unit, from ccfictl through the server to a client.

#include "client.h"
#include "unit.h"

#include <cstdio>
#include <gtest/gtest.h>

namespace merlow::test {
namespace {

/// TARN_BC_FAULT_IND behind its number: the id at offset 12, the text at 16, 144 bytes in all.
std::string faultInd(const std::string& refs, const std::string& id, const std::string& text)
{
    std::string rest = refs + id + "0000" + text;
    rest.resize(2 * (144 - 4), '0');
    return rest;
}

class CcfiTest : public ::testing::Test {
protected:
    void start()
    {
        m_unit.start();
        ASSERT_FALSE(HasFatalFailure());
        m_mailboxes.emplace(m_unit.runDir());
        m_server = locate("Merlow");
        ASSERT_NE(m_server, MNET_MBOX_NONE);
    }
    /// Gives the references of the subscription.
    std::string subscribe(Client& client) const
    {
        const auto serverRef = client.connect(m_server, 7, 300);
        EXPECT_TRUE(serverRef);
        char refs[17] = "";
        (void)std::snprintf(refs, sizeof(refs), "00000007%08x", static_cast<unsigned>(serverRef.value_or(0)));
        EXPECT_EQ(client.send(m_server, 0x165800A, refs), 0);
        EXPECT_EQ(client.receive(0x165800B), refs);
        return refs;
    }

    Unit m_unit;
    std::optional<Mailboxes> m_mailboxes;
    mnet_mbox_id_t m_server = MNET_MBOX_NONE;
};

TEST_F(CcfiTest, aForwardedFaultReachesASubscribedClient)
{
    start();
    Client client(mnet_create_mailbox("du", 0));
    const auto refs = subscribe(client);
    const auto raise = m_unit.ccfictl({"raise", "0x502", "--description", "link 3 is down"});
    EXPECT_EQ(raise.status, 0) << raise.err;
    EXPECT_EQ(raise.out, "fault 0x502 sent over server reference 0x1000\n");
    EXPECT_EQ(client.receive(0x165800D), faultInd(refs, "0502", "6c696e6b203320697320646f776e"));
    EXPECT_EQ(client.lastSender(), m_server);

    Client late(mnet_create_mailbox("late", 0));
    const auto lateRefs = subscribe(late);
    EXPECT_EQ(late.receive(0x165800D), faultInd(lateRefs, "0502", "6c696e6b203320697320646f776e"));

    const auto cease = m_unit.ccfictl({"cease", "0x502"});
    EXPECT_EQ(cease.out, "end of fault 0x502 sent over server reference 0x1001\n") << cease.err;
    const std::string end = "05020000000000000000000000000000";
    EXPECT_EQ(client.receive(0x165800E), refs + end);
    EXPECT_EQ(late.receive(0x165800E), lateRefs + end);
}

TEST_F(CcfiTest, theDeathOfAForwarderLeavesItsFault)
{
    start();
    Client client(mnet_create_mailbox("du", 0));
    const auto refs = subscribe(client);
    Process session("ccfictl", {"session"}, m_unit.environment());
    session.write("connect\nraise 0x521\n");
    EXPECT_EQ(client.receive(0x165800D), faultInd(refs, "0521", ""));
    session.kill();
    Client late(mnet_create_mailbox("late", 0));
    const auto lateRefs = subscribe(late);
    EXPECT_EQ(late.receive(0x165800D), faultInd(lateRefs, "0521", ""));
}

TEST_F(CcfiTest, aSessionEndsWithItsInputAndARefusalShowsItsText)
{
    start();
    const auto outcome = m_unit.ccfictl({"connect", "--rev", "2", "--rev", "3"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "ccfictl: connect: rejected, errorCode 1: protocol(s) not supported: 2 3\n");

    Process session("ccfictl", {"session", "--json"}, m_unit.environment());
    session.write("connect --client-ref 9\nclose\n");
    session.closeInput();
    EXPECT_EQ(session.wait(), 0) << session.err();
    EXPECT_EQ(session.out(),
              R"({"command":"connect","status":"done","sent":"CCFI_BC_CONN_ESTABLISH_REQ",)"
              R"("answer":"CCFI_BC_CONN_ESTABLISH_CFM","serverRef":4096,"clientRef":9,"revision":1})"
              "\n"
              R"({"command":"close","status":"done","sent":"CCFI_BC_CONN_CLOSE_REQ",)"
              R"("answer":"CCFI_BC_CONN_CLOSE_CFM","serverRef":4096,"clientRef":9})"
              "\n");
}

TEST_F(CcfiTest, faultsAreTakenBeforeThereIsAPublicMailbox)
{
    m_unit.startSwmd();
    m_unit.startMerlowd();
    const auto raise = m_unit.ccfictl({"raise", "0x300", "--timeout", "20"});
    EXPECT_EQ(raise.status, 0) << raise.err;
    m_unit.startLegacyd();
    m_unit.startBrhd();
    ASSERT_TRUE(m_unit.waitUntilItLetsClientsIn());
    m_mailboxes.emplace(m_unit.runDir());
    m_server = locate("Merlow");
    Client client(mnet_create_mailbox("du", 0));
    const auto refs = subscribe(client);
    EXPECT_EQ(client.receive(0x165800D), faultInd(refs, "0300", ""));
}

} // namespace
} // namespace merlow::test
