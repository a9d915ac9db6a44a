#pragma once

#include "inventory.h"

struct sqlite3;
struct sqlite3_stmt;

namespace merlow::board {

/// The inventory as one SQLite database with a write-ahead log.
class SqliteInventory : public Inventory {
public:
    SqliteInventory() = default;
    ~SqliteInventory() override;
    SqliteInventory(const SqliteInventory&) = delete;
    SqliteInventory& operator=(const SqliteInventory&) = delete;

    /// Opens the database at `path`, and makes it when there is none. Gives what went wrong, empty when
    /// nothing did. A database that is none, or of another layout, is left as it is.
    [[nodiscard]] std::string open(const std::string& path);

    [[nodiscard]] std::string load(std::vector<StoredModule>& modules) override;
    [[nodiscard]] std::string put(const StoredModule& module) override;
    [[nodiscard]] std::string remove(std::uint32_t slot) override;
    [[nodiscard]] std::string setRunning(std::optional<std::uint32_t> slot) override;

private:
    class Statement;

    std::string execute(const char* sql);
    std::string reason() const;

    sqlite3* m_database = nullptr;
};

} // namespace merlow::board
