#pragma once

#include <string>

#include "tools/options/velmctl_options.h"

/// Tells what happens as it happens, until the daemon ends and does not come back. Gives the exit status.
[[nodiscard]] int explain_follow(const velmctl_options &options, const std::string &path);
