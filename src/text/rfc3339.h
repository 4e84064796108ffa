#pragma once

#include <cstdint>
#include <string>

/// "2026-11-22T12:03:10.123Z" for milliseconds since the epoch: UTC, whatever the time zone is. Empty for a
/// year that has no four digits.
[[nodiscard]] std::string text_rfc3339(std::int64_t milliseconds);
