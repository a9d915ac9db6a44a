#include "hardwareLog.h"

#include "stateDir.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <numeric>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace merlow::board {

namespace {

using Statement = SqliteDatabase::Statement;

/// Of the tables below.
constexpr int layout = 1;

constexpr const char* tables =
    "CREATE TABLE entry (id INTEGER PRIMARY KEY, log INTEGER NOT NULL, label TEXT NOT NULL, "
    "serverRef INTEGER, text TEXT NOT NULL) STRICT; "
    "CREATE INDEX entryOfLog ON entry (log, id)";

/// Far above all numbers of entries that were ever counted. Behind the largest number that there is, SQLite
/// gives any that is free, and the order of the entries would be lost.
constexpr std::int64_t beyondCounting = std::int64_t{1} << 62U;

/// An entry takes its bytes and one more.
std::size_t roomOf(const std::string& entry)
{
    return entry.size() + 1;
}

/// A number, or none where there is none.
Statement& bindFrom(Statement& write, const Statement& row, int column)
{
    return row.isNull(column) ? write.bindNull() : write.bind(row.number(column));
}

} // namespace

HardwareLog::HardwareLog(std::string path, const HardwareLogDescription& budgets, Log& log)
    : m_path(std::move(path)), m_budgets(budgets), m_log(log)
{
}

void HardwareLog::begin()
{
    if (open()) {
        m_error.clear();
    }
}

bool HardwareLog::append(const Addition& addition)
{
    const std::size_t budget = m_budgets.budgetOf(addition.logId);
    const auto& entries = addition.entries;
    if (addition.label.size() > maxLabelSize) {
        return refuse("a label of " + std::to_string(addition.label.size()) + " bytes, at most " +
                      std::to_string(maxLabelSize) + " are kept");
    }
    // Else the request itself would drop some of what it has confirmed.
    const std::size_t room =
        std::accumulate(entries.begin(), entries.end(), std::size_t{0},
                        [](std::size_t sum, const std::string& entry) { return sum + roomOf(entry); });
    if (room > budget) {
        return refuse("it takes " + std::to_string(room) + " bytes, log " + std::to_string(addition.logId) +
                      " has " + std::to_string(budget));
    }
    if (!open()) {
        return false;
    }
    if (!m_database.execute("BEGIN IMMEDIATE") || !insert(addition) || !dropOldest(addition.logId) ||
        !m_database.execute("COMMIT")) {
        return failed();
    }
    m_error.clear();
    return true;
}

bool HardwareLog::insert(const Addition& addition)
{
    return std::all_of(addition.entries.begin(), addition.entries.end(), [&](const std::string& entry) {
        Statement write(m_database, "INSERT INTO entry (log, label, serverRef, text) VALUES (?, ?, ?, ?)");
        write.bind(addition.logId).bind(addition.label);
        if (addition.serverRef) {
            write.bind(*addition.serverRef);
        } else {
            write.bindNull();
        }
        write.bind(entry);
        return write.run();
    });
}

bool HardwareLog::dropOldest(std::uint32_t logId)
{
    // Counted from the newest, the first entry that the budget has no room for goes, and all before it.
    Statement drop(m_database,
                   "DELETE FROM entry WHERE log = ?1 AND id <= ("
                   "SELECT max(id) FROM ("
                   "SELECT id, sum(length(CAST(text AS BLOB)) + 1) OVER (ORDER BY id DESC) AS room "
                   "FROM entry WHERE log = ?1) WHERE room > ?2)");
    drop.bind(logId).bind(m_budgets.budgetOf(logId));
    return drop.run();
}

std::optional<std::vector<std::string>> HardwareLog::read(std::uint32_t logId)
{
    if (!open()) {
        return std::nullopt;
    }
    std::vector<std::string> entries;
    bool isWhole = false;
    {
        Statement select(m_database, "SELECT text FROM entry WHERE log = ? ORDER BY id");
        select.bind(logId);
        while (select.step()) {
            entries.push_back(select.text(0));
        }
        isWhole = select.isDone();
    }
    if (!isWhole) {
        failed();
        return std::nullopt;
    }
    m_error.clear();
    return entries;
}

bool HardwareLog::open()
{
    if (m_database.isOpen() && !m_database.hasMoved()) {
        return true;
    }
    m_database.close();
    if (isWriteAheadLogAlone()) { // an empty database beside it would have it deleted
        return replace("it is gone, and entries of it are in its write-ahead log");
    }
    return openOnce() || failed();
}

bool HardwareLog::openOnce()
{
    if (const int folder = openStateDir(""); folder >= 0) { // else the database has no place, and tells so
        close(folder);
    }
    return m_database.open(m_path) && m_database.isSound() && m_database.useLayout(layout, tables) &&
           isCounted();
}

