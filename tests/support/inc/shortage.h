/// Memory that runs out: one allocation of the calling thread fails, and those before and behind it do not.
///
/// Counted, and failed, are `operator new` and, in programs that have `allocators.cpp` among their sources,
/// malloc, calloc and realloc; only while a `Watch` lives, and not within a `Pause`.
#pragma once

#include <cstddef>
#include <cstdlib>

// Allocations come before a sanitizer is ready for what it has put into the code.
#ifdef __clang__
#define SHORTAGE_EARLY __attribute__((no_sanitize("address", "thread")))
#else
#define SHORTAGE_EARLY
#endif

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define MERLOW_TEST_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define MERLOW_TEST_SANITIZER 1
#endif
#endif

namespace support::shortage {

/// A test that has each allocation fail in turn has only some of them fail where it takes long.
#ifdef MERLOW_TEST_SANITIZER
inline constexpr bool isSanitized = true;
inline constexpr std::size_t stride = 7;
#else
inline constexpr bool isSanitized = false;
inline constexpr std::size_t stride = 1;
#endif

struct State {
    bool isWatched = false;
    unsigned int pauses = 0;
    std::size_t count = 0;
    std::size_t failing = 0; ///< the one that fails, counted from 1; 0 for none
    bool isTrap = false;     ///< abort there instead, for a debugger
    bool isForeign = false;  ///< it was one of protobuf's, which loses blocks then
};

inline thread_local State state;

/// Counts the allocations from here on anew, and has the one of this number fail; 0 for none.
///
/// With SHORTAGE_TRAP=N in its environment the program aborts where it would fail allocation N.
inline void begin(std::size_t failing)
{
    const char* trap = std::getenv("SHORTAGE_TRAP");
    state.isTrap = trap != nullptr && std::strtoul(trap, nullptr, 10) == failing;
    state.count = 0;
    state.failing = failing;
    state.isForeign = false;
}

/// How many there were since `begin`.
inline std::size_t count()
{
    return state.count;
}

/// Whether the one that has to fail has come.
inline bool hasFailed()
{
    return state.failing != 0 && state.count >= state.failing;
}

/// For the allocators: whether this one has to fail. For a call of the in-memory platform, which allocates in
/// the real one: the same, asked under the call's own pause.
SHORTAGE_EARLY inline bool fails(unsigned int pauses = 0)
{
    if (!state.isWatched || state.pauses != pauses || ++state.count != state.failing) {
        return false;
    }
    if (state.isTrap) {
        std::abort();
    }
    return true;
}

/// Whether it was one of protobuf's, which loses blocks then. Under a sanitizer those do not fail.
inline bool wasForeign()
{
    return state.isForeign;
}

/// The code under test runs; also when a pause of the test's has led to it.
class Watch {
public:
    Watch()
    {
        state.isWatched = true;
        state.pauses = 0;
    }
    ~Watch()
    {
        state.isWatched = m_before;
        state.pauses = m_pauses;
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

private:
    bool m_before = state.isWatched;
    unsigned int m_pauses = state.pauses;
};

/// It calls something that belongs to the test.
class Pause {
public:
    Pause() { ++state.pauses; }
    ~Pause() { --state.pauses; }
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;
};

/// Blocks that the process holds; under a sanitizer, which looks for itself, this says nothing. Only in
/// programs with `allocators.cpp`.
long liveBlocks();

} // namespace support::shortage
