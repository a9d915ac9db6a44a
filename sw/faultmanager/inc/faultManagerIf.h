#pragma once

#include "faultData.h"

#include <functional>
#include <string>

namespace Merlow {

/// Where the faults of all producers meet: they raise and remove, one consumer hears what clients are to see.
///
/// Server thread only.
class __attribute__((visibility("default"))) FaultManagerIf {
public:
    /// The mailbox value with which the consumer serves all subscribers.
    static constexpr unsigned int ALL_SUBSCRIBERS = 0xFFFFFFFF;

    /// `raised` gets each fault to show and for which mailbox, `ceased` each one that is over. They replace
    /// an earlier pair: there is one consumer. They are called from within the operations below, which they
    /// must not call themselves.
    virtual void
    subscribeForFaultNotifications(const std::function<void(Merlow::FaultData, unsigned int)>& raised,
                                   const std::function<void(Merlow::FaultData)>& ceased) = 0;
    /// False when the fault was refused. A repeated raise of an id is counted, its data dropped. A link error
    /// becomes a software error, also in the caller's record.
    virtual bool addFault(Merlow::FaultData& data) = 0;
    /// Takes one raise of the id back; the last one ends the fault.
    virtual void removeFault(unsigned short faultId) = 0;
    /// Raises what is shown now once more, for this mailbox only.
    virtual void sendActiveFaults(unsigned int mbox) = 0;
    /// The name of the id, or "UNKNOWN FAULT".
    [[nodiscard]] virtual std::string getIwdFaultIdString(unsigned short faultId) = 0;
    /// The name and the number: "NAME (0x705)".
    [[nodiscard]] virtual std::string traceIwdFaultId(unsigned short faultId) = 0;
    virtual ~FaultManagerIf() = default;

    FaultManagerIf() = default;
    FaultManagerIf(const FaultManagerIf&) = delete;
    FaultManagerIf& operator=(const FaultManagerIf&) = delete;
};

} // namespace Merlow
