/// The outside of a neighbour in a test's memory. Messages are written and read as text: the number, then the
/// bytes behind it in groups of four, "0170772e 00000064 00000001 0801".
#pragma once

#include "message.h"
#include "outbox.h"
#include "service.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace merlow::board::test {

/// The message that `text` spells, in a heap block of exactly its size.
class HeapMessage {
public:
    explicit HeapMessage(BytesView bytes)
        : m_size(bytes.size()), m_bytes(std::make_unique<std::byte[]>(bytes.size()))
    {
        std::copy(bytes.begin(), bytes.end(), m_bytes.get());
    }

    BytesView bytes() const { return {m_bytes.get(), m_size}; }

private:
    std::size_t m_size;
    std::unique_ptr<std::byte[]> m_bytes;
};

inline Bytes messageFrom(const std::string& text)
{
    Bytes bytes;
    putHost32(bytes, *parseNumber("0x" + text.substr(0, 8)));
    putBytes(bytes, *bytesFromHex(text.substr(8)));
    return bytes;
}

inline std::string textOf(BytesView bytes)
{
    constexpr const char* digits = "0123456789abcdef";
    std::string text;
    const std::uint32_t number = host32At(bytes, 0).value_or(0);
    for (int shift = 28; shift >= 0; shift -= 4) {
        text += digits[number >> shift & 0xFU];
    }
    for (std::size_t index = 4; index < bytes.size(); ++index) {
        if (index % 4 == 0) {
            text += ' ';
        }
        text += digits[std::to_integer<unsigned>(bytes[index]) >> 4U];
        text += digits[std::to_integer<unsigned>(bytes[index]) & 0xFU];
    }
    return text;
}

struct Sent {
    MailboxId from;
    MailboxId to;
    std::string text;
    std::int64_t delayMs = 0;

    bool operator==(const Sent&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Sent& sent)
{
    return out << hex(sent.from) << "->" << hex(sent.to) << " after " << sent.delayMs << ": " << sent.text;
}

class FakeOutbox : public Outbox {
public:
    void send(MailboxId from, MailboxId to, BytesView message) override
    {
        sent.push_back({from, to, textOf(message)});
    }

    void sendBack(const Received& received) override
    {
        ++sentBack;
        sent.push_back({received.receiver, received.sender, textOf(received.bytes)});
    }

    void sendAfter(std::chrono::milliseconds delay, MailboxId from, MailboxId to, Bytes message) override
    {
        sent.push_back({from, to, textOf(message), delay.count()});
    }

    [[nodiscard]] std::chrono::milliseconds now() const override { return m_now; }

    [[nodiscard]] bool runAfter(std::chrono::milliseconds delay, std::function<void()> action) override
    {
        if (canDelay) {
            m_actions.emplace(m_now + delay, std::move(action));
        }
        return canDelay;
    }

    /// How many actions wait for their time.
    std::size_t dueActions() const { return m_actions.size(); }

    /// Lets the board's clock go on, and what is due happen.
    void advance(std::chrono::milliseconds time)
    {
        const auto end = m_now + time;
        while (!m_actions.empty() && m_actions.begin()->first <= end) {
            const auto due = m_actions.extract(m_actions.begin());
            m_now = due.key();
            due.mapped()();
        }
        m_now = end;
    }

    void ask(const std::string& name, BytesView request) override
    {
        asked.emplace_back(name, textOf(request));
    }

    void end(int exitStatus) override { ends.push_back(exitStatus); }

    [[nodiscard]] bool watch(MailboxId mailbox) override
    {
        watched.insert(mailbox);
        return canWatch;
    }

    [[nodiscard]] MailboxId reopenMailbox(MailboxId mailbox) override
    {
        reopened.push_back(mailbox);
        return nextMailbox;
    }

    [[nodiscard]] bool logs(LogLevel /*level*/) const override { return logsOn; }

    void log(LogLevel level, const char* /*file*/, unsigned /*line*/, const std::string& text) override
    {
        logged.emplace_back(level, text);
    }

    /// What was sent since the last call.
    std::vector<Sent> takeSent() { return std::exchange(sent, {}); }

    /// The text of the one message that was sent since the last call; what is wrong otherwise.
    std::string takeOne()
    {
        const auto messages = takeSent();
        return messages.size() == 1 ? messages.front().text
                                    : std::to_string(messages.size()) + " messages instead of one";
    }

    /// Texts of the abnormal lines since the last call.
    std::vector<std::string> takeAbnormal()
    {
        std::vector<std::string> texts;
        for (const auto& [level, text] : std::exchange(logged, {})) {
            if (level == LogLevel::abnormal) {
                texts.push_back(text);
            }
        }
        return texts;
    }

    std::vector<Sent> sent;
    std::vector<std::pair<std::string, std::string>> asked;
    std::vector<int> ends; ///< exit statuses with which the process was to end
    int sentBack = 0;
    std::set<MailboxId> watched;
    std::vector<MailboxId> reopened;
    bool canWatch = true;
    bool canDelay = true;
    bool logsOn = true;
    MailboxId nextMailbox = 0x900;
    std::vector<std::pair<LogLevel, std::string>> logged;

private:
    std::chrono::milliseconds m_now{0};
    std::multimap<std::chrono::milliseconds, std::function<void()>> m_actions;
};

} // namespace merlow::board::test
