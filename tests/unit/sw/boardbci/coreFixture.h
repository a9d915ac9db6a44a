/// The server's core in one thread: its real main object with components that record what they are told, and
/// virtual clients, strangers and a legacy server around it.
#pragma once

#include "fakeLoop.h"
#include "fakeMnet.h"
#include "fakeSway.h"
#include "fakeTrace.h"
#include "merlowCommonData.h"
#include "merlowComponent.h"
#include "merlowImpl.h"
#include "mnetMessageSubscriptionCustom.h"
#include "wire.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace core {

using support::FakeLoop;
using support::FakeMnet;
using support::Traces;

/// An empty platform before each test, and afterwards no message that was neither sent nor freed.
class InMemoryTest : public ::testing::Test {
protected:
    InMemoryTest()
    {
        MnetMessageSubscriptionCustom::reset();
        FakeMnet::instance().reset();
        FakeLoop::instance().reset();
        support::FakeSway::instance().reset();
        Traces::instance().reset();
    }
    ~InMemoryTest() override
    {
        MnetMessageSubscriptionCustom::reset();
        EXPECT_EQ(mnet().heldMessages(), 0U) << "Messages were neither sent nor freed";
        mnet().reset();
        FakeLoop::instance().reset();
    }

    static FakeMnet& mnet() { return FakeMnet::instance(); }
    static FakeLoop& loop() { return FakeLoop::instance(); }
    static Traces& traces() { return Traces::instance(); }

    static ::testing::AssertionResult traced(unsigned int level, const std::string& text)
    {
        if (traces().count(level, text) == 1) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure()
               << traces().count(level, text) << " times \"" << text << "\" at level " << level << " in\n"
               << traces().dump();
    }
    static std::vector<std::string> rushlog()
    {
        std::vector<std::string> lines;
        for (const auto& line : traces().rushlog()) {
            EXPECT_EQ(line.category, "RadioApplication,RadioBoardCtrl");
            lines.push_back(line.text);
        }
        return lines;
    }
};

/// A process with one mailbox.
class Peer {
public:
    explicit Peer(const char* name = nullptr) : m_process(FakeMnet::instance().newProcess())
    {
        const FakeMnet::As self(m_process);
        m_mbox = mnet_create_mailbox(name, 0);
    }
    [[nodiscard]] mnet_mbox_id_t mbox() const { return m_mbox; }
    /// Sends the bytes in one block of exactly their size and pumps until the server is idle.
    void sendBytes(const support::Bytes& bytes, mnet_mbox_id_t to) const
    {
        const FakeMnet::As self(m_process);
        mnet_msg* msg = mnet_alloc(bytes.size(), 0);
        std::memcpy(msg, bytes.data(), bytes.size());
        EXPECT_EQ(mnet_send(&msg, to, m_mbox), 0) << "The peer could not send";
        FakeLoop::instance().pumpUntilIdle();
    }
    void send(const std::string& hex, mnet_mbox_id_t to) const
    {
        sendBytes(support::messageFromHex(hex), to);
    }
    struct Letter {
        std::string hex;
        mnet_mbox_id_t from = MNET_MBOX_NONE;
    };
    /// The oldest message; an empty text when there is none.
    [[nodiscard]] Letter receive() const
    {
        const FakeMnet::As self(m_process);
        mnet_msg* msg = mnet_receive(nullptr, 0, MNET_FROM_ANY);
        if (msg == nullptr) {
            return {};
        }
        support::Bytes bytes(mnet_size(msg));
        std::memcpy(bytes.data(), msg, bytes.size());
        Letter letter{.hex = support::messageToHex(bytes), .from = mnet_sender(msg)};
        mnet_free(&msg);
        return letter;
    }
    void die() const
    {
        FakeMnet::instance().killProcess(m_process);
        FakeLoop::instance().pumpUntilIdle();
    }

private:
    FakeMnet::Process m_process;
    mnet_mbox_id_t m_mbox{MNET_MBOX_NONE};
};

/// What happened to the components, in order: "a.init", "b.lost DU_0".
using Diary = std::vector<std::string>;

