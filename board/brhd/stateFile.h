/// A text in a file of the run-time folder.
#pragma once

#include "stateStore.h"

namespace merlow::board {

/// A process that dies at any moment leaves the old text or the new one: a new text is written beside the old
/// one, flushed, and moved over it. One process at a time may use a file.
class StateFile : public StateStore {
public:
    /// `name` is that of the file, without a folder.
    explicit StateFile(std::string name);

    std::string place() const override;
    Loaded load() override;
    [[nodiscard]] std::string save(const std::string& text) override;

private:
    std::string m_name;
};

} // namespace merlow::board
