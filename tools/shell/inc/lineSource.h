/// Where a session's commands come from: a pipe or file, or a person at a terminal.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace merlow::tools {

/// Something to serve while nobody types.
struct Watch {
    int fd;
    std::function<bool()> onReadable; ///< false: there is no point in more lines
};

class LineSource {
public:
    virtual ~LineSource() = default;
    /// The next line without its newline; nothing at the end of the input or when the watch gave up.
    [[nodiscard]] virtual std::optional<std::string> next() = 0;
};

/// Lines of at most 1 MiB from `fd`, which stays open; a longer one ends the input.
std::unique_ptr<LineSource> makePipeSource(int fd, Watch watch);

struct Terminal {
    const char* program; ///< whose settings of the line editor count
    const char* prompt;
    std::vector<std::string> commands; ///< what the tabulator completes
};

/// Standard input with line editing, history and completion of command names. Null when the terminal does
/// not support it.
std::unique_ptr<LineSource> makeTerminalSource(Terminal terminal, Watch watch);

/// Waits until `fd` or the watched descriptor is readable and serves the watch. False when the watch gave up
/// or the wait failed; else whether `fd` is readable is in `isReadable`.
bool waitServing(int fd, const Watch& watch, bool& isReadable);

} // namespace merlow::tools
