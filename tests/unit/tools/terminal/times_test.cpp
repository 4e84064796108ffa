#include "tools/terminal/times.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

using namespace std::chrono_literals;

class TerminalTimes : public testing::Test {
  protected:
    TerminalTimes()
    {
        setenv("TZ", "UTC-2", 1); // two hours ahead
        tzset();
    }

    const velmctl_moment midday{1795348800s}; // 2026-11-22 12:00:00 UTC
};

TEST_F(TerminalTimes, OnTheSameDayTheHourIsEnough)
{
    EXPECT_EQ(velmctl_time_of(midday + 999ms, midday), "14:00:00");
}

TEST_F(TerminalTimes, AnotherDayHasItsDateByTheClockOfWhoReads)
{
    EXPECT_EQ(velmctl_time_of(midday + 9h + 59min, midday), "23:59:00");
    EXPECT_EQ(velmctl_time_of(midday + 10h, midday), "2026-11-23 00:00:00");
}

TEST_F(TerminalTimes, AMomentBeforeTheEpochIsAMomentToo)
{
    EXPECT_EQ(velmctl_date_of(velmctl_moment{-1ms}), "1970-01-01 01:59:59");
}

TEST_F(TerminalTimes, ADateIn2055IsShownWhateverTheCLibraryCanHold)
{
    // By the clock of the reader, or in UTC where time_t ends in 2038.
    EXPECT_EQ(velmctl_date_of(velmctl_moment{2682374400s}),
              sizeof(std::time_t) > 4 ? "2055-01-01 02:00:00" : "2055-01-01 00:00:00");
}

TEST(TerminalDurations, HaveTheUnitThatMatters)
{
    EXPECT_EQ(velmctl_duration_of(0s), "0 s");
    EXPECT_EQ(velmctl_duration_of(59s), "59 s");
    EXPECT_EQ(velmctl_duration_of(60s), "1 min");
    EXPECT_EQ(velmctl_duration_of(3599s), "59 min");
    EXPECT_EQ(velmctl_duration_of(3600s), "1 h 0 min");
    EXPECT_EQ(velmctl_duration_of(48h - 1s), "47 h 59 min");
    EXPECT_EQ(velmctl_duration_of(48h), "2 days");
}

TEST(TerminalCounts, OneIsSingular)
{
    EXPECT_EQ(velmctl_count_of(0, "push", "pushes"), "0 pushes");
    EXPECT_EQ(velmctl_count_of(1, "push", "pushes"), "1 push");
    EXPECT_EQ(velmctl_count_of(2, "push", "pushes"), "2 pushes");
}

} // namespace
