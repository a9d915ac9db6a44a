#include "sqliteInventory.h"

#include <utility>

namespace merlow::board {

namespace {

using Statement = SqliteDatabase::Statement;

/// Of the table below.
constexpr int layout = 1;

constexpr const char* tables = "CREATE TABLE module ("
                               "slot INTEGER PRIMARY KEY, number TEXT NOT NULL, revision TEXT NOT NULL, "
                               "type TEXT NOT NULL, size INTEGER NOT NULL, status TEXT NOT NULL, "
                               "access TEXT NOT NULL, running INTEGER NOT NULL) STRICT";

struct EnumText {
    int value;
    const char* text;
};

// The names of the SWM interface, so that who reads the database understands it.
constexpr EnumText types[] = {{0, "AUAPPLIC"}, {1, "AUBOOT"}, {2, "PREINSTALLED"}};
constexpr EnumText statuses[] = {{0, "VALID"}, {1, "EMPTY"}, {2, "ERASING"}, {3, "WRITING"}};
constexpr EnumText accesses[] = {{0, "READ_ONLY"}, {1, "READ_WRITE"}};

template <class Enum, std::size_t size> const char* textOf(const EnumText (&table)[size], Enum value)
{
    return table[static_cast<std::size_t>(value)].text;
}

template <class Enum, std::size_t size>
bool valueOf(const EnumText (&table)[size], const std::string& text, Enum& value)
{
    for (const EnumText& row : table) {
        if (text == row.text) {
            value = static_cast<Enum>(row.value);
            return true;
        }
    }
    return false;
}

} // namespace

std::string SqliteInventory::open(const std::string& path)
{
    return outcome(m_database.open(path) && m_database.isSound() && m_database.useLayout(layout, tables));
}

std::string SqliteInventory::load(std::vector<StoredModule>& modules)
{
    modules.clear();
    Statement read(m_database, "SELECT slot, number, revision, type, size, status, access, running "
                               "FROM module ORDER BY slot");
    while (read.step()) {
        StoredModule module;
        const std::int64_t slot = read.number(0);
        module.slot = static_cast<std::uint32_t>(slot);
        module.id = {read.text(1), read.text(2)};
        module.size = static_cast<std::uint64_t>(read.number(4));
        module.running = read.number(7) != 0;
        if (slot != module.slot || read.number(4) < 0 || !valueOf(types, read.text(3), module.type) ||
            !valueOf(statuses, read.text(5), module.status) ||
            !valueOf(accesses, read.text(6), module.access)) {
            return "the entry of slot " + std::to_string(slot) + " has values that are none";
        }
        modules.push_back(std::move(module));
    }
    return outcome(read.isDone());
}

std::string SqliteInventory::put(const StoredModule& module)
{
    Statement write(m_database, "INSERT OR REPLACE INTO module VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
    write.bind(module.slot)
        .bind(module.id.number)
        .bind(module.id.revision)
        .bind(textOf(types, module.type))
        .bind(static_cast<std::int64_t>(module.size))
        .bind(textOf(statuses, module.status))
        .bind(textOf(accesses, module.access))
        .bind(module.running ? 1 : 0);
    return outcome(write.run());
}

std::string SqliteInventory::remove(std::uint32_t slot)
{
    Statement write(m_database, "DELETE FROM module WHERE slot = ?");
    write.bind(slot);
    return outcome(write.run());
}

std::string SqliteInventory::setRunning(std::optional<std::uint32_t> slot)
{
    Statement write(m_database, "UPDATE module SET running = (slot = ?)");
    write.bind(slot ? std::int64_t{*slot} : -1);
    return outcome(write.run());
}

/// What an operation gives that went well, or did not.
std::string SqliteInventory::outcome(bool isDone) const
{
    return isDone ? "" : m_database.reason();
}

} // namespace merlow::board
