#pragma once

#include <string>
#include <vector>

#include "tools/control/status.h"

/// What a reload has changed: one sentence each, fit for a terminal. Empty: nothing that the daemon tells.
[[nodiscard]] std::vector<std::string> reload_changes(const control_status &before,
                                                      const control_status &after);
