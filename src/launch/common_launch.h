#pragma once

#include <memory>
#include <string>

#include "launch/process.h"

/// A command under way. After common_launch_time it is ended and has failed. The command writes into a
/// pipe. If nobody reads, it may block.
struct common_launched {
    std::unique_ptr<common_launch_process> pipe; // null when it could not be started
    int error = 0;                               // why not
};

/// Starts a shell command and returns at once.
[[nodiscard]] common_launched common_launch_begin(const char *command);

/// Waits for its end; what `common_launch` returns.
[[nodiscard]] int common_launch_end(common_launched launched, int *status, std::string *output);

/// Runs a shell command to its end. It blocks meanwhile, for up to common_launch_time.
/// Part of the interface; only tests call it.
/// 0 when it ended normally: `status` then holds the raw wait status and `output` what it printed
/// (both may be null). -2 for a null command, -3 for every other failure; `output` is then empty.
[[nodiscard]] int common_launch(const char *command, int *status, std::string *output);
