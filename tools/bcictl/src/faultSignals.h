/// Faults as the unit indicates them, and as bcictl shows them.
#pragma once

#include "bciClient.h"
#include "output.h"

#include <cstdint>
#include <optional>
#include <string>

namespace merlow::bcictl {

/// One raise or cease.
struct FaultEvent {
    bool isRaise;
    std::uint16_t faultId;
    std::uint16_t faultCase;
    std::string description; ///< of a raise
    TarnNodeCommonAddressInfoS references;
};

/// Nothing for a signal that is none of the two, or shorter than its layout.
std::optional<FaultEvent> decodeFault(const tools::Signal& signal);

/// The name of a fault by its id, "UNKNOWN_FAULT" for one that has none.
std::string faultName(std::uint16_t faultId);

/// As it happens: with the time.
void tellFaultEvent(tools::Output& output, const FaultEvent& event);
/// As one of a list.
void tellActiveFault(tools::Output& output, const FaultEvent& event);

} // namespace merlow::bcictl
