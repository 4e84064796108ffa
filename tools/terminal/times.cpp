#include "tools/terminal/times.h"

#include <array>
#include <ctime>

#include "text/utc.h"

namespace {

std::tm parts_of(velmctl_moment moment)
{
    const auto seconds = std::chrono::floor<std::chrono::seconds>(moment.time_since_epoch());
    const std::time_t time = static_cast<std::time_t>(seconds.count());
    std::tm parts{};
    // The time zone is the C library's. Beyond its time_t the moment is shown in UTC.
    if (time != seconds.count() || localtime_r(&time, &parts) == nullptr) {
        return utc_parts_of(seconds.count()).value_or(std::tm{});
    }
    return parts;
}

std::string day_of(velmctl_moment moment)
{
    const std::tm parts = parts_of(moment);
    std::array<char, 64> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%d", &parts);
    return text.data();
}

std::string hour_of(velmctl_moment moment)
{
    const std::tm parts = parts_of(moment);
    std::array<char, 64> text{};
    std::strftime(text.data(), text.size(), "%H:%M:%S", &parts);
    return text.data();
}

std::string number(std::int64_t value, const char *unit)
{
    return std::to_string(value) + ' ' + unit;
}

} // namespace

std::string velmctl_time_of(velmctl_moment moment, velmctl_moment now)
{
    return day_of(moment) == day_of(now) ? hour_of(moment) : velmctl_date_of(moment);
}

std::string velmctl_date_of(velmctl_moment moment)
{
    return day_of(moment) + ' ' + hour_of(moment);
}

std::string velmctl_duration_of(std::chrono::seconds duration)
{
    constexpr std::int64_t minute = 60;
    constexpr std::int64_t hour = 60 * minute;
    constexpr std::int64_t day = 24 * hour;
    const std::int64_t seconds = duration.count();
    if (seconds < minute) {
        return number(seconds, "s");
    }
    if (seconds < hour) {
        return number(seconds / minute, "min");
    }
    if (seconds < 2 * day) {
        return number(seconds / hour, "h ") + number(seconds % hour / minute, "min");
    }
    return number(seconds / day, "days");
}

std::string velmctl_count_of(std::int64_t count, const char *one, const char *many)
{
    return std::to_string(count) + ' ' + (count == 1 ? one : many);
}
