#include "text/utc.h"

namespace {

constexpr int year_of_tm = 1900; // what tm_year counts from
constexpr std::int64_t day_seconds = 24 * 60 * 60;

// The calendar repeats after 400 years. A year that begins in March has its leap day at its end, so the days
// before each month are always the same. By Howard Hinnant's "chrono-Compatible Low-Level Date Algorithms",
// days_from_civil and civil_from_days: <chrono> has the calendar from GCC 11 on only.
constexpr std::int64_t era_years = 400;
constexpr std::int64_t era_days = 146097;
constexpr std::int64_t march_of_year_0 = -719468; // days from the epoch

/// Rounds down, also below zero.
constexpr std::int64_t whole(std::int64_t number, std::int64_t divisor)
{
    return (number >= 0 ? number : number - divisor + 1) / divisor;
}

/// From the epoch to a day of that month, 0 to 11.
constexpr std::int64_t days_to(std::int64_t year, int month, int day)
{
    const std::int64_t from_march = month < 2 ? month + 10 : month - 2;
    const std::int64_t march_year = month < 2 ? year - 1 : year;
    const std::int64_t era = whole(march_year, era_years);
    const std::int64_t year_of_era = march_year - era * era_years;
    const std::int64_t day_of_year = (153 * from_march + 2) / 5 + day - 1;
    return march_of_year_0 + era * era_days + year_of_era * 365 + year_of_era / 4 -
           year_of_era / 100 + day_of_year;
}

void set_date(std::tm *parts, std::int64_t days)
{
    const std::int64_t from_march_of_0 = days - march_of_year_0;
    const std::int64_t era = whole(from_march_of_0, era_days);
    const std::int64_t day_of_era = from_march_of_0 - era * era_days;
    const std::int64_t year_of_era =
        (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    const std::int64_t day_of_year =
        day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const std::int64_t from_march = (5 * day_of_year + 2) / 153;
    const bool is_next_year = from_march >= 10;
    const std::int64_t year = era * era_years + year_of_era + (is_next_year ? 1 : 0);
    parts->tm_year = static_cast<int>(year) - year_of_tm;
    parts->tm_mon = static_cast<int>(is_next_year ? from_march - 10 : from_march + 2);
    parts->tm_mday = static_cast<int>(day_of_year - (153 * from_march + 2) / 5 + 1);
}

constexpr std::int64_t begin = days_to(0, 0, 1) * day_seconds;
constexpr std::int64_t end = days_to(10000, 0, 1) * day_seconds;

} // namespace

std::int64_t utc_seconds_of(const std::tm &parts)
{
    const std::int64_t days =
        days_to(std::int64_t{parts.tm_year} + year_of_tm, parts.tm_mon, parts.tm_mday);
    return ((days * 24 + parts.tm_hour) * 60 + parts.tm_min) * 60 + parts.tm_sec;
}

std::optional<std::tm> utc_parts_of(std::int64_t since_epoch)
{
    if (since_epoch < begin || since_epoch >= end) {
        return std::nullopt;
    }
    const std::int64_t days = whole(since_epoch, day_seconds);
    const auto second_of_day = static_cast<int>(since_epoch - days * day_seconds);
    std::tm parts{};
    set_date(&parts, days);
    parts.tm_hour = second_of_day / 3600;
    parts.tm_min = second_of_day / 60 % 60;
    parts.tm_sec = second_of_day % 60;
    return parts;
}
