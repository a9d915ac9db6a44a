/// The file in which a process keeps its trace masks, `trace/PROCESS.PID` of the run-time folder: its layout,
/// who is behind it, and how it ends.
///
/// The owner maps the file and holds an exclusive flock on it that lives exactly as long as the mapping, so
/// as long as the process: a file that can be locked belongs to nobody any more. A file appears under its
/// name only when it is locked and complete.
#pragma once

#include "scryTrace.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace merlow::trace {

/// One record with the name it goes by. Records stand at the start, so that a record's address is its
/// entry's. The name ends with the first NUL or with the array.
struct RecordEntry {
    scry_record record;
    char name[48];
};
static_assert(sizeof(RecordEntry) == 64);

/// How many trace objects a process can have; what exceeds it shares the last one.
constexpr std::size_t maxObjects = 126;

struct RecordFile {
    std::uint32_t magic;
    std::uint32_t version;
    std::int32_t pid;
    std::uint32_t objectCount;   ///< entries of `objects` that are in use; only grows
    std::uint32_t newObjectMask; ///< the mask that the next object starts with
    std::uint32_t reserved[11];
    RecordEntry process; ///< named as the process
    RecordEntry objects[maxObjects];
};
static_assert(sizeof(RecordFile) == 8192 && offsetof(RecordFile, process) == 64);

constexpr std::uint32_t recordFileMagic = 0x79726353; // "Scry"
constexpr std::uint32_t recordFileVersion = 1;

/// The folder below the run-time folder.
constexpr const char* recordFolder = "trace";

/// A name as it can stand in a record and in a file name: bounded, printable, no '/' and no leading '.';
/// "unnamed" for an empty one. Needs no memory.
class BoundedName {
public:
    explicit BoundedName(std::string_view name);
    [[nodiscard]] std::string_view text() const { return {m_text, m_length}; }

private:
    char m_text[sizeof(RecordEntry::name) - 1];
    std::size_t m_length;
};

/// The text up to the first NUL or the end of the array.
template <std::size_t N> std::string_view nameIn(const char (&array)[N])
{
    const std::string_view whole(array, N);
    return whole.substr(0, whole.find('\0'));
}

/// Makes the file of process `name`.`pid` with the content of `image` in the run-time folder, locked and
/// never short of space later. A descriptor to map and then to close, or -1 with `errno` (`EEXIST` when a
/// live process has that file).
int createRecordFile(const RecordFile& image, const std::string& name, pid_t pid);

/// Removes what dead processes left in the run-time folder; gives the number of files removed. A folder
/// that can't be read counts as empty.
int removeStaleRecordFiles();

/// Another process's file, mapped. Movable; ends the mapping with its life.
class OpenRecordFile {
public:
    OpenRecordFile(RecordFile* file, std::string name) : m_file(file), m_name(std::move(name)) {}
    ~OpenRecordFile();
    OpenRecordFile(OpenRecordFile&& other) noexcept;
    OpenRecordFile& operator=(OpenRecordFile&&) = delete;
    OpenRecordFile(const OpenRecordFile&) = delete;
    OpenRecordFile& operator=(const OpenRecordFile&) = delete;

    struct View {
        std::string name;
        std::uint32_t mask;
    };
    const std::string& fileName() const { return m_name; }
    std::string processName() const;
    pid_t pid() const;
    /// Levels, and `SCRY_OBJ_BIT`.
    std::uint32_t processMask() const;
    std::uint32_t newObjectMask() const;
    std::vector<View> objects() const;

    void setProcessMask(std::uint32_t mask);
    /// Of all objects, those still to come included.
    void setAllObjectMasks(std::uint32_t mask);
    /// Of one object; false when there is none of that name.
    bool setObjectMask(std::string_view name, std::uint32_t mask);

private:
    std::size_t count() const;

    RecordFile* m_file;
    std::string m_name;
};

/// The files of all live processes of the run-time folder by name; stale ones are removed on the way.
/// `problems` gets a line for each file that isn't what it should be. No folder is an empty one; nothing,
/// with `errno`, when it can't be read.
std::optional<std::vector<OpenRecordFile>> openRecordFiles(std::vector<std::string>& problems);

} // namespace merlow::trace
