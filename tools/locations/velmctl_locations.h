#pragma once

#include "tools/options/velmctl_options.h"

/// The commands that speak with the daemon's location socket. They give the exit status.

[[nodiscard]] int velmctl_locate(const velmctl_options &options);
[[nodiscard]] int velmctl_watch(const velmctl_options &options);
