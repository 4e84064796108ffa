#pragma once

#include <string>

#include "tools/doctor/report.h"
#include "tools/options/velmctl_options.h"
#include "tools/terminal/output.h"

/// Looks at all that a daemon needs, whether it runs or not. Gives the exit status: 0 when all is well, 1
/// after warnings, 2 after failures.
[[nodiscard]] int velmctl_doctor(const velmctl_options &options);

/// One line for each thing, and one for its remedy.
[[nodiscard]] std::string doctor_to_text(const std::vector<doctor_line> &lines,
                                         const velmctl_paint &paint);

/// "9 failures, 6 warnings", or that nothing is wrong.
[[nodiscard]] std::string doctor_summary(const std::vector<doctor_line> &lines);
