#pragma once

#include <ctime>

/// Stands in for time(): the real clock until a test sets one. gettimeofday and clock_gettime stay
/// real.

void fake_clock_set(std::time_t now);
void fake_clock_advance(std::time_t seconds);
/// time() returns -1 from now on.
void fake_clock_break();
/// Back to the real clock.
void fake_clock_reset();
