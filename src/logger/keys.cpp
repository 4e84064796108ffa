#include "logger/keys.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>

namespace {

constexpr std::array<const char *, 6> level_names{"TRACE", "DEBUG", "INFO",
                                                  "WARN",  "ERROR", "SYSLOG"};

// In the order of logger_key.
constexpr const char *key_names[] = {"enabled",      "level",       "stdout",
                                     "syslog",       "file",        "file.name",
                                     "file.maxsize", "lineandfile", "syslog.ident"};
static_assert(std::size(key_names) == static_cast<std::size_t>(logger_key::category));

// In the same order. velm_config resets the logger to them.
constexpr const char *standards[] = {"no", "error",    "no", "no",   "no",
                                     "",   "16777216", "no", "velmd"};
static_assert(std::size(standards) == std::size(key_names));

} // namespace

logger_key logger_key_of(std::string_view key)
{
    if (key.starts_with(logger_category_prefix)) {
        return logger_key::category;
    }
    const auto *const found = std::find(std::begin(key_names), std::end(key_names), key);
    return found == std::end(key_names) ? logger_key::unknown
                                        : static_cast<logger_key>(found - std::begin(key_names));
}

std::span<const char *const> logger_keys()
{
    return key_names;
}

std::span<const char *const> logger_standards()
{
    return standards;
}

std::optional<bool> logger_truth(std::string_view value)
{
    if (value == "true" || value == "yes") {
        return true;
    }
    if (value == "false" || value == "no" || value == "0") {
        return false;
    }
    return std::nullopt;
}

std::optional<int> logger_level(const char *name)
{
    for (std::size_t i = 0; i < level_names.size(); ++i) {
        if (strcasecmp(name, level_names[i]) == 0) {
            return static_cast<int>(i);
        }
    }
    return std::nullopt;
}

const char *logger_level_name(int level)
{
    const auto last = static_cast<int>(level_names.size()) - 1;
    return level_names[static_cast<std::size_t>(std::clamp(level, 0, last))];
}

std::optional<std::uint64_t> logger_size(std::string_view value)
{
    std::uint64_t size = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), size);
    const bool is_size = error == std::errc{} && end == value.data() + value.size();
    return is_size ? std::optional{size} : std::nullopt;
}
