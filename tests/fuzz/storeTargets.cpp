/// What the reference neighbours find in their databases: rows of anything in tables of the right names, and
/// databases of which any bytes are other ones.
#include "fakeOutbox.h"
#include "hardwareLog.h"
#include "partTargets.h"
#include "sqliteInventory.h"
#include "swmdTest.h"
#include "swStore.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sqlite3.h>
#include <unistd.h>

namespace fuzz {

using namespace merlow;
using namespace merlow::board;

namespace {

namespace fs = std::filesystem;

/// Gone with this process. In memory where the system has a place for that: the stores wait for their disk.
class DatabaseFolder {
public:
    static const fs::path& path()
    {
        static const DatabaseFolder folder;
        return folder.m_path;
    }
    ~DatabaseFolder()
    {
        std::error_code error;
        fs::remove_all(m_path, error);
    }
    DatabaseFolder(const DatabaseFolder&) = delete;
    DatabaseFolder& operator=(const DatabaseFolder&) = delete;

    static std::string emptied()
    {
        for (const auto& entry : fs::directory_iterator(path())) {
            fs::remove_all(entry);
        }
        return path() / "fuzzed.db";
    }

private:
    DatabaseFolder()
    {
        const fs::path shared = "/dev/shm";
        const bool isShared = access(shared.c_str(), W_OK) == 0;
        std::string pattern = (isShared ? shared : fs::temp_directory_path()) / "merlowFuzzXXXXXX";
        require(mkdtemp(pattern.data()) != nullptr, "there is a folder");
        m_path = pattern;
        setenv("MERLOW_STATE_DIR", m_path.c_str(), 1);
    }

    fs::path m_path;
};

/// A table as its owner makes it, and the same for rows that its owner would never write.
struct Table {
    const char* strict;
    const char* loose;
    const char* insert;
    const char* swap;                            ///< has the second pass for the first
    std::vector<std::vector<const char*>> usual; ///< values of each column
};

/// Makes a database as the input has it; the same goes for its write-ahead log, beside it.
class DatabaseWriter {
public:
    DatabaseWriter(Input& input, const Table& table, std::string path)
        : m_input(input), m_table(table), m_path(std::move(path))
    {
    }