class SpyComponent : public MerlowComponent {
public:
    SpyComponent(MerlowCommonData& commonData, std::string name, Diary& diary)
        : MerlowComponent(commonData), m_name(std::move(name)), m_diary(diary)
    {
    }
    ~SpyComponent() override { m_diary.push_back(m_name + ".gone"); }

    bool init() override
    {
        EXPECT_TRUE(m_sendConnCfm && m_checkComponents) << "The callbacks come before init";
        m_diary.push_back(m_name + ".init");
        if (onInit) {
            onInit();
        }
        return initResult;
    }
    void onBcSessionLost(const BcSession& session) override
    {
        EXPECT_EQ(m_commonData.getClientSession(session.mailboxId), &session) << "Gone too early";
        m_diary.push_back(m_name + ".lost " + session.getMboxName());
        if (onLost) {
            onLost();
        }
    }
    void onServerThreadExiting() override
    {
        EXPECT_NE(m_commonData.getPrivateMbox(), MNET_MBOX_NONE) << "Told too late";
        m_diary.push_back(m_name + ".exiting");
    }
    void onNewBcSession(const BcSession& session) override
    {
        m_diary.push_back(m_name + ".new " + session.getMboxName());
    }
    [[nodiscard]] bool isReadyToPublish() const override
    {
        m_diary.push_back(m_name + ".ready?");
        return ready;
    }
    [[nodiscard]] std::string getComponentName() const override { return m_name; }

    bool becomeReady()
    {
        ready = true;
        return m_checkComponents();
    }
    void releaseConfirm(BcSession& session) const { m_sendConnCfm(session); }

    bool ready = true;
    bool initResult = true;
    std::function<void()> onInit;
    std::function<void()> onLost;

private:
    std::string m_name;
    Diary& m_diary;
};

/// A server with the components "a" and "b".
class CoreTest : public InMemoryTest {
protected:
    CoreTest()
        : m_impl(std::make_unique<MerlowImpl>([this](MerlowCommonData& commonData) {
              MerlowImpl::Components components;
              components.push_back(std::make_unique<SpyComponent>(commonData, "a", m_diary));
              components.push_back(std::make_unique<SpyComponent>(commonData, "b", m_diary));
              m_a = static_cast<SpyComponent*>(components[0].get());
              m_b = static_cast<SpyComponent*>(components[1].get());
              return components;
          }))
    {
    }

    /// The thread's way into the loop, on this thread.
    void startUp()
    {
        ASSERT_EQ(m_impl->startUp(), MerlowImpl::SUCCESS);
        clearRecords();
    }
    void publish()
    {
        startUp();
        m_legacy.emplace("LegacyMerlow");
        loop().pumpUntilIdle();
        ASSERT_NE(publicMbox(), MNET_MBOX_NONE);
        clearRecords();
    }
    void clearRecords()
    {
        m_diary.clear();
        traces().clear();
    }
    /// A client whose request has reached the legacy server.
    Peer requestingClient()
    {
        Peer client;
        client.send("01658000 00000007 0000012c 0003", publicMbox());
        m_lastClone = m_legacy->receive().from;
        return client;
    }
    /// A client whose connection the legacy server has confirmed with 310; the confirm is held.
    Peer confirmedClient()
    {
        Peer client = requestingClient();
        m_legacy->send("01658001 00000007 00000136", m_lastClone);
        return client;
    }

    MerlowCommonData& data() { return m_impl->getCommonData(); }
    mnet_mbox_id_t publicMbox() { return data().getPublicMbox(); }
    mnet_mbox_id_t privateMbox() { return data().getPrivateMbox(); }
    BcSession* sessionOf(const Peer& client) { return data().getClientSession(client.mbox()); }
    static std::string hex(std::uint32_t value)
    {
        std::ostringstream text;
        text << std::hex << value;
        return text.str();
    }

    Diary m_diary;
    SpyComponent* m_a = nullptr;
    SpyComponent* m_b = nullptr;
    std::unique_ptr<MerlowImpl> m_impl;
    std::optional<Peer> m_legacy;
    mnet_mbox_id_t m_lastClone = MNET_MBOX_NONE; ///< of the client that was made last
};

} // namespace core
