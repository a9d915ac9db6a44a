#include "controlClient.h"

#include "host.h"

#include <cerrno>
#include <cstring>
#include <mnet.h>
#include <runDir.h>
#include <system_error>

namespace merlow::board {

namespace {

using Clock = std::chrono::steady_clock;

/// Numbers of the notices that one call to ask() is told by; the target's index is added.
constexpr std::uint32_t foundNotice = 0x42440100;
constexpr std::uint32_t lostNotice = 0x42440200;

/// One round of questions, from the search for the targets to the last reply.
class Round {
public:
    Round(const std::vector<Target>& targets, const nlohmann::json& request, MailboxId ownMailbox)
        : m_request(request), m_ownMailbox(ownMailbox), m_open(targets.size()), m_replies(targets.size())
    {
        for (std::size_t index = 0; index < targets.size(); ++index) {
            mnet_msg* notice = mnet_alloc(sizeof(mnet_msg), foundNotice + numberOf(index));
            mnet_locate_async(targets[index].controlMailbox.c_str(), &notice, ownMailbox);
        }
    }

    bool isOver() const { return m_open == 0; }
    const std::vector<Reply>& replies() const { return m_replies; }

    void handle(const mnet_msg& msg)
    {
        const BytesView bytes(reinterpret_cast<const std::byte*>(&msg), mnet_size(&msg));
        if (mnet_is_notice(&msg) != 1) {
            handleAnswer(bytes);
        } else if (const auto found = msg.msgNo - foundNotice; found < m_replies.size()) {
            handleFound(found, mnet_sender(&msg));
        } else if (const auto lost = msg.msgNo - lostNotice; lost < m_replies.size()) {
            finish(lost);
        }
    }

private:
    static std::uint32_t numberOf(std::size_t index) { return static_cast<std::uint32_t>(index); }

    void handleFound(std::size_t index, MailboxId mailbox)
    {
        m_replies[index].state = Reply::State::noAnswer;
        mnet_msg* notice = mnet_alloc(sizeof(mnet_msg), lostNotice + numberOf(index));
        mnet_monitor(mailbox, &notice);
        const Bytes request = encodeControl(controlRequest, numberOf(index), m_request);
        mnet_msg* msg = mnet_alloc(request.size(), controlRequest);
        if (msg == nullptr) {
            finish(index);
            return;
        }
        std::memcpy(msg, request.data(), request.size());
        if (mnet_send(&msg, mailbox, m_ownMailbox) != 0) {
            finish(index);
        }
    }

    void handleAnswer(BytesView bytes)
    {
        const auto message = decodeControl(bytes, controlAnswer);
        const auto answer = message ? answerFromJson(message->body) : std::nullopt;
        if (answer && message->ref < m_replies.size() &&
            m_replies[message->ref].state == Reply::State::noAnswer) {
            m_replies[message->ref] = {Reply::State::answered, *answer};
            --m_open;
        }
    }

    /// No answer will come from this one.
    void finish(std::size_t index)
    {
        if (m_replies[index].state == Reply::State::noAnswer && !m_finished.contains(index)) {
            m_finished.insert(index);
            --m_open;
        }
    }

    const nlohmann::json& m_request;
    MailboxId m_ownMailbox;
    std::size_t m_open;
    std::vector<Reply> m_replies;
    std::set<std::size_t> m_finished;
};

} // namespace

ControlClient::~ControlClient()
{
    if (m_mailbox != noMailbox) {
        mnet_exit();
    }
}

std::string ControlClient::open()
{
    if (mnet_init(1, 0, nullptr, 0) == 0) {
        m_mailbox = mnet_create_mailbox(nullptr, 0);
    }
    if (m_mailbox == MNET_MBOX_NONE) {
        return "the run-time folder " + base::runDirPath() +
               " cannot be used: " + std::generic_category().message(errno);
    }
    return "";
}

std::vector<Reply> ControlClient::ask(const std::vector<Target>& targets, const nlohmann::json& request,
                                      std::chrono::milliseconds timeout)
{
    using std::chrono::milliseconds;
    Round round(targets, request, m_mailbox);
    const auto deadline = Clock::now() + timeout;
    while (!round.isOver()) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
        if (left <= milliseconds::zero()) {
            break;
        }
        const MessagePtr msg(mnet_receive(nullptr, static_cast<int>(left.count()), MNET_FROM_ANY));
        if (msg) {
            round.handle(*msg);
        }
    }
    return round.replies();
}

} // namespace merlow::board
