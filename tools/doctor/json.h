#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/doctor/report.h"

/// The findings as one line of JSON: {"version", "now", "findings": [{"level", "subject", "text",
/// "remedy"}]}. `now` is in milliseconds since the epoch.
[[nodiscard]] std::string doctor_to_json(const std::vector<doctor_line> &lines, std::int64_t now);
