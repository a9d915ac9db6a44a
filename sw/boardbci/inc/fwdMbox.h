#pragma once

#include "mnet.h"

#include <string>

/// A session's clone of the private mailbox. The legacy server sees it as the sender of what the client
/// sends, and answers to it; since it is a clone, the answers arrive in the server thread's own queue.
///
/// Server thread only, but for the destructor, which may also run on the thread that ends the server.
class FwdMbox {
public:
    /// No mailbox yet: `start` makes it.
    FwdMbox(mnet_mbox_id_t parent, const std::string& name);
    ~FwdMbox();
    FwdMbox(const FwdMbox&) = delete;
    FwdMbox& operator=(const FwdMbox&) = delete;

    /// 0 when the clone exists now (or did before), 1 when it could not be made.
    [[nodiscard]] int start();
    /// Sends with the clone as sender and takes the message, whatever becomes of it. Always 0.
    int send(mnet_msg** msg, mnet_mbox_id_t to);
    /// Deletes the clone, if there is one. Always 0.
    int stop(bool force);

    /// `MNET_MBOX_NONE` until started.
    [[nodiscard]] mnet_mbox_id_t getMailbox() const { return m_mailbox; }
    [[nodiscard]] const std::string& getMboxName() const { return m_name; }

private:
    mnet_mbox_id_t m_parentMbox;
    std::string m_name;
    mnet_mbox_id_t m_mailbox{MNET_MBOX_NONE};
};
