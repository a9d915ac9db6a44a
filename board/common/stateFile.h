/// A text in a file of the unit.
#pragma once

#include "stateStore.h"

#include <cstdint>

namespace merlow::board {

/// A process that dies at any moment leaves the old text or the new one: a new text is written beside the old
/// one, flushed, and moved over it. One process at a time may use a file.
class StateFile : public StateStore {
public:
    enum class Folder : std::uint8_t {
        runTime, ///< what outlives the process
        state,   ///< what outlives a loss of power as well
    };

    /// `name` is that of the file, without a folder.
    explicit StateFile(std::string name, Folder folder = Folder::runTime);

    std::string place() const override;
    Loaded load() override;
    [[nodiscard]] std::string save(const std::string& text) override;

private:
    int openFolder() const;
    bool replace(int folder, const std::string& text) const;

    std::string m_name;
    Folder m_folder;
};

} // namespace merlow::board
