#pragma once

#include <chrono>
#include <cstdint>
#include <string>

/// Moments and durations as people read them, in the time zone of who reads.
/// What is beyond the time_t of the C library is shown in UTC.

using velmctl_moment = std::chrono::sys_time<std::chrono::milliseconds>;

/// "12:03:01" on the day of `now`, else "2026-11-21 12:03:01".
[[nodiscard]] std::string velmctl_time_of(velmctl_moment moment, velmctl_moment now);

/// "2026-11-21 12:03:01"
[[nodiscard]] std::string velmctl_date_of(velmctl_moment moment);

/// "3 days", "2 h 5 min", "4 min", "12 s"
[[nodiscard]] std::string velmctl_duration_of(std::chrono::seconds duration);

/// "1 push", "2 pushes"
[[nodiscard]] std::string velmctl_count_of(std::int64_t count, const char *one, const char *many);
