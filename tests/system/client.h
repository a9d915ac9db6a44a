/// A client of the unit in the test's own process: speaks in bytes, so that what it sends and gets is
/// compared with what stands in the test and nothing else.
#pragma once

#include "process.h"

#include <cstdint>
#include <mnet.h>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace merlow::test {

/// Bytes from hexadecimal digits; white space is free.
std::vector<std::uint8_t> bytes(std::string_view hex);

/// The mailbox library of the test's process, in the run-time folder of one unit.
class Mailboxes {
public:
    explicit Mailboxes(const std::string& runDir);
    ~Mailboxes();
    Mailboxes(const Mailboxes&) = delete;
    Mailboxes& operator=(const Mailboxes&) = delete;
};

/// Waits for the mailbox `name`; `MNET_MBOX_NONE` when it does not come in time.
mnet_mbox_id_t locate(const std::string& name, milliseconds limit = patience);

class Client {
public:
    explicit Client(mnet_mbox_id_t mailbox) : m_mailbox(mailbox) {}
    ~Client() { close(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    [[nodiscard]] mnet_mbox_id_t mailbox() const { return m_mailbox; }

    /// Sends `number` (host order) followed by the bytes of `rest` to `to`.
    [[nodiscard]] int send(mnet_mbox_id_t to, std::uint32_t number, std::string_view rest) const;

    /// The next signal with `number` for this mailbox, as "sender" and bytes behind the number in
    /// hexadecimal. Signals for other clients of the thread stay queued.
    [[nodiscard]] std::optional<std::string> receive(std::uint32_t number, milliseconds limit = patience);

    /// Who sent what `receive` gave last.
    [[nodiscard]] mnet_mbox_id_t lastSender() const { return m_lastSender; }

    /// Connects with these references at revision 3 and gives the server's reference, or nothing.
    [[nodiscard]] std::optional<std::int32_t> connect(mnet_mbox_id_t server, std::int32_t clientRef,
                                                      std::int32_t serverRef);
    void close();

private:
    mnet_mbox_id_t m_mailbox;
    mnet_mbox_id_t m_lastSender = MNET_MBOX_NONE;
};

} // namespace merlow::test
