#pragma once

#include <sys/types.h>

#include "handles/fd.h"

/// The pid file of a daemon in the background: "%ld\n", mode 0644. The running daemon holds a
/// lock on it for as long as it lives, its children by fork included. So a second daemon for the same
/// file is noticed, and a file that a dead daemon left is taken over. The kernel lets go of the lock;
/// nobody removes the file.

struct velm_pid_file {
    unique_fd file; // none: it cannot be opened, or another process holds it
    bool is_held_by_other = false;
    long holder = 0;     // its pid; 0 when the file does not say
    mode_t mode_was = 0; // when it granted more than 0644; 0 when it did not
};

/// Opens and locks the file, and empties it: its pid is nobody's now. A file that another process holds
/// stays as it is. The mode of a file that is taken over is narrowed to at most 0644. A relative path counts
/// from "/". A symbolic link there is followed only if it belongs to root or to the user of this process. A
/// file that is not regular is not locked, nor is a file of a file system without locks.
[[nodiscard]] velm_pid_file velm_pid_file_claim(const char *path);

/// Writes the pid of this process. False when that fails.
[[nodiscard]] bool velm_pid_file_write(const velm_pid_file &claimed);
