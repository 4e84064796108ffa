#pragma once

#include <string>

/// Runs a shell command to its end and blocks meanwhile: only for start-up and reload.
/// 0 when it ended normally: `status` then holds the raw wait status and `output` what it printed
/// (both may be null). -2 for a null command, -3 for every other failure; `output` is then empty.
[[nodiscard]] int common_launch(const char *command, int *status, std::string *output);
