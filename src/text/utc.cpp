#include "text/utc.h"

#include <chrono>

namespace {

using std::chrono::days;
using std::chrono::seconds;
using std::chrono::sys_days;
using std::chrono::sys_seconds;
using std::chrono::year_month_day;

constexpr int year_of_tm = 1900; // what tm_year counts from
constexpr sys_seconds begin = sys_days{std::chrono::year{0} / 1 / 1};
constexpr sys_seconds end = sys_days{std::chrono::year{10000} / 1 / 1};

} // namespace

std::int64_t utc_seconds_of(const std::tm &parts)
{
    const year_month_day first{std::chrono::year{parts.tm_year + year_of_tm},
                               std::chrono::month{static_cast<unsigned>(parts.tm_mon) + 1},
                               std::chrono::day{1}};
    const sys_seconds moment = sys_days{first} + days{parts.tm_mday - 1} +
                               std::chrono::hours{parts.tm_hour} +
                               std::chrono::minutes{parts.tm_min} + seconds{parts.tm_sec};
    return moment.time_since_epoch().count();
}

std::optional<std::tm> utc_parts_of(std::int64_t since_epoch)
{
    const sys_seconds moment{seconds{since_epoch}};
    if (moment < begin || moment >= end) {
        return std::nullopt;
    }
    const sys_days midnight = std::chrono::floor<days>(moment);
    const year_month_day date{midnight};
    const std::chrono::hh_mm_ss hour{moment - midnight};
    std::tm parts{};
    parts.tm_year = static_cast<int>(date.year()) - year_of_tm;
    parts.tm_mon = static_cast<int>(static_cast<unsigned>(date.month())) - 1;
    parts.tm_mday = static_cast<int>(static_cast<unsigned>(date.day()));
    parts.tm_hour = static_cast<int>(hour.hours().count());
    parts.tm_min = static_cast<int>(hour.minutes().count());
    parts.tm_sec = static_cast<int>(hour.seconds().count());
    return parts;
}
