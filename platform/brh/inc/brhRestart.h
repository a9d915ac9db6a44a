/// The announcement of a restart to the board resource handler.
#pragma once

#include <string>

/// Keeps at most one announcement. All operations may be called on any thread; the object lives as long as
/// the process.
class __attribute__((visibility("default"))) BrhRestart {
public:
    static BrhRestart& getInstance();

    /// Announces a restart, in place of one that stands. `timeSource` is the reference of the UTC time source
    /// that the announcement's time comes from, `notifyValue` what is announced. Without a `reason` the
    /// result is false, `error` says why, and what stands is left alone; otherwise `error` is not touched.
    bool notifyRestart(unsigned int timeSource, unsigned int notifyValue, std::string reason,
                       std::string& error);

    /// Clears the announcement, if any.
    void reset();

    BrhRestart(const BrhRestart&) = delete;
    BrhRestart& operator=(const BrhRestart&) = delete;

private:
    BrhRestart() = default;
    ~BrhRestart() = default;
};
