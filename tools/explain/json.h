#pragma once

#include <cstddef>
#include <set>
#include <string>

#include "handles/cjson.h"
#include "tools/control/rounds.h"
#include "tools/explain/names.h"

/// Stories for programs: the daemon's document, with two members more in each round, "story" (a list of
/// sentences) and "remedy" (a text or null).

/// `rounds` is what was read from `document`.
void explain_add_stories(cJSON *document, const control_rounds &rounds, const explain_names &names);

void explain_leave_newest(cJSON *document, std::size_t count);

/// Leaves of the lists what is not in `seen`, which becomes what is in them now. True when anything is
/// left.
[[nodiscard]] bool explain_leave_new(cJSON *document, std::set<std::string> &seen);
