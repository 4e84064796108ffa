#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

/// The file that log lines are appended to. It is opened for every line, so it may be renamed or removed
/// at any time: the next line begins a new one. Nothing here waits or allocates.

/// A longer name is cut by whoever sets it.
inline constexpr std::size_t log_file_name_max = 255;

/// Weeks of INFO lines, or a day's TRACE of a busy household; with the file before it twice as much.
inline constexpr std::uint64_t log_file_default_max_size = 16 * 1024 * 1024;

/// Appends the line. A regular file that it would make longer than `max_size` is first renamed to
/// NAME.1 and begun anew; where it cannot be renamed, it is emptied. 0: the file is never touched. True
/// when the file has the whole line.
bool log_file_append(const char *name, std::uint64_t max_size, std::string_view line);

/// What an earlier run left of the file and of NAME.1 grants no more than mode 0640 from now on. The
/// mode that the file had when it granted more, else 0.
mode_t log_file_narrow(const char *name);

/// True when all of it was written.
bool log_file_write_all(int file, std::string_view text);
