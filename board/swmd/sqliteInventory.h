#pragma once

#include "inventory.h"
#include "sqliteDatabase.h"

namespace merlow::board {

/// The inventory as one SQLite database with a write-ahead log.
class SqliteInventory : public Inventory {
public:
    /// Opens the database at `path`, and makes it when there is none. Gives what went wrong, empty when
    /// nothing did. A database that is none, or of another layout, is left as it is.
    [[nodiscard]] std::string open(const std::string& path);

    [[nodiscard]] std::string load(std::vector<StoredModule>& modules) override;
    [[nodiscard]] std::string put(const StoredModule& module) override;
    [[nodiscard]] std::string remove(std::uint32_t slot) override;
    [[nodiscard]] std::string setRunning(std::optional<std::uint32_t> slot) override;

private:
    std::string outcome(bool isDone) const;

    SqliteDatabase m_database;
};

} // namespace merlow::board
