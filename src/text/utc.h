#pragma once

#include <cstdint>
#include <ctime>
#include <optional>

/// Moments in UTC, from seconds since the epoch to date and hour and back, by arithmetic of the calendar.
/// The functions of the C library take a time_t. One of 32 bits ends on 2038-01-19, and the certificate of
/// a device may last longer.

/// The month must be 0 to 11. A day or a second that is too large counts on into what follows. Only date
/// and hour of `parts` are read.
[[nodiscard]] std::int64_t utc_seconds_of(const std::tm &parts);

/// Only date and hour are set; the other members are 0. Nothing for a year that has no four digits.
[[nodiscard]] std::optional<std::tm> utc_parts_of(std::int64_t since_epoch);
