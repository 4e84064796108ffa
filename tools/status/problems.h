#pragma once

#include <string>
#include <vector>

#include "tools/control/status.h"

/// What is wrong with the daemon by its own account: one sentence each, fit for a terminal. Empty: nothing.
[[nodiscard]] std::vector<std::string> velmctl_status_problems(const control_status &status);

/// What the daemon does as it was told, and somebody may not want: the same.
[[nodiscard]] std::vector<std::string> velmctl_status_warnings(const control_status &status);

/// Of them that on the log; empty: none. Fit for a terminal, without a full stop.
[[nodiscard]] std::string velmctl_status_log_warning(const control_status &status);

/// True for a file that was read, is needed and cannot be used.
[[nodiscard]] bool velmctl_status_is_file_wrong(const control_status &status,
                                                const control_file &file);
