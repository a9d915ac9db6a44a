#include "hardwareLog.h"
#include "brhdTest.h"
#include "stateDir.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {
int syncs = 0;
} // namespace

// In place of the C library's, for SQLite too.
extern "C" __attribute__((visibility("default"))) int fdatasync(int fd)
{
    ++syncs;
    return static_cast<int>(syscall(SYS_fdatasync, fd));
}
extern "C" __attribute__((visibility("default"))) int fsync(int fd)
{
    ++syncs;
    return static_cast<int>(syscall(SYS_fsync, fd));
}

namespace merlow::board::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;
using testing::Pair;
using testing::SizeIs;

namespace fs = std::filesystem;

using Entries = std::vector<std::string>;

class HardwareLogTest : public testing::Test {
protected:
    HardwareLogTest()
    {
        std::string path = fs::temp_directory_path() / "merlow-log.XXXXXX";
        EXPECT_NE(mkdtemp(path.data()), nullptr);
        m_folder = path;
        setenv("MERLOW_STATE_DIR", (m_folder / "a/state").c_str(), 1);
        m_file = m_folder / "a/state/hardwareLog.db";
        reopen();
    }

    ~HardwareLogTest() override
    {
        m_log.reset();
        unsetenv("MERLOW_STATE_DIR");
        fs::remove_all(m_folder);
    }

    void reopen()
    {
        m_log.reset();
        m_log.emplace(m_file.string(), m_budgets, m_outbox);
    }

    bool append(std::uint32_t logId, Entries entries)
    {
        return m_log->append({logId, "label", std::nullopt, std::move(entries)});
    }

    Entries read(std::uint32_t logId) { return m_log->read(logId).value_or(Entries{"unreadable"}); }

    /// The text of the one line of `level` since the last call.
    std::string takeLine(LogLevel level)
    {
        Entries texts;
        for (const auto& [of, text] : std::exchange(m_outbox.logged, {})) {
            if (of == level) {
                texts.push_back(text);
            }
        }
        return texts.size() == 1 ? texts.front() : std::to_string(texts.size()) + " lines";
    }

    fs::path m_folder;
    fs::path m_file;
    HardwareLogDescription m_budgets{40, {{7, 10}, {8, 1}}};
    FakeOutbox m_outbox;
    std::optional<HardwareLog> m_log;
};

