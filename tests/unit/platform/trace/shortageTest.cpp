/// Each allocation and each call of the system that takes something fails once, from the load of the trace
/// library on: traces go on or are lost alone, a failure is told by a result, and nothing is left.
#include "shortageSweep.h"
#include "subject.h"

#include "scryTrace.h"

#include <dlfcn.h>
#include <filesystem>
#include <string>
#include <utility>
#ifdef MERLOW_TEST_SANITIZER
#include <sanitizer/lsan_interface.h>
#endif

namespace merlow::test {
namespace {

namespace shortage = support::shortage;

/// The library, in the process for as long as this lives.
class LoadedLibrary {
public:
    LoadedLibrary()
    {
#ifdef MERLOW_TEST_SANITIZER
        // A library that counts what of it runs keeps the name of a file at each load. What the library
        // itself would keep is seen where nothing is counted.
        const __lsan::ScopedDisabler unseen;
#endif
        const shortage::Watch watch;
        m_handle = dlopen(SCRY_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    }
    ~LoadedLibrary()
    {
        if (m_handle != nullptr) {
            dlclose(m_handle);
        }
    }
    LoadedLibrary(const LoadedLibrary&) = delete;
    LoadedLibrary& operator=(const LoadedLibrary&) = delete;

    explicit operator bool() const
    {
        return m_handle != nullptr;
    }
    template <class Function> Function* find(const char* name) const
    {
        auto* const found = reinterpret_cast<Function*>(dlsym(m_handle, name));
        EXPECT_NE(found, nullptr) << name;
        return found;
    }

private:
    void* m_handle;
};

/// All that a process does with its traces.
void life()
{
    const LoadedLibrary library;
    if (!library) { // the dynamic linker's own
        EXPECT_TRUE(shortage::hasFailed());
        return;
    }
    auto* const start = library.find<decltype(scryStart)>("scryStart");
    auto* const object = library.find<decltype(scryTraceObj)>("scryTraceObj");
    auto* const trace = library.find<decltype(lttngScryTrace)>("lttngScryTrace");
    auto* const objectTrace = library.find<decltype(lttngScryIfObjTrace)>("lttngScryIfObjTrace");
    auto* const received = library.find<decltype(lttngScryIfObjRecSigTrace)>("lttngScryIfObjRecSigTrace");
    auto* const format = library.find<decltype(formatStr)>("_Z9formatStrB5cxx11PKcz");
    shortage::insist("start", [start] { return start() == 0; });
    const scry_record* named = nullptr;
    {
        const shortage::Watch watch;
        named = object("an object whose name is no short string at all");
        trace(1, "file", 1, "a text", nullptr);
        objectTrace(5, "file", 2, "a text", nullptr, named);
        received("file", 3, nullptr, "a text", nullptr, named);
        const std::string text = format("%s text that needs memory, %d bytes and more", "a", 40);
        EXPECT_TRUE(text.empty() || text == "a text that needs memory, 40 bytes and more");
        EXPECT_EQ(named, object("an object whose name is no short string at all"));
    }
    EXPECT_NE(named, nullptr);
}

TEST(TraceShortageTest, eachThatFailsIsToldOfOrLosesATraceAlone)
{
    const TempFolder folder;
    setenv("MERLOW_RUN_DIR", (folder / "run").c_str(), 1);
    setenv("MERLOW_GROUP", "", 1);
    setenv("SCRY_LEVELS", "1,4,nonsense that is told of in the log", 1);
    setenv("SCRY_OUT", (folder / "out").c_str(), 1);
    setenv("RUSHLOG_OUT", (folder / "log").c_str(), 1);
    setenv("SCRY_LTTNG", "0", 1);
    const auto look = [&folder] {
        const std::filesystem::directory_iterator fds("/proc/self/fd");
        const auto descriptors = std::distance(begin(fds), end(fds));
        std::filesystem::remove_all(folder / "run/trace"); // the file of a library that is not there any more
        std::filesystem::remove(folder / "log");
        const std::filesystem::recursive_directory_iterator entries(folder.path());
        return std::pair{descriptors, std::distance(begin(entries), end(entries))};
    };
    EXPECT_GT(shortage::failEachOnce(life, look), 30U);
}

} // namespace
} // namespace merlow::test
