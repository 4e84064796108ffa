#pragma once

#include "tools/options/velmctl_options.h"

/// Tells why no location came. Gives the exit status.
[[nodiscard]] int velmctl_explain(const velmctl_options &options);
