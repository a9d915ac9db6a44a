/// Owners of mailbox messages, so that no early return leaks one.
#pragma once

#include "mnet.h"

#include <cstddef>
#include <cstdint>
#include <memory>

struct MnetMsgFree {
    void operator()(mnet_msg* msg) const { mnet_free(&msg); }
};

/// The one owner of a message that is being built, held or passed on.
using MnetMsgPtr = std::unique_ptr<mnet_msg, MnetMsgFree>;

/// A zeroed message of `size` bytes; empty when there is no memory for it or it is too large.
[[nodiscard]] inline MnetMsgPtr allocMsg(std::size_t size, std::uint32_t msgNo)
{
    return MnetMsgPtr(mnet_alloc(size, msgNo));
}

/// Gives `msg` to the mailbox library. 0 when it is on its way, else negative; the message is gone anyway.
inline int sendMsg(MnetMsgPtr msg, mnet_mbox_id_t to, mnet_mbox_id_t from)
{
    mnet_msg* raw = msg.release();
    return raw == nullptr ? -1 : mnet_send(&raw, to, from);
}
