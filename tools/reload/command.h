#pragma once

#include "tools/options/velmctl_options.h"

/// Checks the configuration, lets the daemon read it anew and waits until it has. Gives the exit status.
[[nodiscard]] int velmctl_reload(const velmctl_options &options);
