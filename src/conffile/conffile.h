#pragma once

#include <memory>

#include "handles/config_pairs.h"

/// The configuration file: lines of key=value, "#" comments, at most 4096 bytes.
///
/// Its pairs (handles/config_pairs.h) stand in reverse line order, so the last line of a key is found
/// first.

struct conffile_deleter {
    void operator()(ConfigFile *file) const noexcept;
};
using conffile_ptr = std::unique_ptr<ConfigFile, conffile_deleter>;

/// Reads and parses a file; null (and a log line) when it cannot be opened, is no regular file or
/// one of its lines is no key=value pair: such a file is rejected whole. The last byte read is
/// always dropped, which normally is the last newline.
[[nodiscard]] conffile_ptr conffile_parse(const char *path);

/// The line, counted from 1, for which the last file was rejected; 0 when none was.
[[nodiscard]] unsigned conffile_bad_line();

/// The value of the first pair with exactly this key, or null. Borrowed from the file.
[[nodiscard]] const char *conffile_get_value(const ConfigFile *file, const char *key);
