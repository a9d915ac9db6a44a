/// Where a neighbour keeps what has to outlive its process. The daemon has a file for it, the unit tests a
/// string.
#pragma once

#include <string>

namespace merlow::board {

class StateStore {
public:
    struct Loaded {
        std::string text;  ///< what was saved last; empty when nothing ever was
        std::string error; ///< why it cannot be read; empty when it can
    };

    virtual ~StateStore() = default;

    /// Where the text is, for people.
    virtual std::string place() const = 0;
    virtual Loaded load() = 0;
    /// Replaces the text, wholly or not at all. Gives what went wrong, empty when nothing did.
    [[nodiscard]] virtual std::string save(const std::string& text) = 0;
};

} // namespace merlow::board
