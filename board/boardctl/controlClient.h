/// boardctl's side of the control protocol.
#pragma once

#include "control.h"

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace merlow::board {

/// A neighbour that can be asked.
struct Target {
    std::string program;        ///< "brhd"
    std::string controlMailbox; ///< "BrhdControl"
};

struct Reply {
    enum class State : std::uint8_t {
        notFound, ///< no such neighbour runs in the run-time folder
        noAnswer, ///< it took the request, and the time ran out or it ended
        answered,
    };

    State state = State::notFound;
    ControlAnswer answer; ///< when `answered`
};

/// A mailbox of the calling thread, from construction to destruction.
class ControlClient {
public:
    ControlClient() = default;
    ~ControlClient();
    ControlClient(const ControlClient&) = delete;
    ControlClient& operator=(const ControlClient&) = delete;

    /// What stands against the use of the run-time folder; empty when it could be opened.
    std::string open();

    /// Asks all `targets` the same at once, and waits until each has answered or `timeout` is over. The
    /// replies are in the order of the targets.
    std::vector<Reply> ask(const std::vector<Target>& targets, const nlohmann::json& request,
                           std::chrono::milliseconds timeout);

private:
    MailboxId m_mailbox = noMailbox;
};

} // namespace merlow::board
