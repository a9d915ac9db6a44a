#include "fakeUnit.h"

#include "hex.h"
#include "mnetMsgPtr.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <gtest/gtest.h>

namespace merlow::tools {

namespace {

constexpr std::uint32_t stopNumber = 0x7000000;

/// Of what comes, so much is kept: a whole block of a load would cost a unit of the tests more time to write
/// down than it has to answer.
constexpr std::size_t maxBytesKept = 4096;

std::string answerTo(const std::string& request, const std::string& hex)
{
    if (hex.starts_with('=')) {
        return request.substr(0, 8) + hex.substr(1);
    }
    return hex.starts_with('@') ? request.substr(0, 20) + hex.substr(1) : hex;
}

} // namespace

std::vector<std::uint8_t> bytesOf(const std::string& hex)
{
    auto bytes = parseHex(hex);
    EXPECT_TRUE(bytes) << hex;
    return bytes.value_or(std::vector<std::uint8_t>{});
}

RunFolder::RunFolder()
{
    std::string path = std::filesystem::temp_directory_path() / "merlow-tools.XXXXXX";
    EXPECT_NE(mkdtemp(path.data()), nullptr);
    m_path = path;
    setenv("MERLOW_RUN_DIR", m_path.c_str(), 1);
    EXPECT_EQ(mnet_init(16, 0, nullptr, 0), 0);
}

RunFolder::~RunFolder()
{
    EXPECT_EQ(mnet_exit(), 0);
    std::filesystem::remove_all(m_path);
}

FakeUnit::FakeUnit(Answers answers, const char* name) : m_answers(std::move(answers))
{
    std::promise<void> ready;
    m_thread = std::thread([this, name, &ready] {
        const mnet_mbox_id_t mailbox = mnet_create_mailbox(name, 0);
        m_control = mnet_clone_mailbox(mailbox, nullptr);
        ready.set_value();
        serve(name, mailbox);
    });
    ready.get_future().wait();
    EXPECT_NE(m_control, MNET_MBOX_NONE);
}

FakeUnit::~FakeUnit()
{
    if (sendMsg(allocMsg(sizeof(mnet_msg), stopNumber), m_control, m_control) != 0) {
        ADD_FAILURE() << "The fake unit is out of reach.";
    }
    m_thread.join();
}

std::string FakeUnit::received(std::uint32_t number) const
{
    const std::lock_guard lock(m_mutex);
    const auto found = m_received.find(number);
    return found != m_received.end() ? found->second : std::string();
}

void FakeUnit::serve(const char* name, mnet_mbox_id_t mailbox)
{
    for (;;) {
        const MnetMsgPtr msg(mnet_receive(nullptr, -1, MNET_FROM_ANY));
        ASSERT_TRUE(msg);
        if (msg->msgNo == stopNumber) {
            if (mailbox != m_control) {
                mnet_delete_mailbox(mailbox);
            }
            mnet_delete_mailbox(m_control);
            return;
        }
        const auto* const start = reinterpret_cast<const std::uint8_t*>(msg.get());
        const std::size_t size = mnet_size(msg.get()) - sizeof(mnet_msg);
        const auto request = toHex({start + sizeof(mnet_msg), std::min(size, maxBytesKept)});
        {
            const std::lock_guard lock(m_mutex);
            m_received[msg->msgNo] = request;
        }
        if (msg->msgNo == goAway) {
            mnet_delete_mailbox(mailbox);
            mailbox = m_control;
        }
        auto& replies = m_answers[msg->msgNo];
        const auto next = std::find_if(replies.begin(), replies.end(),
                                       [](const Reply& reply) { return reply.number == nextTime; });
        const std::vector<Reply> now(replies.begin(), next);
        if (next != replies.end()) {
            replies.erase(replies.begin(), next + 1);
        }
        for (const Reply& reply : now) {
            if (reply.number == interrupt) {
                EXPECT_EQ(pthread_kill(m_maker, SIGINT), 0);
                continue;
            }
            if (reply.number == leave) {
                mnet_delete_mailbox(mailbox);
                mailbox = m_control;
                break;
            }
            if (reply.number == comeAgain) {
                mnet_delete_mailbox(mailbox);
                mailbox = mnet_clone_mailbox(m_control, name);
                break;
            }
            const auto bytes = bytesOf(answerTo(request, reply.hex));
            auto answer = allocMsg(sizeof(mnet_msg) + bytes.size(), reply.number);
            std::copy(bytes.begin(), bytes.end(),
                      reinterpret_cast<std::uint8_t*>(answer.get()) + sizeof(mnet_msg));
            // A client that has heard enough may be gone; the one that still waits fails by itself.
            static_cast<void>(sendMsg(std::move(answer), mnet_sender(msg.get()), mailbox));
        }
    }
}

} // namespace merlow::tools
