#pragma once

#include "tools/options/velmctl_options.h"

/// The commands that show what the daemon says of itself. They give the exit status.

[[nodiscard]] int velmctl_status(const velmctl_options &options);
[[nodiscard]] int velmctl_metrics(const velmctl_options &options);
