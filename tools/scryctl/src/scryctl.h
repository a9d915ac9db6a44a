/// What scryctl does: shows and changes the trace levels of the running processes of a unit.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>

namespace merlow::scryctl {

enum class ExitStatus { done = 0, failed = 1, usage = 2 };

/// What `set` changes; what is absent stays as it is.
struct Changes {
    std::string process;                        ///< a name, NAME.PID, or a process id
    std::optional<std::uint32_t> processLevels; ///< the switch for objects stays on if it is
    std::optional<std::uint32_t> objectLevels;
    std::string object; ///< the one object that `objectLevels` is for; empty for all, those to come included
    std::optional<bool> objectsOn;
};

/// All live processes to `out`: a block of text for each, or a JSON object a line.
ExitStatus list(bool json, std::ostream& out, std::ostream& err);

/// Changes the levels of one process, and nothing when that isn't one process, or the object isn't there.
ExitStatus set(const Changes& changes, std::ostream& err);

} // namespace merlow::scryctl
