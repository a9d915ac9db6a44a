#include "client.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace merlow::test {

namespace {

struct Received {
    mnet_mbox_id_t sender = MNET_MBOX_NONE;
    mnet_mbox_id_t receiver = MNET_MBOX_NONE;
    std::uint32_t number = 0;
    std::string rest;
};

/// What came for one client while another one was asked.
std::vector<Received>& kept()
{
    static std::vector<Received> messages;
    return messages;
}

std::string hexOf(const mnet_msg& msg)
{
    const auto* data = reinterpret_cast<const std::uint8_t*>(&msg);
    std::string text;
    for (std::size_t i = sizeof(mnet_msg); i < mnet_size(&msg); ++i) {
        char digits[3];
        std::snprintf(digits, sizeof(digits), "%02x", data[i]);
        text += digits;
    }
    return text;
}

std::string number32(std::int32_t value)
{
    char digits[9];
    std::snprintf(digits, sizeof(digits), "%08x", static_cast<unsigned>(value));
    return digits;
}

} // namespace

std::vector<std::uint8_t> bytes(std::string_view hex)
{
    std::string digits;
    std::copy_if(hex.begin(), hex.end(), std::back_inserter(digits),
                 [](unsigned char c) { return std::isspace(c) == 0; });
    if (digits.size() % 2 != 0) {
        throw std::invalid_argument("half a byte");
    }
    std::vector<std::uint8_t> result;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        result.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return result;
}

Mailboxes::Mailboxes(const std::string& runDir)
{
    setenv("MERLOW_RUN_DIR", runDir.c_str(), 1);
    kept().clear();
    if (mnet_init(200, 0, nullptr, 0) != 0) {
        throw std::runtime_error("mnet_init failed");
    }
}

Mailboxes::~Mailboxes()
{
    mnet_exit();
}

mnet_mbox_id_t locate(const std::string& name, milliseconds limit)
{
    const mnet_mbox_id_t own = mnet_create_mailbox(nullptr, 0);
    mnet_msg* none = nullptr;
    mnet_locate_async(name.c_str(), &none, own);
    const std::uint32_t filter[] = {1, MNET_LOCATE_DEFAULT_MSGNO};
    mnet_msg* answer = mnet_receive(filter, static_cast<int>(limit.count()), MNET_FROM_ANY);
    const mnet_mbox_id_t found = answer != nullptr ? mnet_sender(answer) : MNET_MBOX_NONE;
    mnet_free(&answer);
    mnet_delete_mailbox(own);
    return found;
}

int Client::send(mnet_mbox_id_t to, std::uint32_t number, std::string_view rest) const
{
    const auto content = bytes(rest);
    mnet_msg* msg = mnet_alloc(sizeof(mnet_msg) + content.size(), number);
    std::copy(content.begin(), content.end(), reinterpret_cast<std::uint8_t*>(msg + 1));
    return mnet_send(&msg, to, m_mailbox);
}

std::optional<std::string> Client::receive(std::uint32_t number, milliseconds limit)
{
    const auto deadline = Clock::now() + limit;
    for (;;) {
        auto& messages = kept();
        const auto found = std::find_if(messages.begin(), messages.end(), [&](const Received& entry) {
            return entry.receiver == m_mailbox && entry.number == number;
        });
        if (found != messages.end()) {
            m_lastSender = found->sender;
            std::string rest = found->rest;
            messages.erase(found);
            return rest;
        }
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
        mnet_msg* msg = mnet_receive(nullptr, static_cast<int>(std::max<long>(left, 0)), MNET_FROM_ANY);
        if (msg == nullptr) {
            return std::nullopt;
        }
        messages.push_back({mnet_sender(msg), mnet_receiver(msg), msg->msgNo, hexOf(*msg)});
        mnet_free(&msg);
    }
}

std::optional<std::int32_t> Client::connect(mnet_mbox_id_t server, std::int32_t clientRef,
                                            std::int32_t serverRef)
{
    if (send(server, 0x1658000, number32(clientRef) + number32(serverRef) + "00030000") != 0) {
        return std::nullopt;
    }
    const auto confirm = receive(0x1658001);
    if (!confirm || confirm->size() != 16 || confirm->substr(0, 8) != number32(clientRef)) {
        return std::nullopt;
    }
    return static_cast<std::int32_t>(std::stoul(confirm->substr(8), nullptr, 16));
}

void Client::close()
{
    if (m_mailbox != MNET_MBOX_NONE) {
        mnet_delete_mailbox(m_mailbox);
        m_mailbox = MNET_MBOX_NONE;
    }
}

} // namespace merlow::test
