#pragma once

#include <optional>
#include <string>
#include <string_view>

/// Replaces the file's content by `text` or leaves it as it was: the text goes into PATH.tmp,
/// which is then renamed. False (and a log line) on failure.
[[nodiscard]] bool common_file_save_to_file(const char *path_to_file, std::string_view text);

/// The whole file, or nothing (and a WARN line).
[[nodiscard]] std::optional<std::string> read_binary_file(const char *path);

[[nodiscard]] bool common_file_exists(const char *path);
