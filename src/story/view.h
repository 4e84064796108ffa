#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "story/events.h"

/// What is remembered. The pointers are good until the next event is told.

struct story_round_view {
    const story_round *round;
    std::vector<const story_push *> pushes; // oldest first, like the other lists of a round
    std::vector<const story_visit *> visits;
    std::vector<const story_report *> reports;
    /// How many are not in the lists any more.
    std::uint64_t forgotten_pushes, forgotten_visits, forgotten_reports;
};

struct story_view {
    std::uint64_t latest;
    std::vector<story_round_view> rounds; // newest first
    std::vector<const story_visit *>
        visits; // of phones that came unasked, pairings, refusals before a
                // route; newest first
};
[[nodiscard]] story_view story_look();

/// Grows with each change. 0 before the first.
[[nodiscard]] std::uint64_t story_latest();

/// Called after each change. One callback; null ends it. It must not tell events itself.
void story_subscribe(void (*callback)());

/// The name of a state and of a cause, as the control socket gives them.
[[nodiscard]] const char *story_state_name(story_state state);
[[nodiscard]] const char *story_cause_name(story_cause cause);

/// Why no location came, as far as the round tells by now.
[[nodiscard]] story_cause story_cause_of(const story_round &round);

/// The same as one sentence, without the full stop.
[[nodiscard]] std::string story_cause_text(const story_round &round);

/// Why its push run was left out or came to nothing, as a sentence; empty when neither is so.
[[nodiscard]] std::string story_run_text(const story_round &round);

/// How much memory is set aside for all of it.
[[nodiscard]] std::size_t story_size();
