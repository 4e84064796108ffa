#pragma once

#include <string>

#include "tools/options/velmctl_options.h"
#include "tools/reload/daemon.h"

/// Looks at what the daemon would read, with its command line and, for root, with its rights. All that is
/// wrong is said; false then.
[[nodiscard]] bool reload_check(const velmctl_options &options, const reload_daemon &daemon);

/// Why a new port would end the daemon; empty when none would.
[[nodiscard]] std::string reload_port_problem(const velmctl_options &options,
                                              const control_status &status);
