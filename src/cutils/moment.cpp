#include "cutils/moment.h"

velm_moment velm_moment_now()
{
    return {std::time(nullptr), std::chrono::steady_clock::now()};
}

bool velm_moment_is_within(const velm_moment &then, std::chrono::duration<double> period)
{
    const velm_moment now = velm_moment_now();
    const std::chrono::seconds passed{now.wall - then.wall};
    return passed.count() >= 0 && passed < period && now.steady - then.steady < period;
}
