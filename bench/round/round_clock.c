/* Preloaded into velmd: time() runs ahead by as many seconds as the first eight bytes of the file
 * VELM_ROUND_CLOCK say. Nothing else changes, and a call costs what it always costs: the file is
 * mapped, and the time is the kernel's page. So rounds can follow one another although velmd
 * pushes only once a minute. */
#define _GNU_SOURCE
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "round_page.h"

static const volatile int64_t *ahead;

__attribute__((constructor(101))) static void find_file(void)
{
    ahead = round_page("VELM_ROUND_CLOCK", sizeof *ahead, O_RDONLY);
}

time_t time(time_t *out)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    const time_t moved = now.tv_sec + (ahead != NULL ? (time_t)*ahead : 0);
    if (out != NULL) {
        *out = moved;
    }
    return moved;
}
