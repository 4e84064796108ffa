#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

/// Where the file of this path is: "." for a path without a slash.
[[nodiscard]] std::string parent_directory(std::string_view path);

enum class directory_sync {
    none,
    each, // what was made survives a power cut
};

/// Makes the directory and those above it, like mkdir -p; those that are there stay as they are. False
/// with `errno` set on failure: ENOTDIR where a file is in the way.
[[nodiscard]] bool make_directories(const std::string &path, mode_t mode_above, mode_t mode,
                                    directory_sync sync);