/// Whether its entries have numbers to which it can go on counting.
bool HardwareLog::isCounted()
{
    Statement beyond(m_database, "SELECT count(*) FROM entry WHERE id >= ?");
    beyond.bind(beyondCounting);
    return beyond.step() && (beyond.number(0) == 0 || m_database.damaged("an entry has a number beyond all"));
}

bool HardwareLog::isWriteAheadLogAlone() const
{
    std::error_code noFile;
    const auto walSize = std::filesystem::file_size(m_path + "-wal", noFile);
    if (noFile || walSize == 0) {
        return false;
    }
    const auto size = std::filesystem::file_size(m_path, noFile);
    return noFile == std::errc::no_such_file_or_directory || (!noFile && size == 0);
}

/// Moves it aside and begins a new one. Always false: what was asked of the old one has failed.
bool HardwareLog::replace(const std::string& what)
{
    namespace fs = std::filesystem;
    std::string aside;
    std::error_code ignored;
    for (unsigned count = 1; aside.empty() && count <= maxDamaged; ++count) {
        const std::string name = m_path + ".damaged-" + std::to_string(count);
        if (!fs::exists(name, ignored) && !fs::exists(name + "-wal", ignored)) {
            aside = name;
        }
    }
    if (aside.empty()) {
        return fail(what + ", and as many as are kept lie beside it already");
    }
    // The write-ahead log goes first: beside a new database it would be taken for that one's.
    const auto isMoved = [](const std::string& from, const std::string& to) {
        return std::rename(from.c_str(), to.c_str()) == 0 || errno == ENOENT;
    };
    if (!isMoved(m_path + "-wal", aside + "-wal") || !isMoved(m_path, aside)) {
        return fail(what + " and cannot be moved aside: " + std::generic_category().message(errno));
    }
    fs::remove(m_path + "-shm", ignored);
    fail(what + "; it is kept as " + aside);
    const bool isBegun = openOnce() && salvage(aside);
    fs::remove(aside + "-shm", ignored);
    if (!isBegun) {
        const std::string reason = m_database.reason();
        m_database.close();
        BOARD_LOG(m_log, LogLevel::error,
                  "the hardware log " << m_path << ": a new one cannot be begun: " << reason);
        return false;
    }
    BOARD_LOG(m_log, LogLevel::error,
              "the hardware log " << m_path
                                  << ": a new one is begun; entries that could still be read: " << count());
    return false;
}

/// Copies what can be read of the database `aside`: from either end up to the damage.
bool HardwareLog::salvage(const std::string& aside)
{
    std::error_code noFile;
    const auto size = std::filesystem::file_size(aside, noFile);
    SqliteDatabase damaged;
    // SQLite would delete the write-ahead log of an empty one.
    if (noFile || size == 0 || !damaged.openToRead(aside)) {
        return true; // not a single entry
    }
    return m_database.execute("BEGIN IMMEDIATE") &&
           copyFrom(damaged, "SELECT id, log, label, serverRef, text FROM entry "
                             "WHERE id < ? ORDER BY id") &&
           copyFrom(damaged, "SELECT id, log, label, serverRef, text FROM entry "
                             "WHERE id < ? ORDER BY id DESC") &&
           copyFrom(damaged, "SELECT NULL, log, label, serverRef, text FROM entry "
                             "WHERE id >= ? ORDER BY id") &&
           m_database.execute("COMMIT");
}

bool HardwareLog::copyFrom(SqliteDatabase& damaged, const char* select)
{
    Statement row(damaged, select);
    row.bind(beyondCounting);
    while (row.step()) {
        const std::string label = row.text(2);
        const std::string text = row.text(4);
        Statement write(
            m_database,
            "INSERT OR IGNORE INTO entry (id, log, label, serverRef, text) VALUES (?, ?, ?, ?, ?)");
        bindFrom(write, row, 0).bind(row.number(1)).bind(label);
        bindFrom(write, row, 3).bind(text);
        if (write.step() || !write.isDone()) {
            return false;
        }
    }
    return true;
}

std::int64_t HardwareLog::count()
{
    Statement count(m_database, "SELECT count(*) FROM entry");
    return count.step() ? count.number(0) : 0;
}

bool HardwareLog::failed()
{
    const std::string reason = m_database.reason();
    const bool isDamaged = m_database.isDamaged();
    m_database.close();
    return isDamaged ? replace("it is damaged (" + reason + ")") : fail(reason);
}

bool HardwareLog::fail(const std::string& reason)
{
    m_error = reason;
    BOARD_LOG(m_log, LogLevel::error, "the hardware log " << m_path << ": " << reason);
    return false;
}

bool HardwareLog::refuse(const std::string& reason) const
{
    BOARD_LOG(m_log, LogLevel::abnormal, "ABN: the hardware log takes none of it: " << reason);
    return false;
}

nlohmann::json HardwareLog::status() const
{
    return {{"place", m_path}, {"error", m_error}};
}

} // namespace merlow::board
