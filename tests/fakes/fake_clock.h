#pragma once

#include <ctime>

/// Stands in for time(): the real clock until a test sets one. gettimeofday stays real, and so does
/// clock_gettime but for the steady clock, which a test can put ahead.

void fake_clock_set(std::time_t now);
void fake_clock_advance(std::time_t seconds);
/// From now on each call of time() finds the clock that many seconds later than the call before.
void fake_clock_advance_at_each_reading(std::time_t seconds);
/// The steady clock, which nobody sets, as if that time had passed. For good: it never goes back.
void fake_clock_advance_steady(std::time_t seconds);
/// time() returns -1 from now on.
void fake_clock_break();
/// Back to the real clock.
void fake_clock_reset();
