#include "boardClock.h"

#include <gtest/gtest.h>

namespace merlow::board {
namespace {

class BoardClockTest : public testing::Test {
protected:
    std::uint32_t source(TimeAccuracy accuracy) { return *m_clock.registerSource(connection, accuracy); }
    void tell(std::uint32_t ref, std::uint32_t time) { EXPECT_TRUE(m_clock.setTime(connection, ref, time)); }

    static constexpr std::uint32_t connection = 7;
    std::int64_t m_time = 5000;
    BoardClock m_clock{[this] {
        return m_time;
    }};
};

TEST_F(BoardClockTest, beginsWithTheSystemsTime)
{
    EXPECT_EQ(m_clock.now(), 5000);
    EXPECT_EQ(m_clock.believedSource(), 0u);
}

TEST_F(BoardClockTest, theLastOfEqualsCounts)
{
    const auto first = source(TimeAccuracy::normal);
    const auto second = source(TimeAccuracy::normal);
    tell(first, 100);
    tell(second, 200);
    EXPECT_EQ(m_clock.now(), 200);
    tell(first, 300);
    EXPECT_EQ(m_clock.now(), 300);
    EXPECT_EQ(m_clock.believedSource(), first);
}

TEST_F(BoardClockTest, aLessAccurateSourceIsHeardAndNotBelieved)
{
    const auto normal = source(TimeAccuracy::normal);
    const auto reduced = source(TimeAccuracy::reduced);
    tell(normal, 100);
    tell(reduced, 900);
    EXPECT_EQ(m_clock.now(), 100);
    EXPECT_EQ(m_clock.believedSource(), normal);
    EXPECT_EQ(m_clock.sources().entries().at(reduced).value.toldTime, 900u);
}

TEST_F(BoardClockTest, aBetterSourceCountsOnceItHasSpoken)
{
    const auto reduced = source(TimeAccuracy::reduced);
    const auto normal = source(TimeAccuracy::normal);
    tell(reduced, 900);
    EXPECT_EQ(m_clock.now(), 900);
    tell(normal, 100);
    EXPECT_EQ(m_clock.now(), 100);
    EXPECT_EQ(m_clock.believedSource(), normal);
}

TEST_F(BoardClockTest, whenTheBetterSourceGoesTheClockRunsOn)
{
    const auto normal = source(TimeAccuracy::normal);
    const auto reduced = source(TimeAccuracy::reduced);
    tell(normal, 100);
    EXPECT_TRUE(m_clock.unregisterSource(connection, normal));
    m_time += 10;
    EXPECT_EQ(m_clock.now(), 110);
    EXPECT_EQ(m_clock.believedSource(), 0u);
    tell(reduced, 900);
    EXPECT_EQ(m_clock.now(), 900);
}

TEST_F(BoardClockTest, theWholeRangeOfTimesIsKept)
{
    const auto normal = source(TimeAccuracy::normal);
    tell(normal, 0xFFFFFFFFu);
    EXPECT_EQ(m_clock.now(), 0xFFFFFFFFll);
    tell(normal, 0);
    EXPECT_EQ(m_clock.now(), 0);
    EXPECT_EQ(m_clock.offset(), -5000);
}

TEST_F(BoardClockTest, theEndOfAConnectionTakesItsSourcesAlone)
{
    const auto mine = source(TimeAccuracy::normal);
    const auto other = *m_clock.registerSource(8, TimeAccuracy::normal);
    tell(mine, 100);
    m_clock.connectionEnded(connection);
    EXPECT_EQ(m_clock.believedSource(), 0u);
    EXPECT_FALSE(m_clock.setTime(connection, mine, 1));
    EXPECT_TRUE(m_clock.setTime(8, other, 1));
}

} // namespace
} // namespace merlow::board
