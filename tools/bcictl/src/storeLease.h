/// The unit's software store while a command works on it.
#pragma once

#include "bciCommand.h"

#include <optional>
#include <string>

namespace merlow::bcictl {

/// The one resource that clients lock.
constexpr std::uint16_t storeResource = 1;

/// Why a step of a procedure did not work.
struct StepFailure {
    std::uint32_t sent; ///< the signal of the step
    tools::Failure failure;
};

/// "STEP: what went wrong".
StepFailure failedStep(const char* step, std::uint32_t sent, tools::Failure failure);
tools::ExitStatus tell(Output& output, const StepFailure& failure);

/// Waits for its turn and takes the store. One that is not granted in time is given back.
[[nodiscard]] std::optional<StepFailure> acquireStore(tools::BciClient& client);
[[nodiscard]] std::optional<StepFailure> releaseStore(tools::BciClient& client);

/// Acquires the store for one command, unless its session holds it already, and gives it back.
class StoreLease {
public:
    explicit StoreLease(tools::BciClient& client) : m_client(client) {}
    /// Gives the store back in silence if `release` was not called: something else went wrong before.
    ~StoreLease();
    StoreLease(const StoreLease&) = delete;
    StoreLease& operator=(const StoreLease&) = delete;

    [[nodiscard]] std::optional<StepFailure> acquire();
    [[nodiscard]] std::optional<StepFailure> release();
    /// Whether this command acquired the store, and is to give it back.
    [[nodiscard]] bool isOurs() const { return m_isOurs; }

private:
    tools::BciClient& m_client;
    bool m_isOurs = false;
};

} // namespace merlow::bcictl
