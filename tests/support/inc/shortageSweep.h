/// Each allocation, and each call of the system that takes something, fails once in turn. For programs that
/// have `allocators.cpp` among their sources, and `systemCalls.cpp` for the latter.
#pragma once

#include "shortage.h"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <initializer_list>

namespace support::shortage {

/// Whether a call that fails with this tells of a shortage.
inline bool isShortage(int error)
{
    for (const int one : {ENOMEM, EMFILE, ENFILE, ENOSPC, ENOBUFS, EROFS, ENOLCK, EAGAIN}) {
        if (error == one) {
            return true;
        }
    }
    return false;
}

/// Makes a call of what is under test until it succeeds: at once, or after the shortage that it told of.
template <class Call> auto insist(const char* what, Call call)
{
    const auto attempt = [&] {
        const Watch watch;
        return call();
    };
    const bool before = hasFailed();
    errno = 0;
    auto result = attempt();
    if (!result) {
        const int error = errno;
        EXPECT_TRUE(!before && hasFailed()) << what << ": " << strerror(error);
        EXPECT_TRUE(isShortage(error)) << what << ": " << strerror(error);
        result = attempt();
        EXPECT_TRUE(result) << what << " again: " << strerror(errno);
    }
    return result;
}

/// `run`, with another one failing each time until there are no more. What `look` gives has to be the
/// same after each run; blocks must not become more. The number of the last that failed: how many there are,
/// or under a sanitizer nearly so many.
template <class Run, class Look> std::size_t failEachOnce(Run run, Look look)
{
    const auto runWith = [&](std::size_t failing) {
        begin(failing);
        run();
        const bool failed = hasFailed();
        begin(0);
        return failed;
    };
    runWith(0); // what is made once for the process is there now
    const auto before = look();
    long blocks = liveBlocks();
    std::size_t last = 0;
    for (std::size_t failing = 1;; failing += stride) {
        const bool failed = runWith(failing);
        EXPECT_EQ(look(), before) << "the " << failing << "th";
        // What grows now and then is made once for the process; what is lost is lost each time.
        int growths = 0;
        for (long left = liveBlocks(); left > blocks && growths < 3; left = liveBlocks()) {
            blocks = left;
            ++growths;
            runWith(failing);
        }
        EXPECT_LT(growths, 3) << "the " << failing << "th leaks";
        blocks = liveBlocks();
        if (::testing::Test::HasFailure()) {
            ADD_FAILURE() << "with the " << failing << "th failing";
            return last;
        }
        if (!failed) {
            return last;
        }
        last = failing;
    }
}

} // namespace support::shortage
