/// Fixtures around a whole unit that runs.
#pragma once

#include "client.h"
#include "unit.h"

#include <gtest/gtest.h>
#include <optional>

namespace merlow::test {

/// The unit's mailboxes are those of the test, which knows the server's public one.
class RunningUnitTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        startUnit();
        ASSERT_FALSE(HasFatalFailure());
        m_mailboxes.emplace(m_unit.runDir());
        m_server = locate("Merlow");
        ASSERT_NE(m_server, MNET_MBOX_NONE);
    }
    virtual void startUnit() { m_unit.start(); }

    Unit m_unit;
    std::optional<Mailboxes> m_mailboxes;
    mnet_mbox_id_t m_server = MNET_MBOX_NONE;
};

/// The test is a client that has a session.
class ConnectedClientTest : public RunningUnitTest {
protected:
    void SetUp() override
    {
        RunningUnitTest::SetUp();
        ASSERT_FALSE(HasFatalFailure());
        m_client.emplace(mnet_create_mailbox("du", 0));
        ASSERT_TRUE(m_client->connect(m_server, 1, 300));
    }

    std::optional<Client> m_client;
};

} // namespace merlow::test
