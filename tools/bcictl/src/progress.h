/// How far something long has come.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace merlow::bcictl {

/// "64.0 MiB"; below 1 KiB "100 bytes".
std::string sizeText(std::uint64_t bytes);

/// "128.0 MiB/s"; "-" when no time has passed.
std::string rateText(std::uint64_t bytes, std::chrono::milliseconds elapsed);

/// A bar with percent, bytes, rate and the time that is left at that rate. `total` is not 0.
std::string progressText(std::uint64_t done, std::uint64_t total, std::chrono::milliseconds elapsed);

} // namespace merlow::bcictl
