// A trace site of the server's own making, switched off: what it adds to a loop that does nothing.

#include "merlowTrace.h"
#include "role.h"

#include <ctime>

/// The macros look at the server's trace object; this program has one of its own in its place.
const scry_record* MerlowTraceObj = nullptr;

namespace merlow::bench {

namespace {

constexpr std::size_t passes = 20'000'000;

double cpuNow()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

double perPass(double start)
{
    return (cpuNow() - start) / static_cast<double>(passes);
}

/// Level 5 is off unless it is asked for, and bit 21 of the process mask is on: both masks are tested.
double withSite()
{
    const double start = cpuNow();
    for (std::size_t i = 0; i < passes; ++i) {
        asm volatile("" : : "r"(i) : "memory");
        SCRY_OBJ_TRACE(5, "pass " << i);
    }
    return perPass(start);
}

double withoutSite()
{
    const double start = cpuNow();
    for (std::size_t i = 0; i < passes; ++i) {
        asm volatile("" : : "r"(i) : "memory");
    }
    return perPass(start);
}

} // namespace

int playTraceSite(const RoleArguments&)
{
    MerlowTraceObj = scryTraceObj("bench");
    line::say("ready");
    while (const auto order = line::next()) {
        line::say(std::to_string(*order == "site" ? withSite() : withoutSite()));
    }
    return 0;
}

} // namespace merlow::bench
