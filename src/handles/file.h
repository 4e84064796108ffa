#pragma once

#include <cstdio>

#include "handles/handle.h"

/// A C stream.
using stdio_file = handle<std::FILE, std::fclose>;

/// The reading end of a command started by popen; letting go waits for the command's end.
using command_pipe = handle<std::FILE, pclose>;
