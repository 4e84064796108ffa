#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "story/events.h"

/// Where the story is kept. Internal to this folder.

inline constexpr std::size_t story_rounds_kept = 32;
inline constexpr std::size_t story_pushes_kept = 64;
inline constexpr std::size_t story_visits_kept = 96;
inline constexpr std::size_t story_unasked_kept = 64;
inline constexpr std::size_t story_reports_kept = 64;
inline constexpr std::size_t story_touched_kept = 16;

/// Visits in no order; their numbers tell it.
template <std::size_t Size>
struct story_visits {
    std::array<story_visit, Size> places;
    std::uint64_t last = 0; // the number of the newest
    /// The place of the visit that came or was repeated last, of addresses with that rest (visits.cpp).
    std::array<std::uint8_t, story_touched_kept> touched{};
    /// A visit of this number or before is not counted up any more.
    std::uint64_t repeats_end_with = 0;
};

struct story_memory {
    std::uint64_t latest = 0;
    void (*changed)() = nullptr;
    std::array<story_round, story_rounds_kept> rounds;
    std::uint64_t last_round = 0;
    std::size_t waiting = 0; // of the rounds
    std::size_t open = 0;    // of those
    std::array<story_push, story_pushes_kept> pushes;
    std::uint64_t last_push = 0;
    std::uint32_t last_run = 0;
    std::uint32_t asking = 0;                 // the request that the next push run is for
    story_visits<story_visits_kept> visits;   // while a round is open
    story_visits<story_unasked_kept> unasked; // others
    std::uint64_t posted = 0;                 // visits that were accepted at "/location"
    std::array<story_report, story_reports_kept> reports;
    std::uint64_t last_report = 0;
    std::uint32_t sent_to = 0; // clients that got the report that is told next
};
static_assert(sizeof(story_memory) <= std::size_t{56} * 1024);

[[nodiscard]] story_memory &story_kept();

/// After each change.
void story_changed();

/// Made of a device id as far as it is kept; 0 for none.
[[nodiscard]] std::uint32_t story_device_of(const char *device_id);

/// The round in which that phone was pushed to and which was answered less than story_late_limit ago,
/// the newest of them; null when there is none.
[[nodiscard]] story_round *story_round_for_late(const char *device_id);

/// The clock on the wall.
[[nodiscard]] story_moment story_now();

/// The round's line in the log, when it is closed.
void story_round_log(const story_round &round, const char *how);
