/// A SQLite database of a neighbour.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace merlow::board {

/// A change that was carried out outlives the process and a loss of power: it stands in the write-ahead log,
/// flushed, before `execute` or `step` gives. Nothing waits: what another connection has locked fails.
/// One thread.
class SqliteDatabase {
public:
    /// Lives in the process's memory alone.
    static constexpr const char* inMemory = ":memory:";

    SqliteDatabase() = default;
    ~SqliteDatabase();
    SqliteDatabase(const SqliteDatabase&) = delete;
    SqliteDatabase& operator=(const SqliteDatabase&) = delete;

    /// Opens the database at `path`, with the access rights of the unit's files, and makes it when there is
    /// none. False leaves it as it is; `reason` tells why, whatever failed last.
    [[nodiscard]] bool open(const std::string& path);
    /// Opens what is there, to read as much of it as can be read: neither it nor its write-ahead log changes.
    [[nodiscard]] bool openToRead(const std::string& path);
    /// Undoes a change that was begun. No statement may be left.
    void close();
    [[nodiscard]] bool isOpen() const { return m_database != nullptr; }

    /// Whether its content is what it should be; takes as long as reading all of it.
    [[nodiscard]] bool isSound();

    /// One or more statements that give nothing.
    [[nodiscard]] bool execute(const char* sql);
    /// Makes `tables` in a database that is empty, and keeps `layout` in its user_version, all of it or
    /// nothing once it is closed. False also for one of another layout, or with other tables.
    [[nodiscard]] bool useLayout(int layout, const char* tables);

    /// Why the last operation failed, for people.
    [[nodiscard]] const std::string& reason() const { return m_reason; }
    /// Whether it did because the file is no database, or a damaged one.
    [[nodiscard]] bool isDamaged() const { return m_isDamaged; }
    /// The file is no longer the one at the path that was opened.
    [[nodiscard]] bool hasMoved() const;

    /// Has `reason` tell what its user finds wrong. Always false.
    bool fail(std::string reason);
    /// The same, of a database that is damaged.
    bool damaged(std::string finding);

    class Statement;

private:
    bool failed();
    void leaveWriteAheadLog();

    sqlite3* m_database = nullptr;
    std::string m_reason;
    bool m_isDamaged = false;
};

/// One statement, prepared and carried out once. Texts may hold any bytes.
class SqliteDatabase::Statement {
public:
    /// `database` lives longer.
    Statement(SqliteDatabase& database, const char* sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    /// In the order of the statement's question marks.
    Statement& bind(std::int64_t value);
    /// `text` lives longer than the statement.
    Statement& bind(std::string_view text);
    Statement& bindNull();

    /// True when there is a row to read. False at the end, and when something went wrong.
    [[nodiscard]] bool step();
    /// Carries out one that gives no rows; false when something went wrong.
    [[nodiscard]] bool run() { return !step() && isDone(); }
    /// Whether the last `step` came to the end without anything going wrong.
    [[nodiscard]] bool isDone() const { return m_isDone; }

    [[nodiscard]] std::int64_t number(int column) const;
    [[nodiscard]] std::string text(int column) const;
    [[nodiscard]] bool isNull(int column) const;

private:
    SqliteDatabase& m_database;
    sqlite3_stmt* m_statement = nullptr;
    int m_bound = 0;
    bool m_isDone = false;
};

} // namespace merlow::board
