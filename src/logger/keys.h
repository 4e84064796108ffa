#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

/// The keys of the logger, as they stand behind "logger." in the configuration file, and what their values
/// mean.

enum class logger_key {
    enabled,
    level,
    to_stdout,
    to_syslog,
    to_file,
    file_name,
    file_max_size,
    line_and_file,
    syslog_ident,
    category, // "category.NAME"
    unknown,
};

[[nodiscard]] logger_key logger_key_of(std::string_view key);

/// Every key but those of the categories.
[[nodiscard]] std::span<const char *const> logger_keys();

/// Their values without a line in the file, as such a line would have them.
[[nodiscard]] std::span<const char *const> logger_standards();

/// What each of them begins with in the file.
inline constexpr std::string_view logger_prefix = "logger.";

inline constexpr std::string_view logger_category_prefix = "category.";

/// True for "true" and "yes", false for "false", "no" and "0"; nothing for another text, which counts as
/// false.
[[nodiscard]] std::optional<bool> logger_truth(std::string_view value);

/// A level by its name in any case; nothing for another text, which counts as LOG_LEVEL_MUTE.
[[nodiscard]] std::optional<int> logger_level(const char *name);
[[nodiscard]] const char *logger_level_name(int level);

/// Digits only.
[[nodiscard]] std::optional<std::uint64_t> logger_size(std::string_view value);
