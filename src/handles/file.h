#pragma once

#include <cerrno>
#include <cstdio>

#include "handles/exhaustion.h"
#include "handles/handle.h"

/// A C stream.
using stdio_file = handle<std::FILE, std::fclose>;

/// A stream just opened, or null as it came; want of memory ends the process. Without memory for its
/// buffer a stream works on, byte by byte.
inline std::FILE *opened_stream(std::FILE *stream)
{
    memory_is_exhausted_if(stream == nullptr && errno == ENOMEM);
    return stream;
}
