#pragma once

#include <sys/types.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "handles/fd.h"

/// The file steps that the host platform is made of. A function that returns `int` gives 0 or an
/// errno value. Every descriptor is close-on-exec.

using host_bytes = std::vector<std::uint8_t>;

/// Makes the directory with `mode`, and missing parents with 0755. Each new name is synced into
/// its parent, so that a power cut cannot take the directory away from under a finished commit.
[[nodiscard]] int host_directory_make(const std::string &path, mode_t mode);

[[nodiscard]] int host_directory_open(const std::string &path, unique_fd &directory);

/// The bytes from `from` up to `to`, or up to the end of the file when that comes first.
[[nodiscard]] int host_file_read(int file, off_t from, off_t to, host_bytes &bytes);

/// Writes in one call where the kernel takes it so; the rest follows.
[[nodiscard]] int host_file_write(int file, std::span<const std::uint8_t> bytes);

/// True for the errors that a full disk gives.
[[nodiscard]] bool host_is_want_of_room(int rc);

/// Puts a new file in the place of `name`: whoever opens the name finds the old bytes or the new
/// ones, whole, even after a power cut. Only the directory is not synced yet. `file` is the new
/// one, of mode 0600. When root makes it, it belongs to the owner of the directory.
[[nodiscard]] int host_file_replace(int directory, const std::string &name,
                                    std::span<const std::uint8_t> bytes, unique_fd &file);

/// flock() with an end: ETIMEDOUT after 5 s, so a stopped lock holder cannot hold us for ever. Until
/// a lock is given again, further calls try once and do not wait: a dozen settings in a row cost one
/// wait.
[[nodiscard]] int host_file_lock(int file, int operation);
