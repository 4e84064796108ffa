#pragma once

#include <ctime>
#include <string>

/// What became of the key and certificate files that settings name. Whoever reads such a file notes it
/// here; the control socket tells it. Loop thread only.

struct file_note {
    std::string path;
    std::time_t read = 0; // when somebody tried to; 0: nobody did
    std::string why;      // what is wrong; empty: it is used
};

enum class file_reading { tried, left_out };

/// The file of a setting was read now, or is left out: nobody looks at it. `key` is a key of the table of
/// settings, a literal; `why` is null for a file that is used.
void file_note_set(const char *key, const char *path, const char *why,
                   file_reading reading = file_reading::tried);

/// Null when nobody has read a file of that setting.
[[nodiscard]] const file_note *file_note_get(const char *key);
