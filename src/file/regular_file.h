#pragma once

#include "handles/file.h"

/// Opens a regular file for reading, or gives null with the reason in errno. A FIFO, a socket or a
/// device, where opening or reading could block the loop for ever, is refused with EINVAL, a
/// directory with EISDIR. A null path is refused with EINVAL.
[[nodiscard]] stdio_file open_regular_file(const char *path);
