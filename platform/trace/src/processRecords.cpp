#include "processRecords.h"

#include "levelList.h"
#include "lineOutput.h"
#include "runDir.h"
#include "rushlog.h"
#include "rushlogCount.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <new>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

namespace merlow::trace {

namespace {

/// Aligned and padded to the largest page size there is, so that a file can be mapped over it and nothing
/// else is on its pages.
struct alignas(65536) Image {
    RecordFile file;
};

Image g_image;
std::mutex g_mutex; // new objects, and where the image lies
char g_name[sizeof(RecordEntry::name)];
pid_t g_pid;
char g_folder[PATH_MAX]; // where the file is; empty while there is none

constexpr const char* logCategory = "RadioPlatform,Trace";
constexpr std::uint32_t objectsBit = 1u << SCRY_OBJ_BIT;
constexpr std::uint32_t defaultMask = objectsBit | 1u << 1 | 1u << 4;

template <std::size_t N> void setName(char (&array)[N], std::string_view name)
{
    std::memset(array, 0, N);
    std::memcpy(array, name.data(), std::min(name.size(), N - 1));
}

std::string fromEnvironment(const char* name, const char* byDefault)
{
    const char* const value = std::getenv(name);
    return value != nullptr ? value : byDefault;
}

std::uint32_t levelsFromEnvironment(const char* name, const char* byDefault)
{
    const LevelList levels = parseLevels(fromEnvironment(name, byDefault));
    if (!levels.malformed.empty()) {
        rushlog_log(logCategory,
                    (std::string(name) + ": ignoring " + levels.malformed + ", levels are 0 to 31").c_str());
    }
    return levels.mask;
}

std::uint32_t objectsBitFromEnvironment()
{
    const std::string value = fromEnvironment("SCRY_OBJ", "1");
    if (value != "0" && value != "1" && !value.empty()) {
        rushlog_log(logCategory, ("SCRY_OBJ: ignoring \"" + value + "\", it is 0 or 1").c_str());
    }
    return value == "0" ? 0 : objectsBit;
}

void report(std::string_view folder, int error)
{
    TextLine text;
    text << "trace levels can't be changed from outside, no record file in " << folder << "/" << recordFolder
         << ": " << strerror(error); // NOLINT(concurrency-mt-unsafe)
    rushlog_log(logCategory, text.c_str());
}

/// Lays the image over private memory, with its content as it is.
void makePrivate()
{
    const RecordFile content = g_image.file;
    void* const memory = mmap(&g_image, sizeof g_image, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    if (memory == &g_image) {
        g_image.file = content;
    }
    g_folder[0] = '\0';
}

/// Lays the image over a new file in the run-time folder, with its content as it is.
int mapToFile(const std::string& folder)
{
    const int fd = createRecordFile(g_image.file, g_name, g_pid);
    if (fd < 0) {
        return -1;
    }
    // The lock belongs to what was opened, which the mapping keeps open without a descriptor.
    void* const memory =
        mmap(&g_image, sizeof g_image.file, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0);
    const int error = errno;
    close(fd);
    errno = error;
    if (memory == MAP_FAILED) {
        removeStaleRecordFiles(); // this one
        errno = error;
        return -1;
    }
    setName(g_folder, folder);
    return 0;
}

/// The folder whose absence is no reason to make it, as long as nobody asks for it: that of the machine.
bool folderIsWanted()
{
    const auto isSet = [](const char* name) {
        return !fromEnvironment(name, "").empty();
    };
    return isSet("MERLOW_RUN_DIR") || isSet("XDG_RUNTIME_DIR") ||
           access(base::runDirPath().c_str(), F_OK) == 0;
}

void beforeFork()
{
    g_mutex.lock();
}
void afterForkInParent()
{
    g_mutex.unlock();
}

/// A child shares nothing with its parent, neither masks nor the lock that says the parent lives.
void afterForkInChild()
{
    g_pid = getpid();
    makePrivate();
    g_image.file.pid = g_pid;
    forgetLostLines();
    g_mutex.unlock();
}

/// Nothing here waits or loads anything, so that the start of the library is a safe place for it.
__attribute__((constructor)) void startRecords()
{
    const UnnoticedScope unnoticed;
    const char* const program = program_invocation_short_name;
    const BoundedName name(program != nullptr ? program : "");
    setName(g_name, name.text());
    g_pid = getpid();

    RecordFile& file = g_image.file;
    file.magic = recordFileMagic;
    file.version = recordFileVersion;
    file.pid = g_pid;
    setName(file.process.name, name.text());
    file.process.record.mask = defaultMask;
    pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);
    try {
        const std::uint32_t levels = levelsFromEnvironment("SCRY_LEVELS", "1,4");
        file.process.record.mask = (levels & ~objectsBit) | objectsBitFromEnvironment();
        file.newObjectMask = levelsFromEnvironment("SCRY_OBJ_LEVELS", "");
        if (folderIsWanted()) {
            removeStaleRecordFiles();
            publishRecords();
        }
    } catch (const std::bad_alloc&) {
        rushlog_log(logCategory, "no memory to read the trace levels; scryctl may change them");
    }
}

/// The entry of `name`, a new one if there is none yet. The last entry is for all names that find no other.
RecordEntry& findOrAddObject(std::string_view name)
{
    RecordFile& file = g_image.file;
    const std::size_t count = std::min<std::size_t>(file.objectCount, maxObjects);
    for (std::size_t i = 0; i < count; ++i) {
        if (nameIn(file.objects[i].name) == name) {
            return file.objects[i];
        }
    }
    if (count == maxObjects) {
        return file.objects[maxObjects - 1];
    }
    RecordEntry& entry = file.objects[count];
    const bool last = count == maxObjects - 1;
    setName(entry.name, last ? std::string_view("(others)") : name);
    __atomic_store_n(&entry.record.mask, __atomic_load_n(&file.newObjectMask, __ATOMIC_SEQ_CST),
                     __ATOMIC_SEQ_CST);
    __atomic_store_n(&file.objectCount, static_cast<std::uint32_t>(count + 1), __ATOMIC_SEQ_CST);
    // Who changes all objects sets the mask for new ones first and counts then: one of us sees the other.
    __atomic_store_n(&entry.record.mask, __atomic_load_n(&file.newObjectMask, __ATOMIC_SEQ_CST),
                     __ATOMIC_SEQ_CST);
    if (last) {
        rushlog_log(logCategory, "more than 126 trace objects, further ones share one mask: (others)");
    }
    return entry;
}

} // namespace

std::string_view processName()
{
    return g_name;
}
pid_t processId()
{
    return g_pid;
}

int publishRecords()
{
    const std::lock_guard lock(g_mutex);
    std::string folder;
    try {
        folder = base::runDirPath();
        if (folder == g_folder) {
            return 0;
        }
        if (folder.size() >= sizeof g_folder) {
            errno = ENAMETOOLONG;
        } else if (mapToFile(folder) == 0) {
            return 0;
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    const int error = errno;
    makePrivate(); // also where a mapping failed half-way
    report(folder, error);
    errno = error;
    return -1;
}

bool objectName(const scry_record* record, char (&name)[sizeof(RecordEntry::name) + 1])
{
    const std::less<const void*> before;
    const RecordEntry* const objects = g_image.file.objects;
    if (before(record, objects) || !before(record, objects + maxObjects)) {
        return false;
    }
    const auto offset = reinterpret_cast<std::uintptr_t>(record) - reinterpret_cast<std::uintptr_t>(objects);
    setName(name, nameIn(objects[offset / sizeof(RecordEntry)].name));
    return true;
}

} // namespace merlow::trace

using namespace merlow::trace;

// A guard is one load of this and one test; constant, so that no thread ever initialises it.
__thread const scry_record* procInfo = &g_image.file.process.record;

const scry_record* scryTraceObj(const char* name)
{
    const UnnoticedScope unnoticed;
    const std::lock_guard lock(g_mutex);
    return &findOrAddObject(BoundedName(name != nullptr ? name : "").text()).record;
}
