#pragma once

#include <string>
#include <vector>

#include "tools/control/rounds.h"
#include "tools/explain/names.h"
#include "tools/explain/sentences.h"

/// The story of a round in sentences that are fit for a terminal.

struct explain_story {
    std::string title;                  // who asked, and when
    std::vector<std::string> sentences; // in the order of time
    std::string ending;                 // or how long it may go on; may be empty
    std::string cause_label;            // an open round has a cause so far
    std::string cause;                  // why no location came; empty: one came, or may yet
    std::string remedy;                 // empty: there is none
};

[[nodiscard]] explain_story explain_round(const control_round &round, control_moment now,
                                          const explain_names &names,
                                          explain_style style = explain_style::told);

/// A visit outside of the rounds.
[[nodiscard]] std::string explain_visit(const control_visit &visit, control_moment now,
                                        const explain_names &names);

/// What to do about it; empty when it was accepted, or nothing is known.
[[nodiscard]] std::string explain_visit_remedy(const control_visit &visit);
