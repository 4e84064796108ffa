#pragma once

#include <memory>
#include <string>
#include <vector>

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

/// What the parser made of one line that is neither empty nor a comment.
struct conffile_line {
    unsigned number = 0; // counted from 1
    bool is_pair = true; // false: the file is rejected for it, and the rest here is empty
    std::string key = {};
    std::string value = {};
    std::string behind_key = {}; // words that are left out
    std::string behind_value = {};
    bool is_open = false; // a quote is never closed
};

/// What the parser made of a file.
struct conffile_account {
    int error = 0; // why it cannot be opened
    std::vector<conffile_line> lines = {};
    unsigned last_line = 0; // the number of the last line that was read
    bool is_cut = false;    // the file is longer than what is read
    bool has_nul = false;   // in the last line: nothing behind it is looked at
    char lost = '\0';       // the last byte, unless it is the end of a line
    bool ends_in_comment = false;
};

/// Parses a file in the same way, and tells what became of each line. A bad line does not end it: the
/// result has the good ones. Null when the file cannot be opened.
[[nodiscard]] conffile_ptr conffile_account_for(const char *path, conffile_account *account);

/// The line, counted from 1, for which the last file was rejected; 0 when none was.
[[nodiscard]] unsigned conffile_bad_line();

/// The value of the first pair with exactly this key, or null. Borrowed from the file.
[[nodiscard]] const char *conffile_get_value(const ConfigFile *file, const char *key);
