#include "sqliteDatabase.h"

#include <cerrno>
#include <fcntl.h>
#include <runDir.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace merlow::board {

namespace {

/// SQLite gives its other files the access rights of this one. Closed before SQLite opens it: its locks would
/// go with any descriptor of the file that this process closes.
bool makeFile(const std::string& path)
{
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd < 0) {
        return false;
    }
    const bool done = base::setFileAccess(fd) == 0;
    const int error = errno;
    close(fd);
    errno = error;
    return done;
}

} // namespace

SqliteDatabase::~SqliteDatabase()
{
    close();
}

bool SqliteDatabase::open(const std::string& path)
{
    close();
    m_isDamaged = false;
    if (path != inMemory && !makeFile(path)) {
        m_reason = std::generic_category().message(errno);
        return false;
    }
    const int result = sqlite3_open_v2(path.c_str(), &m_database, SQLITE_OPEN_READWRITE, nullptr);
    if ((result != SQLITE_OK && !failed()) ||
        !execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL")) {
        close();
        return false;
    }
    return true;
}

bool SqliteDatabase::openToRead(const std::string& path)
{
    close();
    m_isDamaged = false;
    const int result = sqlite3_open_v2(path.c_str(), &m_database, SQLITE_OPEN_READONLY, nullptr);
    if (result != SQLITE_OK && !failed()) {
        close();
        return false;
    }
    leaveWriteAheadLog();
    return true;
}

void SqliteDatabase::close()
{
    if (m_isDamaged && m_database != nullptr) {
        leaveWriteAheadLog();
    }
    sqlite3_close(m_database);
    m_database = nullptr;
}

/// What it holds of the database stays beside that.
void SqliteDatabase::leaveWriteAheadLog()
{
    sqlite3_db_config(m_database, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
}

bool SqliteDatabase::execute(const char* sql)
{
    return sqlite3_exec(m_database, sql, nullptr, nullptr, nullptr) == SQLITE_OK || failed();
}

bool SqliteDatabase::useLayout(int layout, const char* tables)
{
    std::int64_t found = 0;
    {
        Statement version(*this, "PRAGMA user_version");
        if (!version.step()) {
            return false;
        }
        found = version.number(0);
    }
    if (found == 0) {
        return execute((std::string("BEGIN IMMEDIATE; ") + tables +
                        "; PRAGMA user_version = " + std::to_string(layout) + "; COMMIT")
                           .c_str());
    }
    if (found != layout) {
        return fail("it has the layout " + std::to_string(found));
    }
    // Else its rows may hold what no reader expects. SQLite keeps the statements as they were written.
    Statement kept(*this, "SELECT group_concat(sql, '; ') FROM sqlite_schema WHERE name NOT LIKE 'sqlite_%'");
    if (!kept.step()) {
        return false;
    }
    return kept.text(0) == tables || fail("its tables are not those of the layout " + std::to_string(layout));
}

bool SqliteDatabase::isSound()
{
    std::string finding;
    {
        Statement check(*this, "PRAGMA quick_check(1)");
        if (!check.step()) {
            return false;
        }
        finding = check.text(0);
    }
    if (finding == "ok") {
        return true;
    }
    return damaged(finding);
}

bool SqliteDatabase::damaged(std::string finding)
{
    m_isDamaged = true;
    m_reason = std::move(finding);
    return false;
}

bool SqliteDatabase::fail(std::string reason)
{
    m_isDamaged = false;
    m_reason = std::move(reason);
    return false;
}

bool SqliteDatabase::hasMoved() const
{
    int moved = 0;
    return sqlite3_file_control(m_database, nullptr, SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK &&
           moved != 0;
}

/// Keeps what SQLite says of the last operation. Always false.
bool SqliteDatabase::failed()
{
    constexpr int primary = 0xFF; // the bits above tell more of the same
    const int code = sqlite3_errcode(m_database) & primary;
    m_reason = sqlite3_errmsg(m_database);
    m_isDamaged = code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
    return false;
}

SqliteDatabase::Statement::Statement(SqliteDatabase& database, const char* sql) : m_database(database)
{
    sqlite3_prepare_v2(m_database.m_database, sql, -1, &m_statement, nullptr);
}

SqliteDatabase::Statement::~Statement()
{
    sqlite3_finalize(m_statement);
}

SqliteDatabase::Statement& SqliteDatabase::Statement::bind(std::int64_t value)
{
    sqlite3_bind_int64(m_statement, ++m_bound, value);
    return *this;
}

SqliteDatabase::Statement& SqliteDatabase::Statement::bind(std::string_view text)
{
    sqlite3_bind_text64(m_statement, ++m_bound, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
    return *this;
}

SqliteDatabase::Statement& SqliteDatabase::Statement::bindNull()
{
    sqlite3_bind_null(m_statement, ++m_bound);
    return *this;
}

bool SqliteDatabase::Statement::step()
{
    // What could not be prepared has left its reason.
    const int result = m_statement == nullptr ? SQLITE_ERROR : sqlite3_step(m_statement);
    m_isDone = result == SQLITE_DONE;
    return result == SQLITE_ROW || (!m_isDone && m_database.failed());
}

std::int64_t SqliteDatabase::Statement::number(int column) const
{
    return sqlite3_column_int64(m_statement, column);
}

bool SqliteDatabase::Statement::isNull(int column) const
{
    return sqlite3_column_type(m_statement, column) == SQLITE_NULL;
}

std::string SqliteDatabase::Statement::text(int column) const
{
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(m_statement, column));
    return text == nullptr
               ? ""
               : std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(m_statement, column)));
}

} // namespace merlow::board