    void write()
    {
        const std::uint8_t how = m_input.u8();
        require(sqlite3_open(m_path.c_str(), &m_database) == SQLITE_OK, "a database can be made");
        execute((how & 0x20U) != 0 ? "PRAGMA page_size = 512; PRAGMA synchronous = OFF"
                                   : "PRAGMA synchronous = OFF");
        execute((how & 0x1U) != 0 ? m_table.loose : m_table.strict);
        execute("PRAGMA user_version = " + std::to_string((how & 0xEU) == 0xEU ? m_input.u8() : 1));
        const std::size_t rows = m_input.u8() % 24U;
        for (std::size_t i = 0; i < rows && !m_input.empty(); ++i) {
            m_input.markStep();
            writeRow();
        }
        if ((how & 0x11U) == 0x11U) {
            execute(std::string("PRAGMA writable_schema = ON; UPDATE sqlite_schema SET sql = ") +
                    m_table.swap);
        }
        sqlite3_close(m_database);
        if ((how & 0x80U) != 0) {
            damage(m_path);
        }
        if ((how & 0x40U) != 0) {
            const Bytes wal = m_input.block();
            std::ofstream(m_path + "-wal", std::ios::binary)
                .write(reinterpret_cast<const char*>(wal.data()), static_cast<std::streamsize>(wal.size()));
        }
    }

private:
    void execute(const std::string& sql)
    {
        require(sqlite3_exec(m_database, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK,
                sqlite3_errmsg(m_database));
    }
    /// Which the table may refuse.
    void writeRow()
    {
        sqlite3_stmt* statement = nullptr;
        require(sqlite3_prepare_v2(m_database, m_table.insert, -1, &statement, nullptr) == SQLITE_OK,
                "a row can be written");
        for (std::size_t column = 1; column <= m_table.usual.size(); ++column) {
            bindValue(statement, static_cast<int>(column));
        }
        sqlite3_step(statement);
        sqlite3_finalize(statement);
    }
    void bindValue(sqlite3_stmt* statement, int column)
    {
        const std::uint8_t kind = m_input.u8();
        switch (kind) {
        case 0xFF:
            sqlite3_bind_null(statement, column);
            break;
        case 0xFE:
            sqlite3_bind_int64(
                statement, column,
                static_cast<std::int64_t>(std::uint64_t{m_input.u32()} << 32U | m_input.u32()));
            break;
        case 0xFD:
            sqlite3_bind_double(statement, column, m_input.u32() * 1e300);
            break;
        case 0xFC:
        case 0xFB: {
            const Bytes bytes = m_input.block();
            const auto size = static_cast<int>(bytes.size());
            if (kind == 0xFC) {
                sqlite3_bind_blob(statement, column, bytes.data(), size, SQLITE_TRANSIENT);
            } else {
                sqlite3_bind_text(statement, column, reinterpret_cast<const char*>(bytes.data()), size,
                                  SQLITE_TRANSIENT);
            }
            break;
        }
        case 0xFA: { // a long one
            const std::string text(m_input.u8() * 1000U, static_cast<char>(m_input.u8()));
            sqlite3_bind_text(statement, column, text.data(), static_cast<int>(text.size()),
                              SQLITE_TRANSIENT);
            break;
        }
        default: {
            const auto& usual = m_table.usual[static_cast<std::size_t>(column) - 1];
            sqlite3_bind_text(statement, column, usual[kind % usual.size()], -1, SQLITE_STATIC);
            break;
        }
        }
    }
    /// Other bytes at some places, or an end before its end.
    void damage(const std::string& path)
    {
        Bytes bytes;
        {
            std::ifstream file(path, std::ios::binary);
            bytes.assign(std::istreambuf_iterator<char>(file), {});
        }
        for (unsigned int i = 0; i < 8 && !m_input.empty(); ++i) {
            const std::size_t at = m_input.u32() % (bytes.size() + 1);
            const Bytes other = m_input.block();
            if (other.empty()) {
                bytes.resize(at);
            } else {
                std::copy_n(other.begin(), std::min(other.size(), bytes.size() - at),
                            bytes.begin() + static_cast<std::ptrdiff_t>(at));
            }
        }
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }

    Input& m_input;
    const Table& m_table;
    const std::string m_path;
    sqlite3* m_database = nullptr;
};

const loadmodule::SoftwareId preinstalled{"QXR1", "R1A"};

/// Two modules are whole, one is cut.
void putModules(test::MemoryDisk& disk)
{
    for (const char* const name : {"QXR2_R1A", "QXR3_R1A", "QXR4_R1A"}) {
        auto content = std::make_shared<test::MemoryFiles::Content>();
        content->now = test::moduleOf(test::softwareOf(name), "a");
        if (name[3] == '4') {
            content->now.pop_back();
        }
        disk.files.files[std::string(name) + ".lm"] = content;
    }
}

/// A store that has come up holds each module once, in a slot of its own, with its file.
void requireWhole(const SwStore& store, const test::MemoryDisk& disk)
{
    std::set<std::uint32_t> slots;
    std::set<std::string> software;
    std::size_t running = 0;
    for (const StoredModule& module : store.modules()) {
        require(slots.insert(module.slot).second, "a slot holds one module");
        require(software.insert(toText(module.id)).second, "a module is in one slot");
        require((module.slot == 0) == (module.id == preinstalled), "the preinstalled module has its slot");
        require((module.type == StoredModule::Type::preinstalled) == (module.slot == 0),
                "the preinstalled module is one of that type");
        require(module.status == StoredModule::Status::valid, "a module is valid");
        require(module.slot == 0 || disk.files.files.count(toText(module.id) + ".lm") == 1,
                "a module has its file");
        running += module.running ? 1 : 0;
    }
    require(running == 1, "one module runs");
    require(disk.files.files.size() + 1 == software.size(), "a file belongs to a module");
    static_cast<void>(store.componentList());
}

} // namespace

/// swmd's inventory.
void runSoftwareStore(Input& input)
{
    static const Table table{
        "CREATE TABLE module (slot INTEGER PRIMARY KEY, number TEXT NOT NULL, revision TEXT NOT NULL, "
        "type TEXT NOT NULL, size INTEGER NOT NULL, status TEXT NOT NULL, access TEXT NOT NULL, "
        "running INTEGER NOT NULL) STRICT",
        "CREATE TABLE module (slot INTEGER PRIMARY KEY, number, revision, type, size, status, access, "
        "running)",
        "INSERT INTO module VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
        "'CREATE TABLE module (slot INTEGER PRIMARY KEY, number TEXT NOT NULL, revision TEXT NOT NULL, "
        "type TEXT NOT NULL, size INTEGER NOT NULL, status TEXT NOT NULL, access TEXT NOT NULL, "
        "running INTEGER NOT NULL) STRICT'",
        {{"1", "2", "3", "0", "4", "-1", "4294967297"},
         {"QXR2", "QXR3", "QXR1", "QXR4"},
         {"R1A", "R1A", "R1B"},
         {"AUAPPLIC", "AUAPPLIC", "AUBOOT", "PREINSTALLED"},
         {"97", "97", "96", "0", "-1"},
         {"VALID", "VALID", "VALID", "WRITING"},
         {"READ_WRITE", "READ_ONLY"},
         {"0", "0", "1"}}};
    const std::string path = DatabaseFolder::emptied();
    DatabaseWriter(input, table, path).write();
    test::MemoryDisk disk;
    putModules(disk);
    std::string content;
    for (unsigned int start = 0; start < 2; ++start) {
        SqliteInventory inventory;
        if (!inventory.open(path).empty()) {
            require(start == 0, "what could be opened can be opened again");
            return;
        }
        SwStore store({3, preinstalled, {}}, disk.files, inventory);
        std::vector<std::string> said;
        if (!store.open(said).empty()) {
            require(start == 0, "what has come up comes up again");
            return;
        }
        requireWhole(store, disk);
        require(start == 0 || (said.empty() && test::contentOf(store) == content),
                "what was mended stays mended");
        content = test::contentOf(store);
    }
}

/// brhd's hardware log.
void runHardwareLogStore(Input& input)
{
    static const Table table{
        "CREATE TABLE entry (id INTEGER PRIMARY KEY, log INTEGER NOT NULL, label TEXT NOT NULL, "
        "serverRef INTEGER, text TEXT NOT NULL) STRICT; CREATE INDEX entryOfLog ON entry (log, id)",
        "CREATE TABLE entry (id INTEGER PRIMARY KEY, log, label, serverRef, text); "
        "CREATE INDEX entryOfLog ON entry (log, id)",
        "INSERT INTO entry VALUES (?, ?, ?, ?, ?)",
        "'CREATE TABLE entry (id INTEGER PRIMARY KEY, log INTEGER NOT NULL, label TEXT NOT NULL, "
        "serverRef INTEGER, text TEXT NOT NULL) STRICT' WHERE name = 'entry'",
        {{"1", "2", "3", "4", "5", "6", "9223372036854775807", "-9223372036854775808"},
         {"1", "2", "4294967295", "-1"},
         {"label", ""},
         {"1", "-1"},
         {"a text", "", "another text"}}};
    const std::string path = DatabaseFolder::emptied();
    DatabaseWriter(input, table, path).write();
    test::FakeOutbox outbox;
    HardwareLogDescription budgets;
    HardwareLog log(path, budgets, outbox);
    log.begin();
    for (unsigned int i = 0; i < 3; ++i) {
        for (const std::uint32_t id : {1U, 2U, 0xFFFFFFFFU}) {
            static_cast<void>(log.read(id));
            const std::string entry = "entry " + std::to_string(i);
            if (!log.append({id, "label", std::nullopt, {entry}})) {
                require(!log.status().at("error").get<std::string>().empty(), "a failure has a reason");
                continue;
            }
            const auto entries = log.read(id);
            if (!entries) {
                continue;
            }
            std::size_t room = 0;
            for (const std::string& one : *entries) {
                room += one.size() + 1;
            }
            require(!entries->empty() && entries->back() == entry, "what was written is the last entry");
            require(room <= budgets.budgetOf(id), "a log has its budget");
        }
    }
}

} // namespace fuzz
