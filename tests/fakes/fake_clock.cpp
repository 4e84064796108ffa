#include "fakes/fake_clock.h"

#include <dlfcn.h>

#include <optional>

namespace {
std::optional<std::time_t> fixed_now;
std::time_t step_s;
std::time_t steady_ahead_s;

/// The clock behind this one: the C library's, or that of faketime where a program runs under it.
int clock_gettime_behind(clockid_t clock, timespec *result)
{
    static const auto behind =
        reinterpret_cast<decltype(&clock_gettime)>(dlsym(RTLD_NEXT, "clock_gettime"));
    return behind(clock, result);
}
} // namespace

extern "C" int clock_gettime(clockid_t clock, timespec *result) noexcept
{
    const int rc = clock_gettime_behind(clock, result);
    if (rc == 0 && clock == CLOCK_MONOTONIC) {
        result->tv_sec += steady_ahead_s;
    }
    return rc;
}

extern "C" std::time_t time(std::time_t *result) noexcept
{
    timespec real{};
    clock_gettime(CLOCK_REALTIME, &real);
    const std::time_t now = fixed_now.value_or(real.tv_sec);
    if (step_s != 0) {
        fixed_now = now + step_s;
    }
    if (result != nullptr) {
        *result = now;
    }
    return now;
}

void fake_clock_set(std::time_t now)
{
    fixed_now = now;
}

void fake_clock_advance(std::time_t seconds)
{
    fixed_now = fixed_now.value_or(time(nullptr)) + seconds;
}

void fake_clock_advance_at_each_reading(std::time_t seconds)
{
    step_s = seconds;
}

void fake_clock_advance_steady(std::time_t seconds)
{
    steady_ahead_s += seconds;
}

void fake_clock_break()
{
    fixed_now = -1;
}

void fake_clock_reset()
{
    fixed_now.reset();
    step_s = 0;
}
