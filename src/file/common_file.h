#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

/// A longer file is refused: keys, certificates and the like are a few kilobytes.
inline constexpr std::size_t common_file_size_max = 1024 * 1024;

/// Replaces the file's content by `text` or leaves it as it was: the text goes into PATH.tmp,
/// which is then renamed. False (and a log line) on failure; PATH.tmp may then remain, and the next
/// save removes it. Part of the interface; only tests call it.
[[nodiscard]] bool common_file_save_to_file(const char *path_to_file, std::string_view text);

/// The whole file, or nothing (and a WARN line). Only regular files of at most
/// common_file_size_max bytes are read, so neither a FIFO nor a device can block the loop.
[[nodiscard]] std::optional<std::string> read_binary_file(const char *path);

/// True for a file of any kind, a directory included. A link counts as what it leads to. False for null, and
/// for a file that cannot be looked at.
[[nodiscard]] bool common_file_exists(const char *path);