/// Another connection to the same database.
class OtherConnection {
public:
    explicit OtherConnection(const fs::path& file)
    {
        EXPECT_EQ(sqlite3_open_v2(file.c_str(), &m_database, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
    }
    ~OtherConnection() { sqlite3_close(m_database); }
    OtherConnection(const OtherConnection&) = delete;
    OtherConnection& operator=(const OtherConnection&) = delete;

    void execute(const char* sql)
    {
        EXPECT_EQ(sqlite3_exec(m_database, sql, nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(m_database);
    }

    /// The columns of all rows, NULL as "-".
    Entries rows(const char* sql)
    {
        Entries rows;
        sqlite3_exec(
            m_database, sql,
            [](void* to, int count, char** values, char**) {
                std::string row;
                for (int i = 0; i < count; ++i) {
                    row += (i == 0 ? "" : "|") + std::string(values[i] == nullptr ? "-" : values[i]);
                }
                static_cast<Entries*>(to)->push_back(row);
                return 0;
            },
            &rows, nullptr);
        return rows;
    }

private:
    sqlite3* m_database = nullptr;
};

TEST_F(HardwareLogTest, keepsEachLogForItself)
{
    EXPECT_THAT(read(5), IsEmpty());
    EXPECT_TRUE(append(5, {"one", "two"}));
    EXPECT_TRUE(append(999, {"else"}));
    EXPECT_TRUE(append(5, {"three"}));
    EXPECT_TRUE(append(5, {}));
    EXPECT_THAT(read(5), ElementsAre("one", "two", "three"));
    EXPECT_THAT(read(999), ElementsAre("else"));
    EXPECT_THAT(read(0), IsEmpty());
    reopen();
    EXPECT_THAT(read(5), ElementsAre("one", "two", "three"));
    EXPECT_THAT(m_outbox.logged, IsEmpty());
    EXPECT_EQ(m_log->status(), (nlohmann::json{{"place", m_file.string()}, {"error", ""}}));
}

TEST_F(HardwareLogTest, anyBytesComeBackAsTheyWere)
{
    const std::string odd("\0\xff'\";--\n\x01", 9);
    EXPECT_TRUE(append(5, {odd, ""}));
    reopen();
    EXPECT_THAT(read(5), ElementsAre(odd, ""));
}

TEST_F(HardwareLogTest, keepsLabelAndReferenceWithTheEntries)
{
    EXPECT_TRUE(m_log->append({2, "node", -300, {"a", "b"}}));
    EXPECT_TRUE(m_log->append({5, std::string(HardwareLog::maxLabelSize, 'x'), std::nullopt, {"c"}}));
    EXPECT_FALSE(m_log->append({5, std::string(HardwareLog::maxLabelSize + 1, 'x'), std::nullopt, {"d"}}));
    EXPECT_THAT(takeLine(LogLevel::abnormal), HasSubstr("a label of 256 bytes"));
    OtherConnection other(m_file);
    EXPECT_THAT(other.rows("SELECT log, label, serverRef, text FROM entry ORDER BY id"),
                ElementsAre("2|node|-300|a", "2|node|-300|b", "5|" + std::string(255, 'x') + "|-|c"));
}

TEST_F(HardwareLogTest, theOldestEntriesGoWhenTheBudgetIsUsedUp)
{
    EXPECT_TRUE(append(7, {"1234", "5678"})); // 10 bytes of 10
    EXPECT_TRUE(append(5, {"another log"}));
    EXPECT_THAT(read(7), ElementsAre("1234", "5678"));
    EXPECT_TRUE(append(7, {""})); // one byte more: a whole entry goes
    EXPECT_THAT(read(7), ElementsAre("5678", ""));
    EXPECT_TRUE(append(7, {"bc", "def", "gh"})); // 10 bytes at once: all others go
    EXPECT_THAT(read(7), ElementsAre("bc", "def", "gh"));
    EXPECT_TRUE(append(7, {"123456789"}));
    EXPECT_THAT(read(7), ElementsAre("123456789"));
    EXPECT_TRUE(append(8, {""}));
    EXPECT_TRUE(append(8, {""}));
    EXPECT_THAT(read(8), ElementsAre(""));
    EXPECT_THAT(read(5), ElementsAre("another log"));
}

TEST_F(HardwareLogTest, ofARequestLargerThanTheBudgetNothingIsTaken)
{
    EXPECT_TRUE(append(7, {"1234"}));
    EXPECT_FALSE(append(7, {"1234567890"}));
    EXPECT_THAT(takeLine(LogLevel::abnormal), HasSubstr("it takes 11 bytes, log 7 has 10"));
    EXPECT_FALSE(append(7, {"a", "bc", "def", "g"}));
    EXPECT_THAT(takeLine(LogLevel::abnormal), HasSubstr("it takes 11 bytes, log 7 has 10"))
        << "the log would drop some of what it confirms";
    EXPECT_FALSE(append(8, {"1"}));
    EXPECT_FALSE(append(8, {"", ""}));
    EXPECT_TRUE(append(5, {std::string(39, 'x')}));
    EXPECT_FALSE(append(5, {std::string(40, 'x')}));
    EXPECT_THAT(read(7), ElementsAre("1234"));
    EXPECT_EQ(m_log->status()["error"], "") << "nothing is wrong with the log";
}

TEST_F(HardwareLogTest, aSmallerBudgetCountsFromTheNextEntryOn)
{
    EXPECT_TRUE(append(5, {"1234", "5678", "90"}));
    m_budgets.budgetBytes = 5;
    reopen();
    EXPECT_THAT(read(5), SizeIs(3));
    EXPECT_TRUE(append(5, {"1"}));
    EXPECT_THAT(read(5), ElementsAre("90", "1"));
}

TEST_F(HardwareLogTest, whatIsConfirmedIsOnTheDisk)
{
    EXPECT_TRUE(append(5, {"one"}));
    const int before = syncs;
    EXPECT_TRUE(append(5, {"two"}));
    EXPECT_GT(syncs, before);

    // What a process that dies now leaves, byte for byte.
    const fs::path left = m_folder / "left";
    fs::create_directory(left);
    for (const char* end : {"", "-wal"}) {
        fs::copy_file(m_file.string() + end, (left / "hardwareLog.db").string() + end);
    }
    HardwareLog successor(left / "hardwareLog.db", m_budgets, m_outbox);
    EXPECT_THAT(successor.read(5), Optional(ElementsAre("one", "two")));
}

TEST_F(HardwareLogTest, theFoldersThatAreMadeForItStayOnTheDiskToo)
{
    const int before = syncs;
    const int folder = openStateDir("");
    ASSERT_GE(folder, 0);
    close(folder);
    EXPECT_EQ(syncs, before + 2) << "of the folders in which the two new ones are";
    EXPECT_TRUE(fs::is_directory(m_file.parent_path()));
    const int again = openStateDir("");
    ASSERT_GE(again, 0);
    close(again);
    EXPECT_EQ(syncs, before + 2);
}

TEST_F(HardwareLogTest, othersMayNotReadIt)
{
    EXPECT_TRUE(append(5, {"one"}));
    for (const char* end : {"", "-wal"}) {
        struct stat status {};
        ASSERT_EQ(stat((m_file.string() + end).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777U, 0600U) << end;
    }
}

TEST_F(HardwareLogTest, whileSomebodyElseHasItLockedNothingIsTaken)
{
    EXPECT_TRUE(append(5, {"one"}));
    OtherConnection other(m_file);
    other.execute("BEGIN IMMEDIATE");
    EXPECT_FALSE(append(5, {"two"}));
    EXPECT_EQ(takeLine(LogLevel::error), "the hardware log " + m_file.string() + ": database is locked");
    EXPECT_EQ(m_log->status()["error"], "database is locked");
    EXPECT_THAT(read(5), ElementsAre("one")) << "who writes does not keep readers out";
    other.execute("COMMIT");
    EXPECT_TRUE(append(5, {"three"}));
    EXPECT_THAT(read(5), ElementsAre("one", "three"));
    EXPECT_EQ(m_log->status()["error"], "");
}

TEST_F(HardwareLogTest, lockedWholeFromTheStartItIsReadAndWrittenLater)
{
    EXPECT_TRUE(append(5, {"one"}));
    m_log.reset();
    {
        OtherConnection other(m_file);
        other.execute("PRAGMA locking_mode = EXCLUSIVE; BEGIN EXCLUSIVE");
        reopen();
        m_log->begin();
        EXPECT_THAT(takeLine(LogLevel::error), HasSubstr("locked"));
        EXPECT_FALSE(append(5, {"two"}));
        EXPECT_EQ(m_log->read(5), std::nullopt);
        other.execute("COMMIT");
    }
    EXPECT_THAT(read(5), ElementsAre("one"));
    EXPECT_TRUE(append(5, {"three"}));
    EXPECT_FALSE(fs::exists(m_file.string() + ".damaged-1"));
}

/// Lets no file of this process grow beyond `bytes`.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        m_handler = std::signal(SIGXFSZ, SIG_IGN);
        EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &m_before), 0);
        const rlimit limit{bytes, m_before.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &m_before);
        std::signal(SIGXFSZ, m_handler);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit m_before{};
    void (*m_handler)(int) = nullptr;
};

TEST_F(HardwareLogTest, withoutRoomOnTheDiskNothingIsTakenAndNothingLost)
{
    EXPECT_TRUE(append(5, {"one"}));
    {
        const FileSizeLimit full(fs::file_size(m_file.string() + "-wal"));
        EXPECT_FALSE(append(5, {"two"}));
        EXPECT_NE(m_log->status()["error"], "");
        EXPECT_THAT(takeLine(LogLevel::error), HasSubstr(m_file.string() + ": "));
    }
    EXPECT_THAT(read(5), ElementsAre("one"));
    EXPECT_TRUE(append(5, {"three"}));
    reopen();
    EXPECT_THAT(read(5), ElementsAre("one", "three"));
}

TEST_F(HardwareLogTest, withoutRoomFromTheStartItBeginsWhenThereIsSome)
{
    {
        const FileSizeLimit full(0);
        m_log->begin();
        EXPECT_FALSE(append(5, {"one"}));
        EXPECT_EQ(m_log->read(5), std::nullopt);
    }
    EXPECT_TRUE(append(5, {"two"}));
    EXPECT_THAT(read(5), ElementsAre("two"));
    EXPECT_FALSE(fs::exists(m_file.string() + ".damaged-1"));
}

void overwrite(const fs::path& file, std::streamoff at, const std::string& bytes)
{
    std::fstream(file, std::ios::in | std::ios::out | std::ios::binary).seekp(at) << bytes;
}

std::string contentOf(const fs::path& file)
{
    std::ostringstream content;
    content << std::ifstream(file, std::ios::binary).rdbuf();
    return content.str();
}

TEST_F(HardwareLogTest, whatIsNoDatabaseIsMovedAsideAndANewOneBegun)
{
    fs::create_directories(m_file.parent_path());
    for (int count = 1; count <= 2; ++count) {
        m_log.reset();
        const std::string garbage(5000, static_cast<char>('0' + count));
        std::ofstream(m_file, std::ios::trunc) << garbage;
        reopen();
        m_log->begin();
        const std::string aside = m_file.string() + ".damaged-" + std::to_string(count);
        EXPECT_THAT(std::exchange(m_outbox.logged, {}),
                    ElementsAre(Pair(LogLevel::error,
                                     "the hardware log " + m_file.string() +
                                         ": it is damaged (file is not a database); it is kept as " + aside),
                                Pair(LogLevel::error, "the hardware log " + m_file.string() +
                                                          ": a new one is begun; entries that could still "
                                                          "be read: 0")));
        EXPECT_EQ(m_log->status()["error"], "it is damaged (file is not a database); it is kept as " + aside);
        EXPECT_EQ(contentOf(aside), garbage);
        EXPECT_TRUE(append(5, {"one"}));
        EXPECT_THAT(read(5), ElementsAre("one"));
    }
}

TEST_F(HardwareLogTest, aDamagedPageIsFoundAtTheStart)
{
    EXPECT_TRUE(append(5, {"one"}));
    m_log.reset();
    ASSERT_FALSE(fs::exists(m_file.string() + "-wal"));
    overwrite(m_file, 4096, std::string(8, '\xEE')); // the table's own page
    const std::string damaged = contentOf(m_file);
    reopen();
    m_log->begin();
    EXPECT_THAT(m_outbox.logged, Contains(Pair(LogLevel::error, HasSubstr("it is damaged ("))));
    EXPECT_EQ(contentOf(m_file.string() + ".damaged-1"), damaged);
    EXPECT_TRUE(append(5, {"two"}));
    EXPECT_THAT(read(5), ElementsAre("two"));
    EXPECT_EQ(m_log->status()["error"], "");
}

TEST_F(HardwareLogTest, aRequestThatFindsDamageIsRejectedAlsoWhenItOpensTheLog)
{
    EXPECT_TRUE(append(5, {"one"}));
    for (const bool reads : {true, false}) {
        m_log.reset();
        std::ofstream(m_file, std::ios::trunc) << std::string(5000, 'x');
        reopen();
        if (reads) {
            EXPECT_EQ(m_log->read(5), std::nullopt);
        } else {
            EXPECT_FALSE(append(5, {"one"}));
        }
        EXPECT_THAT(m_log->status()["error"], HasSubstr("it is kept as " + m_file.string() + ".damaged-"));
        EXPECT_THAT(read(5), IsEmpty()) << "the next one has a log again";
    }
}

TEST_F(HardwareLogTest, whatCanBeReadOfADamagedOneIsInTheNewOne)
{
    m_budgets.budgetBytes = 65536;
    for (int i = 0; i < 40; ++i) {
        EXPECT_TRUE(m_log->append({5, "label", i, {std::to_string(i) + ":" + std::string(1000, 'x')}}));
    }
    EXPECT_TRUE(append(6, {"the last"}));
    m_log.reset();
    ASSERT_FALSE(fs::exists(m_file.string() + "-wal"));
    ASSERT_GT(fs::file_size(m_file), 40000U);
    overwrite(m_file, 20480, std::string(4096, '\xEE')); // a page of entries in the middle
    const std::string damaged = contentOf(m_file);
    reopen();
    m_log->begin();
    const Entries left = read(5);
    EXPECT_LT(left.size(), 40U);
    EXPECT_GT(left.size(), 30U) << "of the 4 in the page all are gone";
    EXPECT_THAT(left.front(), testing::StartsWith("0:"));
    EXPECT_THAT(left.back(), testing::StartsWith("39:"));
    EXPECT_THAT(read(6), ElementsAre("the last"));
    OtherConnection other(m_file);
    EXPECT_THAT(other.rows("SELECT label, serverRef FROM entry WHERE log = 6 OR serverRef = 0 ORDER BY id"),
                ElementsAre("label|0", "label|-"));
    EXPECT_EQ(contentOf(m_file.string() + ".damaged-1"), damaged);
    EXPECT_THAT(m_outbox.logged,
                Contains(Pair(LogLevel::error, HasSubstr("entries that could still be read: " +
                                                         std::to_string(left.size() + 1)))));
}

TEST_F(HardwareLogTest, anEntryBehindWhichNoneCanBeCountedIsDamage)
{
    EXPECT_TRUE(append(5, {"one", "two", "three"}));
    m_log.reset();
    // Where it stands, the next entries would get any free number, and come anywhere in the log.
    OtherConnection(m_file).execute("UPDATE entry SET id = 9223372036854775807 WHERE text = 'two'");
    reopen();
    m_log->begin();
    EXPECT_THAT(m_log->status()["error"], HasSubstr("an entry has a number beyond all"));
    EXPECT_TRUE(append(5, {"four"}));
    EXPECT_THAT(read(5), ElementsAre("one", "three", "two", "four")) << "none is lost";
    EXPECT_TRUE(fs::exists(m_file.string() + ".damaged-1"));
}

TEST_F(HardwareLogTest, tablesThatAreOthersAreLeftAsTheyAre)
{
    EXPECT_TRUE(append(5, {"one"}));
    m_log.reset();
    OtherConnection(m_file).execute("DROP TABLE entry; CREATE TABLE entry (id, log, label, serverRef, text); "
                                    "INSERT INTO entry VALUES (1, 5, '', 0, 'x')");
    reopen();
    EXPECT_FALSE(append(5, {"two"}));
    EXPECT_EQ(m_log->status()["error"], "its tables are not those of the layout 1");
    EXPECT_FALSE(fs::exists(m_file.string() + ".damaged-1"));
    EXPECT_THAT(OtherConnection(m_file).rows("SELECT text FROM entry"), ElementsAre("x"));
}

TEST_F(HardwareLogTest, damageThatComesWhileItIsOpenEndsTheRequestThatMeetsIt)
{
    EXPECT_TRUE(append(5, {"one"}));
    {
        OtherConnection other(m_file);
        other.execute("PRAGMA wal_checkpoint(TRUNCATE)");
    }
    overwrite(m_file, 4096, std::string(8, '\xEE'));
    overwrite(m_file, 8192, std::string(8, '\xEE'));              // and the index
    OtherConnection(m_file).execute("PRAGMA application_id = 1"); // so that pages are read anew
    EXPECT_FALSE(append(5, {"two"}));
    EXPECT_THAT(m_outbox.logged, Contains(Pair(LogLevel::error, HasSubstr("it is kept as"))));
    EXPECT_TRUE(fs::exists(m_file.string() + ".damaged-1"));
    EXPECT_TRUE(append(5, {"three"}));
    EXPECT_THAT(read(5), ElementsAre("three"));
}

TEST_F(HardwareLogTest, theWriteAheadLogStaysWithTheDatabaseThatItBelongsTo)
{
    EXPECT_TRUE(append(5, {"one"}));
    const std::string walLeft = contentOf(m_file.string() + "-wal");
    ASSERT_NE(walLeft, "");
    m_log.reset();
    std::ofstream(m_file, std::ios::trunc) << std::string(5000, 'x');
    std::ofstream(m_file.string() + "-wal", std::ios::binary) << walLeft;
    reopen();
    m_log->begin();
    EXPECT_THAT(read(5), testing::AnyOf(IsEmpty(), ElementsAre("one")));
    EXPECT_TRUE(append(5, {"two"}));
    reopen();
    EXPECT_THAT(read(5), Contains("two"));
}

TEST_F(HardwareLogTest, noDamagedOneEverReplacesAnother)
{
    fs::create_directories(m_file.parent_path());
    m_log.reset();
    std::ofstream(m_file) << std::string(5000, 'x');
    for (unsigned count = 1; count <= HardwareLog::maxDamaged; ++count) {
        std::ofstream(m_file.string() + ".damaged-" + std::to_string(count)) << count;
    }
    reopen();
    EXPECT_FALSE(append(5, {"one"}));
    EXPECT_THAT(takeLine(LogLevel::error), HasSubstr("as many as are kept lie beside it already"));
    EXPECT_EQ(contentOf(m_file), std::string(5000, 'x'));
    EXPECT_EQ(contentOf(m_file.string() + ".damaged-9"), "9");
    fs::remove(m_file.string() + ".damaged-4");
    EXPECT_EQ(m_log->read(5), std::nullopt);
    EXPECT_TRUE(append(5, {"two"}));
    EXPECT_EQ(contentOf(m_file.string() + ".damaged-4"), std::string(5000, 'x'));
}

TEST_F(HardwareLogTest, aDatabaseOfAnotherLayoutIsLeftAlone)
{
    EXPECT_TRUE(append(5, {"one"}));
    m_log.reset();
    OtherConnection(m_file).execute("PRAGMA user_version = 2");
    reopen();
    EXPECT_FALSE(append(5, {"two"}));
    EXPECT_THAT(takeLine(LogLevel::error), HasSubstr("it has the layout 2"));
    OtherConnection(m_file).execute("PRAGMA user_version = 1");
    EXPECT_THAT(read(5), ElementsAre("one"));
}

TEST_F(HardwareLogTest, aDatabaseThatWasTakenAwayIsNotWrittenOn)
{
    EXPECT_TRUE(append(5, {"one"}));
    fs::rename(m_file, m_folder / "taken.db");
    EXPECT_FALSE(append(5, {"two"})) << "it left its write-ahead log";
    EXPECT_TRUE(append(5, {"two"}));
    EXPECT_TRUE(fs::exists(m_file));
    reopen();
    EXPECT_THAT(read(5), Contains("two"));
}

TEST_F(HardwareLogTest, entriesInAWriteAheadLogWhoseDatabaseIsGoneAreKeptAside)
{
    EXPECT_TRUE(append(5, {"one"}));
    const std::string walLeft = contentOf(m_file.string() + "-wal");
    ASSERT_NE(walLeft, "");
    m_log.reset();
    fs::remove(m_file);
    std::ofstream(m_file.string() + "-wal", std::ios::binary) << walLeft;
    reopen();
    EXPECT_FALSE(append(5, {"two"}));
    EXPECT_THAT(m_outbox.logged,
                Contains(Pair(LogLevel::error,
                              HasSubstr("it is gone, and entries of it are in its write-ahead log; it is "
                                        "kept as"))));
    EXPECT_TRUE(contentOf(m_file.string() + ".damaged-1-wal") == walLeft);
    m_log.reset();
    std::ofstream(m_file, std::ios::trunc).close();
    std::ofstream(m_file.string() + "-wal", std::ios::binary) << walLeft;
    reopen();
    m_log->begin();
    EXPECT_TRUE(append(5, {"three"}));
    EXPECT_TRUE(contentOf(m_file.string() + ".damaged-2-wal") == walLeft)
        << "an empty one is as good as none";
    EXPECT_THAT(read(5), ElementsAre("three"));
}

TEST_F(HardwareLogTest, aPlaceThatCannotBeIsTold)
{
    std::ofstream(m_folder / "a") << "a file";
    EXPECT_FALSE(append(5, {"one"}));
    EXPECT_THAT(takeLine(LogLevel::error), HasSubstr("Not a directory"));
    fs::remove(m_folder / "a");
    EXPECT_TRUE(append(5, {"one"}));
}

class BriHardwareLogTest : public BrhdTest {
protected:
    BriHardwareLogTest()
    {
        receive(briMailbox, client, "0170772d 00000064 00000064 0801");
        m_outbox.takeSent();
    }

    static std::string frame(const std::string& text) { return textOf(messageFrom(text)); }
    std::string ask(const std::string& text) { return BrhdTest::ask(briMailbox, text); }

    const std::string setCfm = frame("0170774e 00000005 00000064");
    const std::string setRej = frame("0170774f 00000005 00000064");
    const std::string storeCfm = frame("01707765 00000005 00000064");
    const std::string storeRej = frame("01707766 00000005 00000064");
};

TEST_F(BriHardwareLogTest, whatIsWrittenIsRead)
{
    EXPECT_EQ(ask("01707750 00000005 00000001 08e707"), frame("01707751 00000005 00000064"));
    EXPECT_EQ(ask("0170774d 00000005 00000001 0a016c 10e707 1a036f6e65 1a0374776f"), setCfm);
    EXPECT_EQ(ask("0170774d 00000005 00000001 10e707"), setCfm) << "nothing is an addition as well";
    EXPECT_EQ(ask("01707750 00000005 00000001 08e707"),
              frame("01707751 00000005 00000064 0a036f6e65 0a0374776f"));
}

TEST_F(BriHardwareLogTest, theNodeConfigurationHasARequestOfItsOwn)
{
    EXPECT_EQ(ask("0170774d 00000005 00000001 0a016c 1002 1a036f6e65"), setRej);
    EXPECT_EQ(ask("01707764 00000005 00000001 0a016c 1003 18ac02 22036f6e65"), storeRej);
    EXPECT_EQ(ask("01707764 00000005 00000001 0a016c 1002 22036f6e65"), storeRej) << "no reference";
    EXPECT_EQ(ask("01707764 00000005 00000001 0a016c 18ac02 22036f6e65"), storeRej) << "no log";
    EXPECT_EQ(ask("01707764 00000005 00000001 0a016c 1002 18ac02 22036f6e65"), storeCfm);
    EXPECT_EQ(ask("01707750 00000005 00000001 0802"), frame("01707751 00000005 00000064 0a036f6e65"));
}

TEST_F(BriHardwareLogTest, thereAreLogs0To999)
{
    EXPECT_EQ(ask("0170774d 00000005 00000001 1000 1a0161"), setCfm);
    EXPECT_EQ(ask("0170774d 00000005 00000001 10e807 1a0161"), setRej);
    EXPECT_EQ(ask("0170774d 00000005 00000001 1a0161"), setRej);
    EXPECT_EQ(ask("01707750 00000005 00000001 0800"), frame("01707751 00000005 00000064 0a0161"));
    const std::string outOfRange = frame("01707752 00000005 00000064 0800");
    EXPECT_EQ(ask("01707750 00000005 00000001 08e807"), outOfRange);
    EXPECT_EQ(ask("01707750 00000005 00000001 08ffffffff0f"), outOfRange);
    EXPECT_EQ(ask("01707750 00000005 00000001"), outOfRange);
}

TEST_F(BriHardwareLogTest, anEntryLargerThanTheBoardsBudgetIsRejected)
{
    std::string largest;
    for (int i = 0; i < 423; ++i) {
        largest += "61";
    }
    EXPECT_EQ(ask("0170774d 00000005 00000001 1005 1aa703" + largest), setCfm);
    EXPECT_EQ(ask("0170774d 00000005 00000001 1005 1aa803" + largest + "61"), setRej);
}

class BriHardwareLogFailureTest : public testing::Test {};

TEST_F(BriHardwareLogFailureTest, aFailureIsRejectedAndBrhdGoesOn)
{
    std::string folder = fs::temp_directory_path() / "merlow-log.XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    setenv("MERLOW_STATE_DIR", (folder + "/file").c_str(), 1);
    std::ofstream(folder + "/file") << "no folder";
    FakeStateStore store;
    FakeOutbox outbox;
    Brhd brhd(
        {}, [] { return 0; }, {store, store, store, folder + "/file/hardwareLog.db"}, outbox);
    brhd.attach("BriServer", briMailbox);
    brhd.begin();
    const auto ask = [&](const std::string& text) {
        const HeapMessage message(messageFrom(text));
        brhd.receive({client, briMailbox, message.bytes()});
        return outbox.takeOne();
    };
    ask("0170772d 00000064 00000064 0801");
    EXPECT_EQ(ask("01707750 00000005 00000001 0805"), "01707752 00000005 00000064 0801");
    EXPECT_EQ(ask("0170774d 00000005 00000001 1005 1a0161"), "0170774f 00000005 00000064");
    EXPECT_EQ(ask("01707764 00000005 00000001 1002 1801 220161"), "01707766 00000005 00000064");
    EXPECT_EQ(brhd.status()["bri"]["hardwareLog"]["error"], "Not a directory");
    unsetenv("MERLOW_STATE_DIR");
    fs::remove_all(folder);
}

} // namespace
} // namespace merlow::board::test
