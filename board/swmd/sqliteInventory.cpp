#include "sqliteInventory.h"

#include <cerrno>
#include <fcntl.h>
#include <runDir.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace merlow::board {

namespace {

/// Kept in the database's user_version.
constexpr int layout = 1;

constexpr const char* createTable = "CREATE TABLE module ("
                                    "slot INTEGER PRIMARY KEY, number TEXT NOT NULL, revision TEXT NOT NULL, "
                                    "type TEXT NOT NULL, size INTEGER NOT NULL, status TEXT NOT NULL, "
                                    "access TEXT NOT NULL, running INTEGER NOT NULL) STRICT; "
                                    "PRAGMA user_version = 1";

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

/// The database's own files get the access rights of this one. Closed before SQLite opens it: its locks would
/// go with any descriptor of the file that this process closes.
bool makeFile(const std::string& path)
{
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd < 0) {
        return false;
    }
    const bool done = base::setFileAccess(fd) == 0;
    close(fd);
    return done;
}

} // namespace

/// One prepared statement, used once.
class SqliteInventory::Statement {
public:
    Statement(sqlite3* database, const char* sql)
    {
        sqlite3_prepare_v2(database, sql, -1, &m_statement, nullptr);
    }
    ~Statement() { sqlite3_finalize(m_statement); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(std::int64_t value)
    {
        sqlite3_bind_int64(m_statement, ++m_bound, value);
        return *this;
    }
    /// `text` lives longer than the statement.
    Statement& bind(const char* text)
    {
        sqlite3_bind_text(m_statement, ++m_bound, text, -1, SQLITE_STATIC);
        return *this;
    }

    /// SQLITE_ROW, SQLITE_DONE, or an error; a statement that could not be prepared gives SQLITE_MISUSE.
    int step() { return m_statement == nullptr ? SQLITE_MISUSE : sqlite3_step(m_statement); }
    std::int64_t number(int column) { return sqlite3_column_int64(m_statement, column); }
    std::string text(int column)
    {
        const unsigned char* text = sqlite3_column_text(m_statement, column);
        return text == nullptr ? "" : reinterpret_cast<const char*>(text);
    }

private:
    sqlite3_stmt* m_statement = nullptr;
    int m_bound = 0;
};

SqliteInventory::~SqliteInventory()
{
    sqlite3_close(m_database);
}

std::string SqliteInventory::open(const std::string& path)
{
    if (!makeFile(path)) {
        return std::generic_category().message(errno);
    }
    if (sqlite3_open_v2(path.c_str(), &m_database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
        SQLITE_OK) {
        return reason();
    }
    // Each change is synced by itself: a module that was confirmed is there after a loss of power.
    std::string error = execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL");
    if (!error.empty()) {
        return error;
    }
    std::int64_t version = 0;
    {
        Statement read(m_database, "PRAGMA user_version");
        if (read.step() != SQLITE_ROW) {
            return reason();
        }
        version = read.number(0);
    }
    if (version == 0) {
        error = execute((std::string("BEGIN IMMEDIATE; ") + createTable + "; COMMIT").c_str());
        if (!error.empty()) {
            execute("ROLLBACK");
        }
        return error;
    }
    return version == layout ? "" : "it has the layout " + std::to_string(version);
}

std::string SqliteInventory::load(std::vector<StoredModule>& modules)
{
    modules.clear();
    Statement read(m_database, "SELECT slot, number, revision, type, size, status, access, running "
                               "FROM module ORDER BY slot");
    int result = read.step();
    for (; result == SQLITE_ROW; result = read.step()) {
        StoredModule module;
        module.slot = static_cast<std::uint32_t>(read.number(0));
        module.id = {read.text(1), read.text(2)};
        module.size = static_cast<std::uint64_t>(read.number(4));
        module.running = read.number(7) != 0;
        if (!valueOf(types, read.text(3), module.type) || !valueOf(statuses, read.text(5), module.status) ||
            !valueOf(accesses, read.text(6), module.access)) {
            return "the entry of slot " + std::to_string(module.slot) + " has values that are none";
        }
        modules.push_back(std::move(module));
    }
    return result == SQLITE_DONE ? "" : reason();
}

std::string SqliteInventory::put(const StoredModule& module)
{
    Statement write(m_database, "INSERT OR REPLACE INTO module VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
    write.bind(module.slot)
        .bind(module.id.number.c_str())
        .bind(module.id.revision.c_str())
        .bind(textOf(types, module.type))
        .bind(static_cast<std::int64_t>(module.size))
        .bind(textOf(statuses, module.status))
        .bind(textOf(accesses, module.access))
        .bind(module.running ? 1 : 0);
    return write.step() == SQLITE_DONE ? "" : reason();
}

std::string SqliteInventory::remove(std::uint32_t slot)
{
    Statement write(m_database, "DELETE FROM module WHERE slot = ?");
    write.bind(slot);
    return write.step() == SQLITE_DONE ? "" : reason();
}

std::string SqliteInventory::setRunning(std::optional<std::uint32_t> slot)
{
    Statement write(m_database, "UPDATE module SET running = (slot = ?)");
    write.bind(slot ? std::int64_t{*slot} : -1);
    return write.step() == SQLITE_DONE ? "" : reason();
}

std::string SqliteInventory::execute(const char* sql)
{
    return sqlite3_exec(m_database, sql, nullptr, nullptr, nullptr) == SQLITE_OK ? "" : reason();
}

std::string SqliteInventory::reason() const
{
    return sqlite3_errmsg(m_database);
}

} // namespace merlow::board
