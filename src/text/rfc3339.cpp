#include "text/rfc3339.h"

#include <cstdio>
#include <ctime>

#include "text/utc.h"

std::string text_rfc3339(std::int64_t milliseconds)
{
    const std::int64_t fraction = (milliseconds % 1000 + 1000) % 1000;
    const auto parts = utc_parts_of((milliseconds - fraction) / 1000);
    if (!parts) {
        return {};
    }
    char day[32];
    const std::size_t length = std::strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%S", &*parts);
    char rest[8];
    std::snprintf(rest, sizeof rest, ".%03dZ", static_cast<int>(fraction));
    return std::string{day, length} + rest;
}
