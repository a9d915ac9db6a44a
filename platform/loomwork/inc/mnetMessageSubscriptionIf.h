/// Handlers for mailbox messages by their number, as components and clients of a thread register them.
#pragma once

#include <functional>
#include <memory>

struct mnet_msg;

namespace Loomwork::MnetMessageSubscription::V1 {

/// One thread's table from message number to handler. Who implements it settles the return codes (0 is
/// done), and that its operations are for the owning thread alone. Nothing here throws on its own account.
class MnetMessageSubscriptionIf {
public:
    /// Serves the mailbox descriptor `fd` of the calling thread from its event loop. The descriptor stays the
    /// mailbox library's.
    virtual int monitorMnetFd(int fd) = 0;

    /// Keeps a copy of `handler` for `msgNo`; one that is there already stays. A handler shares the message,
    /// which is freed with the last copy of the pointer.
    virtual int addMsgHandler(unsigned int msgNo,
                              const std::function<void(const std::shared_ptr<mnet_msg>&)>& handler) = 0;
    virtual int removeMsgHandler(unsigned int msgNo) = 0;

    /// Copies the handler of `msgNo` into `out`, which is left alone when there is none.
    virtual int getMsgHandler(unsigned int msgNo,
                              std::function<void(const std::shared_ptr<mnet_msg>&)>& out) const = 0;

    virtual ~MnetMessageSubscriptionIf() = default;

    /// Replaces the handler for all other numbers. It owns the message that it is called with, and gives it
    /// to mnet_free or mnet_send.
    virtual int addDefaultHandler(const std::function<void(mnet_msg*)>& handler) = 0;
};

} // namespace Loomwork::MnetMessageSubscription::V1
