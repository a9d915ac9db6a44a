/// The process around a neighbour: mailboxes, event loop, timers, signals, control requests.
#pragma once

#include "delayQueue.h"
#include "outbox.h"
#include "service.h"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mnet.h>
#include <set>
#include <string>

namespace merlow::board {

struct FreeMessage {
    void operator()(mnet_msg* msg) const { mnet_free(&msg); }
};
using MessagePtr = std::unique_ptr<mnet_msg, FreeMessage>;

/// Tells on stderr and in the remote log why `program` cannot work. Gives its exit status, 1.
int failToStart(const std::string& program, const std::string& text);

/// Runs a service on the calling thread until SIGTERM or SIGINT.
///
/// The control mailbox is the first and stays to the end, so that it is the thread's own one, to which the
/// notices of watched mailboxes come, whatever becomes of the others.
class Host : public Outbox {
public:
    /// Blocks the signals that end the process, for all threads that start from here on. The board's clock
    /// runs `clockSpeed` times as fast as the system's.
    explicit Host(unsigned clockSpeed = 1);
    ~Host() override;
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    /// The exit status: 0 after a signal; the one that the service asked for; 1, with a line on stderr, when
    /// the service could not be given or not be kept up.
    int run(Service& service);

    void send(MailboxId from, MailboxId to, BytesView message) override;
    void sendBack(const Received& received) override;
    void sendAfter(std::chrono::milliseconds delay, MailboxId from, MailboxId to, Bytes message) override;
    [[nodiscard]] std::chrono::milliseconds now() const override;
    [[nodiscard]] bool runAfter(std::chrono::milliseconds delay, std::function<void()> action) override;
    void ask(const std::string& name, BytesView request) override;
    void end(int exitStatus) override;
    [[nodiscard]] bool watch(MailboxId mailbox) override;
    [[nodiscard]] MailboxId reopenMailbox(MailboxId mailbox) override;
    [[nodiscard]] bool logs(LogLevel level) const override;
    void log(LogLevel level, const char* file, unsigned line, const std::string& text) override;

private:
    struct Delayed {
        MailboxId from;
        MailboxId to;
        Bytes message;
    };

    bool openMailboxes();
    bool openDescriptors();
    void fail(const std::string& text);
    void handleMailboxes();
    void handleNotice();
    void handleControl(const Received& received);
    void handleSignal();

    const unsigned m_clockSpeed;
    const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
    Service* m_service = nullptr;
    int m_signalFd = -1;
    MailboxId m_control = noMailbox;
    std::map<MailboxId, std::string> m_mailboxes; ///< of the service
    std::set<MailboxId> m_watched;
    DelayQueue<Delayed> m_delayed{[this](Delayed due) {
        send(due.from, due.to, due.message);
    }};
    DelayQueue<std::function<void()>> m_actions{[](const std::function<void()>& action) {
        action();
    }};
    MessagePtr m_inHand; ///< what is being handled, until it is sent back
    int m_exitStatus = 0;
};

} // namespace merlow::board
