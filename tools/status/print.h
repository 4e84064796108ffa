#pragma once

#include <string>

#include "tools/control/rounds.h"
#include "tools/control/status.h"
#include "tools/terminal/output.h"

/// The status for people: aligned lines, the phones, the settings that are not defaults, and at the end
/// what is wrong, and why the last round brought no location. `rounds` is null when they are not known.
[[nodiscard]] std::string velmctl_status_to_text(const control_status &status,
                                                 const control_rounds *rounds,
                                                 const velmctl_paint &paint);
