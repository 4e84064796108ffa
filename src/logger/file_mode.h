#pragma once

#include <sys/types.h>

/// Takes away what the mode of a regular file of this user grants beyond `most`. An earlier version
/// left the log and the pid file writable for everybody. The mode that the file had; 0 when it stays as it is.
mode_t file_mode_narrow(int file, mode_t most);
