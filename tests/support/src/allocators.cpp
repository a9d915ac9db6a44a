/// The allocators of a test program in which memory can run out. Under a sanitizer they stand in front of its
/// own, which look for what was not given back.
#include "shortage.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <link.h>
#include <new>

#ifdef MERLOW_TEST_SANITIZER
#define BELOW(name) __interceptor_##name
#else
#define BELOW(name) __libc_##name
#endif

extern "C" {
void* BELOW(malloc)(std::size_t size);
void* BELOW(calloc)(std::size_t count, std::size_t size);
void* BELOW(realloc)(void* block, std::size_t size);
void BELOW(free)(void* block);
}

namespace {

std::atomic<long> g_live{0};

using support::shortage::isSanitized;

/// The code of protobuf and of what it generates.
class ForeignCode {
public:
    ForeignCode() { dl_iterate_phdr(addLibrary, this); }
    [[nodiscard]] bool contains(const void* place) const
    {
        const auto address = reinterpret_cast<std::uintptr_t>(place);
        for (std::size_t i = 0; i < m_size; ++i) {
            if (address >= m_ranges[i].begin && address < m_ranges[i].end) {
                return true;
            }
        }
        return false;
    }

private:
    struct Range {
        std::uintptr_t begin;
        std::uintptr_t end;
    };
    static int addLibrary(dl_phdr_info* library, std::size_t /*size*/, void* self)
    {
        auto& code = *static_cast<ForeignCode*>(self);
        for (const char* name : {"/libprotobuf.", "/libbri.", "/libbmmi.", "/libswmi."}) {
            for (int i = 0; std::strstr(library->dlpi_name, name) != nullptr && i < library->dlpi_phnum;
                 ++i) {
                const auto& part = library->dlpi_phdr[i];
                const auto begin = library->dlpi_addr + part.p_vaddr;
                if (part.p_type == PT_LOAD && (part.p_flags & PF_X) != 0 && code.m_size < maxRanges) {
                    code.m_ranges[code.m_size++] = {begin, begin + part.p_memsz};
                }
            }
        }
        return 0;
    }

    static constexpr std::size_t maxRanges = 16;
    Range m_ranges[maxRanges] = {};
    std::size_t m_size = 0;
};

SHORTAGE_EARLY bool failsNow(const void* caller)
{
    if (!support::shortage::fails()) {
        return false;
    }
    static const ForeignCode foreign;
    support::shortage::state.isForeign = foreign.contains(caller);
    if (isSanitized && support::shortage::state.isForeign) {
        return false;
    }
    errno = ENOMEM;
    return true;
}

SHORTAGE_EARLY void* counted(void* block)
{
    if (!isSanitized && block != nullptr) {
        g_live.fetch_add(1, std::memory_order_relaxed);
    }
    return block;
}

SHORTAGE_EARLY void* allocate(std::size_t size, const void* caller)
{
    return failsNow(caller) ? nullptr : counted(BELOW(malloc)(size));
}

SHORTAGE_EARLY void release(void* block)
{
    if (!isSanitized && block != nullptr) {
        g_live.fetch_sub(1, std::memory_order_relaxed);
    }
    BELOW(free)(block);
}

SHORTAGE_EARLY void* allocateOrThrow(std::size_t size, const void* caller)
{
    void* block = allocate(size != 0 ? size : 1, caller);
    return block != nullptr ? block : throw std::bad_alloc();
}

} // namespace

long support::shortage::liveBlocks()
{
    return g_live.load(std::memory_order_relaxed);
}

#define CALLER __builtin_return_address(0)
#define INSTEAD extern "C" SHORTAGE_EARLY __attribute__((visibility("default")))
INSTEAD void* malloc(std::size_t size) noexcept
{
    return allocate(size, CALLER);
}
INSTEAD void* calloc(std::size_t count, std::size_t size) noexcept
{
    return failsNow(CALLER) ? nullptr : counted(BELOW(calloc)(count, size));
}
INSTEAD void* realloc(void* block, std::size_t size) noexcept
{
    if (failsNow(CALLER)) {
        return nullptr;
    }
    void* moved = BELOW(realloc)(block, size);
    return block == nullptr ? counted(moved) : moved;
}
#ifndef MERLOW_TEST_SANITIZER
INSTEAD void free(void* block) noexcept
{
    release(block);
}
#endif
#ifdef MERLOW_TEST_SANITIZER
/// What the dynamic linker keeps is known as its own by whom it has called, which is this file now.
INSTEAD const char* __lsan_default_suppressions()
{
    return "leak:ld-linux\nleak:rtld-malloc.h\n";
}
#endif
#undef INSTEAD

void* operator new(std::size_t size)
{
    return allocateOrThrow(size, CALLER);
}
void* operator new[](std::size_t size)
{
    return allocateOrThrow(size, CALLER);
}
void* operator new(std::size_t size, const std::nothrow_t& /*unused*/) noexcept
{
    return allocate(size != 0 ? size : 1, CALLER);
}
void* operator new[](std::size_t size, const std::nothrow_t& /*unused*/) noexcept
{
    return allocate(size != 0 ? size : 1, CALLER);
}
void operator delete(void* block) noexcept
{
    release(block);
}
void operator delete[](void* block) noexcept
{
    release(block);
}
void operator delete(void* block, std::size_t /*size*/) noexcept
{
    release(block);
}
void operator delete[](void* block, std::size_t /*size*/) noexcept
{
    release(block);
}
