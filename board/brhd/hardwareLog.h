/// The board's hardware log: texts in numbered logs.
#pragma once

#include "boardDescription.h"
#include "outbox.h"
#include "sqliteDatabase.h"

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace merlow::board {

/// Kept in a SQLite database. What `append` has said yes to is on the disk.
///
/// A failure goes to the log, loses nothing that was kept before, and ends with the request that it befell:
/// the next one opens the database anew. A damaged one is moved aside, and a new one is begun with what can
/// still be read of it.
class HardwareLog {
public:
    /// What one request adds to a log.
    struct Addition {
        std::uint32_t logId = 0;
        std::string label;                     ///< kept with each entry
        std::optional<std::int32_t> serverRef; ///< of the client; likewise
        std::vector<std::string> entries;
    };

    static constexpr std::size_t maxLabelSize = 255;
    /// Damaged databases that are kept; with that many a further one stays where it is, and all requests
    /// fail.
    static constexpr unsigned maxDamaged = 9;

    /// `path`: of the database, or SqliteDatabase::inMemory. `budgets` and `log` live longer.
    HardwareLog(std::string path, const HardwareLogDescription& budgets, Log& log);

    /// Opens the database, so that what is wrong with it shows at once.
    void begin();

    /// Adds the entries behind those of the log, whose oldest go as far as its budget demands. All of them
    /// or, with false, none: they are larger than the budget, the label is too long, or the database fails.
    [[nodiscard]] bool append(const Addition& addition);

    /// All of a log, the oldest first; nothing when the database fails.
    [[nodiscard]] std::optional<std::vector<std::string>> read(std::uint32_t logId);

    /// "place", and "error": why the database failed the last request, empty when it did not.
    [[nodiscard]] nlohmann::json status() const;

private:
    [[nodiscard]] bool open();
    [[nodiscard]] bool openOnce();
    [[nodiscard]] bool isCounted();
    [[nodiscard]] bool isWriteAheadLogAlone() const;
    bool replace(const std::string& what);
    bool salvage(const std::string& aside);
    bool copyFrom(SqliteDatabase& damaged, const char* select);
    [[nodiscard]] std::int64_t count();
    [[nodiscard]] bool insert(const Addition& addition);
    [[nodiscard]] bool dropOldest(std::uint32_t logId);
    // Each tells why, and gives false.
    bool refuse(const std::string& reason) const; ///< what a client asked for
    bool fail(const std::string& reason);         ///< the board lacks something
    bool failed();                                ///< the database failed, and is closed or replaced

    const std::string m_path;
    const HardwareLogDescription& m_budgets;
    Log& m_log;
    SqliteDatabase m_database;
    std::string m_error;
};

} // namespace merlow::board
