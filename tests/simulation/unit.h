#pragma once

#include "fakeMnet.h"
#include "signal.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

class MerlowCommonData;
class MerlowImpl;
class MerlowSwmi;

namespace sim {

/// One thing for the server to handle.
struct Event {
    bool isSwmi = false; ///< a frame of the SWM server; else a mailbox message
    mnet_mbox_id_t sender = MNET_MBOX_NONE;
    mnet_mbox_id_t receiver = MNET_MBOX_NONE;
    bool isNotice = false; ///< of the mailbox library
    Bytes bytes;
    std::uint32_t number = 0;
};

/// One thing that the server did.
struct Output {
    mnet_mbox_id_t to = MNET_MBOX_NONE;
    mnet_mbox_id_t from = MNET_MBOX_NONE;
    bool arrives = false;
    Bytes bytes;
};

/// What came of an event.
struct Outcome {
    std::vector<Output> messages;
    std::vector<std::vector<std::uint8_t>> swmiFrames;
    std::string exception; ///< that left the handler
};

/// The server's process, with all its components, one event at a time.
class Unit {
public:
    Unit();
    ~Unit();
    Unit(const Unit&) = delete;
    Unit& operator=(const Unit&) = delete;

    /// The server's result code.
    int start(Outcome& outcome);
    /// Ends without a message, as when the thread is cancelled.
    void end();
    [[nodiscard]] bool isUp() const { return m_impl != nullptr; }
    /// Sends the message that asks the server to end.
    void requestStop();
    /// The request to end was handled: the thread is to leave its loop.
    [[nodiscard]] bool hasStopped() const;

    [[nodiscard]] bool hasMessage() const;
    [[nodiscard]] bool hasSwmiFrame() const;
    /// The event that `handle` takes next.
    [[nodiscard]] Event nextMessage() const;
    [[nodiscard]] Event nextSwmiFrame() const;
    [[nodiscard]] Outcome handle(bool swmi);

    [[nodiscard]] MerlowCommonData& data() const;
    [[nodiscard]] std::size_t numSwmiRecords() const;

private:
    template <class Call> Outcome observe(const Call& call);

    std::unique_ptr<MerlowImpl> m_impl;
    const MerlowSwmi* m_swmi = nullptr;
    int m_mnetFd = -1;
};

} // namespace sim
