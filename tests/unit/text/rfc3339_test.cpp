#include "text/rfc3339.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

TEST(Rfc3339, IsUtcWithMilliseconds)
{
    EXPECT_EQ(text_rfc3339(1795348990123), "2026-11-22T12:03:10.123Z");
    EXPECT_EQ(text_rfc3339(1000), "1970-01-01T00:00:01.000Z");
}

TEST(Rfc3339, IsUtcInEveryTimeZone)
{
    setenv("TZ", "Asia/Kolkata", 1);
    tzset();
    EXPECT_EQ(text_rfc3339(1795348990123), "2026-11-22T12:03:10.123Z");
    unsetenv("TZ");
    tzset();
}

TEST(Rfc3339, OfAMomentIn2055IsThatMoment)
{
    EXPECT_EQ(text_rfc3339(2682374400123), "2055-01-01T00:00:00.123Z");
}

TEST(Rfc3339, HasNoTextForAYearWithoutFourDigits)
{
    EXPECT_EQ(text_rfc3339(253402300799999), "9999-12-31T23:59:59.999Z");
    EXPECT_EQ(text_rfc3339(253402300800000), "");
}

TEST(Rfc3339, OfAMomentBefore1970CountsMillisecondsForward)
{
    EXPECT_EQ(text_rfc3339(-1), "1969-12-31T23:59:59.999Z");
}

} // namespace
