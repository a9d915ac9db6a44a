/// A process that forwards its faults to the unit.
#pragma once

#include "ccfiRecords.h"
#include "unitClient.h"

#include <vector>

namespace merlow::ccfictl {

/// One mailbox with any number of connections. Requests carry procedure references from 1 on.
class Forwarder : public tools::UnitClient {
public:
    struct Offer {
        std::uint32_t clientRef = 1;
        std::vector<std::uint32_t> revisions{CCFI_PROTOCOL_REVISION};
    };

    explicit Forwarder(std::chrono::milliseconds timeout);

    /// A new connection, which the next signals may go over.
    [[nodiscard]] Answer connect(const Offer& offer);
    /// Waits for the confirm; a connection that the unit does not know gets none.
    [[nodiscard]] Answer close(std::uint32_t serverRef);
    /// Closes what this client has open; the unit has then handled all that went before. Nothing when the
    /// unit is lost.
    [[nodiscard]] std::optional<tools::Failure> closeAll();

    /// The unit answers neither of them. Procedure reference and number are filled in; the label is sent with
    /// its terminator.
    [[nodiscard]] std::optional<tools::Failure> raise(CcfiBcFaultFwdS fault, const std::string& hwFaultLabel);
    [[nodiscard]] std::optional<tools::Failure> cease(CcfiBcFaultceaseFwdS fault);

    /// Server references of the connections that this client opened and did not close, the newest last.
    [[nodiscard]] const std::vector<std::uint32_t>& connections() const { return m_connections; }

private:
    std::vector<std::uint32_t> m_connections;
    std::uint32_t m_procedureRef = 0;
};

} // namespace merlow::ccfictl
