#include "text/utc.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct utc_case {
    const char *name;
    std::int64_t seconds;
    int year, month, day, hour, minute, second;
};

std::tm parts_of(const utc_case &row)
{
    std::tm parts{};
    parts.tm_year = row.year - 1900;
    parts.tm_mon = row.month - 1;
    parts.tm_mday = row.day;
    parts.tm_hour = row.hour;
    parts.tm_min = row.minute;
    parts.tm_sec = row.second;
    return parts;
}

class Utc : public testing::TestWithParam<utc_case> {};

TEST_P(Utc, CountsSecondsFromTheEpoch)
{
    EXPECT_EQ(utc_seconds_of(parts_of(GetParam())), GetParam().seconds);
}

TEST_P(Utc, GivesDateAndHourBack)
{
    const auto parts = utc_parts_of(GetParam().seconds);
    const std::tm expected = parts_of(GetParam());
    ASSERT_TRUE(parts.has_value());
    EXPECT_EQ(parts->tm_year, expected.tm_year);
    EXPECT_EQ(parts->tm_mon, expected.tm_mon);
    EXPECT_EQ(parts->tm_mday, expected.tm_mday);
    EXPECT_EQ(parts->tm_hour, expected.tm_hour);
    EXPECT_EQ(parts->tm_min, expected.tm_min);
    EXPECT_EQ(parts->tm_sec, expected.tm_sec);
}

INSTANTIATE_TEST_SUITE_P(
    Moments, Utc,
    testing::Values(utc_case{"Epoch", 0, 1970, 1, 1, 0, 0, 0},
                    utc_case{"SecondBeforeTheEpoch", -1, 1969, 12, 31, 23, 59, 59},
                    utc_case{"LeapDay", 1709164800, 2024, 2, 29, 0, 0, 0},
                    utc_case{"LastOf31Bits", 2147483647, 2038, 1, 19, 3, 14, 7},
                    utc_case{"FirstBeyond31Bits", 2147483648, 2038, 1, 19, 3, 14, 8},
                    utc_case{"Year2055", 2682374400, 2055, 1, 1, 0, 0, 0},
                    utc_case{"NoLeapDay", 4107542400, 2100, 3, 1, 0, 0, 0},
                    utc_case{"FirstOfFourDigits", -62167219200, 0, 1, 1, 0, 0, 0},
                    utc_case{"LastOfFourDigits", 253402300799, 9999, 12, 31, 23, 59, 59}),
    [](const auto &row) { return std::string{row.param.name}; });

TEST(UtcDays, EveryDayOfFourHundredYearsFollowsTheOneBefore)
{
    constexpr std::int64_t day = 24 * 60 * 60;
    std::tm before = utc_parts_of(0).value();
    for (std::int64_t moment = day; moment < 146097 * day; moment += day) {
        const std::tm parts = utc_parts_of(moment).value();
        ASSERT_EQ(utc_seconds_of(parts), moment);
        ++before.tm_mday; // one too many counts on into the next month
        ASSERT_EQ(utc_seconds_of(before), moment);
        const auto libc = static_cast<std::time_t>(moment);
        std::tm expected{};
        if (libc == moment) { // a time_t of 32 bits ends in 2038
            gmtime_r(&libc, &expected);
            ASSERT_EQ(parts.tm_year, expected.tm_year);
            ASSERT_EQ(parts.tm_mon, expected.tm_mon);
            ASSERT_EQ(parts.tm_mday, expected.tm_mday);
        }
        before = parts;
    }
}

TEST(UtcParts, AreNoneForAYearWithoutFourDigits)
{
    EXPECT_FALSE(utc_parts_of(-62167219201).has_value());
    EXPECT_FALSE(utc_parts_of(253402300800).has_value());
    EXPECT_FALSE(utc_parts_of(INT64_MAX).has_value());
    EXPECT_FALSE(utc_parts_of(INT64_MIN).has_value());
}

TEST(UtcSeconds, CountOnOverTheEndOfAMonthAndAMinute)
{
    const utc_case first_of_march{"", 0, 2026, 3, 1, 0, 0, 0};
    EXPECT_EQ(utc_seconds_of(parts_of({"", 0, 2026, 2, 29, 0, 0, 0})),
              utc_seconds_of(parts_of(first_of_march)));
    EXPECT_EQ(utc_seconds_of(parts_of({"", 0, 2026, 2, 28, 23, 59, 60})),
              utc_seconds_of(parts_of(first_of_march)));
}

} // namespace
