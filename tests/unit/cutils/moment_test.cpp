#include "cutils/moment.h"

#include <gtest/gtest.h>

#include "fakes/fake_clock.h"

namespace {

using std::chrono::seconds;

class Moment : public testing::Test {
  protected:
    Moment()
    {
        fake_clock_set(1700000000);
        then = velm_moment_now();
    }
    ~Moment() override
    {
        fake_clock_reset();
    }

    velm_moment then;
};

TEST_F(Moment, IsWithinAPeriodUntilItsEnd)
{
    EXPECT_TRUE(velm_moment_is_within(then, seconds{60}));
    fake_clock_advance(59);
    EXPECT_TRUE(velm_moment_is_within(then, seconds{60}));
    fake_clock_advance(1);
    EXPECT_FALSE(velm_moment_is_within(then, seconds{60}));
}

TEST_F(Moment, IsNeverWithinAPeriodOfNothing)
{
    EXPECT_FALSE(velm_moment_is_within(then, seconds{0}));
    EXPECT_FALSE(velm_moment_is_within(then, seconds{-1}));
}

TEST_F(Moment, ThatLiesInTheFutureWasLongAgo)
{
    fake_clock_advance(-1);
    EXPECT_FALSE(velm_moment_is_within(then, seconds{60}));
    fake_clock_advance(-3600);
    EXPECT_FALSE(velm_moment_is_within(then, seconds{60}));
}

TEST_F(Moment, IsWithinNoLongerWhenTheClockIsSetBackALittle)
{
    fake_clock_advance(50);
    fake_clock_advance(-40);
    fake_clock_advance_steady(59);
    EXPECT_TRUE(velm_moment_is_within(then, seconds{60}));
    fake_clock_advance_steady(1);
    EXPECT_FALSE(velm_moment_is_within(then, seconds{60}));
}

TEST(Clock, WasSetWhenItShowsTheYear2025OrLater)
{
    EXPECT_FALSE(velm_clock_was_set(0));
    EXPECT_FALSE(velm_clock_was_set(1735689599));
    EXPECT_TRUE(velm_clock_was_set(1735689600));
}

} // namespace
