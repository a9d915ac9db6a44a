/// The files of the software store, as the store's logic needs them. The daemon has a folder for them; the
/// tests cut each operation.
#pragma once

#include "message.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace merlow::board {

/// A file that is being written. Closed by the destructor.
class StoreFile {
public:
    virtual ~StoreFile() = default;

    /// Appends. Gives what went wrong, empty when nothing did.
    [[nodiscard]] virtual std::string write(BytesView bytes) = 0;
    /// Has what was written since the last call brought to the disk in the background, and waits for what
    /// that one began with: so that `sync` has little left to do. Promises nothing.
    [[nodiscard]] virtual std::string writeBack() = 0;
    /// What was written outlives a loss of power once this has succeeded.
    [[nodiscard]] virtual std::string sync() = 0;
};

/// One flat folder. What an operation gives as text is what went wrong, empty when nothing did.
class StoreFiles {
public:
    struct Listed {
        std::string name;
        std::uint64_t size;
    };

    virtual ~StoreFiles() = default;

    /// Where the files are, for people.
    virtual std::string place() const = 0;
    /// All of them, in any order.
    [[nodiscard]] virtual std::string list(std::vector<Listed>& files) = 0;
    /// The first `size` bytes of a file, fewer when it is shorter.
    [[nodiscard]] virtual std::string readStart(const std::string& name, std::size_t size, Bytes& start) = 0;
    /// An empty file in place of one of that name, if there is one. `file` stays null on failure.
    [[nodiscard]] virtual std::string create(const std::string& name, std::unique_ptr<StoreFile>& file) = 0;
    /// Replaces what stands under the name `to`.
    [[nodiscard]] virtual std::string rename(const std::string& from, const std::string& to) = 0;
    /// A file that is not there is no failure.
    [[nodiscard]] virtual std::string remove(const std::string& name) = 0;
    /// Names that were changed outlive a loss of power once this has succeeded.
    [[nodiscard]] virtual std::string syncFolder() = 0;
};

} // namespace merlow::board
