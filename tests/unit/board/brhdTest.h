/// brhd in memory, with a client at one mailbox and whoever else a test makes up.
#pragma once

#include "brhd.h"
#include "control.h"
#include "fakeOutbox.h"
#include "fakeStateStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace merlow::board::test {

constexpr MailboxId briMailbox = 0x10;
constexpr MailboxId bmmiMailbox = 0x11;
constexpr MailboxId client = 0x20;
constexpr MailboxId stranger = 0x30;

class BrhdTest : public testing::Test {
protected:
    BrhdTest() : BrhdTest(Brhd::Config{}) {}

    explicit BrhdTest(Brhd::Config config)
        : m_brhd(
              std::move(config), [this] { return m_time * 1000 + 789; },
              {m_store, m_restartStore, m_carriedOutStore, SqliteDatabase::inMemory}, m_outbox)
    {
        m_brhd.attach("BriServer", briMailbox);
        m_brhd.attach("BmmiServer", bmmiMailbox);
    }

    void receive(MailboxId server, MailboxId sender, BytesView bytes)
    {
        const HeapMessage message(bytes);
        m_brhd.receive({sender, server, message.bytes()});
    }

    void receive(MailboxId server, MailboxId sender, const std::string& text)
    {
        receive(server, sender, messageFrom(text));
    }

    /// What the server answers the client.
    std::string ask(MailboxId server, const std::string& text)
    {
        receive(server, client, text);
        return m_outbox.takeOne();
    }

    /// Has the server do `action` to the next answer of `kind`.
    ControlAnswer plan(const std::string& action, const std::string& kind, nlohmann::json more = {})
    {
        nlohmann::json request{{"command", "plan"}, {"action", action}, {"kind", kind}};
        if (more.is_object()) {
            request.update(more);
        }
        return serveControl(m_brhd, request);
    }

    nlohmann::json statusAt(const char* pointer) const
    {
        return m_brhd.status().at(nlohmann::json::json_pointer(pointer));
    }

    void expectSilence(const std::string& logged)
    {
        EXPECT_THAT(m_outbox.takeSent(), testing::IsEmpty());
        EXPECT_THAT(m_outbox.takeAbnormal(), testing::ElementsAre(testing::HasSubstr(logged)));
    }

    std::int64_t m_time = 1'000'000;
    FakeStateStore m_store;
    FakeStateStore m_restartStore;
    FakeStateStore m_carriedOutStore;
    FakeOutbox m_outbox;
    Brhd m_brhd;
};

} // namespace merlow::board::test
