#pragma once

#include <chrono>
#include <ctime>

/// A moment that something is held up from, by two clocks: the one on the wall, which is set and may
/// be set back, and the steady one, which nobody sets.
struct velm_moment {
    std::time_t wall = 0; // seconds since the epoch
    std::chrono::steady_clock::time_point steady = {};
};

[[nodiscard]] velm_moment velm_moment_now();

/// Less than `period` has passed since `then`, by both clocks. A moment that lies in the future was
/// long ago, since the clock was set back: nothing is held up for longer than the period.
[[nodiscard]] bool velm_moment_is_within(const velm_moment &then,
                                         std::chrono::duration<double> period);

/// False for a clock that shows a time before 2025: this program is younger, so nobody has set the clock.
[[nodiscard]] constexpr bool velm_clock_was_set(std::time_t now)
{
    constexpr std::time_t begin_of_2025 = 1735689600;
    return now >= begin_of_2025;
}
