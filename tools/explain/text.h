#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/control/rounds.h"
#include "tools/explain/names.h"
#include "tools/terminal/output.h"

/// Stories for people: the newest rounds, the oldest of them first, and what came outside of the rounds
/// last.
[[nodiscard]] std::string explain_to_text(const control_rounds &rounds, std::size_t count,
                                          const explain_names &names, const velmctl_paint &paint);

/// The same as single lines, each of which can be understood alone, for following. `today` is the day whose
/// moments have no date.
[[nodiscard]] std::vector<std::string>
explain_to_lines(const control_rounds &rounds, const explain_names &names, control_moment today);
