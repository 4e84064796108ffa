#pragma once

#include <string>

#include "handles/fd.h"

/// Learns of every change in a directory from the kernel, so that a reader need not look at the files
/// before each read. A change that has been made when a call begins is seen by that call: the kernel
/// notes it before whoever made it goes on.
///
/// Where the kernel gives no watch, the directory is never quiet. It holds one descriptor. After a
/// fork only one of the two processes may go on with it.
class nvram_watch {
  public:
    /// True while nothing has happened since `begin`, and what was looked at then was called settled.
    [[nodiscard]] bool is_quiet();

    /// Forgets what has happened and watches from now on. To be followed by a look at the files.
    void begin(const std::string &directory);

    /// What that look has found is what the reader holds.
    void settle();

  private:
    unique_fd events_;
    int directory_ = -1; // the kernel's number of the watched one
    bool settled_ = false;
};
