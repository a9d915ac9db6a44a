/// What the software store knows of its modules, kept over the death of its process.
#pragma once

#include "loadModule.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace merlow::board {

struct StoredModule {
    /// In the numbering of the SWM interface.
    enum class Type : std::uint8_t { application = 0, boot = 1, preinstalled = 2 };
    enum class Status : std::uint8_t { valid = 0, empty = 1, erasing = 2, writing = 3 };
    enum class Access : std::uint8_t { readOnly = 0, readWrite = 1 };

    std::uint32_t slot = 0; ///< from 1; 0 for the preinstalled module
    loadmodule::SoftwareId id;
    Type type = Type::application;
    std::uint64_t size = 0; ///< of its file
    Status status = Status::writing;
    Access access = Access::readWrite;
    bool running = false;

    bool operator==(const StoredModule&) const = default;
};

/// One entry for each slot that is in use. Each operation is carried out wholly or not at all, and outlives a
/// loss of power once it has succeeded; it gives what went wrong, empty when nothing did.
class Inventory {
public:
    virtual ~Inventory() = default;

    /// All entries, by slot.
    [[nodiscard]] virtual std::string load(std::vector<StoredModule>& modules) = 0;
    /// In place of what the slot held.
    [[nodiscard]] virtual std::string put(const StoredModule& module) = 0;
    [[nodiscard]] virtual std::string remove(std::uint32_t slot) = 0;
    /// The module of this slot runs, and no other; nothing for none.
    [[nodiscard]] virtual std::string setRunning(std::optional<std::uint32_t> slot) = 0;
};

} // namespace merlow::board
